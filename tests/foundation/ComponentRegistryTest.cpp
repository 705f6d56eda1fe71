// The registry of components: offering, finding and withdrawing.
#include <Infra/ComponentRegistry.h>

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace Orvex::Infra;

class Component : public IComponent {
public:
    ~Component() override = default;
    void addRef() noexcept override { ++references; }
    void release() noexcept override {
        --references;
        if (on_release != nullptr) {
            on_release();
        }
    }

    std::atomic<int> references{1};
    void (*on_release)() = nullptr;
};

TEST(ComponentRegistry, IsEmptyAtFirst) {
    EXPECT_EQ(nullptr, findComponent("Local", "Console"));
    EXPECT_FALSE(withdrawComponent("Local", "Console"));
}

TEST(ComponentRegistry, HandsOutWhatWasOfferedWithAReferenceForEach) {
    Component component;
    EXPECT_TRUE(offerComponent("Local", "Console", &component));
    EXPECT_EQ(2, component.references);
    EXPECT_EQ(&component, findComponent("Local", "Console"));
    EXPECT_EQ(3, component.references);
    EXPECT_TRUE(withdrawComponent("Local", "Console"));
    EXPECT_EQ(2, component.references) << "whoever has found it keeps it";
    EXPECT_EQ(nullptr, findComponent("Local", "Console"));
    EXPECT_FALSE(withdrawComponent("Local", "Console"));
}

TEST(ComponentRegistry, FamilyAndNameAreComparedExactly) {
    Component first;
    Component second;
    EXPECT_TRUE(offerComponent("Local", "Console", &first));
    EXPECT_TRUE(offerComponent("Other", "Console", &second));
    EXPECT_EQ(&second, findComponent("Other", "Console"));
    EXPECT_EQ(nullptr, findComponent("local", "Console"));
    EXPECT_EQ(nullptr, findComponent("Local", "Consoles"));
    EXPECT_EQ(nullptr, findComponent("Local", ""));
}

TEST(ComponentRegistry, ASecondOfferOfANameIsRefusedAndTheFirstStays) {
    Component first;
    Component second;
    EXPECT_TRUE(offerComponent("Local", "Console", &first));
    EXPECT_FALSE(offerComponent("Local", "Console", &second));
    EXPECT_EQ(1, second.references);
    EXPECT_EQ(&first, findComponent("Local", "Console"));
}

TEST(ComponentRegistry, CopiesTheTexts) {
    Component component;
    std::string family = "Local";
    std::string name = "Console";
    EXPECT_TRUE(offerComponent(family.c_str(), name.c_str(), &component));
    family[0] = name[0] = 'x';
    EXPECT_EQ(&component, findComponent("Local", "Console"));
}

TEST(ComponentRegistry, WrongArgumentsAreRefused) {
    Component component;
    const std::string longest(63, 'n');
    const std::string too_long(64, 'n');
    EXPECT_FALSE(offerComponent(nullptr, "name", &component));
    EXPECT_FALSE(offerComponent("family", nullptr, &component));
    EXPECT_FALSE(offerComponent("family", "name", nullptr));
    EXPECT_FALSE(offerComponent("family", too_long.c_str(), &component));
    EXPECT_FALSE(offerComponent(too_long.c_str(), "name", &component));
    EXPECT_EQ(nullptr, findComponent(nullptr, "name"));
    EXPECT_EQ(nullptr, findComponent("family", nullptr));
    EXPECT_FALSE(withdrawComponent(nullptr, "name"));
    EXPECT_FALSE(withdrawComponent("family", nullptr));
    EXPECT_EQ(1, component.references);
    EXPECT_TRUE(offerComponent(longest.c_str(), longest.c_str(), &component));
    EXPECT_EQ(&component, findComponent(longest.c_str(), longest.c_str()));
}

TEST(ComponentRegistry, HoldsSixtyFourAndHasRoomAgainAfterAWithdrawal) {
    Component component;
    for (int i = 0; i < COMPONENT_LIMIT; ++i) {
        EXPECT_TRUE(offerComponent("Local", std::to_string(i).c_str(), &component));
    }
    EXPECT_FALSE(offerComponent("Local", "one more", &component));
    EXPECT_TRUE(withdrawComponent("Local", "7"));
    EXPECT_TRUE(offerComponent("Local", "one more", &component));
    EXPECT_EQ(&component, findComponent("Local", "63"));
}

// The last release runs code of the product, which may well use the registry.
TEST(ComponentRegistry, ReleasesOutsideOfItsLock) {
    static bool s_was_free = false;
    Component component;
    offerComponent("Local", "Console", &component);
    component.on_release = [] {
        std::thread other([] { s_was_free = findComponent("Local", "Console") == nullptr; });
        other.join();
    };
    EXPECT_TRUE(withdrawComponent("Local", "Console"));
    EXPECT_TRUE(s_was_free);
}

TEST(ComponentRegistry, AnyThreadMayFindWhileOthersOfferAndWithdraw) {
    constexpr int ROUNDS = 500;
    Component component;
    std::vector<std::thread> threads;
    for (int t = 0; t < 2; ++t) {
        threads.emplace_back([&component, t] {
            const std::string name = std::to_string(t);
            for (int i = 0; i < ROUNDS; ++i) {
                EXPECT_TRUE(offerComponent("Local", name.c_str(), &component));
                EXPECT_TRUE(withdrawComponent("Local", name.c_str()));
            }
        });
        threads.emplace_back([t] {
            for (int i = 0; i < ROUNDS; ++i) {
                if (IComponent* const found = findComponent("Local", std::to_string(t).c_str())) {
                    found->release();
                }
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(1, component.references);
}

}  // namespace
