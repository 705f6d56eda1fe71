// UserCall: whose call the thread is in, and what becomes of one that throws or does not return.
#include "Kit/call/UserCall.h"

#include <pthread.h>

#include <stdexcept>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "support/LogCapture.h"

namespace Orvex::Testing {
namespace {

using Reticor::Kit::UserCall;

const int OUTER = 1;
const int INNER = 2;

void nothing() {}

TEST(UserCall, ThreadIsInTheCallOfTheInnermostOwner) {
    EXPECT_EQ(nullptr, UserCall::owner());
    {
        const UserCall outer(&OUTER);
        EXPECT_EQ(&OUTER, UserCall::owner());
        {
            const UserCall inner(&INNER);
            EXPECT_EQ(&INNER, UserCall::owner());
        }
        EXPECT_EQ(&OUTER, UserCall::owner());
        const void* elsewhere = &OUTER;
        std::thread([&elsewhere] { elsewhere = UserCall::owner(); }).join();
        EXPECT_EQ(nullptr, elsewhere) << "each thread is where it is";
    }
    EXPECT_EQ(nullptr, UserCall::owner());
}

TEST(UserCall, OfAWorkerLeavesAllCalls) {
    {
        const UserCall::FromWorker call(&OUTER);
        EXPECT_EQ(&OUTER, UserCall::owner());
    }
    EXPECT_EQ(nullptr, UserCall::owner());
}

TEST(UserCall, ThatReturnsIsGoodAndSilent) {
    LogCapture log;
    const void* owner = nullptr;
    EXPECT_TRUE(UserCall::run(
        &OUTER, "thing", [&] { owner = UserCall::owner(); }, nothing));
    EXPECT_EQ(&OUTER, owner);
    EXPECT_EQ(nullptr, UserCall::owner());
    EXPECT_EQ(0U, log.countLevel(2)) << log.dump();
}

TEST(UserCall, ThatThrowsIsALineWithWhatItSays) {
    LogCapture log;
    bool ended = false;
    EXPECT_FALSE(UserCall::run(
        &OUTER, "thing", [] { throw std::runtime_error("no bread"); }, [&] { ended = true; }));
    EXPECT_FALSE(UserCall::run<UserCall::FromWorker>(
        &OUTER, "thing", [] { throw std::string("no exception of the library"); }, [&] { ended = true; }));
    EXPECT_FALSE(ended);
    EXPECT_EQ(nullptr, UserCall::owner());
    EXPECT_EQ(1U, log.countMatching(
                      2, "a call-back of a thing \\(0x[0-9a-f]+\\) has thrown, which ends it: no bread\n"));
    EXPECT_EQ(1U,
              log.countMatching(2, "a call-back of a thing \\(0x[0-9a-f]+\\) has thrown, which ends it\n"));
}

// As by pthread_exit, or when it is cancelled.
TEST(UserCall, OfAThreadThatEndsInsideItTellsAndGoesOnEnding) {
    struct Seen {
        int ended = 0;
        bool outside = false;
        bool went_on = false;
    } seen;
    LogCapture log;
    pthread_t thread;
    ASSERT_EQ(0, pthread_create(
                     &thread, nullptr,
                     [](void* place) -> void* {
                         Seen& mine = *static_cast<Seen*>(place);
                         UserCall::run(
                             &OUTER, "thing", [] { pthread_exit(nullptr); },
                             [&] {
                                 ++mine.ended;
                                 mine.outside = UserCall::owner() == nullptr;
                             });
                         mine.went_on = true;
                         return nullptr;
                     },
                     &seen));
    ASSERT_EQ(0, pthread_join(thread, nullptr));
    EXPECT_EQ(1, seen.ended);
    EXPECT_TRUE(seen.outside);
    EXPECT_FALSE(seen.went_on);
    EXPECT_EQ(0U, log.countLevel(2)) << "it has not thrown: " << log.dump();
}

}  // namespace
}  // namespace Orvex::Testing
