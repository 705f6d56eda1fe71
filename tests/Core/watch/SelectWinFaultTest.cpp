// CMultiplexer in a pool that got too few descriptors, and what an idle pool costs.
#include <gtest/gtest.h>

#include <Infra/Thread.h>

#include "support/KernelThread.h"
#include "support/core/EpollSeam.h"
#include "support/core/SockPoolFixture.h"

namespace Orvex::Testing {
namespace {

using namespace Reticor;

constexpr char NO_PAIR_LINE[] = "Orvex::Reticor::CMultiplexer::Init :CreatePipe failed!\n";
constexpr char NO_INIT_LINE[] = "socket mutiplexer init fail, Please check it!\n";

// The public pool, created with so many descriptors to spare; afterwards there are enough again.
class ShortPool {
public:
    explicit ShortPool(std::size_t spare) {
        DescriptorShortage shortage(spare);
        EXPECT_EQ(0, CNetThread::CreateThreadPool(2, false));
    }
    ~ShortPool() { EXPECT_EQ(0, CNetThread::DestroyThreadPool()); }
    CThreadPool& operator*() { return *PoolTable::Get(0); }
};

void expectLines(const LogCapture& log) {
    EXPECT_EQ(1u, log.count(2, NO_PAIR_LINE)) << log.dump();
    EXPECT_EQ(1u, log.count(2, NO_INIT_LINE)) << log.dump();
}

void close(TestHandler* handler) {
    const std::shared_ptr<HandlerLife> life = handler->life;
    handler->Close();
    EXPECT_EVENTUALLY(life->closes == 1);
}

void expectMessagesAndTimers(TestHandler* handler) {
    handler->Notify(handler->GetID(), 1, 0);
    handler->NotifySerial(handler->GetID(), 2, 0, 0);
    handler->SetTimer(3000);
    EXPECT_EVENTUALLY(handler->life->messages == 2);
    EXPECT_EVENTUALLY(handler->life->timeouts == 1);
}

TEST(SelectWinFault, WithoutAWakePairThePoolServesSocketsMessagesAndTimersAndEnds) {
    // The instance itself, and not all of the three sockets that make the pair.
    for (std::size_t spare = 1; spare <= 3; ++spare) {
        LogCapture log;
        ShortPool pool(spare);
        expectLines(log);
        EXPECT_NE(-1, MultiplexerProbe::epoll((*pool).m_mux));
        EXPECT_EQ(-1, MultiplexerProbe::pipe((*pool).m_mux).m_read_fd);
        EXPECT_EQ(-1, MultiplexerProbe::pipe((*pool).m_mux).m_write_fd);
        TestHandler* const handler = new TestHandler;
        handler->on_input = [](int fd) {
            SocketPair::drain(fd);
            return 0;
        };
        SocketPair pair;
        ASSERT_EQ(0, handler->RegisterSock(pair.near, SOCK_READ, 0));
        for (int i = 1; i <= 10; ++i) {
            pair.write();
            EXPECT_EVENTUALLY(handler->life->inputs == i);
        }
        expectMessagesAndTimers(handler);
        handler->RemoveSock(pair.near);
        close(handler);
    }
}

TEST(SelectWinFault, WakePairThatTheKernelDoesNotWatchIsNone) {
    LogCapture log;
    {
        EpollFault fault(ENOSPC);
        ASSERT_EQ(0, CNetThread::CreateThreadPool(2, false));
    }
    expectLines(log);
    CThreadPool& pool = *PoolTable::Get(0);
    EXPECT_EQ(-1, MultiplexerProbe::pipe(pool.m_mux).m_read_fd);
    EXPECT_EQ(-1, MultiplexerProbe::pipe(pool.m_mux).m_write_fd);
    EXPECT_EQ(0, CNetThread::DestroyThreadPool());
}

TEST(SelectWinFault, WithoutAWakePairThePollerLooksRoundSeldom) {
    LogCapture quiet(1);
    ShortPool pool(1);
    const uint64_t before = epollWaits();
    Infra::CThread::sleep(450);
    EXPECT_LE(epollWaits() - before, 8u);
}

TEST(SelectWinFault, WithoutAWakePairTheReadSetTakes4096) {
    LogCapture quiet(1);
    ShortPool pool(1);
    EXPECT_EQ(0, MultiplexerProbe::places((*pool).m_mux, 0)) << "no wake end holds a place";
}

TEST(SelectWinFault, WithoutAnInstanceThePoolServesMessagesAndTimersAndEnds) {
    LogCapture log;
    ShortPool pool(0);
    expectLines(log);
    EXPECT_EQ(-1, MultiplexerProbe::epoll((*pool).m_mux));
    log.clear();
    TestHandler* const handler = new TestHandler;
    SocketPair pair;
    EXPECT_EQ(-1, handler->RegisterSock(pair.near, SOCK_READ, 1000)) << "it would never be ready";
    EXPECT_EQ(1u,
              log.count(2, "RegisterSock pool can't watch sockets, fd: " + std::to_string(pair.fd()) + "\n"))
        << log.dump();
    log.clear();
    EXPECT_TRUE(ThreadPoolProbe::sockets(*pool).empty());
    EXPECT_EQ(0, HandlerProbe::sockets(*handler));
    expectMessagesAndTimers(handler);
    const uint64_t before = epollWaits();
    close(handler);
    EXPECT_EQ(before, epollWaits());
    EXPECT_TRUE(log.lines().empty()) << log.dump();
}

TEST(SelectWinFault, PoolsWithoutAnInstanceCanBeDestroyedAgainAndAgain) {
    LogCapture quiet(1);
    for (int i = 0; i < 4; ++i) {
        ShortPool pool(static_cast<std::size_t>(i % 2));
    }
}

// ---- what does not spin ----------------------------------------------------------------------------------

class SelectWinQuiet : public SockPoolFixture {
protected:
    // Waits of the poller while the test looks on for a moment, which would be thousands if it spun.
    static uint64_t waitsMeanwhile() {
        const uint64_t before = epollWaits();
        Infra::CThread::sleep(150);
        return epollWaits() - before;
    }
    static constexpr uint64_t FEW = 40;
};

TEST_F(SelectWinQuiet, HangUpThatNobodyAskedForDoesNotSpin) {
    add(SOCK_EXCEPT);
    pair.far.Close();
    EXPECT_LE(waitsMeanwhile(), FEW);
    add(SOCK_READ);
    EXPECT_EVENTUALLY(handler->life->inputs > 0);
    handler->UnregisterSock(pair.near, SOCK_READ | SOCK_EXCEPT);
    EXPECT_EVENTUALLY(!look().in_flight);
    EXPECT_LE(waitsMeanwhile(), FEW) << "nothing is asked for";
}

TEST_F(SelectWinQuiet, SlowHandlerWithDataWaitingDoesNotSpin) {
    Gate gate;
    handler->on_input = [&](int fd) {
        gate.pass();
        SocketPair::drain(fd);
        return 0;
    };
    add(SOCK_READ);
    pair.write();
    ASSERT_TRUE(gate.awaitArrivals(1));
    EXPECT_LE(waitsMeanwhile(), FEW);
    gate.open();
    removeAndWait(pair.near);
}

TEST_F(SelectWinQuiet, DataForAHandlerThatHasGoneDoesNotSpin) {
    LogCapture log(3);
    TestHandler* const gone = new TestHandler;
    ASSERT_EQ(0, gone->RegisterSock(pair.near, SOCK_READ, 0));
    gone->DecSock();
    handler->AddSock();
    closeAndWait(gone);
    pair.write();
    EXPECT_TRUE(log.eventuallyContainsMatching(3, "pool 0: the handler of ready socket \\d+ is gone, .*\n"));
    EXPECT_LE(waitsMeanwhile(), FEW);
    EXPECT_EQ(1u, log.countLevel(3)) << log.dump();
    add(SOCK_READ);
    EXPECT_EVENTUALLY(handler->life->inputs == 1);
}

TEST_F(SelectWinQuiet, FileOfAHandlerThatHasGoneDoesNotSpin) {
    LogCapture log(3);
    BorrowedSock file(::open("/proc/self/exe", O_RDONLY | O_CLOEXEC));
    TestHandler* const gone = new TestHandler;
    ASSERT_EQ(0, gone->RegisterSock(file, SOCK_READ, 0));
    gone->DecSock();
    handler->AddSock();
    closeAndWait(gone);
    EXPECT_TRUE(log.eventuallyContainsMatching(3, "pool 0: the handler of ready socket \\d+ is gone, .*\n"));
    EXPECT_LE(waitsMeanwhile(), FEW);
    const int number = file.GetHandle();
    removeAndWait(file);
    ::close(number);
}

TEST_F(SelectWinQuiet, OrphanedCopyDoesNotSpin) {
    LogCapture log(3);
    add(SOCK_READ);
    const int copy = ::fcntl(pair.fd(), F_DUPFD_CLOEXEC, 0);
    BorrowedSock closed(pair.fd());
    pair.near.Close();
    handler->RemoveSock(closed);
    pair.write();
    EXPECT_TRUE(log.eventuallyContains(
        3, "a closed socket is still reported, its descriptor was copied: watching all sockets anew\n"));
    EXPECT_LE(waitsMeanwhile(), FEW);
    EXPECT_EQ(1u, log.countLevel(3)) << log.dump();

    SocketPair other;
    ASSERT_EQ(0, handler->RegisterSock(other.near, SOCK_READ, 0));
    other.write();
    EXPECT_EVENTUALLY(handler->life->inputs == 1);
    removeAndWait(other.near);
    ::close(copy);
}

TEST_F(SelectWinQuiet, OrphanedCopyWithoutADescriptorForACureDoesNotSpinAndOthersAreServed) {
    LogCapture log(3);
    SocketPair other;
    ASSERT_EQ(0, handler->RegisterSock(other.near, SOCK_READ, 0));
    add(SOCK_READ);
    const int copy = ::fcntl(pair.fd(), F_DUPFD_CLOEXEC, 0);
    BorrowedSock closed(pair.fd());
    pair.near.Close();
    {
        DescriptorShortage shortage(0);
        handler->RemoveSock(closed);
        pair.write();
        EXPECT_TRUE(log.eventuallyContains(
            2,
            "pool 0: a closed socket is still reported, and watching all sockets anew failed, Too many open "
            "files\n"));
        EXPECT_LE(waitsMeanwhile(), FEW);
        for (int i = 1; i <= 5; ++i) {
            other.write();
            EXPECT_EVENTUALLY(handler->life->inputs == i);
        }
        EXPECT_EQ(1u, log.countMatching(2, "Close registered sock, .*\n")) << log.dump();
        EXPECT_EQ(2u, log.lines().size()) << log.dump();
    }
    EXPECT_TRUE(log.eventuallyContains(
        3, "a closed socket is still reported, its descriptor was copied: watching all sockets anew\n"));
    EXPECT_LE(waitsMeanwhile(), FEW);
    removeAndWait(other.near);
    ::close(copy);
}

TEST_F(SelectWinQuiet, SocketThatIsRefusedForAMomentIsServed) {
    {
        EpollFault fault(ENOSPC);
        LogCapture log;
        add(SOCK_READ);
        EXPECT_EQ(1u, log.countLevel(2)) << log.dump();
    }
    pair.write();
    EXPECT_EVENTUALLY(handler->life->inputs == 1);
    EXPECT_LE(waitsMeanwhile(), FEW);
}

TEST_F(SelectWinQuiet, SocketsWithoutAPlaceAreToldForPoolsThatExist) {
    EXPECT_EQ(0, CNetThread::GetSocksWithoutPlace(0));
    for (const int index : {1, -1, 64, 1 << 30}) {
        EXPECT_EQ(-1, CNetThread::GetSocksWithoutPlace(index)) << index;
    }
}

// ---- a wake pair that breaks -----------------------------------------------------------------------------

constexpr char RENEWED_LINE[] = "pool 0: the wake pair was broken, a new one is built\n";

TEST_F(SelectWinQuiet, WakePairWhoseEndIsShutIsBuiltAnewWithALineAndDoesNotSpin) {
    for (const bool reading_end : {true, false}) {
        LogCapture log;
        const CWINPipe before = MultiplexerProbe::pipe(pool().m_mux);
        ASSERT_EQ(0, ::shutdown(reading_end ? before.m_read_fd : before.m_write_fd, SHUT_RDWR));
        EXPECT_TRUE(log.eventuallyContains(2, RENEWED_LINE));
        EXPECT_LE(waitsMeanwhile(), FEW);
        EXPECT_EQ(1u, log.count(2, RENEWED_LINE)) << log.dump();
        const int messages = handler->life->messages;
        handler->Notify(handler->GetID(), 1, 0);
        EXPECT_EVENTUALLY(handler->life->messages == messages + 1);
        add(SOCK_READ);
        const int inputs = handler->life->inputs;
        pair.write();
        EXPECT_EVENTUALLY(handler->life->inputs == inputs + 1);
    }
}

TEST_F(SelectWinQuiet, WakePairThatCannotBeBuiltAnewIsALineAndComesBackLater) {
    LogCapture log;
    {
        DescriptorShortage shortage(0);
        ASSERT_EQ(0, ::shutdown(MultiplexerProbe::pipe(pool().m_mux).m_write_fd, SHUT_RDWR));
        EXPECT_TRUE(log.eventuallyContains(2, "pool 0: the wake pair was broken, and a new one failed\n"));
        add(SOCK_READ);
        pair.write();
        EXPECT_EVENTUALLY(handler->life->inputs == 1);
    }
    EXPECT_TRUE(log.eventuallyContains(2, RENEWED_LINE));
    EXPECT_LE(waitsMeanwhile(), FEW);
}

TEST_F(SelectWinQuiet, ClosedNumberDoesNotSpin) {
    add(SOCK_READ);
    BorrowedSock closed(pair.fd());
    pair.near.Close();
    EXPECT_LE(waitsMeanwhile(), FEW);
    EXPECT_EQ(0, handler->life->inputs);
    handler->RemoveSock(closed);
}

TEST_F(SelectWinQuiet, RegularFileIsServedAgainAndAgainUntilItIsRemoved) {
    const int fd = ::open("/proc/self/exe", O_RDONLY | O_CLOEXEC);
    BorrowedSock file(fd);
    handler->on_input = [](int) { return 0; };
    ASSERT_EQ(0, handler->RegisterSock(file, SOCK_READ, 0));
    EXPECT_EVENTUALLY(handler->life->inputs > 100);
    add(SOCK_READ);
    pair.write();
    removeAndWait(file);
    removeAndWait(pair.near);
    EXPECT_LE(waitsMeanwhile(), FEW);
    ::close(fd);
}

}  // namespace
}  // namespace Orvex::Testing
