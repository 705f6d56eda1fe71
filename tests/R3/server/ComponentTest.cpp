// TComPtr and CComponentHelper: references on components, and finding them by name.
#include <component/Component.h>

#include <gtest/gtest.h>

#include <component/Console.h>

namespace {

using namespace Orvex;
using namespace Orvex::Component;

int s_alive = 0;

class ISpeaker : public IUnknown {
public:
    virtual int speak() = 0;

protected:
    ~ISpeaker() override = default;
};

class Speaker : public TCounted<ISpeaker> {
public:
    Speaker() { ++s_alive; }
    int speak() override { return 42; }

protected:
    ~Speaker() override { --s_alive; }
};

TComPtr<ISpeaker> newSpeaker() {
    return TComPtr<ISpeaker>::adopt(new Speaker);
}

TEST(ComPtr, EmptyOneHoldsNothing) {
    const TComPtr<ISpeaker> pointer;
    EXPECT_TRUE(pointer.empty());
    EXPECT_FALSE(pointer);
    EXPECT_EQ(nullptr, pointer.get());
}

TEST(ComPtr, ComponentGoesWithItsLastPointer) {
    TComPtr<ISpeaker> pointer = newSpeaker();
    EXPECT_EQ(42, pointer->speak());
    EXPECT_EQ(42, (*pointer).speak());
    {
        const TComPtr<ISpeaker> copy = pointer;
        EXPECT_EQ(copy, pointer);
        pointer.reset();
        EXPECT_TRUE(pointer.empty());
        EXPECT_NE(copy, pointer);
        EXPECT_EQ(1, s_alive);
    }
    EXPECT_EQ(0, s_alive);
}

TEST(ComPtr, MovesAndAssignmentsKeepTheCount) {
    TComPtr<ISpeaker> first = newSpeaker();
    TComPtr<ISpeaker> second = newSpeaker();
    EXPECT_EQ(2, s_alive);
    second = first;
    EXPECT_EQ(1, s_alive);
    first = std::move(second);
    EXPECT_TRUE(second.empty());  // NOLINT: what a moved-from pointer is, is the question
    TComPtr<ISpeaker>& same = first;
    first = same;
    EXPECT_EQ(1, s_alive);
    TComPtr<ISpeaker> third(std::move(first));
    EXPECT_EQ(42, third->speak());
    third = TComPtr<ISpeaker>();
    EXPECT_EQ(0, s_alive);
}

TEST(ComPtr, PlainPointerGivesAReferenceOfItsOwn) {
    auto* speaker = new Speaker;
    { const TComPtr<ISpeaker> pointer(speaker); }
    EXPECT_EQ(1, s_alive);
    speaker->release();
    EXPECT_EQ(0, s_alive);
}

TEST(ComPtr, AsksForAnotherInterface) {
    const TComPtr<IUnknown> unknown(newSpeaker());
    EXPECT_EQ(42, TComPtr<ISpeaker>(unknown)->speak());
    EXPECT_TRUE(TComPtr<Manager::IConsole>(unknown).empty());
    EXPECT_EQ(1, s_alive);
}

TEST(ComPtrDeath, EmptyOneCannotBeFollowed) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const TComPtr<ISpeaker> pointer;
    EXPECT_DEATH(pointer->speak(), "component/ComPtr.h.*Assertion `m_component != nullptr' failed");
    EXPECT_DEATH((*pointer).speak(), "Assertion `m_component != nullptr' failed");
}

TEST(ComponentHelper, FindsWhatIsOfferedInThisProcess) {
    const ClassID local("Local");
    {
        const TComPtr<ISpeaker> speaker = newSpeaker();
        EXPECT_TRUE(CComponentHelper::offer(local, "Speaker", speaker));
        EXPECT_FALSE(CComponentHelper::offer(local, "Speaker", speaker));
    }
    EXPECT_EQ(1, s_alive) << "the offer holds it";
    const auto find = [&](const ServerInfo& server) {
        return CComponentHelper::getComponentFactory<ISpeaker>(local, "Speaker", server);
    };
    TComPtr<ISpeaker> found = find(ServerInfo::none);
    ASSERT_FALSE(found.empty());
    EXPECT_TRUE(find(ServerInfo{"10.0.0.1"}).empty()) << "no component of another process is reached";
    EXPECT_TRUE(
        CComponentHelper::getComponentFactory<Manager::IConsole>(local, "Speaker", ServerInfo::none).empty());
    EXPECT_TRUE(CComponentHelper::withdraw(local, "Speaker"));
    EXPECT_FALSE(CComponentHelper::withdraw(local, "Speaker"));
    EXPECT_TRUE(find(ServerInfo::none).empty());
    EXPECT_EQ(42, found->speak());
    found.reset();
    EXPECT_EQ(0, s_alive);
}

TEST(ComponentHelper, EmptyPointerCannotBeOffered) {
    EXPECT_FALSE(CComponentHelper::offer(ClassID("Local"), "Speaker", TComPtr<ISpeaker>()));
}

}  // namespace
