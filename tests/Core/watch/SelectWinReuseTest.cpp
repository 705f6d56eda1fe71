// CMultiplexer: descriptors that are closed, copied and reused while they are registered.
#include <gtest/gtest.h>

#include "support/core/EpollSeam.h"
#include "support/core/SocketPair.h"
#include "support/core/StillHandler.h"

namespace Orvex::Testing {
namespace {

using namespace Reticor;
using Calls = std::vector<EpollCall>;

constexpr uint32_t READABLE = EPOLLIN;
constexpr char REBUILD_LINE[] =
    "a closed socket is still reported, its descriptor was copied: watching all sockets anew\n";

class SelectWinReuse : public StillHandler {
protected:
    // Closes the near end and leaves a copy of it elsewhere, with data waiting: the kernel goes on about it.
    int orphan(SocketPair& pair) {
        const int copy = ::fcntl(pair.fd(), F_DUPFD_CLOEXEC, 0);
        BorrowedSock sock(pair.fd());
        pair.near.Close();
        handler->RemoveSock(sock);
        pair.write();
        return copy;
    }

    // Polls until the kernel is silent. False if it never is.
    bool fallsSilent(int passes = 40000) {
        while (epollReports(rig.epoll()) != 0) {
            if (--passes < 0) {
                return false;
            }
            EXPECT_TRUE(rig.poll().empty());
        }
        return true;
    }
};

TEST_F(SelectWinReuse, NumberClosedAndReusedWhileIdleIsAddedAnewByTheNextRegistration) {
    SocketPair old, fresh;
    EpollRecorder kernel(old.fd());
    add(old.near);
    EXPECT_EQ(old.fd(), ::dup3(fresh.fd(), old.fd(), O_CLOEXEC));  // closes the old socket in silence
    fresh.write();
    EXPECT_TRUE(rig.poll().empty()) << "watched by nothing until it is registered again";
    kernel.take();
    add(old.near);
    EXPECT_EQ((Calls{failed(EPOLL_CTL_MOD, READABLE, ENOENT), added(READABLE)}), kernel.take());
    EXPECT_EQ(1u, rig.pollAndServe());
    EXPECT_EQ(1, handler->life->inputs);
    handler->RemoveSock(old.near);
}

TEST_F(SelectWinReuse, NumberClosedAndReusedInsideItsHandlerRestsUntilItIsRegisteredAgain) {
    SocketPair old, fresh;
    const int number = old.fd();
    add(old.near);
    handler->on_input = [&](int fd) {
        if (fd == old.fd()) {
            old.near.Close();
            EXPECT_EQ(number, ::dup3(fresh.fd(), number, O_CLOEXEC));
            old.near.Attach(number);
        }
        SocketPair::drain(fresh.fd());
        return 0;
    };
    old.write();
    EpollRecorder kernel(number);
    EXPECT_EQ(1u, rig.pollAndServe());
    EXPECT_EQ((Calls{failed(EPOLL_CTL_MOD, READABLE, ENOENT)}), kernel.take());
    fresh.write();
    EXPECT_TRUE(rig.poll().empty()) << "nobody asked for the new file";
    handler->UnregisterSock(old.near, SOCK_WRITE);
    handler->UnregisterSock(old.near, SOCK_READ);
    EXPECT_EQ(Calls{}, kernel.take()) << "which is no question either";
    handler->on_input = [&](int) {
        SocketPair::drain(fresh.fd());
        return 0;
    };
    add(old.near);
    EXPECT_EQ(1u, rig.pollAndServe());
    EXPECT_EQ(2, handler->life->inputs);
    handler->RemoveSock(old.near);
}

TEST_F(SelectWinReuse, ClosedNumberKeepsItsPlaceIsSilentAndLeavesWithRemoveSock) {
    SocketPair pair;
    BorrowedSock sock(pair.fd());
    add(sock);
    pair.near.Close();
    LogCapture log;
    EpollRecorder kernel(sock.GetHandle());
    EXPECT_TRUE(rig.poll().empty());
    EXPECT_EQ(2, rig.places(0));
    EXPECT_EQ(Calls{}, kernel.take());
    add(sock);
    EXPECT_EQ((Calls{failed(EPOLL_CTL_MOD, READABLE, EBADF)}), kernel.take());
    EXPECT_TRUE(rig.poll().empty());
    EXPECT_EQ(2, rig.places(0));
    handler->RemoveSock(sock);
    EXPECT_EQ(Calls{}, kernel.take()) << "the kernel does not have it";
    EXPECT_EQ(1, rig.places(0));
    EXPECT_TRUE(log.lines().empty()) << log.dump();
}

TEST_F(SelectWinReuse, NumberClosedInFlightAndNotReusedStaysOutInSilence) {
    SocketPair pair;
    BorrowedSock sock(pair.fd());
    add(sock);
    handler->on_input = [&](int) {
        pair.near.Close();
        return 0;
    };
    pair.write();
    LogCapture log;
    EXPECT_EQ(1u, rig.pollAndServe());
    EXPECT_TRUE(rig.poll().empty());
    EXPECT_EQ(MuxForm::gone, mux_form(rig.record(sock.GetHandle())));
    EXPECT_EQ(2, rig.places(0));
    EXPECT_TRUE(log.lines().empty()) << log.dump();
    handler->RemoveSock(sock);
}

TEST_F(SelectWinReuse, ReportOfAnEarlierLifeDoesNotReachALaterOne) {
    SocketPair old, fresh, bystander;
    const int number = old.fd();
    BorrowedSock sock(number);
    add(sock);
    add(bystander.near);
    const int copy = ::fcntl(number, F_DUPFD_CLOEXEC, 0);
    old.near.Close();
    handler->RemoveSock(sock);
    EXPECT_EQ(number, ::dup3(fresh.fd(), number, O_CLOEXEC));
    add(sock);
    old.write();  // the kernel reports the number, with the sequence of its first life
    ASSERT_EQ(1, epollReports(rig.epoll()));
    LogCapture log;
    EXPECT_TRUE(rig.poll().empty());
    EXPECT_TRUE(fallsSilent());
    EXPECT_EQ(0, handler->life->inputs);
    EXPECT_EQ(1u, log.count(3, REBUILD_LINE)) << log.dump();

    fresh.write();
    bystander.write();
    EXPECT_EQ(2u, rig.pollAndServe());
    handler->RemoveSock(sock);
    handler->RemoveSock(bystander.near);
    ::close(copy);
    ::close(number);
}

TEST_F(SelectWinReuse, OrphanedCopyHasTheInstanceRebuiltOnceWithALineAndOthersAreStillServed) {
    SocketPair gone, idle, slow;
    add(gone.near);
    add(idle.near);
    add(slow.near);
    slow.write();
    const std::vector<CEvent*> in_flight = rig.poll();
    ASSERT_EQ(1u, in_flight.size());
    const int before = rig.epoll();
    const int copy = orphan(gone);
    ASSERT_EQ(1, epollReports(rig.epoll()) - 1) << "beside the socket in flight";

    LogCapture log;
    rig.poll();
    rig.poll();
    EXPECT_EQ(1u, log.count(3, REBUILD_LINE)) << log.dump();
    EXPECT_NE(before, rig.epoll());
    EXPECT_EQ(-1, ::fcntl(before, F_GETFD)) << "the old instance is closed";
    for (int i = 0; i < 3; ++i) {
        EXPECT_TRUE(rig.poll().empty());
    }
    EXPECT_EQ(1u, log.lines().size()) << log.dump();

    rig.serve(in_flight[0]);
    idle.write();
    slow.write();
    EXPECT_EQ(2u, rig.pollAndServe());
    EXPECT_TRUE(fallsSilent());
    handler->RemoveSock(idle.near);
    handler->RemoveSock(slow.near);
    ::close(copy);
}

TEST_F(SelectWinReuse, RebuildThatCannotWatchTheWakeEndKeepsTheOldInstanceAndTriesAgain) {
    SocketPair gone;
    add(gone.near);
    const int before = rig.epoll();
    const int copy = orphan(gone);
    LogCapture log;
    rig.poll();
    {
        EpollFault fault(ENOMEM);
        rig.poll();
        EXPECT_EQ(before, rig.epoll());
        EXPECT_EQ(1u, log.countLevel(2)) << log.dump();
    }
    EXPECT_TRUE(fallsSilent());
    EXPECT_NE(before, rig.epoll());
    EXPECT_EQ(1u, log.count(3, REBUILD_LINE)) << log.dump();
    ::close(copy);
}

TEST_F(SelectWinReuse, ManyOrphansTogetherDoNotKeepThePollerBusy) {
    std::vector<std::unique_ptr<SocketPair>> pairs;
    std::vector<int> copies;
    for (int i = 0; i < 5; ++i) {
        pairs.push_back(std::make_unique<SocketPair>());
        add(pairs.back()->near);
    }
    for (const auto& pair : pairs) {
        copies.push_back(orphan(*pair));
    }
    ASSERT_EQ(5, epollReports(rig.epoll()));
    LogCapture log;
    EXPECT_TRUE(fallsSilent());
    EXPECT_EQ(1u, log.count(3, REBUILD_LINE)) << log.dump();
    for (const int copy : copies) {
        ::close(copy);
    }
}

TEST_F(SelectWinReuse, LastReportsOfRemovedSocketsRebuildNothing) {
    // As if they had been on their way when their sockets were removed: each comes once.
    SocketPair pairs[3];
    for (SocketPair& pair : pairs) {
        epoll_event late{};
        late.events = EPOLLIN | EPOLLONESHOT;
        late.data.u64 = static_cast<uint64_t>(pair.fd());
        ASSERT_EQ(0, ::epoll_ctl(rig.epoll(), EPOLL_CTL_ADD, pair.fd(), &late));
        pair.write();
    }
    LogCapture log;
    const int before = rig.epoll();
    EpollRecorder kernel(pairs[0].fd());
    EXPECT_TRUE(rig.poll().empty());
    EXPECT_TRUE(rig.poll().empty());
    EXPECT_EQ(before, rig.epoll());
    EXPECT_EQ(Calls{}, kernel.take()) << "the number may be anybody's by now";
    EXPECT_TRUE(log.lines().empty()) << log.dump();
}

// ---- a registration is of a file, not of a number --------------------------------------------------------

class SelectWinIdentity : public SelectWinReuse {
protected:
    std::string reusedLine(int number) {
        return "pool " + std::to_string(StillPool::INDEX) + ": socket " + std::to_string(number) +
               " was closed without RemoveSock, its number is another socket's: the new registration alone "
               "counts\n";
    }
    void TearDown() override {
        SelectWinReuse::TearDown();
        rig.close(second);
    }

    // Closes the socket as its owner does, and lets another one have its number.
    static void reuse(SocketPair& old, SocketPair& fresh) {
        const int number = old.fd();
        old.near.Close();
        ASSERT_EQ(number, ::dup3(fresh.fd(), number, O_CLOEXEC));
    }

    TestHandler* second = new TestHandler(StillPool::INDEX);
};

TEST_F(SelectWinIdentity, NewSocketWithAClosedNumberInheritsNeitherMaskNorTimeoutNorOwner) {
    SocketPair old, fresh;
    const int number = old.fd();
    ASSERT_EQ(0, handler->RegisterSock(old.near, SOCK_READ | SOCK_WRITE, 1000000));
    const uint32_t sequence = rig.record(number)->m_timer.m_sequence;
    reuse(old, fresh);
    BorrowedSock sock(number);
    EpollRecorder kernel(number);
    LogCapture log;
    ASSERT_EQ(0, second->RegisterSock(sock, SOCK_READ, 0));
    EXPECT_EQ((Calls{failed(EPOLL_CTL_MOD, READABLE | EPOLLOUT, ENOENT), added(READABLE)}), kernel.take());
    EXPECT_EQ(SOCK_READ, rig.record(number)->m_event_mask);
    EXPECT_NE(sequence, rig.record(number)->m_timer.m_sequence);
    EXPECT_EQ(2, rig.places(0));
    EXPECT_EQ(0, rig.places(1));
    EXPECT_EQ(1u, log.count(3, reusedLine(number))) << log.dump();
    EXPECT_TRUE(rig.poll().empty()) << "it is writable, which its owner does not want to know";
    EXPECT_TRUE(rig.tick(10).empty());
    fresh.write();
    EXPECT_EQ(1u, rig.pollAndServe());
    EXPECT_EQ(1, second->life->inputs);
    EXPECT_EQ(1, second->life->calls());
    EXPECT_EQ(0, handler->life->calls());
    ASSERT_EQ(0, second->RegisterSock(sock, SOCK_WRITE, 0));
    EXPECT_EQ(SOCK_READ | SOCK_WRITE, rig.record(number)->m_event_mask) << "now it is the same file";
    EXPECT_EQ(1u, log.lines().size()) << log.dump();
    second->RemoveSock(sock);
    ::close(number);
}

TEST_F(SelectWinIdentity, NumberThatWasFoundDeadInheritsNothingEither) {
    SocketPair old, fresh;
    const int number = old.fd();
    BorrowedSock sock(number);
    add(sock, SOCK_WRITE);
    old.near.Close();
    LogCapture log;
    add(sock, SOCK_EXCEPT);  // nothing is open under the number
    EXPECT_TRUE(log.lines().empty()) << log.dump();
    ASSERT_EQ(number, ::dup3(fresh.fd(), number, O_CLOEXEC));
    EpollRecorder kernel(number);
    ASSERT_EQ(0, second->RegisterSock(sock, SOCK_READ, 0));
    EXPECT_EQ((Calls{added(READABLE)}), kernel.take());
    EXPECT_EQ(SOCK_READ, rig.record(number)->m_event_mask);
    EXPECT_EQ(1u, log.count(3, reusedLine(number))) << log.dump();
    second->RemoveSock(sock);
    ::close(number);
}

TEST_F(SelectWinIdentity, SocketRegisteredWhileTheClosedOneIsInFlightStartsAfresh) {
    for (const bool known_to_library : {true, false}) {
        SocketPair old, fresh;
        const int number = old.fd();
        BorrowedSock sock(number);
        ASSERT_EQ(0, handler->RegisterSock(sock, SOCK_READ | SOCK_EXCEPT, 5000000));
        old.write();
        const std::vector<CEvent*> ready = rig.poll();
        ASSERT_EQ(1u, ready.size());
        if (known_to_library) {
            old.near.Close();
        }
        ASSERT_EQ(number, ::dup3(fresh.fd(), number, O_CLOEXEC));
        ASSERT_EQ(0, second->RegisterSock(sock, SOCK_READ, 7000000));
        handler->on_input = [](int) { return -1; };
        second->on_input = handler->on_input;
        EpollRecorder kernel(number);
        rig.serve(ready[0]);
        EXPECT_EQ((Calls{failed(EPOLL_CTL_MOD, READABLE | EPOLLPRI, ENOENT), added(READABLE)}),
                  kernel.take());
        EXPECT_EQ(SOCK_READ, ready[0]->m_event_mask);
        EXPECT_EQ(7000, ready[0]->m_timer.m_set_time) << "the result was about the former socket";
        EXPECT_TRUE(CSockTimer::IsLinked(ready[0]));
        second->RemoveSock(sock);
        if (known_to_library) {
            ::close(number);
        }
    }
}

TEST_F(SelectWinIdentity, LivingCopyOfAClosedSocketIsNotHeardByTheNextOwnerOfItsNumber) {
    SocketPair old, fresh;
    const int number = old.fd();
    add(old.near);
    const int copy = ::fcntl(number, F_DUPFD_CLOEXEC, 0);
    reuse(old, fresh);
    BorrowedSock sock(number);
    LogCapture log;
    ASSERT_EQ(0, second->RegisterSock(sock, SOCK_READ, 0));
    old.write();  // the kernel goes on about the copy
    ASSERT_EQ(1, epollReports(rig.epoll()));
    EXPECT_TRUE(fallsSilent());
    EXPECT_EQ(0, second->life->calls());
    EXPECT_EQ(1u, log.count(3, REBUILD_LINE)) << log.dump();
    fresh.write();
    EXPECT_EQ(1u, rig.pollAndServe());
    EXPECT_EQ(1, second->life->inputs);
    second->RemoveSock(sock);
    ::close(copy);
    ::close(number);
}

TEST_F(SelectWinIdentity, DeadNumberWithALivingCopyIsHeardOnceAndCuredOnce) {
    SocketPair pair;
    BorrowedSock sock(pair.fd());
    add(sock);
    handler->on_input = [](int) { return 0; };
    const int copy = ::fcntl(pair.fd(), F_DUPFD_CLOEXEC, 0);
    pair.near.Close();
    pair.write();
    LogCapture log;
    int passes = 0;
    while (epollReports(rig.epoll()) != 0 && ++passes < 100) {
        rig.pollAndServe();
    }
    EXPECT_EQ(0, epollReports(rig.epoll()));
    EXPECT_LE(handler->life->inputs, 1) << "the call in which the end of the socket shows";
    EXPECT_EQ(1u, log.count(3, REBUILD_LINE)) << log.dump();
    EXPECT_TRUE(rig.poll().empty());
    EXPECT_EQ(1u, log.lines().size()) << log.dump();
    handler->RemoveSock(sock);
    ::close(copy);
}

TEST_F(SelectWinIdentity, SocketClosedInFlightWithALivingCopyIsCuredWhileItsHandlerRuns) {
    SocketPair pair;
    BorrowedSock sock(pair.fd());
    add(sock);
    pair.write();
    const std::vector<CEvent*> ready = rig.poll();
    ASSERT_EQ(1u, ready.size());
    const int copy = ::fcntl(pair.fd(), F_DUPFD_CLOEXEC, 0);
    pair.near.Close();
    EXPECT_TRUE(fallsSilent(100));
    rig.serve(ready[0]);
    EXPECT_TRUE(fallsSilent(100));
    handler->RemoveSock(sock);
    ::close(copy);
}

TEST_F(SelectWinIdentity, RebuildDoesNotWatchASocketThatNobodyRegistered) {
    SocketPair old, stranger, gone;
    const int number = old.fd();
    BorrowedSock sock(number);
    add(sock);
    reuse(old, stranger);
    stranger.write();
    add(gone.near);
    const int copy = orphan(gone);
    LogCapture log;
    EXPECT_TRUE(fallsSilent());
    EXPECT_EQ(1u, log.count(3, REBUILD_LINE)) << log.dump();
    EXPECT_EQ(0, handler->life->calls());
    EXPECT_FALSE(epollItem(rig.epoll(), number));
    handler->RemoveSock(sock);
    ::close(copy);
    ::close(number);
}

TEST_F(SelectWinIdentity, SocketsAndFilesThatTakeEachOthersNumbersStartAfresh) {
    SocketPair pair;
    char name[] = "/tmp/reticor_reuse_XXXXXX";
    const int file = ::mkostemp(name, O_CLOEXEC);
    ::unlink(name);
    const int number = ::fcntl(file, F_DUPFD_CLOEXEC, 0);
    BorrowedSock sock(number);
    add(sock, SOCK_READ | SOCK_WRITE);
    ASSERT_EQ(number, ::dup3(pair.fd(), number, O_CLOEXEC));
    add(sock, SOCK_READ);
    EXPECT_EQ(SOCK_READ, rig.record(number)->m_event_mask);
    EXPECT_TRUE(rig.poll().empty()) << "nothing to read";
    ASSERT_EQ(number, ::dup3(file, number, O_CLOEXEC));
    add(sock, SOCK_WRITE);
    EXPECT_EQ(SOCK_WRITE, rig.record(number)->m_event_mask);
    EXPECT_EQ(1u, rig.pollAndServe());
    EXPECT_EQ(1, handler->life->outputs);
    handler->RemoveSock(sock);
    ::close(number);
    ::close(file);
}

}  // namespace
}  // namespace Orvex::Testing
