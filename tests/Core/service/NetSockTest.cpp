// CNetSock: registering sockets with handlers, on the real pool.
#include "Core/service/NetSock.h"

#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "support/core/SockPoolFixture.h"

namespace Orvex::Testing {
namespace {

using namespace Reticor;

class NetSock : public SockPoolFixture {};

TEST_F(NetSock, TimeoutOf999MicrosecondsRegistersWithoutATimeout) {
    add(SOCK_READ, 999);
    EXPECT_TRUE(look().exists);
    EXPECT_FALSE(look().timed);
    EXPECT_EQ(0, look().set_time);
}

TEST_F(NetSock, TimeoutIsCutToWholeMilliseconds) {
    add(SOCK_READ, 5001999);
    EXPECT_TRUE(look().timed);
    EXPECT_EQ(5001, look().set_time);
}

TEST_F(NetSock, SecondRegisterForWriteOnAReadSocketGivesMask3AndRebindsItToTheCaller) {
    TestHandler* const second = new TestHandler;
    second->on_input = handler->on_input;
    add(SOCK_READ);
    pair.fill();
    ASSERT_EQ(0, second->RegisterSock(pair.near, SOCK_WRITE, 0));
    EXPECT_EQ(3u, look().mask);
    EXPECT_EQ(second->GetID(), look().owner);
    pair.write();
    EXPECT_EVENTUALLY(second->life->inputs > 0);
    EXPECT_EQ(0, handler->life->calls());
    removeAndWait(pair.near);
    closeAndWait(second);
}

TEST_F(NetSock, RegisterAgainWithTimeout0CancelsTheTimeout) {
    add(SOCK_READ, 60000000);
    EXPECT_TRUE(look().timed);
    add(SOCK_READ, 0);
    EXPECT_FALSE(look().timed);
    EXPECT_EQ(0, look().set_time);
}

TEST_F(NetSock, UnregisterForWriteWithReadStillWantedKeepsTheTimeoutRunning) {
    pair.fill();
    add(SOCK_READ | SOCK_WRITE, 60000000);
    handler->UnregisterSock(pair.near, SOCK_WRITE);
    EXPECT_EQ(SOCK_READ, look().mask);
    EXPECT_TRUE(look().timed);
    EXPECT_EQ(60000, look().set_time);
}

TEST_F(NetSock, UnregisterOfTheLastReadOrWriteDirectionCancelsTheTimeout) {
    add(SOCK_READ | SOCK_EXCEPT, 60000000);
    handler->UnregisterSock(pair.near, SOCK_READ);
    EXPECT_EQ(SOCK_EXCEPT, look().mask);
    EXPECT_FALSE(look().timed);
}

TEST_F(NetSock, UnregisterOfADirectionThatWasNotAskedForDoesNothing) {
    add(SOCK_READ, 60000000);
    EXPECT_EQ(0, handler->UnregisterSock(pair.near, SOCK_WRITE | SOCK_EXCEPT));
    EXPECT_EQ(SOCK_READ, look().mask);
    EXPECT_TRUE(look().timed);
    pair.write();
    EXPECT_EVENTUALLY(handler->life->inputs == 1);
}

// While it lives the socket timer makes no pass. A thread of its own holds the timer's mutex: the test's own
// enters records, which come before it.
class SockTimerAtRest {
public:
    SockTimerAtRest() { EXPECT_EVENTUALLY(m_holds); }
    ~SockTimerAtRest() {
        m_over = true;
        m_thread.join();
    }
    SockTimerAtRest(const SockTimerAtRest&) = delete;
    SockTimerAtRest& operator=(const SockTimerAtRest&) = delete;

private:
    std::atomic<bool> m_holds{false};
    std::atomic<bool> m_over{false};
    std::thread m_thread{[this] {
        const Infra::CGuard guard(SockTimerProbe::mutex(sock_timer()));
        m_holds = true;
        while (!m_over) {
            std::this_thread::yield();
        }
    }};
};

TEST_F(NetSock, HandlerThatReturns500000GetsANewTimeoutOf500MsWhichIsStored) {
    handler->on_input = [](int fd) {
        SocketPair::drain(fd);
        return 500000;
    };
    add(SOCK_READ, 60000000);
    {
        // The clock stands still, and the time-out cannot fire, until it was seen.
        const SockTimerAtRest at_rest;
        pair.write();
        EXPECT_EVENTUALLY(look().set_time == 500 && look().timed);
    }
    EXPECT_EVENTUALLY(handler->life->input_timeouts == 1);
}

TEST_F(NetSock, HandlerThatReturnsMinus1KeepsItsRegistrationAndLosesItsTimeout) {
    handler->on_input = [](int fd) {
        SocketPair::drain(fd);
        return -1;
    };
    add(SOCK_READ, 60000000);
    pair.write();
    EXPECT_EVENTUALLY(handler->life->inputs == 1 && !look().in_flight && !look().timed);
    EXPECT_EQ(SOCK_READ, look().mask);
    EXPECT_EQ(0, look().set_time);
    pair.write();
    EXPECT_EVENTUALLY(handler->life->inputs == 2);
}

TEST_F(NetSock, HandlerThatReturns0RunsTheStoredTimeoutAgain) {
    add(SOCK_READ, 60000000);
    pair.write();
    EXPECT_EVENTUALLY(handler->life->inputs == 1 && !look().in_flight);
    EXPECT_TRUE(look().timed);
    EXPECT_EQ(60000, look().set_time);
}

TEST_F(NetSock, TimeoutDeliversInputTimeoutOnASocketRegisteredForReadAndWrite) {
    pair.fill();
    add(SOCK_READ | SOCK_WRITE, 1000);
    EXPECT_EVENTUALLY(handler->life->input_timeouts == 1);
    EXPECT_EQ(1, handler->life->calls());
}

TEST_F(NetSock, TimeoutDeliversOutputTimeoutOnASocketRegisteredForWriteAlone) {
    pair.fill();
    add(SOCK_WRITE, 1000);
    EXPECT_EVENTUALLY(handler->life->output_timeouts == 1);
    EXPECT_EQ(1, handler->life->calls());
}

TEST_F(NetSock, AfterATimeoutTheSocketIsStillWatchedButHasNoTimeout) {
    add(SOCK_READ, 1000);
    EXPECT_EVENTUALLY(handler->life->input_timeouts == 1 && !look().in_flight);
    EXPECT_FALSE(look().timed);
    EXPECT_EQ(0, look().set_time);
    pair.write();
    EXPECT_EVENTUALLY(handler->life->inputs == 1 && !look().in_flight);
    EXPECT_FALSE(look().timed) << "0 runs the stored time-out again, and there is none";
    EXPECT_EQ(1, handler->life->input_timeouts);
}

TEST_F(NetSock, RemoveInsideHandleInputKeepsHandleOutputFromBeingCalledAndFreesTheRecordAfterwards) {
    std::atomic<int> revents{0};
    std::atomic<bool> there{false};
    handler->on_input = [&](int) {
        handler->RemoveSock(pair.near);
        revents = look().revents;
        there = look().exists;
        return 0;
    };
    pair.write();
    add(SOCK_READ | SOCK_WRITE);
    EXPECT_EVENTUALLY(handler->life->inputs == 1 && !look().exists);
    EXPECT_EQ(REVENT_REMOVED, revents);
    EXPECT_TRUE(there);
    EXPECT_EQ(0, handler->life->outputs);
    EXPECT_EQ(0, HandlerProbe::sockets(*handler));
}

TEST_F(NetSock, RemoveAndRegisterAgainWhileAWorkerRunsItKeepsTheRecordWithTheNewMaskAlone) {
    Gate gate;
    handler->on_input = [&](int fd) {
        gate.pass();
        SocketPair::drain(fd);
        return -1;
    };
    pair.fill();
    add(SOCK_READ | SOCK_EXCEPT, 50000000);
    pair.write();
    ASSERT_TRUE(gate.awaitArrivals(1));
    handler->RemoveSock(pair.near);
    EXPECT_TRUE(look().exists);
    add(SOCK_WRITE, 60000000);
    EXPECT_EQ(SOCK_WRITE, look().mask);
    EXPECT_EQ(REVENT_REMOVED, look().revents);
    gate.open();
    EXPECT_EVENTUALLY(!look().in_flight);
    EXPECT_EQ(SOCK_WRITE, look().mask);
    EXPECT_EQ(60000, look().set_time) << "as if the handler had returned 0, and not -1";
    EXPECT_TRUE(look().timed);
    pair.drainFar();
    EXPECT_EVENTUALLY(handler->life->outputs > 0);
    EXPECT_EQ(1, handler->life->inputs);
}

TEST_F(NetSock, EventWhoseHandlerIdNoLongerResolvesMakesNoCall) {
    LogCapture log(3);
    TestHandler* const gone = new TestHandler;
    const std::shared_ptr<HandlerLife> life = gone->life;
    ASSERT_EQ(0, gone->RegisterSock(pair.near, SOCK_READ, 0));
    closeAndWait(gone);
    pair.write();
    EXPECT_TRUE(log.eventuallyContainsMatching(3, "pool 0: the handler of ready socket \\d+ is gone, .*\n"));
    EXPECT_EVENTUALLY(!look().in_flight);
    EXPECT_EQ(0, life->calls());
    EXPECT_TRUE(look().exists) << "until somebody removes it";
}

// ---- results and log lines -------------------------------------------------------------------------------

TEST_F(NetSock, NegativeHandleIsRefusedWithALine) {
    LogCapture log;
    CSockStream none;
    EXPECT_EQ(-1, handler->RegisterSock(none, SOCK_READ, 0));
    EXPECT_EQ(1u, log.count(2, "RegisterSock sock fd error, fd: -1\n")) << log.dump();
    EXPECT_EQ(0, handler->UnregisterSock(none, SOCK_READ));
    EXPECT_EQ(0, handler->RemoveSock(none));
    EXPECT_EQ(1u, log.lines().size()) << log.dump();
    EXPECT_EQ(0, HandlerProbe::sockets(*handler));
}

// ---- numbers that are closed while they are registered ---------------------------------------------------

class NetSockDeadNumbers : public NetSock {
protected:
    std::string line(const char* what, int fd, CNetHandler& owner) {
        return std::string(what) + " sock, fd: " + std::to_string(fd) +
               ", class: Orvex::Testing::TestHandler, id: " + std::to_string(owner.GetID()) +
               ", remove it before it is closed\n";
    }
    // Another socket gets the number, without anybody being told. By the bare calls: a sanitizer would take
    // the misuse that this is about for a race of the test.
    static void reuse(int number, SocketPair& fresh) {
        ::syscall(SYS_close, number);
        ASSERT_EQ(number, ::syscall(SYS_dup3, fresh.fd(), number, O_CLOEXEC));
    }

    LogCapture log{2};
};

TEST_F(NetSockDeadNumbers, ACloseWhileItIsRegisteredIsALineWithClassAndId) {
    const int number = pair.fd();
    add(SOCK_READ);
    pair.near.Close();
    EXPECT_EQ(1u, log.count(2, line("Close registered", number, *handler))) << log.dump();
    EXPECT_EQ(1u, log.lines().size()) << log.dump();
    BorrowedSock sock(number);
    removeAndWait(sock);
}

TEST_F(NetSockDeadNumbers, ACloseAfterTheRemovalIsSilent) {
    add(SOCK_READ);
    removeAndWait(pair.near);
    pair.near.Close();
    EXPECT_TRUE(log.lines().empty()) << log.dump();
}

TEST_F(NetSockDeadNumbers, ACloseAfterARemovalInFlightIsSilent) {
    Gate gate;
    handler->on_input = [&](int) {
        handler->RemoveSock(pair.near);
        gate.pass();
        return 0;
    };
    add(SOCK_READ);
    pair.write();
    ASSERT_TRUE(gate.awaitArrivals(1));
    const int number = pair.fd();
    pair.near.Close();
    EXPECT_TRUE(log.lines().empty()) << log.dump();
    gate.open();
    EXPECT_EVENTUALLY(!lookAt(pool(), number).exists);
}

TEST_F(NetSockDeadNumbers, ACloseOfASocketThatNobodyRegisteredIsSilent) {
    add(SOCK_READ);
    SocketPair other;
    other.near.Close();
    EXPECT_TRUE(log.lines().empty()) << log.dump();
}

TEST_F(NetSockDeadNumbers, ACloseAfterTheHandlersOwnCloseIsSilent) {
    auto* const second = new TestHandler;
    SocketPair other;
    const int number = other.fd();
    ASSERT_EQ(0, second->RegisterSock(other.near, SOCK_READ, 0));
    closeAndWait(second);
    log.clear();  // of the handler that was closed with a socket
    other.near.Close();
    EXPECT_TRUE(log.lines().empty()) << log.dump();
    BorrowedSock sock(number);
    handler->RemoveSock(sock);
}

TEST_F(NetSockDeadNumbers, TheHandlerOfAPrivatePoolIsNamedToo) {
    const int index = CNetThread::CreatePrivatePool(1, false);
    auto* const second = new TestHandler(index);
    SocketPair other;
    const int number = other.fd();
    ASSERT_EQ(0, second->RegisterSock(other.near, SOCK_READ, 0));
    other.near.Close();
    EXPECT_EQ(1u, log.count(2, line("Close registered", number, *second))) << log.dump();
    BorrowedSock sock(number);
    second->RemoveSock(sock);
    closeAndWait(second);
    CNetThread::DestroyPrivatePool(index);
}

TEST_F(NetSockDeadNumbers, ANumberThatCloseTwoTookNamesItsFormerHandlerWhenItIsRegisteredAnew) {
    const int number = pair.fd();
    add(SOCK_READ);
    SocketPair fresh;
    reuse(number, fresh);
    auto* const second = new TestHandler;
    second->on_input = handler->on_input;
    ASSERT_EQ(0, second->RegisterSock(pair.near, SOCK_READ, 0));
    EXPECT_EQ(1u, log.count(2, line("RegisterSock reused", number, *handler))) << log.dump();
    EXPECT_EQ(1u, log.countLevel(2));
    fresh.write();
    EXPECT_EVENTUALLY(second->life->inputs == 1);
    removeAndWait(pair.near);
    closeAndWait(second);
}

TEST_F(NetSockDeadNumbers, ANumberThatIsReusedInFlightIsNamedWhenTheCallIsOver) {
    const int number = pair.fd();
    Gate gate;
    handler->on_input = [&](int) {
        gate.pass();
        return 0;
    };
    add(SOCK_READ);
    pair.write();
    ASSERT_TRUE(gate.awaitArrivals(1));
    SocketPair fresh;
    reuse(number, fresh);
    ASSERT_EQ(0, handler->RegisterSock(pair.near, SOCK_READ, 0));
    EXPECT_EQ(0u, log.countLevel(2)) << log.dump();
    gate.open();
    EXPECT_TRUE(log.eventuallyContains(2, line("RegisterSock reused", number, *handler))) << log.dump();
    removeAndWait(pair.near);
}

TEST_F(NetSockDeadNumbers, WhatWasToldAtItsCloseIsNotToldAgain) {
    const int number = pair.fd();
    add(SOCK_READ);
    SocketPair fresh;
    pair.near.Close();
    reuse(number, fresh);
    BorrowedSock sock(number);
    ASSERT_EQ(0, handler->RegisterSock(sock, SOCK_READ, 0));
    EXPECT_EQ(1u, log.count(2, line("Close registered", number, *handler))) << log.dump();
    EXPECT_EQ(1u, log.countLevel(2)) << log.dump();
    removeAndWait(sock);
    ::close(number);
}

TEST_F(NetSockDeadNumbers, ALiveNumberThatIsHandedToAnotherHandlerIsSilent) {
    add(SOCK_READ);
    auto* const second = new TestHandler;
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(0, second->RegisterSock(pair.near, SOCK_READ, 0));
        ASSERT_EQ(0, handler->RegisterSock(pair.near, SOCK_READ | SOCK_WRITE, 0));
    }
    EXPECT_TRUE(log.lines().empty()) << log.dump();
    closeAndWait(second);
}

// A sink may close a socket of its own, whatever lock the line was written under.
TEST_F(NetSockDeadNumbers, AThreadThatClosesOthersSocketsDoesNotWaitForAHandler) {
    add(SOCK_READ);
    Gate gate;
    holdInMessage(gate);
    for (int i = 0; i < 100; ++i) {
        SocketPair other;
        other.near.Close();
    }
    gate.open();
    EXPECT_TRUE(log.lines().empty()) << log.dump();
}

TEST_F(NetSock, RemoveOfASocketThatWasClosedBeforeIsALineWithClassAndId) {
    const int number = pair.fd();
    add(SOCK_READ);
    pair.near.Close();
    LogCapture log;
    EXPECT_EQ(0, handler->RemoveSock(pair.near));
    EXPECT_EQ(1u, log.count(2, "RemoveSock closed sock, class: Orvex::Testing::TestHandler, id: " +
                                   std::to_string(handler->GetID()) + ", remove it before it is closed\n"))
        << log.dump();
    EXPECT_TRUE(lookAt(pool(), number).exists);
    BorrowedSock sock(number);
    removeAndWait(sock);
    EXPECT_EQ(0, handler->RemoveSock(pair.near)) << "nothing is registered any more";
    EXPECT_EQ(1u, log.lines().size()) << log.dump();
}

TEST_F(NetSock, HandlesOfStandardStreamsAreRegisteredWithAWarning) {
    for (int number = 0; number <= 2; ++number) {
        const int saved = ::dup(number);
        LogCapture log;
        SocketPair on_stream;
        ASSERT_EQ(number, ::dup2(on_stream.fd(), number));
        BorrowedSock sock(number);
        EXPECT_EQ(0, handler->RegisterSock(sock, SOCK_READ, 0));
        const std::string line =
            "RegisterSock sock fd specially with standard stream value: " + std::to_string(number) + "\n";
        EXPECT_EQ(1u, log.count(3, line));
        const int before = handler->life->inputs;
        on_stream.write();
        EXPECT_EVENTUALLY(handler->life->inputs == before + 1);
        removeAndWait(sock);
        ASSERT_EQ(number, ::dup2(saved, number));
        ::close(saved);
    }
}

TEST_F(NetSock, UnknownHandleIsLeftAloneInSilence) {
    LogCapture log;
    EXPECT_EQ(0, handler->UnregisterSock(pair.near, SOCK_READ));
    EXPECT_EQ(0, handler->RemoveSock(pair.near));
    EXPECT_EQ(0, HandlerProbe::sockets(*handler));
    EXPECT_TRUE(log.lines().empty()) << log.dump();
}

TEST_F(NetSock, ClosedHandlerRegistersNothing) {
    handler->AddRef();
    handler->Close();
    EXPECT_EQ(-1, handler->RegisterSock(pair.near, SOCK_READ, 0));
    EXPECT_FALSE(look().exists);
    handler->DecRef();
    handler = new TestHandler;
}

// ---- calls -----------------------------------------------------------------------------------------------

TEST_F(NetSock, HandlerThatNeitherReadsNorUnregistersIsCalledAgain) {
    handler->on_input = [](int) { return 0; };
    pair.write();
    add(SOCK_READ);
    EXPECT_EVENTUALLY(handler->life->inputs > 20);
    handler->UnregisterSock(pair.near, SOCK_READ);
    EXPECT_EVENTUALLY(!look().in_flight);
    EXPECT_TRUE(look().exists);
}

TEST_F(NetSock, HandlerMayRegisterAndUnregisterItsOwnSocketInsideTheCall) {
    handler->on_input = [&](int fd) {
        SocketPair::drain(fd);
        handler->UnregisterSock(pair.near, SOCK_READ);
        handler->RegisterSock(pair.near, SOCK_WRITE, 0);
        return 0;
    };
    handler->on_output = [&](int) {
        handler->UnregisterSock(pair.near, SOCK_WRITE);
        handler->RegisterSock(pair.near, SOCK_READ, 0);
        return 0;
    };
    add(SOCK_READ);
    for (int i = 1; i <= 20; ++i) {
        pair.write();
        ASSERT_EVENTUALLY(handler->life->inputs == i && handler->life->outputs == i);
    }
}

TEST_F(NetSock, EndOfStreamAndResetOverTcpReachHandleInput) {
    const std::unique_ptr<SocketPair> tcp = SocketPair::overTcp();
    std::atomic<int> read{0};
    handler->on_input = [&](int) {
        char buffer[16];
        read = tcp->near.Recv(buffer, sizeof(buffer));
        if (read < 0) {
            handler->RemoveSock(tcp->near);
        }
        return 0;
    };
    ASSERT_EQ(0, handler->RegisterSock(tcp->near, SOCK_READ, 0));
    tcp->write("abc");
    EXPECT_EVENTUALLY(read == 3);
    const linger reset = {1, 0};
    ::setsockopt(tcp->far.GetHandle(), SOL_SOCKET, SO_LINGER, &reset, sizeof(reset));
    tcp->far.Close();
    EXPECT_EVENTUALLY(read == -1);
    EXPECT_EVENTUALLY(!lookAt(pool(), tcp->fd()).exists);
}

}  // namespace
}  // namespace Orvex::Testing
