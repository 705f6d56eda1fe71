// The registry of components beside a map: offers, withdrawals, what is found, and every reference.
#include <Infra/ComponentRegistry.h>

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <map>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/SeededRandom.h"

namespace Orvex::Infra {
namespace {

using namespace Testing;

class CountedComponent : public IComponent {
public:
    ~CountedComponent() override = default;
    void addRef() noexcept override { ++references; }
    void release() noexcept override { --references; }

    std::atomic<int> references{1};
};

class RegistryModel : public testing::Test {
protected:
    using Key = std::pair<std::string, std::string>;

    ~RegistryModel() override {
        for (const auto& offer : offers) {
            EXPECT_TRUE(withdrawComponent(offer.first.first.c_str(), offer.first.second.c_str()));
            --expected[offer.second];
        }
        for (size_t i = 0; i < components.size(); ++i) {
            EXPECT_EQ(expected[i], components[i].references);
        }
    }

    Key any_key(SeededRandom& random) {
        static const char* const FAMILIES[] = {"", "Local", "Remote"};
        return {FAMILIES[random.between(0, 2)], std::to_string(random.between(0, 29))};
    }
    void offer(SeededRandom& random) {
        const Key key = any_key(random);
        const size_t number = random.between<size_t>(0, components.size() - 1);
        const bool taken = offers.count(key) != 0;
        const bool room = offers.size() < COMPONENT_LIMIT;
        EXPECT_EQ(!taken && room, offerComponent(key.first.c_str(), key.second.c_str(), &components[number]));
        if (!taken && room) {
            offers[key] = number;
            ++expected[number];
        }
        full = full || !room;
    }
    void withdraw(SeededRandom& random) {
        const Key key = any_key(random);
        const auto found = offers.find(key);
        EXPECT_EQ(found != offers.end(), withdrawComponent(key.first.c_str(), key.second.c_str()));
        if (found != offers.end()) {
            --expected[found->second];
            offers.erase(found);
        }
    }
    void find(SeededRandom& random) {
        const Key key = any_key(random);
        const auto known = offers.find(key);
        IComponent* const found = findComponent(key.first.c_str(), key.second.c_str());
        ASSERT_EQ(known != offers.end() ? &components[known->second] : nullptr, found);
        if (found != nullptr) {
            EXPECT_EQ(expected[known->second] + 1, components[known->second].references);
            found->release();
        }
    }

    std::array<CountedComponent, 5> components;
    std::array<int, 5> expected{1, 1, 1, 1, 1};
    std::map<Key, size_t> offers;
    bool full = false;
};

TEST_F(RegistryModel, FindsWhatIsOfferedAndKeepsOneReferenceOfEach) {
    SeededRandom random;
    for (int i = 0; i < 4000 && !HasFailure(); ++i) {
        SCOPED_TRACE("step " + std::to_string(i));
        // It fills up in the first half and empties in the second.
        const bool fills = i < 2000;
        if (random.oneIn(3)) {
            find(random);
        } else if (random.oneIn(4) == fills) {
            withdraw(random);
        } else {
            offer(random);
        }
        for (size_t c = 0; c < components.size(); ++c) {
            EXPECT_EQ(expected[c], components[c].references);
        }
    }
    EXPECT_TRUE(full) << "the limit was never met";
}

TEST(ComponentRegistry, OneComponentMayHaveSeveralNames) {
    CountedComponent component;
    EXPECT_TRUE(offerComponent("Local", "Console", &component));
    EXPECT_TRUE(offerComponent("Local", "Terminal", &component));
    EXPECT_EQ(3, component.references);
    EXPECT_TRUE(withdrawComponent("Local", "Console"));
    EXPECT_EQ(nullptr, findComponent("Local", "Console"));
    EXPECT_EQ(&component, findComponent("Local", "Terminal"));
    component.release();
    EXPECT_TRUE(withdrawComponent("Local", "Terminal"));
    EXPECT_EQ(1, component.references);
}

// "ab" of "c" is not "b" of "ca".
TEST(ComponentRegistry, FamilyAndNameAreTwoTexts) {
    CountedComponent component;
    EXPECT_TRUE(offerComponent("ab", "c", &component));
    EXPECT_EQ(nullptr, findComponent("a", "bc"));
    EXPECT_EQ(nullptr, findComponent("abc", ""));
    EXPECT_TRUE(offerComponent("", "", &component)) << "empty texts are texts";
    IComponent* const found = findComponent("", "");
    EXPECT_EQ(&component, found);
    found->release();
    EXPECT_TRUE(withdrawComponent("", ""));
    EXPECT_TRUE(withdrawComponent("ab", "c"));
}

TEST(ComponentRegistry, TextsThatAreTooLongAreRefusedInEveryOperation) {
    CountedComponent component;
    const std::string longest(COMPONENT_NAME_LIMIT, 'x');
    const std::string too_long = longest + "x";
    ASSERT_TRUE(offerComponent(longest.c_str(), longest.c_str(), &component));
    EXPECT_EQ(nullptr, findComponent(too_long.c_str(), longest.c_str()));
    EXPECT_EQ(nullptr, findComponent(longest.c_str(), too_long.c_str()));
    EXPECT_FALSE(withdrawComponent(too_long.c_str(), longest.c_str()));
    EXPECT_FALSE(withdrawComponent(longest.c_str(), too_long.c_str()));
    EXPECT_TRUE(withdrawComponent(longest.c_str(), longest.c_str()));
}

// Of several that offer one name one is taken; the registry never counts for another.
TEST(ComponentRegistry, OneOfSeveralOffersOfANameIsTaken) {
    for (int round = 0; round < 100; ++round) {
        std::array<CountedComponent, 3> components;
        std::atomic<int> taken{0};
        std::vector<std::thread> threads;
        for (CountedComponent& component : components) {
            threads.emplace_back(
                [&component, &taken] { taken += offerComponent("Local", "One", &component) ? 1 : 0; });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
        ASSERT_EQ(1, taken);
        IComponent* const found = findComponent("Local", "One");
        int references = 0;
        for (const CountedComponent& component : components) {
            references += component.references;
            EXPECT_EQ(&component == found ? 3 : 1, component.references);
        }
        EXPECT_EQ(5, references);
        EXPECT_TRUE(withdrawComponent("Local", "One"));
    }
}

}  // namespace
}  // namespace Orvex::Infra
