// Waker: one byte that ends a wait, and a pair that breaks, is renewed, lost and restored.
#include "Core/watch/Waker.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <memory>
#include <thread>
#include <vector>

#include "support/Eventually.h"
#include "support/LogCapture.h"
#include "support/core/EpollSeam.h"
#include "support/core/Probes.h"
#include "support/core/SocketPair.h"

namespace Orvex::Testing {
namespace {

using namespace Reticor;
using Pair = Waker::Pair;

constexpr int LONG_MS = 3600000;

bool isOpenEnd(int fd) {
    return ::fcntl(fd, F_GETFD) != -1;
}

class WakerCases : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(epoll.Open());
        ASSERT_TRUE(waker->Open());
    }

    CWINPipe pipe() { return MultiplexerProbe::pipe(*waker); }
    int pending() { return MultiplexerProbe::pipePending(*waker); }
    int reports() { return epollReports(MultiplexerProbe::epoll(epoll)); }
    // Bytes cross the loopback in a moment.
    void expectOneReport() {
        epoll_event report{};
        EXPECT_EQ(1, epoll.Wait(&report, 1, scaledMs(10000)));
        const uint64_t mark = report.data.u64;  // the structure is packed
        EXPECT_EQ(EpollSet::WAKE_MARK, mark);
    }
    void breakReadEnd() { EXPECT_EQ(0, ::shutdown(pipe().m_read_fd, SHUT_RDWR)); }
    void breakWriteEnd() { EXPECT_EQ(0, ::shutdown(pipe().m_write_fd, SHUT_WR)); }
    void expectItWorks() {
        EXPECT_TRUE(waker->IsOpen());
        EXPECT_EQ(Pair::sound, waker->Wake());
        expectOneReport();
        EXPECT_EQ(Pair::sound, waker->Drain());
        EXPECT_EQ(0, reports());
        EXPECT_EQ(0, pending());
    }

    LogCapture quiet{2};
    EpollSet epoll;
    std::unique_ptr<Waker> waker = std::make_unique<Waker>(epoll);
};

// ---- a sound pair --------------------------------------------------------------------------------------

TEST_F(WakerCases, ItsReadEndIsWatchedAndBothEndsGoWithIt) {
    const CWINPipe ends = pipe();
    const std::vector<EpollItem> items = epollItems(MultiplexerProbe::epoll(epoll));
    ASSERT_EQ(1u, items.size());
    EXPECT_EQ(ends.m_read_fd, items[0].fd);
    EXPECT_EQ(EpollSet::WAKE_MARK, items[0].data);
    EXPECT_EQ(0, reports());
    waker.reset();
    EXPECT_FALSE(isOpenEnd(ends.m_read_fd));
    EXPECT_FALSE(isOpenEnd(ends.m_write_fd));
}

TEST_F(WakerCases, WritesOneByteHoweverOftenItIsAsked) {
    for (int i = 0; i < 10; ++i) {
        EXPECT_EQ(Pair::sound, waker->Wake());
        EXPECT_EQ(1, pending());
    }
    expectOneReport();
    EXPECT_EQ(Pair::sound, waker->Drain());
    EXPECT_EQ(0, pending());
    EXPECT_EQ(0, reports()) << "one look takes it away";
    expectItWorks();
}

TEST_F(WakerCases, ADrainWithNothingThereChangesNothing) {
    EXPECT_EQ(Pair::sound, waker->Drain());
    EXPECT_EQ(0, pending());
    expectItWorks();
}

// Somebody who guesses the number could write; what he writes is taken and counted for nothing.
TEST_F(WakerCases, BytesThatAreNotItsOwnAreTakenToo) {
    EXPECT_EQ(Pair::sound, waker->Wake());
    EXPECT_EQ(5, ::send(pipe().m_write_fd, "other", 5, 0));
    int arrived = 0;
    EXPECT_EVENTUALLY(::ioctl(pipe().m_read_fd, FIONREAD, &arrived) == 0 && arrived == 6);
    EXPECT_EQ(Pair::sound, waker->Drain());
    EXPECT_EQ(0, reports());
    EXPECT_EQ(0, pending());
    expectItWorks();
}

TEST_F(WakerCases, APauseEndsWhenItIsWokenOrItsTimeIsOver) {
    waker->Pause(1);
    EXPECT_EQ(Pair::sound, waker->Wake());
    waker->Pause(LONG_MS);
    EXPECT_EQ(1, pending()) << "the byte stays for the wait";
    expectOneReport();
}

TEST_F(WakerCases, AWakeUpThatIsUnderWayReachesTheNextInstance) {
    EXPECT_EQ(Pair::sound, waker->Wake());
    EXPECT_TRUE(waker->ReplaceEpoll());
    epoll.CloseFormer();
    expectOneReport();
    EXPECT_EQ(Pair::sound, waker->Drain());
    expectItWorks();
}

// ---- no pair -------------------------------------------------------------------------------------------

TEST(WakerWithoutAPair, DoesNothingAndIsSound) {
    EpollSet epoll;
    EXPECT_TRUE(epoll.Open());
    Waker waker(epoll);
    EXPECT_FALSE(waker.IsOpen());
    EXPECT_EQ(Pair::sound, waker.Wake());
    EXPECT_EQ(Pair::sound, waker.Restore());
    waker.Pause(1);
    EXPECT_TRUE(waker.ReplaceEpoll());
    EXPECT_EQ(-1, MultiplexerProbe::pipe(waker).m_read_fd);
}

TEST(WakerWithoutAPair, FailsToOpenAtEveryShortageAndLeavesNothingOpen) {
    const LogCapture quiet(2);
    EpollSet epoll;
    EXPECT_TRUE(epoll.Open());
    int failures = 0;
    for (std::size_t spare = 0; spare < 10; ++spare) {
        const DescriptorShortage shortage(spare);
        Waker waker(epoll);
        if (waker.Open()) {
            break;
        }
        ++failures;
        EXPECT_FALSE(waker.IsOpen());
        EXPECT_EQ(-1, MultiplexerProbe::pipe(waker).m_read_fd);
        EXPECT_EQ(-1, MultiplexerProbe::pipe(waker).m_write_fd);
        std::vector<int> free_again;
        for (std::size_t i = 0; i < spare; ++i) {
            free_again.push_back(::open("/dev/null", O_RDONLY | O_CLOEXEC));
            EXPECT_NE(-1, free_again.back()) << "of " << spare;
        }
        for (const int fd : free_again) {
            ::close(fd);
        }
    }
    EXPECT_EQ(3, failures) << "an acceptor and two ends";
}

TEST(WakerWithoutAPair, APairThatIsNotWatchedIsNone) {
    EpollSet epoll;
    EXPECT_TRUE(epoll.Open());
    Waker waker(epoll);
    {
        const EpollFault fault(ENOSPC);
        EXPECT_FALSE(waker.Open());
    }
    EXPECT_FALSE(waker.IsOpen());
    EXPECT_EQ(-1, MultiplexerProbe::pipe(waker).m_write_fd);
    EXPECT_TRUE(waker.Open());
    EXPECT_TRUE(waker.IsOpen());
}

// ---- a pair that breaks --------------------------------------------------------------------------------

TEST_F(WakerCases, AnEndThatIsSeenByTheWaitIsReplaced) {
    const CWINPipe old = pipe();
    breakReadEnd();
    EXPECT_EVENTUALLY(reports() == 1);
    EXPECT_EQ(Pair::renewed, waker->Drain());
    EXPECT_TRUE(pipe().m_read_fd != old.m_read_fd || pipe().m_write_fd != old.m_write_fd);
    EXPECT_EQ(1u, epollItems(MultiplexerProbe::epoll(epoll)).size()) << "the old end is not watched any more";
    expectItWorks();
}

TEST_F(WakerCases, AnEndThatIsSeenByAWakerIsReplacedAndTheWakeUpIsNotLost) {
    breakWriteEnd();
    EXPECT_EQ(Pair::renewed, waker->Wake());
    EXPECT_EQ(1, pending());
    expectOneReport();
    EXPECT_EQ(Pair::sound, waker->Drain());
    expectItWorks();
}

TEST_F(WakerCases, AByteThatWasUnderWayInABrokenPairIsForgotten) {
    EXPECT_EQ(Pair::sound, waker->Wake());
    expectOneReport();
    breakReadEnd();
    char byte;
    EXPECT_EVENTUALLY(::recv(pipe().m_read_fd, &byte, 1, 0) == 0);
    EXPECT_EQ(Pair::renewed, waker->Drain());
    EXPECT_EQ(0, pending()) << "or no wake-up would be written ever again";
    expectItWorks();
}

// Without a new pair the old end's hang-up ends the wait that is under way.
TEST_F(WakerCases, APairThatAWakerLosesEndsTheWaitOnceMore) {
    breakWriteEnd();
    const CWINPipe old = pipe();
    {
        const DescriptorShortage shortage(0);
        EXPECT_EQ(Pair::lost, waker->Wake());
        EXPECT_FALSE(waker->IsOpen());
        EXPECT_EVENTUALLY(reports() == 1);
        EXPECT_EQ(Pair::sound, waker->Wake()) << "there is nothing to write to";
        EXPECT_EQ(Pair::sound, waker->Drain());
        EXPECT_EQ(0, reports()) << "and now it is gone";
        EXPECT_FALSE(isOpenEnd(old.m_read_fd));
    }
    EXPECT_FALSE(waker->IsOpen());
    EXPECT_EQ(Pair::renewed, waker->Restore());
    EXPECT_EQ(Pair::sound, waker->Restore()) << "none is lost any more";
    expectItWorks();
}

TEST_F(WakerCases, APairThatTheWaitLosesIsGoneAtOnce) {
    breakReadEnd();
    const CWINPipe old = pipe();
    {
        const DescriptorShortage shortage(0);
        EXPECT_EVENTUALLY(reports() == 1);
        EXPECT_EQ(Pair::lost, waker->Drain());
        EXPECT_EQ(0, reports());
        EXPECT_FALSE(isOpenEnd(old.m_read_fd));
        EXPECT_FALSE(isOpenEnd(old.m_write_fd));
    }
    EXPECT_EQ(Pair::renewed, waker->Restore());
    expectItWorks();
}

TEST_F(WakerCases, ALostPairIsTriedForUntilThereIsOne) {
    breakReadEnd();
    {
        const DescriptorShortage shortage(0);
        EXPECT_EVENTUALLY(reports() == 1);
        EXPECT_EQ(Pair::lost, waker->Drain());
    }
    for (std::size_t spare = 0; spare < 3; ++spare) {
        const DescriptorShortage shortage(spare);
        EXPECT_EQ(Pair::lost, waker->Restore()) << spare;
        EXPECT_FALSE(waker->IsOpen());
    }
    EXPECT_EQ(Pair::renewed, waker->Restore());
    expectItWorks();
}

// ---- threads -------------------------------------------------------------------------------------------

TEST_F(WakerCases, NoWakeUpIsLostWhileManyThreadsAsk) {
    constexpr int EACH = 2000;
    std::atomic<int> asked{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 3; ++i) {
        threads.emplace_back([&] {
            for (int n = 0; n < EACH; ++n) {
                ++asked;
                EXPECT_EQ(Pair::sound, waker->Wake());
            }
        });
    }
    int heard = 0;
    bool in_time = true;
    while (heard < 3 * EACH && in_time) {
        epoll_event report{};
        in_time = epoll.Wait(&report, 1, scaledMs(10000)) == 1;
        EXPECT_EQ(Pair::sound, waker->Drain());
        EXPECT_LE(pending(), 1);
        heard = asked;
    }
    EXPECT_TRUE(in_time) << "heard of " << heard;
    for (std::thread& thread : threads) {
        thread.join();
    }
}

// The wait and those who wake meet a broken pair at the same time: it is renewed, and works.
TEST_F(WakerCases, ABreakInTheMiddleIsSurvivedByAll) {
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    for (int i = 0; i < 2; ++i) {
        threads.emplace_back([&] {
            while (!stop) {
                EXPECT_NE(Pair::lost, waker->Wake());
                std::this_thread::yield();
            }
        });
    }
    for (int round = 0; round < 20; ++round) {
        // The pair may be renewed in between, and then this comes to nothing.
        const CWINPipe ends = pipe();
        round % 2 == 0 ? ::shutdown(ends.m_read_fd, SHUT_RDWR) : ::shutdown(ends.m_write_fd, SHUT_WR);
        for (int i = 0; i < 5; ++i) {
            epoll_event report{};
            EXPECT_EQ(1, epoll.Wait(&report, 1, scaledMs(10000)));
            EXPECT_NE(Pair::lost, waker->Drain());
        }
    }
    stop = true;
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EVENTUALLY((waker->Drain(), reports() == 0));
    expectItWorks();
}

}  // namespace
}  // namespace Orvex::Testing
