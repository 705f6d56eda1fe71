// What of a handler's calls can overlap, and what never does.
#include <gtest/gtest.h>

#include <atomic>

#include "support/SeededRandom.h"
#include "support/core/FastClock.h"
#include "support/core/SockPoolFixture.h"

namespace Orvex::Testing {
namespace {

using namespace Reticor;

class NetSockOverlap : public SockPoolFixture {
protected:
    NetSockOverlap() { workers = 4; }
};

// Counts the threads that are inside at the same time.
class Crossing {
public:
    int enter() {
        if (++m_inside > 1) {
            m_met = true;
        }
        // Long enough for another worker to come in, if it were let.
        for (int i = 0; i < 200; ++i) {
            m_inside.load();
        }
        --m_inside;
        return ++m_entered, 0;
    }
    bool met() const { return m_met; }
    int entered() const { return m_entered; }

private:
    std::atomic<int> m_inside{0};
    std::atomic<int> m_entered{0};
    std::atomic<bool> m_met{false};
};

TEST_F(NetSockOverlap, CallsForOneSocketNeverOverlapAlsoAcrossItsTimeouts) {
    FastClock clock;
    Crossing crossing;
    SeededRandom random;
    handler->on_input = [&](int fd) {
        SocketPair::drain(fd);
        return crossing.enter(), 1000;
    };
    handler->on_output = handler->on_input_timeout =
        handler->on_output_timeout = [&](int) { return crossing.enter(); };
    add(SOCK_READ | SOCK_WRITE, 1000);
    while (crossing.entered() < 4000 || handler->life->input_timeouts < 50) {
        switch (random.between(0, 4)) {
            case 0:
                pair.poke();
                break;
            case 1:
                handler->RegisterSock(pair.near, SOCK_READ | SOCK_WRITE, 1000);
                break;
            case 2:
                handler->UnregisterSock(pair.near, SOCK_WRITE);
                break;
            case 3:
                handler->RegisterSock(pair.near, SOCK_READ, 1000);
                break;
            default:
                std::this_thread::yield();
        }
        ASSERT_FALSE(crossing.met());
    }
    EXPECT_GT(handler->life->inputs, 0);
    EXPECT_GT(handler->life->outputs, 0);
    removeAndWait(pair.near);
}

TEST_F(NetSockOverlap, TwoSocketsOfOneHandlerAreServedAtTheSameTime) {
    SocketPair other;
    Gate gate;
    handler->on_input = [&](int fd) {
        gate.pass();
        SocketPair::drain(fd);
        return 0;
    };
    add(SOCK_READ);
    ASSERT_EQ(0, handler->RegisterSock(other.near, SOCK_READ, 0));
    pair.write();
    other.write();
    EXPECT_TRUE(gate.awaitArrivals(2));
    gate.open();
    removeAndWait(other.near);
}

TEST_F(NetSockOverlap, SocketOverlapsWithMessagesAndTimersAndTimeoutsOfOthersOfItsHandler) {
    FastClock clock;
    SocketPair other;
    Gate gate;
    handler->on_input = [&](int fd) {
        gate.pass();
        SocketPair::drain(fd);
        return 0;
    };
    add(SOCK_READ);
    pair.write();
    ASSERT_TRUE(gate.awaitArrivals(1));
    handler->Notify(handler->GetID(), 1, 0);
    handler->NotifySerial(handler->GetID(), 2, 0, 0);
    handler->SetTimer(3000);
    ASSERT_EQ(0, handler->RegisterSock(other.near, SOCK_READ, 1000));
    EXPECT_EVENTUALLY(handler->life->messages == 2);
    EXPECT_EVENTUALLY(handler->life->timeouts == 1);
    EXPECT_EVENTUALLY(handler->life->input_timeouts == 1);
    EXPECT_EQ(0, handler->life->inputs);
    gate.open();
    EXPECT_EVENTUALLY(handler->life->inputs == 1);
    removeAndWait(other.near);
}

TEST_F(NetSockOverlap, SlowHandlerHoldsUpItsOwnSocketAlone) {
    Gate gate;
    SocketPair others[3];
    std::atomic<int> bytes{0};
    handler->on_input = [&](int fd) {
        if (fd == pair.fd()) {
            gate.pass();
        }
        bytes += SocketPair::drain(fd);
        return 0;
    };
    add(SOCK_READ);
    pair.write();
    ASSERT_TRUE(gate.awaitArrivals(1));
    for (SocketPair& other : others) {
        ASSERT_EQ(0, handler->RegisterSock(other.near, SOCK_READ, 0));
    }
    for (int i = 1; i <= 100; ++i) {
        pair.write();
        for (SocketPair& other : others) {
            other.write();
        }
        ASSERT_EVENTUALLY(bytes == 3 * i);
    }
    gate.open();
    EXPECT_EVENTUALLY(bytes == 3 * 100 + 101) << "and nothing of its own is lost";
    for (SocketPair& other : others) {
        removeAndWait(other.near);
    }
}

TEST_F(NetSockOverlap, SocketInTwoPoolsIsServedByBoth) {
    const int index = CNetThread::CreatePrivatePool(2, false);
    ASSERT_GT(index, 0);
    TestHandler* const other = new TestHandler(index);
    Gate gate;
    handler->on_input = other->on_input = [&](int fd) {
        gate.pass();
        SocketPair::drain(fd);
        return 0;
    };
    add(SOCK_READ);
    ASSERT_EQ(0, other->RegisterSock(pair.near, SOCK_READ, 0));
    pair.write();
    EXPECT_TRUE(gate.awaitArrivals(2));
    gate.open();
    EXPECT_EVENTUALLY(handler->life->inputs == 1 && other->life->inputs == 1);
    other->RemoveSock(pair.near);
    closeAndWait(other);
    EXPECT_EQ(0, CNetThread::DestroyPrivatePool(index));
}

}  // namespace
}  // namespace Orvex::Testing
