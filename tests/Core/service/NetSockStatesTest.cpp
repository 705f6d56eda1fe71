// CNetSock: the states of a socket's record and every way from one to the next, step by step. The same ways
// under race are in NetSockRaceTest.cpp.
#include <gtest/gtest.h>

#include "R3/print/DebugSocket.h"
#include "support/core/CountingAllocator.h"
#include "support/core/EpollSeam.h"
#include "support/core/SocketPair.h"
#include "support/core/StillPool.h"

namespace Orvex::Testing {
namespace {

using namespace Reticor;

class NetSockStates : public ::testing::Test {
protected:
    void TearDown() override {
        handler->RemoveSock(pair.near);
        EXPECT_TRUE(ThreadPoolProbe::sockets(rig.pool()).empty());
        EXPECT_TRUE(SockTimerProbe::listed(sock_timer()).empty());
        EXPECT_EQ(1, rig.places(0));
        EXPECT_EQ(0, rig.places(1));
        EXPECT_EQ(0, rig.places(2));
        rig.close(handler);
        rig.close(second);
    }

    CEvent* record() { return rig.record(pair.fd()); }
    int64_t sockets(TestHandler* of) { return HandlerProbe::sockets(*of); }

    void add(TestHandler* to, unsigned int mask, int time_out_us = 0) {
        EXPECT_EQ(0, to->RegisterSock(pair.near, mask, time_out_us));
    }

    // Registers for reading, makes it readable, and takes the record that is in flight.
    CEvent* bringInFlight(unsigned int mask = SOCK_READ, int time_out_us = 0) {
        add(handler, mask, time_out_us);
        pair.write();
        const std::vector<CEvent*> ready = rig.poll();
        EXPECT_EQ(1u, ready.size());
        return ready.empty() ? nullptr : ready[0];
    }

    StillPool rig;
    SocketPair pair;
    TestHandler* handler = new TestHandler(StillPool::INDEX);
    TestHandler* second = new TestHandler(StillPool::INDEX);
};

TEST_F(NetSockStates, IdleIsInTheSetsOfItsMask) {
    add(handler, SOCK_READ | SOCK_EXCEPT);
    EXPECT_EQ(0, record()->m_revents);
    EXPECT_EQ(SOCK_READ | SOCK_EXCEPT, record()->m_event_mask);
    EXPECT_EQ(2, rig.places(0));
    EXPECT_EQ(0, rig.places(1));
    EXPECT_EQ(1, rig.places(2));
    EXPECT_EQ(handler->GetID(), record()->m_obj_id);
    EXPECT_EQ(record(), record()->m_timer.m_timer_owner);
    EXPECT_EQ(1, sockets(handler));
}

TEST_F(NetSockStates, IdleToInFlightByReadinessLeavesTheSetsAndPausesTheTimeout) {
    CEvent* const ev = bringInFlight(SOCK_READ, 1000000);
    EXPECT_EQ(REVENT_READ, ev->m_revents);
    EXPECT_EQ(0, ev->m_timer.m_sock_deadline);
    EXPECT_EQ(1000, ev->m_timer.m_set_time);
    EXPECT_EQ(1, rig.places(0));
    EXPECT_TRUE(rig.tick(10).empty()) << "no time-out fires in flight";
    rig.serve(ev);
}

TEST_F(NetSockStates, IdleToInFlightByTimeoutLeavesTheSetsAndTheTimerList) {
    add(handler, SOCK_READ | SOCK_WRITE, 1000);
    const std::vector<CEvent*> due = rig.tick(2);
    ASSERT_EQ(1u, due.size());
    EXPECT_EQ(REVENT_READ_TIMEOUT, due[0]->m_revents);
    EXPECT_EQ(0, due[0]->m_timer.m_set_time);
    EXPECT_TRUE(SockTimerProbe::listed(sock_timer()).empty());
    EXPECT_EQ(1, rig.places(0));
    EXPECT_EQ(0, rig.places(1));
    EXPECT_TRUE(rig.poll().empty()) << "writable, and in flight";
    rig.serve(due[0]);
    EXPECT_EQ(1, rig.pollAndServe());
}

TEST_F(NetSockStates, IdleToGoneByRemove) {
    add(handler, SOCK_READ, 1000000);
    handler->RemoveSock(pair.near);
    EXPECT_EQ(nullptr, record());
    EXPECT_EQ(0, sockets(handler));
    pair.write();
    EXPECT_TRUE(rig.poll().empty());
    EXPECT_EQ(0, handler->RemoveSock(pair.near)) << "unknown: silent";
    EXPECT_EQ(0, sockets(handler));
}

TEST_F(NetSockStates, InFlightToIdleBySecondHalf) {
    CEvent* const ev = bringInFlight();
    rig.serve(ev);
    EXPECT_EQ(0, ev->m_revents);
    EXPECT_EQ(2, rig.places(0));
    EXPECT_EQ(ev, record());
    EXPECT_EQ(1, handler->life->inputs);
}

TEST_F(NetSockStates, InFlightToRemovingToGone) {
    CEvent* const ev = bringInFlight(SOCK_READ, 1000000);
    handler->RemoveSock(pair.near);
    EXPECT_EQ(REVENT_REMOVED, ev->m_revents);
    EXPECT_EQ(SOCK_REMOVED, ev->m_event_mask);
    EXPECT_EQ(0, sockets(handler));
    EXPECT_EQ(ev, record()) << "the worker frees it";
    handler->RemoveSock(pair.near);
    EXPECT_EQ(0, sockets(handler)) << "counted once";
    pair.near.Close();
    EXPECT_TRUE(rig.poll().empty());
    EXPECT_TRUE(rig.tick(10).empty());
    rig.serve(ev);
    EXPECT_TRUE(ThreadPoolProbe::sockets(rig.pool()).empty());
    EXPECT_EQ(0, handler->life->calls());
}

TEST_F(NetSockStates, RemovingToInFlightByRegisterCarriesRemovedAndTheNewMaskAlone) {
    handler->on_input = [this](int) {
        handler->RemoveSock(pair.near);
        add(handler, SOCK_WRITE);
        return -1;
    };
    CEvent* const ev = bringInFlight(SOCK_READ | SOCK_EXCEPT, 2000000);
    rig.serve(ev);
    EXPECT_EQ(ev, record());
    EXPECT_EQ(SOCK_WRITE, ev->m_event_mask);
    EXPECT_EQ(0, ev->m_revents);
    EXPECT_EQ(1, sockets(handler));
    EXPECT_EQ(1, rig.places(0));
    EXPECT_EQ(1, rig.places(1));
    EXPECT_EQ(1u, rig.pollAndServe());
    EXPECT_EQ(1, handler->life->outputs);
}

TEST_F(NetSockStates, RemovedAndRegisteredAgainInFlightActsAsIfTheHandlerHadReturned0) {
    handler->on_input = [this](int) {
        handler->RemoveSock(pair.near);
        add(handler, SOCK_READ, 3000000);
        return -1;  // would cancel the time-out
    };
    CEvent* const ev = bringInFlight();
    rig.serve(ev);
    EXPECT_EQ(3000, ev->m_timer.m_set_time);
    EXPECT_TRUE(CSockTimer::IsLinked(ev));

    handler->on_input = [this](int) {
        handler->RemoveSock(pair.near);
        add(handler, SOCK_READ, 4000000);
        return 9000000;  // would set another
    };
    ASSERT_EQ(1u, rig.pollAndServe());
    EXPECT_EQ(4000, ev->m_timer.m_set_time);
}

TEST_F(NetSockStates, RemovedAndRegisteredAgainBeforeItsWorkerComesMakesNoCall) {
    CEvent* const ev = bringInFlight();
    handler->RemoveSock(pair.near);
    add(handler, SOCK_READ);
    EXPECT_EQ(REVENT_REMOVED, ev->m_revents);
    EXPECT_EQ(0u, ev->m_event_mask & SOCK_REMOVED);
    rig.serve(ev);
    EXPECT_EQ(0, handler->life->inputs);
    EXPECT_EQ(1u, rig.pollAndServe()) << "what is waiting is found by the next poll";
    EXPECT_EQ(1, handler->life->inputs);
}

TEST_F(NetSockStates, RemoveOfTheOldAndRegisterByASecondHandlerInFlightMovesTheSocket) {
    CEvent* const ev = bringInFlight();
    handler->RemoveSock(pair.near);
    add(second, SOCK_READ);
    EXPECT_EQ(0, sockets(handler));
    EXPECT_EQ(1, sockets(second));
    rig.serve(ev);
    EXPECT_EQ(1u, rig.pollAndServe());
    EXPECT_EQ(0, handler->life->calls());
    EXPECT_EQ(1, second->life->inputs);
    second->RemoveSock(pair.near);
    EXPECT_EQ(0, sockets(second));
}

TEST_F(NetSockStates, RemoveCanBeCancelledAndRepeatedWhileOneWorkerHoldsTheRecord) {
    CEvent* const ev = bringInFlight();
    for (int i = 0; i < 3; ++i) {
        handler->RemoveSock(pair.near);
        EXPECT_EQ(0, sockets(handler));
        add(handler, SOCK_READ);
        EXPECT_EQ(1, sockets(handler));
    }
    handler->RemoveSock(pair.near);
    rig.serve(ev);
    EXPECT_EQ(nullptr, record());
    EXPECT_EQ(0, handler->life->calls());
}

TEST_F(NetSockStates, SecondHandlerRegisteredInFlightGetsTheCallThatIsStillToCome) {
    CEvent* const ev = bringInFlight();
    add(second, SOCK_WRITE);
    EXPECT_EQ(SOCK_READ | SOCK_WRITE, ev->m_event_mask);
    rig.serve(ev);
    EXPECT_EQ(0, handler->life->calls());
    EXPECT_EQ(1, second->life->inputs);
    EXPECT_EQ(1, sockets(handler)) << "counted where it was first registered";
    EXPECT_EQ(0, sockets(second));
    handler->RemoveSock(pair.near);
    EXPECT_EQ(0, sockets(handler));
}

TEST_F(NetSockStates, UnregisterInFlightLeavesTheRunningCallAndTakesTheDirectionAway) {
    CEvent* const ev = bringInFlight(SOCK_READ | SOCK_WRITE);
    EXPECT_EQ(REVENT_READ | REVENT_WRITE, ev->m_revents);
    handler->UnregisterSock(pair.near, SOCK_WRITE);
    EXPECT_EQ(REVENT_READ | REVENT_WRITE, ev->m_revents) << "what was found ready is delivered";
    rig.serve(ev);
    EXPECT_EQ(1, handler->life->outputs);
    EXPECT_EQ(2, rig.places(0));
    EXPECT_EQ(0, rig.places(1));
    EXPECT_EQ(1u, rig.pollAndServe());
    EXPECT_EQ(1, handler->life->outputs);
}

TEST_F(NetSockStates, UnregisterOfEverythingKeepsTheRecordUntilRemove) {
    add(handler, SOCK_READ | SOCK_WRITE | SOCK_EXCEPT);
    handler->UnregisterSock(pair.near, SOCK_DIRECTIONS);
    pair.write();
    EXPECT_TRUE(rig.poll().empty());
    ASSERT_NE(nullptr, record());
    EXPECT_EQ(0u, record()->m_event_mask);
    EXPECT_EQ(1, sockets(handler));
    add(handler, SOCK_READ);
    EXPECT_EQ(1, sockets(handler)) << "known already";
    EXPECT_EQ(1u, rig.pollAndServe());
}

TEST_F(NetSockStates, TimeoutOfARecordWithNoDirectionCountsAsInFlightAndMakesNoCall) {
    add(handler, SOCK_EXCEPT, 1000);
    const std::vector<CEvent*> due = rig.tick(2);
    ASSERT_EQ(1u, due.size());
    EXPECT_EQ(0, due[0]->m_revents);
    EXPECT_TRUE(is_in_flight(due[0]));
    add(handler, SOCK_READ);
    pair.write();
    EXPECT_TRUE(rig.poll().empty()) << "or it would be queued twice";
    rig.serve(due[0]);
    EXPECT_EQ(0, handler->life->calls());
    EXPECT_FALSE(is_in_flight(due[0]));
    EXPECT_EQ(0, due[0]->m_timer.m_set_time);
    EXPECT_EQ(1u, rig.pollAndServe());
}

TEST_F(NetSockStates, RemoveDuringATimeoutWithNoDirectionLeavesTheRecordToItsWorker) {
    add(handler, SOCK_EXCEPT, 1000);
    const std::vector<CEvent*> due = rig.tick(2);
    ASSERT_EQ(1u, due.size());
    handler->RemoveSock(pair.near);
    EXPECT_EQ(due[0], record());
    EXPECT_EQ(REVENT_REMOVED, due[0]->m_revents);
    rig.serve(due[0]);
    EXPECT_EQ(nullptr, record());
}

TEST_F(NetSockStates, RemoveDuringATimeoutStopsItsCall) {
    add(handler, SOCK_READ, 1000);
    const std::vector<CEvent*> due = rig.tick(2);
    ASSERT_EQ(1u, due.size());
    handler->RemoveSock(pair.near);
    rig.serve(due[0]);
    EXPECT_EQ(0, handler->life->calls());
    EXPECT_EQ(nullptr, record());
}

// While it lives, the first line of the trace that contains a text runs a step, on the thread that logs:
// trace lines stand at points that a test cannot reach otherwise.
class StepInTrace {
public:
    StepInTrace(const char* text, std::function<void()> step) : m_text(text), m_step(std::move(step)) {
        CDebugSocket::socket_all = true;
        CDebugSocket::socket_dendity = true;
        m_level = Infra::setLogLevel(3);
        m_before = Infra::setLogSink(&m_sink);
    }
    ~StepInTrace() {
        Infra::setLogSink(m_before);
        Infra::setLogLevel(m_level);
        CDebugSocket::socket_all = false;
        CDebugSocket::socket_dendity = false;
        EXPECT_FALSE(m_step) << "the step was not made";
    }

private:
    static void write(void* context, const Infra::LogLine& line) {
        StepInTrace* const self = static_cast<StepInTrace*>(context);
        if (self->m_step && std::string(line.text).find(self->m_text) != std::string::npos) {
            std::exchange(self->m_step, nullptr)();
        }
    }

    const char* const m_text;
    std::function<void()> m_step;
    Infra::LogSink m_sink{&write, this};
    int m_level = 0;
    const Infra::LogSink* m_before = nullptr;
};

TEST_F(NetSockStates, HandlerThatComesAfterTheOldOneWasNotFoundIsCalledAllTheSame) {
    TestHandler* const gone = new TestHandler(StillPool::INDEX);
    ASSERT_EQ(0, gone->RegisterSock(pair.near, SOCK_READ, 0));
    rig.close(gone);
    pair.write();
    const std::vector<CEvent*> ready = rig.poll();
    ASSERT_EQ(1u, ready.size());
    int64_t missing_owner = 0;
    const int result = NetSockProbe::deliver(ready[0], missing_owner);
    add(second, SOCK_READ);
    NetSockProbe::finish(ready[0], result, missing_owner);
    EXPECT_EQ(1u, rig.pollAndServe());
    EXPECT_EQ(1, second->life->inputs);
}

TEST_F(NetSockStates, RemoveBetweenTheTestsOfATimeoutMakesNoCallOfEitherKind) {
    add(handler, SOCK_READ, 1000);
    const std::vector<CEvent*> due = rig.tick(2);
    ASSERT_EQ(1u, due.size());
    {
        StepInTrace step("handle sock timeout begin", [this] { handler->RemoveSock(pair.near); });
        rig.serve(due[0]);
    }
    EXPECT_EQ(0, handler->life->calls());
    EXPECT_EQ(nullptr, record());
}

TEST_F(NetSockStates, RemoveBetweenTheTestsOfADeliveryMakesNoCall) {
    CEvent* const ev = bringInFlight(SOCK_READ | SOCK_WRITE);
    {
        StepInTrace step("handle sock event begin", [this] { handler->RemoveSock(pair.near); });
        rig.serve(ev);
    }
    EXPECT_EQ(0, handler->life->calls());
    EXPECT_EQ(nullptr, record());
}

// ---- what no mask may touch ------------------------------------------------------------------------------

constexpr unsigned int SOCK_DIRECTIONS_OF_CALLERS = SOCK_READ | SOCK_WRITE | SOCK_EXCEPT;

TEST_F(NetSockStates, BitsBeyondTheDirectionsAreIgnoredByTheFirstRegistration) {
    add(handler, ~0u);
    EXPECT_EQ(SOCK_DIRECTIONS_OF_CALLERS, record()->m_event_mask);
    EXPECT_EQ(1u, rig.pollAndServe());
    EXPECT_EQ(1, handler->life->outputs);
    EXPECT_NE(nullptr, record()) << "registered, and not on its way out";
}

TEST_F(NetSockStates, BitsBeyondTheDirectionsAreIgnoredByALaterRegistration) {
    add(handler, SOCK_READ);
    add(handler, SOCK_REMOVED | 0xFFFFFF00u);
    EXPECT_EQ(SOCK_READ, record()->m_event_mask);
    EXPECT_EQ(1, sockets(handler));
}

TEST_F(NetSockStates, BitsBeyondTheDirectionsAreIgnoredByUnregisterAndTheRemovalStands) {
    CEvent* const ev = bringInFlight();
    handler->RemoveSock(pair.near);
    EXPECT_EQ(0, handler->UnregisterSock(pair.near, ~0u));
    EXPECT_EQ(SOCK_REMOVED, ev->m_event_mask);
    rig.serve(ev);
    EXPECT_EQ(nullptr, record());
    EXPECT_EQ(0, sockets(handler));
}

TEST_F(NetSockStates, RegistrationThatFindsNoMemoryIsRefusedWithALineAndLeavesNothing) {
    LogCapture log;
    {
        const CountingAllocator::NoMemory no_memory;
        EXPECT_EQ(-1, handler->RegisterSock(pair.near, SOCK_READ, 1000000));
    }
    EXPECT_EQ(1u, log.count(2, "RegisterSock no memory, fd: " + std::to_string(pair.fd()) + "\n"))
        << log.dump();
    EXPECT_EQ(nullptr, record());
    EXPECT_EQ(0, sockets(handler));
    EXPECT_TRUE(SockTimerProbe::listed(sock_timer()).empty());
    EXPECT_EQ(1, rig.places(0));
    EXPECT_FALSE(epollItem(rig.epoll(), pair.fd()));

    add(handler, SOCK_READ);
    pair.write();
    EXPECT_EQ(1u, rig.pollAndServe());
    EXPECT_EQ(1, handler->life->inputs);
}

}  // namespace
}  // namespace Orvex::Testing
