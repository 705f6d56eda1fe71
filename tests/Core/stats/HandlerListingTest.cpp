// CNetThread::ListHandlers, and the lines of a pool that ends with handlers left.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include <Reticor/Stats.h>

#include "support/core/SockPoolFixture.h"

namespace Orvex::Testing {
namespace {

using namespace Reticor;

std::vector<HandlerInfo> all_listed() {
    std::vector<HandlerInfo> found;
    const int count = CNetThread::ListHandlers(
        [](void* context, const HandlerInfo& handler) {
            static_cast<std::vector<HandlerInfo>*>(context)->push_back(handler);
            return true;
        },
        &found);
    EXPECT_EQ(count, static_cast<int>(found.size()));
    return found;
}

HandlerInfo infoOf(int64_t id) {
    for (const HandlerInfo& handler : all_listed()) {
        if (handler.id == id) {
            return handler;
        }
    }
    return {};
}

class HandlerListing : public SockPoolFixture {};

TEST_F(HandlerListing, TellsWhatMayKeepAHandlerAlive) {
    add(SOCK_READ);
    handler->SetTimer(3600000000);
    handler->SetTimer(3600000000);
    handler->AddRef();
    const HandlerInfo info = infoOf(handler->GetID());
    EXPECT_STREQ("Orvex::Testing::TestHandler", info.class_name);
    EXPECT_STREQ("open", info.state);
    EXPECT_EQ(0, info.pool);
    EXPECT_EQ(2, info.references);
    EXPECT_EQ(1, info.sockets);
    EXPECT_EQ(2u, info.timers);
    EXPECT_LT(info.age_ms, 60000u);
    handler->DecRef();
}

TEST_F(HandlerListing, ListsAHandlerThatNobodyFindsAnyMore) {
    auto* leaked = new TestHandler;
    const int64_t id = leaked->GetID();
    leaked->AddRef();
    leaked->Close();
    EXPECT_EVENTUALLY(std::string("detached") == infoOf(id).state);
    EXPECT_EVENTUALLY(infoOf(id).references == 1);
    leaked->DecRef();
    EXPECT_EQ(0, infoOf(id).id);
}

TEST_F(HandlerListing, TheOldestComesFirstAndACallCanEndTheList) {
    auto* younger = new TestHandler;
    const std::vector<HandlerInfo> all = all_listed();
    EXPECT_TRUE(std::is_sorted(all.begin(), all.end(), [](const HandlerInfo& a, const HandlerInfo& b) {
        return a.age_ms > b.age_ms;
    }));
    int calls = 0;
    CNetThread::ListHandlers(
        [](void* context, const HandlerInfo&) { return ++*static_cast<int*>(context) < 1; }, &calls);
    EXPECT_EQ(1, calls);
    closeAndWait(younger);
}

// ---- what a pool leaves behind ---------------------------------------------------------------------------

class OtherClass : public TestHandler {
public:
    using TestHandler::TestHandler;
};

template <int Number>
class NumberedClass : public TestHandler {
public:
    using TestHandler::TestHandler;
};

TEST(LeftHandlers, APoolThatEndsSaysWhichAreOpenAndWhichWereNotReleased) {
    ASSERT_EQ(0, CNetThread::CreateThreadPool(2, false));
    const int index = CNetThread::CreatePrivatePool(1, false);
    std::vector<TestHandler*> left;
    for (int i = 0; i < 3; ++i) {
        left.push_back(new TestHandler(index));
        left.back()->SetTimer(3600000000);
    }
    left.push_back(new OtherClass(index));
    left.back()->AddRef();
    left.back()->Close();
    auto* elsewhere = new TestHandler;
    LogCapture log;
    CNetThread::DestroyPrivatePool(index);
    EXPECT_TRUE(
        log.contains(2, "pool " + std::to_string(index) +
                            " ends with handlers left of class Orvex::Testing::TestHandler: 3 open, 0 "
                            "closed, close not delivered\n"))
        << log.dump();
    EXPECT_TRUE(log.contains(2, "pool " + std::to_string(index) +
                                    " ends with handlers left of class Orvex::Testing::(anonymous "
                                    "namespace)::OtherClass: 0 open, 1 closed, close not delivered\n"))
        << log.dump();
    EXPECT_EQ(2u, log.countMatching(2, ".*handlers left.*\n"));
    left.back()->DecRef();
    elsewhere->Close();
    CNetThread::DestroyThreadPool();
    EXPECT_EQ(2u, log.countMatching(2, ".*handlers left.*\n")) << "the public pool has none: " << log.dump();
}

TEST(LeftHandlers, APoolWhoseHandlersWereClosedIsSilentAndForgetsThoseOfEarlierLives) {
    ASSERT_EQ(0, CNetThread::CreateThreadPool(2, false));
    const int index = CNetThread::CreatePrivatePool(1, false);
    new TestHandler(index);  // stays open for ever
    CNetThread::DestroyPrivatePool(index);
    LogCapture log;
    ASSERT_EQ(index, CNetThread::CreatePrivatePool(1, false));
    auto* closed = new TestHandler(index);
    const std::shared_ptr<HandlerLife> life = closed->life;
    closed->Close();
    CNetThread::DestroyPrivatePool(index);
    EXPECT_EQ(1, life->closes);
    CNetThread::DestroyThreadPool();
    EXPECT_EQ(0u, log.countMatching(2, ".*left.*\n")) << log.dump();
}

template <int... Numbers>
void leaveOneOfEach(int index, std::integer_sequence<int, Numbers...>) {
    (void)std::initializer_list<long>{(new NumberedClass<Numbers>(index))->SetTimer(3600000000)...};
}

TEST(LeftHandlers, TenLinesAtMostAndTheLastOneTellsOfTheOthers) {
    ASSERT_EQ(0, CNetThread::CreateThreadPool(2, false));
    const int index = CNetThread::CreatePrivatePool(1, false);
    leaveOneOfEach(index, std::make_integer_sequence<int, 13>());
    LogCapture log;
    CNetThread::DestroyPrivatePool(index);
    EXPECT_EQ(9u, log.countMatching(2, ".* ends with handlers left of class .*NumberedClass.*\n"))
        << log.dump();
    EXPECT_TRUE(
        log.contains(2, "pool " + std::to_string(index) + " ends with 4 handlers left of 4 other classes\n"))
        << log.dump();
    CNetThread::DestroyThreadPool();
}

}  // namespace
}  // namespace Orvex::Testing
