// Pool: what is posted is run or destroyed once, whatever happens to the pool.
#include <Reticor/kit/Pool.h>

#include <atomic>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <Infra/Semaphore.h>
#include <Reticor/NetThread.h>
#include <Reticor/kit/Timer.h>

#include "support/Eventually.h"
#include "support/LogCapture.h"
#include "support/kit/Live.h"
#include "support/socket/Allocations.h"

using namespace Orvex::Testing;
using Orvex::Infra::CSemaphore;
namespace Kit = Orvex::Reticor::Kit;
using std::chrono::milliseconds;

TEST(KitPool, RunsWhatIsPostedFromAThreadThatIsNoWorker) {
    Kit::Pool pool(2);
    ASSERT_TRUE(pool.isOpen());
    Live live;
    for (int i = 0; i < 1000; ++i) {
        EXPECT_TRUE(Kit::post(pool, [token = live.token()]() mutable { token.use(); }));
    }
    EXPECT_EVENTUALLY(live.used() == 1000 && live.count() == 0);
}

TEST(KitPool, RunsSerialCallsOneAfterAnotherInTheirOrder) {
    Kit::Pool pool(4);
    std::vector<int> order;  // without a lock
    CSemaphore done(0);
    for (int i = 0; i < 500; ++i) {
        ASSERT_TRUE(Kit::postSerial(pool, [&order, i] { order.push_back(i); }));
    }
    ASSERT_TRUE(pool.postSerial([&done] { done.post(); }));
    done.pend();
    ASSERT_EQ(500U, order.size());
    for (int i = 0; i < 500; ++i) {
        EXPECT_EQ(i, order[static_cast<size_t>(i)]);
    }
}

TEST(KitPool, RefusesBlockingCallsVisiblyWithoutFileWorkers) {
    Kit::Pool pool(1);
    LogCapture log;
    Live live;
    EXPECT_FALSE(Kit::postIO(pool, [token = live.token()]() mutable { token.use(); }));
    EXPECT_EQ(0, live.count());
    EXPECT_TRUE(log.containsMatching(2, "postIO: no file workers run[^]*"));
}

TEST(KitPool, RunsBlockingCallsOnFileWorkers) {
    Kit::Pool pool(1, true);
    Live live;
    for (int i = 0; i < 100; ++i) {
        EXPECT_TRUE(pool.postIO([token = live.token()]() mutable { token.use(); }));
    }
    EXPECT_EVENTUALLY(live.used() == 100 && live.count() == 0);
}

// File workers live once in a process: a call that nobody would run is refused after that as well.
TEST(KitPool, RefusesBlockingCallsWhenTheFileWorkersHaveGone) {
    { Kit::Pool pool(1, true); }
    Kit::Pool pool(1, true);
    LogCapture log;
    Live live;
    EXPECT_FALSE(pool.postIO([token = live.token()]() mutable { token.use(); }));
    EXPECT_EQ(0, live.count());
}

TEST(KitPool, AllocatesNothingForACallOnceItHasGrown) {
    Kit::Pool pool(1);
    std::atomic<int> runs{0};
    const auto burst = [&] {
        const int before = runs;
        for (int i = 0; i < 64; ++i) {
            pool.post([&runs] { ++runs; });
        }
        EXPECT_EVENTUALLY(runs == before + 64);
    };
    // What waits at a time differs from round to round; the greatest is reached soon.
    const auto grown = [&] {
        const size_t before = allocationCount();
        burst();
        return allocationCount() == before;
    };
    EXPECT_EVENTUALLY(grown() && grown() && grown());
}

TEST(KitPool, RunsWhatWaitsBeforeItEnds) {
    Live live;
    Kit::Pool pool(1);
    for (int i = 0; i < 1000; ++i) {
        pool.post([token = live.token()]() mutable { token.use(); });
        pool.postSerial([token = live.token()]() mutable { token.use(); });
    }
    EXPECT_EQ(0U, pool.stop().stayed);
    EXPECT_EQ(2000, live.used());
    EXPECT_EQ(0, live.count());
    EXPECT_FALSE(pool.post([token = live.token()]() mutable { token.use(); }));
    EXPECT_EQ(0, live.count());
    EXPECT_FALSE(pool.isOpen());
}

TEST(KitPool, DestroysWhatItCutsBeforeItsTurn) {
    Live live;
    Kit::Pool pool(1);
    CSemaphore begun(0);
    CSemaphore go(0);
    const int workers = 64;  // more than there are
    for (int i = 0; i < workers; ++i) {
        pool.post([&begun, &go] {
            begun.post();
            go.pend();
        });
    }
    begun.pend();
    for (int i = 0; i < 1000; ++i) {
        pool.post([token = live.token()]() mutable { token.use(); });
    }
    LogCapture log;
    Kit::Pool ending = std::move(pool);
    std::thread release([&] {
        EXPECT_TRUE(log.eventuallyContainsMatching(2, "the pools are stopped[^]*"));
        go.post(workers, workers);
    });
    const Kit::StopReport report = ending.stop(milliseconds(0));
    release.join();
    EXPECT_EQ(1U, report.stayed);
    EXPECT_TRUE(log.contains(
        2, "the pools are stopped, but 1 stay in call-backs that do not return: 1 of class posted call\n"))
        << log.dump();
    EXPECT_EQ(0, live.used());
    EXPECT_EQ(0, live.count());
}

TEST(KitPool, EndsACallThatThrowsAndNothingElse) {
    Kit::Pool pool(1);
    LogCapture log;
    Live live;
    pool.post([token = live.token()] { throw std::runtime_error("no bread"); });
    pool.post([token = live.token()] { throw 5; });
    pool.post([token = live.token()]() mutable { token.use(); });
    EXPECT_EVENTUALLY(live.used() == 1 && live.count() == 0);
    EXPECT_EQ(1U,
              log.countMatching(2, "a call-back of a posted call .* has thrown, which ends it: no bread\n"));
    EXPECT_EQ(1U, log.countMatching(2, "a call-back of a posted call .* has thrown, which ends it\n"));
}

TEST(KitPool, IsNotStoppedInsideACallBack) {
    Kit::Pool pool(1);
    LogCapture log;
    CSemaphore done(0);
    pool.post([&] {
        pool.stop();
        done.post();
    });
    done.pend();
    EXPECT_TRUE(pool.isOpen());
    EXPECT_TRUE(log.containsMatching(2, "a pool cannot be stopped inside a call-back[^]*"));
}
