// CNetTimer: the timers of handlers, from arming to the last call.
#include "Core/service/NetTimer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <thread>
#include <vector>

#include <Infra/Thread.h>
#include <Infra/Time.h>

#include "Core/handle/ObjectId.h"
#include "Core/pool/PoolTable.h"
#include "support/KernelThread.h"
#include "support/PoolFixture.h"
#include "support/core/Probes.h"

namespace Orvex::Reticor {
namespace {

using Testing::HandlerLife;
using Testing::LogCapture;
using Testing::PoolFixture;
using Testing::TestHandler;

constexpr char TOO_BIG[] = "Set timer's value is too big,it will be reduce to 24h.\n";
constexpr uint64_t DAY_US = 86400000000;

uint64_t now() {
    return Infra::CTime::getCurrentMicroSecond();
}

class NetTimer : public PoolFixture {
protected:
    void SetUp() override {
        PoolFixture::SetUp();
        handler = new TestHandler;
        life = handler->life;
    }
    void TearDown() override {
        if (handler != nullptr) {
            closeAndWait(handler);
        }
        PoolFixture::TearDown();
    }

    // Arms a timer of that period and takes it out again, to look at what was made of it.
    struct Armed {
        uint64_t delay;
        uint64_t expire;
        uint64_t before;
        uint64_t after;
    };
    Armed arm(int64_t us) {
        Armed armed{};
        std::optional<ArmedTimer> timer;
        for (int i = 0; i < 1000 && !timer; ++i) {  // a short one may be due before it is taken out
            armed.before = now();
            const long id = handler->SetTimer(us);
            armed.after = now();
            timer = CNetTimer::heap().RemoveById(id);
        }
        EXPECT_TRUE(timer);
        if (timer) {
            armed.delay = timer->delay;
            armed.expire = timer->expire;
        }
        return armed;
    }

    // "Timer_Thread", asleep. A thread gives itself its name.
    static int sleepingTimerThread() {
        int thread = 0;
        EXPECT_EVENTUALLY((thread = Testing::kernelThreadByName("Timer_Thread")) != 0 &&
                          Testing::sleepsInFutex(thread));
        return thread;
    }

    TestHandler* handler = nullptr;
    std::shared_ptr<HandlerLife> life;
};

TEST_F(NetTimer, ShortDelaysBecome3000) {
    EXPECT_EQ(3000u, arm(0).delay);
    EXPECT_EQ(3000u, arm(2999).delay);
    EXPECT_EQ(3000u, arm(3000).delay);
    EXPECT_EQ(3001u, arm(3001).delay);
}

TEST_F(NetTimer, ADelayAboveADayIsLoggedAndCut) {
    LogCapture log;
    EXPECT_EQ(DAY_US, arm(static_cast<int64_t>(DAY_US)).delay);
    EXPECT_EQ(0u, log.count(2, TOO_BIG));
    EXPECT_EQ(DAY_US, arm(static_cast<int64_t>(DAY_US) + 1).delay);
    EXPECT_EQ(1u, log.count(2, TOO_BIG)) << log.dump();
}

TEST_F(NetTimer, ANegativeDelayCountsAsHuge) {
    LogCapture log;
    EXPECT_EQ(DAY_US, arm(-1).delay);
    EXPECT_EQ(1u, log.count(2, TOO_BIG)) << log.dump();
}

TEST_F(NetTimer, TimersAreArmedTwoMillisecondsEarly) {
    const Armed armed = arm(1000000);
    EXPECT_GE(armed.expire, armed.before + 1000000 - 2000);
    EXPECT_LE(armed.expire, armed.after + 1000000 - 2000);
}

TEST_F(NetTimer, TheIdOfATimerIsBelowMinus101AndNamesThePool) {
    const int pool = CNetThread::CreatePrivatePool(2, false);
    auto* other = new TestHandler(pool);
    const long id = other->SetTimer(60000000);
    EXPECT_LT(id, -101);
    EXPECT_EQ(pool, INDEX_OF_ID(id));
    other->DestroyTimer(id);
    closeAndWait(other);
    EXPECT_EQ(0, CNetThread::DestroyPrivatePool(pool));
}

TEST_F(NetTimer, AnUnhandledTimerFiresOnce) {
    handler->SetTimer(3000);
    EXPECT_EVENTUALLY(life->timeouts == 1);
    EXPECT_EVENTUALLY(CNetTimer::heap().Count() == 0);
}

TEST_F(NetTimer, ZeroRunsATimerAgainAfterTheSamePeriodWithItsId) {
    std::atomic<int> calls{0};
    std::atomic<long> only{0};
    std::atomic<bool> same{true};
    handler->on_timeout = [&](long id) -> int64_t {
        long expected = 0;
        same = same && (only.compare_exchange_strong(expected, id) || expected == id);
        return ++calls < 5 ? 0 : -1;
    };
    const uint64_t begin = now();
    const long id = handler->SetTimer(10000);
    EXPECT_EVENTUALLY(life->timeouts == 5);
    EXPECT_TRUE(same);
    EXPECT_EQ(id, only);
    // Five periods, each armed 2 ms early and never called before that.
    EXPECT_GE(now() - begin, 5u * 8000u);
}

TEST_F(NetTimer, APositiveResultIsThePeriodOfAllFurtherExpiries) {
    handler->on_timeout = [](long) -> int64_t { return 5000000; };
    const long id = handler->SetTimer(3000);
    EXPECT_EVENTUALLY(life->timeouts == 1);
    EXPECT_EVENTUALLY(CNetTimer::heap().Count() == 1);
    // A result of 0 keeps it: the timer carries the period.
    handler->on_timeout = [](long) -> int64_t { return 0; };
    DueChains due;
    CNetTimer::heap().PopDue(now() + 6000000, due);
    ASSERT_NE(nullptr, due.m_chain[0]);
    EXPECT_EQ(5000000u, due.m_chain[0]->m_delay);
    CNetTimer::handle_timer(due.m_chain[0]);
    const std::optional<ArmedTimer> timer = CNetTimer::heap().RemoveById(id);
    ASSERT_TRUE(timer);
    EXPECT_EQ(5000000u, timer->delay);
}

TEST_F(NetTimer, ATimerIsNeverCalledMoreThanTwoMillisecondsEarly) {
    std::atomic<uint64_t> called{0};
    handler->on_timeout = [&](long) -> int64_t {
        called = now();
        return -1;
    };
    for (int64_t delay : {3000, 4000, 7000, 12345, 20000}) {
        called = 0;
        const uint64_t armed = now();
        handler->SetTimer(delay);
        EXPECT_EVENTUALLY(called != 0);
        // A tick takes along what is due within the next millisecond.
        EXPECT_GE(called - armed + 3000, static_cast<uint64_t>(delay));
    }
}

TEST_F(NetTimer, ATimerOfAClosedHandlerMakesNoCallAndGivesItsIdBack) {
    handler->SetTimer(200000);
    closeAndWait(handler);
    handler = nullptr;
    EXPECT_EVENTUALLY(TimerHeapProbe::waitingIds(CNetTimer::heap(), 0) == 1);
    EXPECT_EQ(0, life->timeouts);
}

TEST_F(NetTimer, DestroyTimerEndsAnArmedTimerAndGivesItsIdBack) {
    const long id = handler->SetTimer(60000000);
    handler->DestroyTimer(id);
    EXPECT_EQ(0, CNetTimer::heap().Count());
    EXPECT_EQ(1u, TimerHeapProbe::waitingIds(CNetTimer::heap(), 0));
    handler->DestroyTimer(id);  // gone: nothing happens
    EXPECT_EQ(1u, TimerHeapProbe::waitingIds(CNetTimer::heap(), 0));
}

// A late DestroyTimer of an old timer must not reach a new one.
TEST_F(NetTimer, AnIdWaitsBehind1024OthersAndComesBackWithAnotherGeneration) {
    const long first = handler->SetTimer(60000000);
    handler->DestroyTimer(first);
    for (int i = 0; i < 1024; ++i) {
        const long id = handler->SetTimer(60000000);
        ASSERT_NE(first >> 16, id >> 16) << i;
        handler->DestroyTimer(id);
    }
    const long again = handler->SetTimer(60000000);
    EXPECT_EQ(first + 1, again);
    handler->DestroyTimer(first);
    EXPECT_EQ(1, CNetTimer::heap().Count());
    handler->DestroyTimer(again);
}

// Timers keep few ids to themselves; handlers get the others.
TEST_F(NetTimer, IdsOfManyTimersGoBackToThePool) {
    const uint32_t waiting = ObjectIdProbe::count(PoolTable::Get(0)->m_ids);
    std::vector<long> ids;
    for (int i = 0; i < 5000; ++i) {
        ids.push_back(handler->SetTimer(60000000));
    }
    for (long id : ids) {
        handler->DestroyTimer(id);
    }
    EXPECT_EQ(5000u, TimerHeapProbe::waitingIds(CNetTimer::heap(), 0) +
                         ObjectIdProbe::count(PoolTable::Get(0)->m_ids) - waiting);
    EXPECT_LE(TimerHeapProbe::waitingIds(CNetTimer::heap(), 0), 2048u);
}

TEST_F(NetTimer, DestroyTimerOfAnUnknownIdDoesNothing) {
    const long id = handler->SetTimer(60000000);
    for (long unknown : {0L, 1L, -1L, -50L, -101L, -102L, id + 1, id - 65536}) {
        handler->DestroyTimer(unknown);
    }
    EXPECT_EQ(1, CNetTimer::heap().Count());
    handler->DestroyTimer(id);
}

TEST_F(NetTimer, DestroyTimerInsideItsOwnCallFindsNothing) {
    std::atomic<int> calls{0};
    handler->on_timeout = [&](long id) -> int64_t {
        handler->DestroyTimer(id);
        return ++calls < 3 ? 0 : -1;
    };
    handler->SetTimer(3000);
    EXPECT_EVENTUALLY(life->timeouts == 3);
}

TEST_F(NetTimer, OneTimersCallsNeverOverlap) {
    std::atomic<int> inside{0};
    std::atomic<int> most{0};
    handler->on_timeout = [&](long) -> int64_t {
        most = std::max(most.load(), ++inside);
        Infra::CThread::sleep(8);
        --inside;
        return life->timeouts < 9 ? 0 : -1;
    };
    handler->SetTimer(3000);
    EXPECT_EVENTUALLY(life->timeouts == 10);
    EXPECT_EQ(1, most);
}

TEST_F(NetTimer, WithoutTimersTheThreadSleepsWithoutLimitAndTheFirstOneWakesIt) {
    const int thread = sleepingTimerThread();
    const long sleeps = Testing::voluntarySleeps(thread);
    Infra::CThread::sleep(50);
    EXPECT_EQ(sleeps, Testing::voluntarySleeps(thread));
    handler->SetTimer(3000);
    EXPECT_EVENTUALLY(life->timeouts == 1);
}

TEST_F(NetTimer, TimersThatAreFarAwayCostNoWakeUps) {
    std::vector<long> ids;
    for (int i = 0; i < 100; ++i) {
        ids.push_back(handler->SetTimer(3600000000));
    }
    const int thread = sleepingTimerThread();
    const long sleeps = Testing::voluntarySleeps(thread);
    Infra::CThread::sleep(100);
    EXPECT_EQ(sleeps, Testing::voluntarySleeps(thread));
    for (long id : ids) {
        handler->DestroyTimer(id);
    }
}

TEST_F(NetTimer, ASoonerTimerWakesTheThreadThatSleepsToAFarOne) {
    const long far = handler->SetTimer(3600000000);
    sleepingTimerThread();
    handler->SetTimer(3000);
    EXPECT_EVENTUALLY(life->timeouts == 1);
    handler->DestroyTimer(far);
}

TEST_F(NetTimer, EveryTimerOfManyFiresOnce) {
    constexpr int TIMERS = 2000;
    std::vector<std::atomic<int>> fired(TIMERS);
    std::vector<long> ids(TIMERS);
    std::atomic<bool> armed{false};
    handler->on_timeout = [&](long id) -> int64_t {
        EXPECT_EVENTUALLY(armed);
        const auto found = std::find(ids.begin(), ids.end(), id);
        if (found != ids.end()) {
            ++fired[static_cast<size_t>(found - ids.begin())];
        }
        return -1;
    };
    for (int i = 0; i < TIMERS; ++i) {
        ids[static_cast<size_t>(i)] = handler->SetTimer(3000 + (i * 7919) % 50000);
    }
    armed = true;
    EXPECT_EVENTUALLY(life->timeouts == TIMERS);
    for (const std::atomic<int>& count : fired) {
        ASSERT_EQ(1, count);
    }
}

TEST_F(NetTimer, ArmingAndDestroyingFromManyThreadsLosesNothing) {
    std::atomic<int> destroyed{0};
    handler->on_timeout = [](long) -> int64_t { return -1; };
    std::vector<std::thread> threads;
    for (int t = 0; t < 3; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 500; ++i) {
                const long id = handler->SetTimer(3000 + i);
                if (i % 2 == 0) {
                    destroyed += CNetTimer::heap().RemoveById(id) ? 1 : 0;
                }
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EVENTUALLY(life->timeouts + destroyed == 1500);
    EXPECT_EVENTUALLY(TimerHeapProbe::waitingIds(CNetTimer::heap(), 0) > 0);
    EXPECT_EVENTUALLY(CNetTimer::heap().Count() == 0);
}

// ---- ends of pools -------------------------------------------------------------------------------------

TEST_F(NetTimer, APoolsEndTakesItsTimersAlong) {
    const int pool = CNetThread::CreatePrivatePool(2, false);
    auto* other = new TestHandler(pool);
    const std::shared_ptr<HandlerLife> others = other->life;
    for (int i = 0; i < 50; ++i) {
        other->SetTimer(60000000);
    }
    const long mine = handler->SetTimer(60000000);
    closeAndWait(other);
    EXPECT_EQ(0, CNetThread::DestroyPrivatePool(pool));
    EXPECT_EQ(1, CNetTimer::heap().Count());
    handler->DestroyTimer(mine);
}

TEST(NetTimerLives, ATimerOfOneLifeNeverReachesAHandlerOfTheNext) {
    for (int round = 0; round < 5; ++round) {
        ASSERT_EQ(0, CNetThread::CreateThreadPool(2, false));
        auto* handler = new TestHandler;
        const std::shared_ptr<HandlerLife> life = handler->life;
        for (int i = 0; i < 20; ++i) {
            handler->SetTimer(20000 + i * 1000);
        }
        handler->Close();
        EXPECT_EVENTUALLY(life->closes == 1);
        EXPECT_EQ(0, CNetThread::DestroyThreadPool());
        EXPECT_EQ(0, CNetTimer::heap().Count());
        ASSERT_EQ(0, CNetThread::CreateThreadPool(2, false));
        auto* heir = new TestHandler;  // has the same id as the handler before
        const std::shared_ptr<HandlerLife> heirs = heir->life;
        Infra::CThread::sleep(60);  // the timers of the first life would be due by now
        EXPECT_EQ(0, heirs->timeouts);
        heir->Close();
        EXPECT_EVENTUALLY(heirs->closes == 1);
        EXPECT_EQ(0, CNetThread::DestroyThreadPool());
    }
}

TEST(NetTimerLives, ExitAloneLeavesTheHeapAndInitGoesOnWithIt) {
    ASSERT_EQ(0, CNetThread::CreateThreadPool(2, false));
    auto* handler = new TestHandler;
    const std::shared_ptr<HandlerLife> life = handler->life;
    handler->SetTimer(30000);
    CNetTimer::Exit();
    EXPECT_EQ(1, CNetTimer::heap().Count());
    ASSERT_EQ(0, CNetTimer::Init());
    EXPECT_EVENTUALLY(life->timeouts == 1);
    handler->Close();
    EXPECT_EVENTUALLY(life->closes == 1);
    EXPECT_EQ(0, CNetThread::DestroyThreadPool());
}

}  // namespace
}  // namespace Orvex::Reticor
