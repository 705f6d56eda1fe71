// CSockTimer: its clock, its list, and how a socket's idle time-out is armed, paused, replaced and spent.
#include "Core/service/SockTimer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <thread>

#include <Infra/Thread.h>
#include <Infra/Time.h>

#include "support/PoolFixture.h"
#include "support/ThreadFault.h"
#include "support/core/Gate.h"
#include "support/core/SocketPair.h"
#include "support/core/StillHandler.h"

namespace Orvex::Testing {
namespace {

using namespace Reticor;

// The list of a timer that belongs to the test.
class SockTimerList : public ::testing::Test {
protected:
    SockTimerList() {
        for (CEvent& ev : records) {
            ev.m_timer.m_timer_owner = &ev;
        }
    }
    std::vector<CEvent*> listed() { return SockTimerProbe::listed(timer); }

    CSockTimer timer;
    CEvent records[4];
    CEvent* const a = &records[0];
    CEvent* const b = &records[1];
    CEvent* const c = &records[2];
};

TEST_F(SockTimerList, LinkSetsTheDeadlineHalfASecondBehindTheTimeout) {
    timer.Link(a, 700);
    EXPECT_EQ(700, a->m_timer.m_set_time);
    EXPECT_EQ(1200, a->m_timer.m_sock_deadline);
    EXPECT_TRUE(CSockTimer::IsLinked(a));
    SockTimerProbe::pass(timer);
    SockTimerProbe::pass(timer);
    EXPECT_EQ(1000u, SockTimerProbe::now(timer));
    timer.Link(b, 1);
    EXPECT_EQ(1501, b->m_timer.m_sock_deadline);
    timer.Unlink(a);
    timer.Unlink(b);
}

TEST_F(SockTimerList, UpdateMovesTheDeadlineInPlace) {
    timer.Link(a, 700);
    timer.Link(b, 100);
    timer.Update(a, 2000);
    EXPECT_EQ(2000, a->m_timer.m_set_time);
    EXPECT_EQ(2500, a->m_timer.m_sock_deadline);
    EXPECT_EQ((std::vector<CEvent*>{b, a}), listed());
    EXPECT_TRUE(CSockTimer::IsLinked(a));
    timer.Unlink(a);
    timer.Unlink(b);
}

TEST_F(SockTimerList, NewNodesGoToTheHeadAndLeaveFromAnywhere) {
    for (CEvent* const leaving : {a, b, c}) {
        timer.Link(a, 1);
        timer.Link(b, 1);
        timer.Link(c, 1);
        EXPECT_EQ((std::vector<CEvent*>{c, b, a}), listed());
        timer.Unlink(leaving);
        std::vector<CEvent*> rest{c, b, a};
        rest.erase(std::find(rest.begin(), rest.end(), leaving));
        EXPECT_EQ(rest, listed());
        EXPECT_FALSE(CSockTimer::IsLinked(leaving));
        EXPECT_EQ(0, leaving->m_timer.m_set_time);
        EXPECT_EQ(0, leaving->m_timer.m_sock_deadline);
        EXPECT_EQ(nullptr, leaving->m_timer.m_timer_prev);
        EXPECT_EQ(nullptr, leaving->m_timer.m_timer_next);
        timer.Unlink(rest[1]);
        EXPECT_TRUE(CSockTimer::IsLinked(rest[0])) << "alone in the list, with no links";
        timer.Unlink(rest[0]);
        EXPECT_TRUE(listed().empty());
    }
}

TEST_F(SockTimerList, StopSetsTheClockBackAndKeepsTheList) {
    timer.Link(a, 60000);
    ASSERT_EQ(0, timer.Start());
    EXPECT_TRUE(SockTimerProbe::running(timer));
    EXPECT_EVENTUALLY(SockTimerProbe::now(timer) >= 500);
    timer.Stop();
    EXPECT_FALSE(SockTimerProbe::running(timer));
    EXPECT_EQ(0u, SockTimerProbe::now(timer));
    EXPECT_EQ(std::vector<CEvent*>{a}, listed());
    ASSERT_EQ(0, timer.Start()) << "and can start again";
    timer.Stop();
    timer.Stop();
    timer.Unlink(a);
}

TEST_F(SockTimerList, StartWithoutAThreadFailsAndCanBeTriedAgain) {
    {
        LogCapture quiet(1);
        ThreadFault no_threads;
        EXPECT_EQ(-1, timer.Start());
        EXPECT_EQ(1, no_threads.refused());
    }
    EXPECT_FALSE(SockTimerProbe::running(timer));
    ASSERT_EQ(0, timer.Start());
    timer.Stop();
}

// ---- with a pool -----------------------------------------------------------------------------------------

class SockTimer : public StillHandler {
protected:
    void TearDown() override {
        handler->RemoveSock(pair.near);
        EXPECT_TRUE(SockTimerProbe::listed(sock_timer()).empty());
        StillHandler::TearDown();
    }

    CEvent* record() { return rig.record(pair.fd()); }
    void add(int time_out_us, unsigned int mask = SOCK_READ) {
        StillHandler::add(pair.near, mask, time_out_us);
    }
    void deliver() {
        pair.write();
        EXPECT_EQ(1u, rig.pollAndServe());
    }

    // Passes of the clock until the time-out fires; it is served then.
    int passesToTimeout(int limit = 50) {
        for (int passes = 1; passes <= limit; ++passes) {
            const std::vector<CEvent*> due = rig.tick();
            if (!due.empty()) {
                EXPECT_EQ(1u, due.size());
                rig.serve(due[0]);
                return passes;
            }
        }
        return -1;
    }

    SocketPair pair;
};

TEST_F(SockTimer, TimeoutFiresAfterItsTimeAndLessThanASecondLater) {
    // Armed just after a pass, the clock shows 500 for each pass since. Never before the time is over, even
    // if it was armed just before the first of the passes.
    for (const int ms : {1, 499, 500, 501, 999, 1000, 1001, 3700}) {
        add(ms * 1000);
        const int passes = passesToTimeout();
        EXPECT_GE((passes - 1) * 500, ms) << ms;
        EXPECT_LT(passes * 500, ms + 1000) << ms;
    }
    EXPECT_EQ(8, handler->life->input_timeouts);
}

TEST_F(SockTimer, TimeoutFiresOnce) {
    add(1000);
    EXPECT_EQ(2, passesToTimeout());
    EXPECT_EQ(-1, passesToTimeout());
    EXPECT_EQ(1, handler->life->calls());
}

TEST_F(SockTimer, TimeoutIsPausedInFlightAndRunsInFullAfterwards) {
    add(1000000);
    rig.tick(2);
    pair.write();
    const std::vector<CEvent*> ready = rig.poll();
    ASSERT_EQ(1u, ready.size());
    EXPECT_TRUE(rig.tick(20).empty());
    rig.serve(ready[0]);
    EXPECT_EQ(3, passesToTimeout());
}

TEST_F(SockTimer, PositiveReturnReplacesTheStoredTimeout) {
    add(1000000);
    handler->on_input = [](int fd) {
        SocketPair::drain(fd);
        return 2000000;
    };
    deliver();
    EXPECT_EQ(2000, record()->m_timer.m_set_time);
    handler->on_input = [](int fd) {
        SocketPair::drain(fd);
        return 0;
    };
    deliver();
    EXPECT_EQ(2000, record()->m_timer.m_set_time);
    EXPECT_EQ(5, passesToTimeout());
}

TEST_F(SockTimer, PositiveReturnArmsATimeoutWhereThereWasNone) {
    add(0);
    handler->on_input = [](int fd) {
        SocketPair::drain(fd);
        return 1000;
    };
    deliver();
    EXPECT_EQ(2, passesToTimeout());
}

TEST_F(SockTimer, PositiveReturnBelowAMillisecondCancels) {
    add(1000000);
    handler->on_input = [](int fd) {
        SocketPair::drain(fd);
        return 999;
    };
    deliver();
    EXPECT_FALSE(CSockTimer::IsLinked(record()));
    EXPECT_EQ(0, record()->m_timer.m_set_time);
}

TEST_F(SockTimer, ReturnOfOutputCountsWhereBothDirectionsWereReady) {
    handler->on_output = [](int) { return 7000000; };
    pair.write();
    add(1000000, SOCK_READ | SOCK_WRITE);
    EXPECT_EQ(1u, rig.pollAndServe());
    EXPECT_EQ(1, handler->life->inputs);
    EXPECT_EQ(7000, record()->m_timer.m_set_time);
}

TEST_F(SockTimer, ReturnOfATimeoutHandlerIsIgnored) {
    handler->on_input_timeout = [](int) { return 5000000; };
    add(1000);
    EXPECT_EQ(2, passesToTimeout());
    EXPECT_FALSE(CSockTimer::IsLinked(record()));
    EXPECT_EQ(0, record()->m_timer.m_set_time);
}

TEST_F(SockTimer, TimeoutRegisteredInsideTheTimeoutHandlerTakesEffectAtTheNextEventThatReturns0) {
    handler->on_input_timeout = [this](int) {
        add(1000000);
        return 0;
    };
    add(1000);
    EXPECT_EQ(2, passesToTimeout());
    EXPECT_EQ(1000, record()->m_timer.m_set_time) << "stored";
    EXPECT_FALSE(CSockTimer::IsLinked(record())) << "and not armed";
    EXPECT_EQ(-1, passesToTimeout());
    deliver();
    EXPECT_TRUE(CSockTimer::IsLinked(record()));
    EXPECT_EQ(3, passesToTimeout());
    EXPECT_EQ(2, handler->life->input_timeouts);
}

TEST_F(SockTimer, RegisterInFlightOnlyStoresTheTimeoutAndTheReturnDecides) {
    handler->on_input = [this](int fd) {
        SocketPair::drain(fd);
        add(3000000);
        EXPECT_EQ(3000, record()->m_timer.m_set_time);
        EXPECT_FALSE(CSockTimer::IsLinked(record()));
        return 0;
    };
    add(0);
    deliver();
    EXPECT_EQ(7, passesToTimeout());
    handler->on_input = [this](int fd) {
        SocketPair::drain(fd);
        add(3000000);
        return -1;
    };
    deliver();
    EXPECT_EQ(3000, record()->m_timer.m_set_time) << "nothing was armed that could be cancelled";
    EXPECT_EQ(-1, passesToTimeout());
}

TEST_F(SockTimer, BusyRecordIsSkippedAndFiresAtTheNextPass) {
    add(1000);
    Gate gate;
    std::thread busy([&] {
        const RecordPin pin = RecordPin::Enter(record());
        gate.pass();
    });
    ASSERT_TRUE(gate.awaitArrivals(1));
    EXPECT_TRUE(rig.tick(4).empty());
    gate.open();
    busy.join();
    EXPECT_EQ(1, passesToTimeout());
}

TEST_F(SockTimer, AllThatIsDueFiresInOnePassAndTheRestStays) {
    SocketPair others[3];
    ASSERT_EQ(0, handler->RegisterSock(others[0].near, SOCK_READ, 1000));
    ASSERT_EQ(0, handler->RegisterSock(others[1].near, SOCK_WRITE, 90000000));
    ASSERT_EQ(0, handler->RegisterSock(others[2].near, SOCK_READ, 2000));
    add(1000);
    const std::vector<CEvent*> due = rig.tick(2);
    EXPECT_EQ(3u, due.size());
    EXPECT_EQ(std::vector<CEvent*>{rig.record(others[1].fd())}, SockTimerProbe::listed(sock_timer()));
    for (SocketPair& other : others) {
        handler->RemoveSock(other.near);
    }
    for (CEvent* ev : due) {
        rig.serve(ev);
    }
}

TEST_F(SockTimer, TimeoutOfAHandlerThatHasGoneMakesNoCallAndEnds) {
    SocketPair other;
    TestHandler* const gone = new TestHandler(StillPool::INDEX);
    ASSERT_EQ(0, gone->RegisterSock(other.near, SOCK_READ, 1000));
    gone->DecSock();
    rig.close(gone);
    EXPECT_EQ(2, passesToTimeout());
    EXPECT_EQ(-1, passesToTimeout());
    EXPECT_TRUE(is_in_flight(rig.record(other.fd())) == false);
    handler->AddSock();
    handler->RemoveSock(other.near);
}

class SockTimerReal : public PoolFixture {};

TEST_F(SockTimerReal, TimeoutFiresNotBeforeItsTimeAndTrafficPutsItOff) {
    SocketPair pair;
    TestHandler* const handler = new TestHandler;
    std::atomic<uint64_t> last_us{Infra::CTime::getCurrentMicroSecond()};
    std::atomic<uint64_t> idle_us{0};
    handler->on_input = [&](int fd) {
        SocketPair::drain(fd);
        last_us = Infra::CTime::getCurrentMicroSecond();
        return 0;
    };
    handler->on_input_timeout = [&](int) {
        idle_us = Infra::CTime::getCurrentMicroSecond() - last_us;
        return 0;
    };
    ASSERT_EQ(0, handler->RegisterSock(pair.near, SOCK_READ, 700000));
    for (int i = 1; i <= 5 && handler->life->input_timeouts == 0; ++i) {
        Infra::CThread::sleep(200);
        pair.write();
        EXPECT_EVENTUALLY(handler->life->inputs == i);
    }
    EXPECT_EVENTUALLY(handler->life->input_timeouts == 1);
    EXPECT_GE(idle_us, 700000u);
    handler->RemoveSock(pair.near);
    closeAndWait(handler);
}

TEST(SockTimerPoolEnd, RecordsOfAPoolLeaveTheListWithIt) {
    SocketPair pair;
    {
        StillPool rig;
        TestHandler* const handler = new TestHandler(StillPool::INDEX);
        ASSERT_EQ(0, handler->RegisterSock(pair.near, SOCK_READ, 1000));
        handler->DecSock();
        rig.close(handler);
    }
    EXPECT_TRUE(SockTimerProbe::listed(sock_timer()).empty());
    SockTimerProbe::pass(sock_timer());
    SockTimerProbe::pass(sock_timer());
}

}  // namespace
}  // namespace Orvex::Testing
