// Timer, Every: empty, moved, cancelled and detached; their times, and a random model of all that.
#include <pthread.h>

#include <algorithm>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <Infra/Semaphore.h>
#include <Infra/Time.h>
#include <Reticor/kit/Pool.h>
#include <Reticor/kit/Timer.h>

#include "Kit/TimerBody.h"
#include "support/Eventually.h"
#include "support/KernelThread.h"
#include "support/LogCapture.h"
#include "support/SeededRandom.h"
#include "support/kit/Live.h"

namespace Orvex::Testing {
namespace {

namespace Kit = Reticor::Kit;
using namespace std::chrono_literals;
using Infra::CSemaphore;
using Infra::CTime;

class KitTimerState : public testing::Test {
protected:
    void TearDown() override { m_pool.stop(0ms); }  // before what lambdas use goes

    auto use() {
        return [token = m_live.token()]() mutable { token.use(); };
    }

    Kit::Pool m_pool{2};
    Live m_live;
};

TEST_F(KitTimerState, AnEmptyOneDoesNothing) {
    Kit::Timer timer;
    Kit::Every every;
    for (Kit::Timer* const each : {&timer, static_cast<Kit::Timer*>(&every)}) {
        EXPECT_FALSE(each->isArmed());
        each->cancel();
        each->detach();
        Kit::Timer moved = std::move(*each);
        EXPECT_FALSE(moved.isArmed());
    }
}

TEST_F(KitTimerState, MovesItsLambdaAndIsEmptyThen) {
    Kit::Timer first(m_pool, 1h, use());
    Kit::Timer second = std::move(first);
    EXPECT_FALSE(first.isArmed());
    EXPECT_TRUE(second.isArmed());
    first.cancel();
    EXPECT_TRUE(second.isArmed()) << "the empty one cancels nothing";
    first = std::move(second);
    EXPECT_TRUE(first.isArmed());
    EXPECT_EQ(1, m_live.count());
    first = Kit::Timer();
    EXPECT_FALSE(first.isArmed());
    EXPECT_EVENTUALLY(m_live.count() == 0);
    EXPECT_EQ(0, m_live.used());
}

TEST_F(KitTimerState, TakesAnyTimeAndIsNotEarly) {
    std::atomic<int> calls{0};
    std::atomic<bool> early{false};
    std::vector<Kit::Timer> timers;
    for (const int ms : {-1000, 0, 1, 7, 30}) {
        const uint64_t begin = CTime::getCurrentMicroSecond();
        timers.emplace_back(m_pool, std::chrono::milliseconds(ms), [&, ms, begin] {
            const uint64_t due = begin + static_cast<uint64_t>(std::max(ms, 0)) * 1000;
            early = early || CTime::getCurrentMicroSecond() + 3000 < due;
            ++calls;
        });
    }
    timers.emplace_back(m_pool, std::chrono::hours(24 * 365 * 200), [&] { calls += 100; });
    timers.emplace_back(m_pool, std::chrono::microseconds::max(), [&] { calls += 100; });
    EXPECT_EVENTUALLY(calls == 5);
    EXPECT_FALSE(early);
    EXPECT_TRUE(timers[5].isArmed());
    EXPECT_TRUE(timers[6].isArmed());
}

TEST_F(KitTimerState, OnceIsToldThatItHasMissedNothing) {
    std::atomic<uint64_t> told{99};
    Kit::Timer timer(m_pool, 0ms, [&](uint64_t missed) { told = missed; });
    EXPECT_EVENTUALLY(told == 0);
}

TEST_F(KitTimerState, IsDestroyedOnThePoolAfterItsCallAndAfterCancel) {
    struct Notes {
        std::atomic<int> thread{0};
    } called;
    Notes cancelled;
    struct Last {
        explicit Last(Notes& to) : notes(&to) {}
        Last(Last&& other) noexcept : notes(std::exchange(other.notes, nullptr)) {}
        Last& operator=(Last&&) = delete;
        ~Last() {
            if (notes != nullptr) {
                notes->thread = kernelThreadId();
            }
        }
        Notes* notes;
    };
    Kit::Timer soon(m_pool, 1ms, [last = Last(called)] {});
    Kit::Timer never(m_pool, 1h, [last = Last(cancelled)] {});
    never.cancel();
    EXPECT_EVENTUALLY(called.thread != 0 && cancelled.thread != 0);
    EXPECT_NE(kernelThreadId(), called.thread);
    EXPECT_NE(kernelThreadId(), cancelled.thread);
}

TEST_F(KitTimerState, CancelDoesNotWaitForACallThatRuns) {
    CSemaphore inside(0);
    CSemaphore go(0);
    Kit::Every every(m_pool, 5ms, [&, token = m_live.token()]() mutable {
        token.use();
        inside.post();
        go.pend();
        token.use();  // what it captures is still there
    });
    inside.pend();
    every.cancel();
    EXPECT_FALSE(every.isArmed());
    EXPECT_EQ(1, m_live.count());
    go.post();
    EXPECT_EVENTUALLY(m_live.count() == 0);
    EXPECT_EQ(2, m_live.used()) << "it was not called again";
}

TEST_F(KitTimerState, CallsOfOneNeverOverlapAndThoseMissedAreTold) {
    int inside = 0;  // no atomic: that is the point
    std::atomic<int> overlaps{0};
    std::atomic<uint64_t> calls{0};
    std::atomic<uint64_t> missed_in_all{0};
    Kit::Every every(m_pool, 5ms, [&](uint64_t missed) {
        overlaps += ++inside != 1 ? 1 : 0;
        const uint64_t until = CTime::getCurrentMicroSecond() + 12000;
        while (CTime::getCurrentMicroSecond() < until) {
        }
        missed_in_all += missed;
        ++calls;
        --inside;
    });
    EXPECT_EVENTUALLY(calls >= 8);
    m_pool.stop();
    EXPECT_EQ(0, overlaps);
    EXPECT_GE(missed_in_all, calls - 1) << "a call of 12 ms is over the next time of 5 ms";
}

TEST_F(KitTimerState, PeriodOfNothingIsTheGrid) {
    for (const int us : {0, -1000000}) {
        Kit::Pool pool(1);
        std::atomic<uint64_t> times{0};
        const uint64_t begin = CTime::getCurrentMicroSecond();
        Kit::Every every(pool, std::chrono::microseconds(us), [&](uint64_t missed) { times += missed + 1; });
        EXPECT_EVENTUALLY(times >= 10);
        pool.stop();
        EXPECT_LE(times, (CTime::getCurrentMicroSecond() - begin + 3000) / 5000);
    }
}

TEST_F(KitTimerState, ShortPeriodsAreCountedAndNotMadeUpFor) {
    std::atomic<uint64_t> calls{0};
    std::atomic<uint64_t> times{0};
    const uint64_t begin = CTime::getCurrentMicroSecond();
    Kit::Every every(m_pool, 1ms, [&](uint64_t missed) {
        ++calls;
        times += missed + 1;
    });
    EXPECT_EVENTUALLY(times >= 60);
    m_pool.stop();
    const uint64_t took_ms = (CTime::getCurrentMicroSecond() - begin) / 1000;
    EXPECT_LE(times, took_ms + 3);
    EXPECT_LT(calls, times);
}

TEST_F(KitTimerState, DetachedOnesGoOnUntilTheirPoolEnds) {
    std::atomic<int> calls{0};
    {
        Kit::Every every(m_pool, 5ms, [&calls, token = m_live.token()] { ++calls; });
        every.detach();
        EXPECT_FALSE(every.isArmed());
        every.cancel();  // it has none
    }
    EXPECT_EVENTUALLY(calls >= 3);
    Kit::Timer(m_pool, 1h, use()).detach();
    EXPECT_EQ(2, m_live.count());
    const Kit::StopReport report = m_pool.stop();
    EXPECT_EQ(0U, report.cut);
    EXPECT_EQ(0U, report.stayed);
    EXPECT_EQ(0, m_live.count());
    EXPECT_EQ(0, m_live.used());
}

TEST_F(KitTimerState, IsRefusedByAPoolThatIsStopped) {
    m_pool.stop();
    LogCapture log;
    const Kit::Timer timer(m_pool, 0ms, use());
    const Kit::Every every(m_pool, 5ms, use());
    EXPECT_FALSE(timer.isArmed());
    EXPECT_FALSE(every.isArmed());
    EXPECT_EQ(0, m_live.count());
    EXPECT_EQ(2U, log.count(2, "a timer without a pool that runs, or without memory, is never called\n"));
}

TEST_F(KitTimerState, OnceThatThrowsIsALine) {
    LogCapture log;
    Kit::Timer timer(m_pool, 0ms, [token = m_live.token()] { throw std::string("odd"); });
    EXPECT_EVENTUALLY(m_live.count() == 0);
    EXPECT_FALSE(timer.isArmed());
    EXPECT_EQ(1U, log.countMatching(2, "a call-back of a Timer \\(0x.*\\) has thrown, which ends it\n"));
}

TEST_F(KitTimerState, AThreadThatEndsInsideTheCallEndsTheTimer) {
    Kit::Pool pool(4);
    Kit::Every every(pool, 5ms, [token = m_live.token()]() mutable {
        token.use();
        pthread_exit(nullptr);
    });
    EXPECT_EVENTUALLY(!every.isArmed());
    EXPECT_EQ(1, m_live.used());
    EXPECT_EQ(0U, pool.stop(0ms).stayed);
    EXPECT_EQ(0, m_live.count());
}

// Longer than a timer of the pool can be: it is made of several.
TEST_F(KitTimerState, LongOnesAreWaitedForInParts) {
    const int64_t hour_us = 3600LL * 1000000;
    Kit::PoolState& state = *Kit::PoolState::of(m_pool);
    Kit::TimerBody* const body = state.make<Kit::TimerBody>(
        30 * hour_us, 0,
        Kit::UniqueFunction<void(uint64_t)>([token = m_live.token()](uint64_t) mutable { token.use(); }));
    ASSERT_NE(nullptr, body);
    EXPECT_EQ(23 * hour_us, body->handle_timeout(1));
    EXPECT_TRUE(body->is_armed());
    EXPECT_EQ(0, m_live.used());
    body->cancel();
    EXPECT_EVENTUALLY(m_live.count() == 0);
    EXPECT_EQ(-1, body->handle_timeout(1)) << "it is over";
    body->DecRef();
}

/// A timer of the model: what has been done to it, and what its lambda notes.
struct Modelled {
    Kit::Timer timer;
    Live live;
    std::atomic<int> calls{0};
    std::atomic<int> running{0};
    std::atomic<bool> early{false};
    std::atomic<bool> overlap{false};
    uint64_t due_us = 0;
    bool repeats = false;
    bool detached = false;
    bool cancelled = false;
    int calls_at_cancel = 0;

    void arm(Kit::Pool& pool, std::chrono::microseconds delay, bool again) {
        repeats = again;
        due_us = CTime::getCurrentMicroSecond() + static_cast<uint64_t>(delay.count());
        auto call = [this, token = live.token()] {
            overlap = overlap || ++running != 1;
            early = early || CTime::getCurrentMicroSecond() + 3000 < due_us;
            ++calls;
            --running;
        };
        timer = again ? Kit::Timer(Kit::Every(pool, delay, std::move(call)))
                      : Kit::Timer(pool, delay, std::move(call));
    }
    void cancel() {
        timer.cancel();
        calls_at_cancel = detached ? 0 : calls.load();
        cancelled = cancelled || !detached;
    }
    void detach() {
        timer.detach();
        detached = true;
    }
};

// Whatever happens to a timer, its lambda is destroyed once, is called once at most, or never again once it
// was cancelled, and not before its time.
TEST_F(KitTimerState, RandomOperationsDoWhatTheModelSays) {
    SeededRandom random;
    std::vector<std::unique_ptr<Modelled>> timers;
    for (int i = 0; i < 400; ++i) {
        auto& each = *timers.emplace_back(std::make_unique<Modelled>());
        each.arm(m_pool, std::chrono::microseconds(random.between(1, 40000)), random.oneIn(3));
        Modelled& other = *timers[random.between<size_t>(0, timers.size() - 1)];
        switch (random.between(0, 5)) {
            case 0:
                other.cancel();
                break;
            case 1:
                other.detach();
                break;
            case 2: {
                Kit::Timer moved = std::move(other.timer);
                other.timer = std::move(moved);
                break;
            }
            default:
                break;
        }
    }
    const auto all_once = [&] {
        return std::all_of(timers.begin(), timers.end(), [](const std::unique_ptr<Modelled>& each) {
            return each->repeats || each->live.count() == 0;
        });
    };
    EXPECT_EVENTUALLY(all_once());
    m_pool.stop();
    for (const std::unique_ptr<Modelled>& each : timers) {
        EXPECT_EQ(0, each->live.count());
        EXPECT_FALSE(each->early);
        EXPECT_FALSE(each->overlap);
        EXPECT_FALSE(each->timer.isArmed());
        if (each->cancelled) {
            EXPECT_LE(each->calls, each->calls_at_cancel + 1) << "one may have been under way";
        } else if (!each->repeats) {
            EXPECT_EQ(1, each->calls);
        }
    }
}

}  // namespace
}  // namespace Orvex::Testing
