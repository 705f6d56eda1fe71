// Timer, Every: calls by the clock.
#include <Reticor/kit/Timer.h>

#include <atomic>
#include <vector>

#include <gtest/gtest.h>

#include <Infra/Semaphore.h>
#include <Infra/Time.h>
#include <Reticor/kit/Pool.h>

#include "support/Eventually.h"
#include "support/LogCapture.h"
#include "support/kit/Live.h"

using namespace Orvex::Testing;
using Orvex::Infra::CSemaphore;
using Orvex::Infra::CTime;
namespace Kit = Orvex::Reticor::Kit;
using namespace std::chrono_literals;

TEST(KitTimer, CallsOnceAndDestroysItsLambda) {
    Kit::Pool pool(1);
    Live live;
    const uint64_t start = CTime::getCurrentMicroSecond();
    std::atomic<uint64_t> called{0};
    Kit::Timer timer(pool, 20ms, [&called, token = live.token()]() mutable {
        called = CTime::getCurrentMicroSecond();
        token.use();
    });
    EXPECT_TRUE(timer.isArmed());
    EXPECT_EVENTUALLY(live.used() == 1 && live.count() == 0);
    EXPECT_GE(called, start + 17000);
    EXPECT_FALSE(timer.isArmed());
}

TEST(KitTimer, IsNotCalledOnceItsObjectHasGone) {
    Kit::Pool pool(1);
    Live live;
    {
        Kit::Timer long_one(pool, 1h, [token = live.token()]() mutable { token.use(); });
        Kit::Timer soon(pool, 10ms, [token = live.token()]() mutable { token.use(); });
        soon = std::move(long_one);  // the one that it was goes
    }
    EXPECT_EVENTUALLY(live.count() == 0);
    EXPECT_EQ(0, live.used());
}

TEST(KitTimer, RunsWithoutItsObjectWhenItIsDetached) {
    Kit::Pool pool(1);
    Live live;
    Kit::Timer(pool, 5ms, [token = live.token()]() mutable { token.use(); }).detach();
    EXPECT_EVENTUALLY(live.used() == 1 && live.count() == 0);
}

TEST(KitTimer, GoesWithItsPoolAndItsHandleStaysHarmless) {
    Live live;
    Kit::Timer timer;
    Kit::Every every;
    {
        Kit::Pool pool(1);
        timer = Kit::Timer(pool, 1h, [token = live.token()]() mutable { token.use(); });
        every = Kit::Every(pool, 1h, [token = live.token()](uint64_t) mutable { token.use(); });
        EXPECT_EQ(2, live.count());
    }
    EXPECT_EQ(0, live.count());
    EXPECT_FALSE(timer.isArmed());
    timer.cancel();
}

TEST(KitTimer, MayEndItselfInsideItsCall) {
    Kit::Pool pool(1);
    Live live;
    CSemaphore made(0);
    Kit::Every every;
    every = Kit::Every(pool, 5ms, [&, token = live.token()]() mutable {
        made.pend();
        token.use();
        every.cancel();
    });
    made.post();
    EXPECT_EVENTUALLY(live.count() == 0);
    EXPECT_EQ(1, live.used());
}

TEST(KitTimer, SaysThatItHasNoPool) {
    Kit::Pool none;
    LogCapture log;
    Live live;
    Kit::Timer timer(none, 5ms, [token = live.token()]() mutable { token.use(); });
    EXPECT_FALSE(timer.isArmed());
    EXPECT_EQ(0, live.count());
    EXPECT_TRUE(log.contains(2, "a timer without a pool that runs, or without memory, is never called\n"));
}

// Ten milliseconds with three of work take ten on the average, and not fifteen.
TEST(KitEvery, DoesNotDrift) {
    Kit::Pool pool(1);
    constexpr uint64_t PERIOD_US = 10000;
    constexpr uint64_t BEATS = 30;
    std::atomic<uint64_t> over{0};  // times, the missed ones included
    std::atomic<uint64_t> calls{0};
    std::atomic<uint64_t> last_us{0};
    const uint64_t start = CTime::getCurrentMicroSecond();
    Kit::Every every(pool, std::chrono::microseconds(PERIOD_US), [&](uint64_t missed) {
        last_us = CTime::getCurrentMicroSecond();
        over += missed + 1;
        ++calls;
        while (CTime::getCurrentMicroSecond() < last_us + 3000) {
        }
    });
    EXPECT_EVENTUALLY(over >= BEATS);
    pool.stop();  // a call that runs uses what stands above
    // Time number n comes at n periods, not before, and what was late is told as missed.
    EXPECT_GE(last_us + 3000, start + over * PERIOD_US);
    EXPECT_LT(last_us, start + (over + 1) * PERIOD_US + static_cast<uint64_t>(scaledMs(20)) * 1000);
}

TEST(KitEvery, TellsHowManyTimesItHasMissed) {
    Kit::Pool pool(1);
    std::atomic<uint64_t> most{0};
    std::atomic<int> calls{0};
    Kit::Every every(pool, 5ms, [&](uint64_t missed) {
        most = std::max(most.load(), missed);
        if (++calls == 1) {
            const uint64_t until = CTime::getCurrentMicroSecond() + 30000;
            while (CTime::getCurrentMicroSecond() < until) {
            }
        }
    });
    EXPECT_EVENTUALLY(calls >= 2);
    pool.stop();
    EXPECT_GE(most, 3U);
}

TEST(KitEvery, EndsWhenItThrows) {
    Kit::Pool pool(1);
    LogCapture log;
    Live live;
    Kit::Every every(pool, 5ms, [token = live.token()]() mutable {
        token.use();
        throw std::runtime_error("enough");
    });
    EXPECT_EVENTUALLY(live.count() == 0);
    EXPECT_EQ(1, live.used());
    EXPECT_FALSE(every.isArmed());
    EXPECT_TRUE(log.containsMatching(2, "a call-back of a Every .* has thrown, which ends it: enough\n"));
}
