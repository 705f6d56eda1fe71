// CMultiplexer: the three sets, what is found ready, and how a wait ends.
#include "Core/watch/Select_win.h"

#include <pthread.h>
#include <signal.h>
#include <sys/ioctl.h>

#include <atomic>
#include <numeric>
#include <set>
#include <thread>

#include "support/Eventually.h"
#include "support/KernelThread.h"
#include "support/core/EpollSeam.h"
#include "support/core/SocketPair.h"
#include "support/core/StillPool.h"

namespace Orvex::Testing {
namespace {

using namespace Reticor;

// Descriptors of one socket, each with a number of its own.
class Copies {
public:
    Copies(int fd, int count) {
        allowDescriptors(static_cast<rlim_t>(count) + 200);
        for (int i = 0; i < count; ++i) {
            m_fds.push_back(::fcntl(fd, F_DUPFD_CLOEXEC, 0));
            EXPECT_GE(m_fds.back(), 0);
        }
    }
    ~Copies() {
        for (const int fd : m_fds) {
            ::close(fd);
        }
    }
    int operator[](int i) const { return m_fds[static_cast<std::size_t>(i)]; }

private:
    std::vector<int> m_fds;
};

class SelectWin : public ::testing::Test {
protected:
    void TearDown() override { rig.close(handler); }

    void registerCopies(const Copies& copies, int from, int to, unsigned int mask) {
        for (int i = from; i < to; ++i) {
            BorrowedSock sock(copies[i]);
            EXPECT_EQ(0, handler->RegisterSock(sock, mask, 0));
        }
    }
    void removeCopies(const Copies& copies, int count) {
        for (int i = 0; i < count; ++i) {
            BorrowedSock sock(copies[i]);
            handler->RemoveSock(sock);
        }
    }

    // All that is ready, in as many passes as it takes, left in flight.
    std::set<int> readyDescriptors() {
        std::set<int> found;
        int passes = 0;
        do {
            EXPECT_LT(++passes, 200) << "the kernel goes on about sockets in flight";
            for (CEvent* ev : rig.poll()) {
                EXPECT_TRUE(found.insert(static_cast<int>(ev->m_key)).second) << "queued twice";
                m_in_flight.push_back(ev);
            }
            // A pass has room for a part of them only, and may meet nothing but sockets in flight.
        } while (epollReports(rig.epoll()) != 0 && passes < 200);
        return found;
    }
    void serveAll() {
        for (CEvent* ev : m_in_flight) {
            rig.serve(ev);
        }
        m_in_flight.clear();
    }

    StillPool rig;
    TestHandler* handler = new TestHandler(StillPool::INDEX);

private:
    std::vector<CEvent*> m_in_flight;
};

TEST_F(SelectWin, ReadSetTakes4095SocketsAndIgnoresTheNextWithNoError) {
    SocketPair pair;
    pair.write();
    LogCapture log;
    const Copies copies(pair.fd(), 4096);
    registerCopies(copies, 0, 4096, SOCK_READ);
    EXPECT_EQ(4096, rig.places(0));
    EXPECT_EQ(1, rig.mux().SocksWithoutPlace());

    const std::set<int> ready = readyDescriptors();
    EXPECT_EQ(4095u, ready.size());
    EXPECT_EQ(0u, ready.count(copies[4095]));
    EXPECT_TRUE(log.lines().empty()) << log.dump();

    serveAll();
    removeCopies(copies, 4096);
    EXPECT_EQ(1, rig.places(0)) << "the wake end alone";
    EXPECT_EQ(0, rig.mux().SocksWithoutPlace());
}

TEST_F(SelectWin, WriteSetTakes4096SocketsAndIgnoresTheNext) {
    SocketPair pair;
    const Copies copies(pair.fd(), 4097);
    registerCopies(copies, 0, 4097, SOCK_WRITE);
    const std::set<int> ready = readyDescriptors();
    EXPECT_EQ(4096u, ready.size());
    EXPECT_EQ(0u, ready.count(copies[4096]));
    serveAll();
    removeCopies(copies, 4097);
    EXPECT_EQ(0, rig.places(1));
}

TEST_F(SelectWin, ExceptionSetTakes4096SocketsAndIgnoresTheNext) {
    SocketPair pair;
    const Copies copies(pair.fd(), 4097);
    registerCopies(copies, 0, 4097, SOCK_EXCEPT);
    EXPECT_EQ(4096, rig.places(2));
    EXPECT_EQ(SOCK_EXCEPT, mux_book(rig.record(copies[4095])));
    EXPECT_EQ(0u, mux_book(rig.record(copies[4096])));
    removeCopies(copies, 4097);
    EXPECT_EQ(0, rig.places(2));
}

TEST_F(SelectWin, FreeSlotDoesNotBringARefusedSocketBackUnlessItIsAddedAgain) {
    SocketPair pair;
    const Copies copies(pair.fd(), 4096);
    registerCopies(copies, 0, 4096, SOCK_READ);
    BorrowedSock first(copies[0]);
    handler->RemoveSock(first);
    pair.write();
    std::set<int> ready = readyDescriptors();
    EXPECT_EQ(4094u, ready.size());
    EXPECT_EQ(0u, ready.count(copies[4095]));
    EXPECT_EQ(1, rig.mux().SocksWithoutPlace()) << "as long as it is not added again";

    registerCopies(copies, 4095, 4096, SOCK_READ);
    EXPECT_EQ(0, rig.mux().SocksWithoutPlace());
    EXPECT_EQ(std::set<int>{copies[4095]}, readyDescriptors());
    serveAll();
    removeCopies(copies, 4096);
}

TEST_F(SelectWin, SocketInFlightGivesUpItsPlaceAndIsDroppedInSilenceIfItFindsNoneAfterwards) {
    SocketPair pair;
    SocketPair other;
    const Copies copies(pair.fd(), 4095);
    registerCopies(copies, 0, 4094, SOCK_READ);
    ASSERT_EQ(0, handler->RegisterSock(other.near, SOCK_READ, 1000000));
    other.write();
    const std::vector<CEvent*> ready = rig.poll();
    ASSERT_EQ(1u, ready.size());
    EXPECT_EQ(4095, rig.places(0));
    registerCopies(copies, 4094, 4095, SOCK_READ);
    EXPECT_EQ(4096, rig.places(0));

    LogCapture log;
    handler->on_input = [](int) { return 0; };
    rig.serve(ready[0]);
    EXPECT_EQ(0u, mux_book(ready[0]));
    EXPECT_EQ(1, rig.mux().SocksWithoutPlace());
    handler->UnregisterSock(other.near, SOCK_READ);
    EXPECT_EQ(0, rig.mux().SocksWithoutPlace()) << "it asks for nothing";
    ASSERT_EQ(0, handler->RegisterSock(other.near, SOCK_READ, 1000000));
    EXPECT_EQ(1, rig.mux().SocksWithoutPlace());
    EXPECT_TRUE(rig.poll().empty()) << "it has data, but no place";
    EXPECT_EQ(1u, SockTimerProbe::listed(sock_timer()).size()) << "its time-out still runs";
    EXPECT_TRUE(log.lines().empty()) << log.dump();
    handler->RemoveSock(other.near);
    removeCopies(copies, 4095);
    EXPECT_EQ(1, rig.places(0));
}

TEST_F(SelectWin, AddingTheSameSocketTwiceLeavesOneEntry) {
    SocketPair pair;
    ASSERT_EQ(0, handler->RegisterSock(pair.near, SOCK_READ, 0));
    CEvent* const ev = rig.record(pair.fd());
    EXPECT_EQ(0, rig.mux().AddEvent(ev));
    EXPECT_EQ(0, rig.mux().AddEvent(ev));
    EXPECT_EQ(2, rig.places(0));
    std::size_t entries = 0;
    for (const EpollItem& item : epollItems(rig.epoll())) {
        entries += item.fd == pair.fd() ? 1 : 0;
    }
    EXPECT_EQ(1u, entries);
    handler->RemoveSock(pair.near);
    EXPECT_EQ(1, rig.places(0));
}

TEST_F(SelectWin, RemovingASocketThatIsInNoSetChangesNothing) {
    SocketPair pair;
    ASSERT_EQ(0, handler->RegisterSock(pair.near, SOCK_READ, 0));
    CEvent* const ev = rig.record(pair.fd());
    EXPECT_EQ(0, rig.mux().RemoveEvent(ev));
    EXPECT_EQ(0, rig.mux().RemoveEvent(ev));
    EXPECT_EQ(1, rig.places(0));
    EXPECT_EQ(0, rig.places(1));
    EXPECT_EQ(0, rig.places(2));
    rig.mux().Forget(ev);
    rig.mux().Forget(ev);
    EXPECT_EQ(1, rig.places(0));
    pair.write();
    EXPECT_TRUE(rig.poll().empty()) << "and whoever waits can still be woken";
    handler->RemoveSock(pair.near);
}

TEST_F(SelectWin, ReadableAndWritableInOnePassGivesRevents5AndIsQueuedOnce) {
    SocketPair pair;
    pair.write();
    std::vector<char> order;
    handler->on_input = [&](int fd) {
        order.push_back('i');
        SocketPair::drain(fd);
        return 0;
    };
    handler->on_output = [&](int) {
        order.push_back('o');
        return 0;
    };
    ASSERT_EQ(0, handler->RegisterSock(pair.near, SOCK_READ | SOCK_WRITE, 0));
    const std::vector<CEvent*> ready = rig.poll();
    ASSERT_EQ(1u, ready.size());
    EXPECT_EQ(5, ready[0]->m_revents);
    rig.serve(ready[0]);
    EXPECT_EQ((std::vector<char>{'i', 'o'}), order);
    handler->RemoveSock(pair.near);
}

TEST_F(SelectWin, ExceptionHidesReadabilityOfTheSamePassAndGivesRevents8Alone) {
    const std::unique_ptr<SocketPair> pair = SocketPair::overTcp();
    pair->write("ordinary");
    ASSERT_EQ(1, ::send(pair->far.GetHandle(), "!", 1, MSG_OOB));
    ASSERT_EQ(0, handler->RegisterSock(pair->near, SOCK_READ | SOCK_WRITE | SOCK_EXCEPT, 0));
    // Loopback delivers soon, not at once.
    ASSERT_EVENTUALLY([&] {
        char byte;
        return ::recv(pair->fd(), &byte, 1, MSG_OOB | MSG_PEEK) == 1;
    }());
    const std::vector<CEvent*> ready = rig.poll();
    ASSERT_EQ(1u, ready.size());
    EXPECT_EQ(8, ready[0]->m_revents);
    rig.serve(ready[0]);
    EXPECT_EQ(1, handler->life->exceptions);
    EXPECT_EQ(0, handler->life->inputs + handler->life->outputs);
    handler->RemoveSock(pair->near);
}

TEST_F(SelectWin, EventInFlightThatIsStillReportedIsSkippedAndNotQueuedTwice) {
    SocketPair pair;
    pair.write();
    ASSERT_EQ(0, handler->RegisterSock(pair.near, SOCK_READ, 0));
    const std::vector<CEvent*> ready = rig.poll();
    ASSERT_EQ(1u, ready.size());
    EXPECT_EQ(1, epollReports(rig.epoll())) << "the kernel goes on about it";
    EXPECT_TRUE(rig.poll().empty());
    EXPECT_TRUE(rig.poll().empty());
    EXPECT_EQ(1, ready[0]->m_revents);
    rig.serve(ready[0]);
    EXPECT_EQ(1, handler->life->inputs);
    handler->RemoveSock(pair.near);
}

TEST_F(SelectWin, TokenStandsBehindTheRecordsOfItsPass) {
    SocketPair first, second;
    first.write();
    second.write();
    ASSERT_EQ(0, handler->RegisterSock(first.near, SOCK_READ, 0));
    ASSERT_EQ(0, handler->RegisterSock(second.near, SOCK_READ, 0));
    rig.mux().Wait(rig.token());
    std::vector<CEvent*> queued = EventQueueProbe::records(rig.pool().m_event);
    ASSERT_GE(queued.size(), 3u);
    EXPECT_EQ(rig.token(), queued.back());
    queued = rig.takeQueue();
    ASSERT_EQ(2u, queued.size());
    rig.serve(queued[0]);
    rig.serve(queued[1]);
    handler->RemoveSock(first.near);
    handler->RemoveSock(second.near);
}

// A thread in Wait.
class Waiter {
public:
    explicit Waiter(StillPool& rig)
        : m_thread([this, &rig] {
              m_id = kernelThreadId();
              WorkQueueProbe::letPollerWait(rig.pool().m_event);
              rig.mux().Wait(rig.token());
              m_over = true;
          }) {
        EXPECT_EVENTUALLY(m_id != 0 && sleepsInEpoll());
    }
    void join() { m_thread.join(); }
    bool over() const { return m_over; }
    void interrupt(int signal) { EXPECT_EQ(0, ::pthread_kill(m_thread.native_handle(), signal)); }

private:
    bool sleepsInEpoll() const {
        long number = -1;
        return static_cast<bool>(openTaskFile(m_id, "syscall") >> number) && number == KERNEL_EPOLL_WAIT;
    }

    std::atomic<int> m_id{0};
    std::atomic<bool> m_over{false};
    std::thread m_thread;
};

TEST_F(SelectWin, TenAddsDuringAWaitWriteOneByteAtMostAndTheWaitHearsThemAll) {
    std::vector<std::unique_ptr<SocketPair>> pairs;
    Waiter waiter(rig);
    for (int i = 0; i < 10; ++i) {
        pairs.push_back(std::make_unique<SocketPair>());
        ASSERT_EQ(0, handler->RegisterSock(pairs.back()->near, SOCK_READ, 0));
    }
    EXPECT_LE(MultiplexerProbe::pipePending(rig.mux()), 1);
    EXPECT_FALSE(waiter.over());
    for (const auto& pair : pairs) {
        pair->write();
    }
    waiter.join();
    std::vector<CEvent*> heard = rig.takeQueue();
    for (CEvent* ev : rig.poll()) {
        heard.push_back(ev);
    }
    EXPECT_EQ(10u, heard.size());
    for (CEvent* ev : heard) {
        rig.serve(ev);
    }
    for (const auto& pair : pairs) {
        handler->RemoveSock(pair->near);
    }
}

TEST_F(SelectWin, TenWakeUpsWriteOneByteAndEndOneWait) {
    int bytes = -1;
    for (int i = 0; i < 10; ++i) {
        rig.mux().WakeUp();
    }
    EXPECT_EQ(1, MultiplexerProbe::pipePending(rig.mux()));
    ASSERT_EVENTUALLY(::ioctl(MultiplexerProbe::pipe(rig.mux()).m_read_fd, FIONREAD, &bytes) == 0 &&
                      bytes == 1);
    rig.mux().Wait(rig.token());
    rig.takeQueue();
    EXPECT_EQ(0, MultiplexerProbe::pipePending(rig.mux()));
    EXPECT_EQ(0, epollReports(rig.epoll()));

    Waiter waiter(rig);
    rig.mux().WakeUp();
    waiter.join();
    EXPECT_TRUE(rig.takeQueue().empty());
}

TEST_F(SelectWin, InterruptedWaitLogsNothingAndQueuesNothingButTheToken) {
    SocketPair pair;
    ASSERT_EQ(0, handler->RegisterSock(pair.near, SOCK_READ, 0));
    struct sigaction action {};
    action.sa_handler = [](int) {};  // and no SA_RESTART
    ASSERT_EQ(0, ::sigaction(SIGUSR1, &action, nullptr));
    LogCapture log;
    Waiter waiter(rig);
    waiter.interrupt(SIGUSR1);
    waiter.join();
    EXPECT_TRUE(log.lines().empty()) << log.dump();
    const std::vector<CEvent*> queued = EventQueueProbe::records(rig.pool().m_event);
    EXPECT_EQ(1, std::count(queued.begin(), queued.end(), rig.token()));
    EXPECT_TRUE(rig.takeQueue().empty());
    handler->RemoveSock(pair.near);
}

TEST_F(SelectWin, FailingWaitIsLoggedOncePerPassAndTheTokenGoesBack) {
    // Something that is no epoll instance takes the number's place.
    const int null_device = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    ASSERT_EQ(rig.epoll(), ::dup3(null_device, rig.epoll(), O_CLOEXEC));
    ::close(null_device);
    LogCapture log;
    rig.mux().Wait(rig.token());
    EXPECT_EQ(1u, log.count(2, "select failed!22,Invalid argument\n")) << log.dump();
    const std::vector<CEvent*> queued = EventQueueProbe::records(rig.pool().m_event);
    EXPECT_EQ(1, std::count(queued.begin(), queued.end(), rig.token()));
    rig.takeQueue();
    rig.mux().Wait(rig.token());
    EXPECT_EQ(2u, log.countLevel(2));
}

}  // namespace
}  // namespace Orvex::Testing
