// CNTimer on a pool with workers: real ticks, and what may happen at the same time.
#include <Reticor/NTimer.h>

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <memory>
#include <thread>
#include <vector>

#include <Infra/Log.h>
#include <Infra/Thread.h>
#include <Infra/Time.h>

#include "Core/pool/PoolTable.h"
#include "support/PoolFixture.h"
#include "support/core/Gate.h"
#include "support/tick/NTimerStand.h"

namespace Orvex::Reticor {
namespace {

using Testing::Gate;
using Testing::NTimerStand;
using Testing::PoolFixture;

// What remains of an event that was deleted.
struct EventLife {
    std::atomic<int> calls{0};
    std::atomic<int> closes{0};
};

class CountingEvent : public CNTimerEvent {
public:
    std::shared_ptr<EventLife> life = std::make_shared<EventLife>();
    std::function<void()> on_event;

    int handle_timer_event() override {
        if (on_event) {
            on_event();
        }
        ++life->calls;
        return -1;
    }
    int handle_close(CNetHandler* self) override {
        const std::shared_ptr<EventLife> kept = life;
        delete self;
        ++kept->closes;
        return 0;
    }
};

class NTimerThreads : public PoolFixture {
protected:
    CountingEvent* running(CNTimer& timer, std::function<void()> on_event = nullptr) {
        auto* event = new CountingEvent;
        event->on_event = std::move(on_event);
        lives.push_back(event->life);
        timer.PushTimerEvent(event);
        event->Start();
        return event;
    }

    // Closes the timer, and waits until it and all its events have gone: one is left on it for that.
    void end(CNTimer* timer) {
        running(*timer);
        timer->Close();
        for (const auto& life : lives) {
            EXPECT_EVENTUALLY(life->closes == 1);
        }
    }

    std::vector<std::shared_ptr<EventLife>> lives;
};

TEST_F(NTimerThreads, RunningEventsAreCalledOncePerTick) {
    CNTimer* timer = CNTimer::Create(5000);
    std::vector<int> order;  // by the calls of one timer, which never overlap
    running(*timer, [&] { order.push_back(0); });
    running(*timer, [&] { order.push_back(1); });
    running(*timer, [&] { order.push_back(2); });
    EXPECT_EVENTUALLY(lives[2]->calls >= 10);
    end(timer);
    ASSERT_GE(order.size(), 30U);
    // The first tick may have come before all three were started.
    for (size_t i = 3; i < order.size(); ++i) {
        ASSERT_EQ((order[i - 1] + 1) % 3, order[i]) << i;
    }
}

// The event's work is a third of the period; a timer that counts from the end of a call would lose that each
// time.
TEST_F(NTimerThreads, TheTimeThatHandlersTakeDoesNotAddUp) {
    constexpr int64_t PERIOD_US = 30000;
    CNTimer* timer = CNTimer::Create(PERIOD_US);
    const uint64_t start = NTimerProbe::of(*timer).m_start;
    std::atomic<int64_t> lateness{PERIOD_US};
    running(*timer, [&] {
        const int64_t ticks = NTimerProbe::of(*timer).m_ticks;  // belongs to this call
        lateness = static_cast<int64_t>(Infra::CTime::getCurrentMicroSecond() - start) - PERIOD_US * ticks;
        Infra::CThread::sleep(10);
    });
    EXPECT_EVENTUALLY(lives[0]->calls >= 12 && lateness < PERIOD_US / 2);
    EXPECT_GE(lateness, -3000) << "no call is more than 3 ms before its grid point";
    EXPECT_EQ(start, NTimerProbe::of(*timer).m_start);
    end(timer);
}

TEST_F(NTimerThreads, NoPeriodIsFasterThanATickIn2000) {
    CNTimer* timer = CNTimer::Create(100);
    std::vector<uint64_t> calls;
    running(*timer, [&] { calls.push_back(Infra::CTime::getCurrentMicroSecond()); });
    EXPECT_EVENTUALLY(lives[0]->calls >= 20);
    end(timer);
    // Each delay is 3 ms for the core's timers, which come up to 3 ms early, on a grid of 5 ms.
    EXPECT_GE(calls.back() - calls.front(), 2000 * (calls.size() - 1) / 2);
}

TEST_F(NTimerThreads, ExtremePeriodsWork) {
    for (long long period : {0LL, -1LL, -9223372036854775807LL - 1}) {
        lives.clear();
        CNTimer* timer = CNTimer::Create(period);
        running(*timer);
        if (period == 0) {
            EXPECT_EVENTUALLY(lives[0]->calls >= 5);
        }
        end(timer);
    }
}

// The period is a minute, and so it must be the sweep.
TEST_F(NTimerThreads, AClosedEventGoesWithinAboutASecondAlsoOnASlowTimer) {
    CNTimer* timer = CNTimer::Create(60000000);
    CountingEvent* event = running(*timer);
    CountingEvent* stays = running(*timer);
    event->Close();
    EXPECT_EVENTUALLY(lives[0]->closes == 1);
    EXPECT_EQ(0, lives[0]->calls);
    EXPECT_EQ(std::vector<CNTimerEvent*>{stays}, NTimerProbe::events(*timer));
    end(timer);
}

// A tick never overlaps itself, but the sweep can come while one runs.
TEST_F(NTimerThreads, TickAndSweepOfOneTimerTakeTurns) {
    CNTimer* timer = CNTimer::Create(60000000);
    Gate gate;
    running(*timer, [&] { gate.pass(); });
    CNetHandler* handler = timer;
    const long tick_id = NTimerProbe::tickId(*timer);
    const long sweep_id = NTimerProbe::sweepId(*timer);
    std::atomic<int> over{0};
    std::thread ticking([&] { handler->handle_timeout(tick_id), ++over; });
    ASSERT_TRUE(gate.awaitArrivals(1));
    std::thread sweeping([&] { handler->handle_timeout(sweep_id), ++over; });
    Infra::CThread::sleep(20);
    EXPECT_EQ(0, over);
    gate.open();
    ticking.join();
    sweeping.join();
    EXPECT_EQ(2, over);
    end(timer);
}

TEST_F(NTimerThreads, PushWaitsForATickThatRuns) {
    CNTimer* timer = CNTimer::Create(3000);
    Gate gate;
    running(*timer, [&] { gate.pass(); });
    ASSERT_TRUE(gate.awaitArrivals(1));

    auto* pushed = new CountingEvent;
    lives.push_back(pushed->life);
    std::atomic<bool> is_pushed{false};
    std::thread pushing([&] {
        timer->PushTimerEvent(pushed);
        is_pushed = true;
    });
    Infra::CThread::sleep(20);
    EXPECT_FALSE(is_pushed);
    EXPECT_EQ(static_cast<int>(EVENT_CREATED), NTimerProbe::state(*pushed));
    gate.open();
    pushing.join();
    EXPECT_EQ(static_cast<int>(EVENT_READY), NTimerProbe::state(*pushed));
    end(timer);
}

// They take the event's lock alone: what they change counts for the ticks that follow.
TEST_F(NTimerThreads, StopAndCloseReturnWhileTheHandlerRuns) {
    CNTimer* timer = CNTimer::Create(3000);
    Gate gate;
    CountingEvent* event = running(*timer, [&] { gate.pass(); });
    ASSERT_TRUE(gate.awaitArrivals(1));
    event->Stop();
    event->Start();
    event->Stop();
    event->Close();
    EXPECT_EQ(0, lives[0]->calls) << "its call is still under way";
    gate.open();
    EXPECT_EVENTUALLY(lives[0]->closes == 1);
    EXPECT_EQ(1, lives[0]->calls);
    end(timer);
}

TEST_F(NTimerThreads, StartStopCloseAndPushRaceWithTheTicks) {
    CNTimer* timer = CNTimer::Create(3000);
    constexpr int ROUNDS = 300;
    std::vector<std::thread> threads;
    std::vector<std::vector<std::shared_ptr<EventLife>>> made(3);
    for (auto& own : made) {
        threads.emplace_back([&] {
            for (int i = 0; i < ROUNDS; ++i) {
                auto* event = new CountingEvent;
                own.push_back(event->life);
                timer->PushTimerEvent(event);
                event->Start();
                if (i % 2 == 0) {
                    event->Stop();
                    event->Start();
                }
                if (i % 5 == 0) {
                    Infra::CThread::sleep(1);
                }
                event->Close();  // from here on the event may be gone
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    for (const auto& own : made) {
        lives.insert(lives.end(), own.begin(), own.end());
    }
    EXPECT_EVENTUALLY(NTimerProbe::events(*timer).empty());
    end(timer);
    for (const auto& life : lives) {
        EXPECT_EQ(1, life->closes);
    }
}

// The passes follow one another without a pause, so that many of them see an event in the very moment when it
// becomes closed: after that step Close must not touch it.
TEST_F(NTimerThreads, CloseTouchesNothingOnceThePassMayTakeTheEvent) {
    CNTimer* timer = CNTimer::Create(60000000);
    CNetHandler* handler = timer;
    const long sweep_id = NTimerProbe::sweepId(*timer);
    std::atomic<bool> over{false};
    std::thread sweeping([&] {
        while (!over) {
            handler->handle_timeout(sweep_id);
        }
    });
    for (int i = 0; i < 2000; ++i) {
        running(*timer)->Close();
    }
    EXPECT_EVENTUALLY(NTimerProbe::events(*timer).empty());
    over = true;
    sweeping.join();
    end(timer);
}

TEST_F(NTimerThreads, TimersEndWhileTheirTicksRun) {
    for (int round = 0; round < 100; ++round) {
        CNTimer* timer = CNTimer::Create(0);
        running(*timer, [] { std::this_thread::yield(); });
        if (round % 3 == 0) {
            EXPECT_EVENTUALLY(lives.back()->calls > 0);
        }
        timer->Close();
    }
    for (const auto& life : lives) {
        EXPECT_EVENTUALLY(life->closes == 1);
    }
}

// A tick can come before the constructor is over. It finds both ids, since it waits for the lock under which
// they are stored.
class NTimerConstruction : public NTimerStand {
protected:
    void SetUp() override {}

    // Called while the constructor arms the tick, by the line about a period of more than a day.
    static void look(void* context, const Infra::LogLine&) {
        auto& self = *static_cast<NTimerConstruction*>(context);
        // The next fresh id of the pool after that of the neighbour.
        const HandlerPin found = PoolTable::FindHandler(self.neighbour->GetID() - 65536);
        if (auto* made = dynamic_cast<CNTimer*>(found.get())) {
            ++self.seen;
            self.locked = NTimerProbe::of(*made).m_mutex.heldByThisThread();
        }
    }

    Testing::LetterEvent* neighbour = nullptr;
    int seen = 0;
    bool locked = false;
};

TEST_F(NTimerConstruction, BothTimersAreArmedUnderTheLockOfTheTicks) {
    neighbour = new Testing::LetterEvent(diary, 'a');
    const Infra::LogSink sink{&look, this};
    const Infra::LogSink* const before = Infra::setLogSink(&sink);
    timer = CNTimer::Create(86400000001);
    Infra::setLogSink(before);
    EXPECT_EQ(1, seen);
    EXPECT_TRUE(locked);
    neighbour->Close();
    gone();
}

}  // namespace
}  // namespace Orvex::Reticor
