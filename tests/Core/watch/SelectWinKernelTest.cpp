// CMultiplexer: what the kernel is told about a socket at each step, call by call.
#include <gtest/gtest.h>

#include "support/core/EpollSeam.h"
#include "support/core/SocketPair.h"
#include "support/core/StillHandler.h"

namespace Orvex::Testing {
namespace {

using namespace Reticor;
using Calls = std::vector<EpollCall>;

constexpr uint32_t IN = EPOLLIN;
constexpr uint32_t OUT = EPOLLOUT;
constexpr uint32_t PRI = EPOLLPRI;
constexpr uint32_t PARKED = EPOLLONESHOT;
constexpr uint32_t EDGE = static_cast<uint32_t>(EPOLLET);

class SelectWinKernel : public StillHandler {
protected:
    void TearDown() override {
        handler->RemoveSock(pair.near);
        EXPECT_EQ(1, rig.places(0));
        EXPECT_EQ(0, rig.places(1));
        EXPECT_EQ(0, rig.places(2));
        StillHandler::TearDown();
    }

    void add(unsigned int mask, int time_out_us = 0) { StillHandler::add(pair.near, mask, time_out_us); }

    // The one record that is ready, in flight from now on.
    CEvent* takeReady() {
        const std::vector<CEvent*> ready = rig.poll();
        EXPECT_EQ(1u, ready.size());
        return ready.empty() ? nullptr : ready[0];
    }

    SocketPair pair;
    EpollRecorder kernel{pair.fd()};
};

TEST_F(SelectWinKernel, NewRegistrationIsOneAddThatNamesNumberAndSequence) {
    add(SOCK_READ | SOCK_EXCEPT);
    EXPECT_EQ((Calls{added(IN | PRI)}), kernel.take());
    const std::optional<EpollItem> item = epollItem(rig.epoll(), pair.fd());
    ASSERT_TRUE(item);
    EXPECT_EQ(IN | PRI | ALWAYS_REPORTED, item->events);
    EXPECT_EQ(static_cast<uint64_t>(pair.fd()), item->data & 0xFFFFFFFF);
    EXPECT_EQ(rig.record(pair.fd())->m_timer.m_sequence, item->data >> 32);

    handler->RemoveSock(pair.near);
    add(SOCK_WRITE);
    EXPECT_EQ((Calls{deleted(), added(OUT)}), kernel.take());
    EXPECT_EQ((item->data >> 32) + 1, epollItem(rig.epoll(), pair.fd())->data >> 32) << "a life of its own";
}

TEST_F(SelectWinKernel, NewRegistrationOfWhatTheKernelStillHoldsIsAModification) {
    epoll_event left_over{};
    ASSERT_EQ(0, ::epoll_ctl(rig.epoll(), EPOLL_CTL_ADD, pair.fd(), &left_over));
    kernel.take();
    add(SOCK_READ);
    EXPECT_EQ((Calls{failed(EPOLL_CTL_ADD, IN, EEXIST), modified(IN)}), kernel.take());
    pair.write();
    EXPECT_EQ(1u, rig.pollAndServe());
}

TEST_F(SelectWinKernel, KnownIdleSocketIsModifiedEvenIfNothingChanged) {
    add(SOCK_READ);
    kernel.take();
    add(SOCK_READ);
    EXPECT_EQ((Calls{modified(IN)}), kernel.take());
    add(SOCK_WRITE);
    EXPECT_EQ((Calls{modified(IN | OUT)}), kernel.take());
}

TEST_F(SelectWinKernel, KnownSocketInFlightIsLeftAloneUntilItsSecondHalf) {
    add(SOCK_READ);
    pair.write();
    CEvent* const ev = takeReady();
    kernel.take();
    add(SOCK_READ);
    EXPECT_EQ(Calls{}, kernel.take());
    rig.serve(ev);
    EXPECT_EQ((Calls{modified(IN)}), kernel.take()) << "the number may have been reused meanwhile";

    pair.write();
    CEvent* const again = takeReady();
    add(SOCK_WRITE);
    EXPECT_EQ(Calls{}, kernel.take());
    rig.serve(again);
    EXPECT_EQ((Calls{modified(IN | OUT)}), kernel.take());
}

TEST_F(SelectWinKernel, UnregisterOfAnIdleSocketModifiesToTheRestAndParksWithoutOne) {
    add(SOCK_READ | SOCK_WRITE);
    kernel.take();
    handler->UnregisterSock(pair.near, SOCK_WRITE);
    EXPECT_EQ((Calls{modified(IN)}), kernel.take());
    handler->UnregisterSock(pair.near, SOCK_READ);
    EXPECT_EQ((Calls{modified(PARKED)}), kernel.take());
    pair.write();
    EXPECT_EQ(0, epollReports(rig.epoll())) << "silent, whatever is waiting";
}

TEST_F(SelectWinKernel, UnregisterInFlightTellsTheKernelInTheSecondHalf) {
    add(SOCK_READ | SOCK_WRITE);
    CEvent* const ev = takeReady();
    kernel.take();
    handler->UnregisterSock(pair.near, SOCK_WRITE);
    EXPECT_EQ(Calls{}, kernel.take());
    rig.serve(ev);
    EXPECT_EQ((Calls{modified(IN)}), kernel.take());
}

TEST_F(SelectWinKernel, HandlerThatReadsBeforeTheNextPollCostsNoCallAtAll) {
    add(SOCK_READ);
    kernel.take();
    for (int i = 0; i < 100; ++i) {
        pair.write();
        ASSERT_EQ(1u, rig.pollAndServe());
    }
    EXPECT_EQ(100, handler->life->inputs);
    EXPECT_EQ(Calls{}, kernel.take());
}

TEST_F(SelectWinKernel, SocketMetAgainInFlightIsParkedOnceAndArmedBySecondHalf) {
    add(SOCK_READ);
    pair.write();
    CEvent* const ev = takeReady();
    kernel.take();
    for (int i = 0; i < 5; ++i) {
        EXPECT_TRUE(rig.poll().empty());
        pair.write();
    }
    EXPECT_EQ((Calls{modified(PARKED)}), kernel.take());
    handler->on_input = [](int) { return 0; };
    rig.serve(ev);
    EXPECT_EQ((Calls{modified(IN)}), kernel.take());
    EXPECT_EQ(ev, takeReady()) << "what came meanwhile is not lost";
    rig.serve(ev);
}

TEST_F(SelectWinKernel, TimeoutTellsTheKernelNothingAndAReportMeanwhileComesBack) {
    add(SOCK_READ, 1000);
    kernel.take();
    const std::vector<CEvent*> due = rig.tick(2);
    ASSERT_EQ(1u, due.size());
    EXPECT_EQ(Calls{}, kernel.take());
    EXPECT_EQ(1, rig.places(0));

    pair.write();
    EXPECT_TRUE(rig.poll().empty()) << "in flight";
    EXPECT_EQ((Calls{modified(PARKED)}), kernel.take());
    rig.serve(due[0]);
    EXPECT_EQ(1, handler->life->input_timeouts);
    EXPECT_EQ((Calls{modified(IN)}), kernel.take());
    EXPECT_EQ(1u, rig.pollAndServe());
    EXPECT_EQ(1, handler->life->inputs);
}

TEST_F(SelectWinKernel, RemoveDeletesAtOnceIdleOrInFlight) {
    add(SOCK_READ);
    handler->RemoveSock(pair.near);
    EXPECT_EQ((Calls{added(IN), deleted()}), kernel.take());

    add(SOCK_READ);
    pair.write();
    CEvent* const ev = takeReady();
    kernel.take();
    handler->RemoveSock(pair.near);
    EXPECT_EQ((Calls{deleted()}), kernel.take());
    EXPECT_FALSE(epollItem(rig.epoll(), pair.fd()));
    rig.serve(ev);
    EXPECT_EQ(Calls{}, kernel.take());
    EXPECT_EQ(0, handler->life->inputs);
}

TEST_F(SelectWinKernel, HangUpThatNobodyAskedForIsReportedOnceAndThenKeptFrom) {
    add(SOCK_EXCEPT);
    kernel.take();
    pair.far.Close();
    EXPECT_TRUE(rig.poll().empty());
    EXPECT_EQ((Calls{modified(PRI | EDGE)}), kernel.take());
    EXPECT_TRUE(rig.poll().empty()) << "the one report that its arming gave";
    EXPECT_EQ(0, epollReports(rig.epoll()));
    EXPECT_EQ(Calls{}, kernel.take());

    add(SOCK_READ);
    EXPECT_EQ((Calls{modified(IN | PRI)}), kernel.take()) << "a registration asks anew";
    EXPECT_EQ(1u, rig.pollAndServe());
    EXPECT_EQ(1, handler->life->inputs);
}

TEST_F(SelectWinKernel, HangUpOfASocketWithNothingToWatchIsDropped) {
    add(SOCK_READ);
    handler->UnregisterSock(pair.near, SOCK_READ);
    kernel.take();
    pair.far.Close();
    EXPECT_TRUE(rig.poll().empty());
    EXPECT_EQ(0, epollReports(rig.epoll()));
    EXPECT_EQ(Calls{}, kernel.take());
}

TEST_F(SelectWinKernel, WriteOnlyEndWithHangUpAloneIsSilentUntilItsNextDelivery) {
    int ends[2];
    ASSERT_EQ(0, ::pipe2(ends, O_NONBLOCK | O_CLOEXEC));
    BorrowedSock reading(ends[0]);
    EpollRecorder pipe_calls(ends[0]);
    ASSERT_EQ(0, handler->RegisterSock(reading, SOCK_WRITE, 1000));
    ::close(ends[1]);
    EXPECT_TRUE(rig.poll().empty());
    EXPECT_EQ((Calls{added(OUT), modified(OUT | EDGE)}), pipe_calls.take());
    rig.poll();
    EXPECT_EQ(0, epollReports(rig.epoll()));

    for (CEvent* ev : rig.tick(2)) {
        rig.serve(ev);
    }
    EXPECT_EQ(1, handler->life->output_timeouts);
    EXPECT_EQ((Calls{modified(OUT)}), pipe_calls.take()) << "the delivery of the time-out";
    EXPECT_TRUE(rig.poll().empty());
    EXPECT_EQ((Calls{modified(OUT | EDGE)}), pipe_calls.take());
    handler->RemoveSock(reading);
    ::close(ends[0]);
}

TEST_F(SelectWinKernel, SameSocketInTwoPoolsIsTwoRecordsAndRemovedFromEachByItself) {
    StillPool second(StillPool::INDEX + 1);
    TestHandler* const other = new TestHandler(StillPool::INDEX + 1);
    add(SOCK_READ);
    ASSERT_EQ(0, other->RegisterSock(pair.near, SOCK_WRITE, 0));
    EXPECT_EQ((Calls{added(IN), added(OUT)}), kernel.take());
    EXPECT_NE(rig.record(pair.fd()), second.record(pair.fd()));
    EXPECT_EQ(1u, second.pollAndServe());
    EXPECT_EQ(1, other->life->outputs);

    handler->RemoveSock(pair.near);
    EXPECT_FALSE(epollItem(rig.epoll(), pair.fd()));
    EXPECT_TRUE(epollItem(second.epoll(), pair.fd()));
    EXPECT_EQ(1u, second.pollAndServe());
    other->RemoveSock(pair.near);
    EXPECT_FALSE(epollItem(second.epoll(), pair.fd()));
    second.close(other);
}

TEST_F(SelectWinKernel, RefusedDirectionIsNotArmed) {
    allowDescriptors(5000);
    std::vector<int> copies;
    for (int i = 0; i < 4095; ++i) {
        copies.push_back(::fcntl(pair.fd(), F_DUPFD_CLOEXEC, 0));
        BorrowedSock sock(copies.back());
        ASSERT_EQ(0, handler->RegisterSock(sock, SOCK_READ, 0));
    }
    add(SOCK_READ);
    EXPECT_EQ((Calls{added(PARKED)}), kernel.take());
    add(SOCK_WRITE);
    EXPECT_EQ((Calls{modified(OUT)}), kernel.take()) << "the write set has room";
    for (const int fd : copies) {
        BorrowedSock sock(fd);
        handler->RemoveSock(sock);
        ::close(fd);
    }
}

TEST_F(SelectWinKernel, SocketThatTheSystemHasNoRoomForIsALineAndIsToldAgain) {
    for (const int error : {ENOMEM, ENOSPC}) {
        LogCapture log;
        {
            EpollFault fault(error);
            add(SOCK_READ);
        }
        const std::string line = "pool " + std::to_string(StillPool::INDEX) + ": socket " +
                                 std::to_string(pair.fd()) + " is not watched yet, the system refused it, ";
        EXPECT_EQ(1u, log.countLevel(2)) << log.dump();
        EXPECT_NE(std::string::npos, log.dump().find(line)) << log.dump();
        EXPECT_FALSE(epollItem(rig.epoll(), pair.fd()));
        EXPECT_EVENTUALLY((rig.poll(), epollItem(rig.epoll(), pair.fd()).has_value()));
        pair.write();
        EXPECT_EQ(1u, rig.pollAndServe());
        EXPECT_EQ(1u, log.lines().size()) << log.dump();
        handler->RemoveSock(pair.near);
    }
    EXPECT_EQ(2, handler->life->inputs);
}

TEST_F(SelectWinKernel, SocketThatIsRefusedAgainAndAgainIsOneLine) {
    LogCapture log;
    EpollFault first(ENOMEM);
    add(SOCK_READ);
    for (int i = 0; i < 3; ++i) {
        EpollFault again(ENOMEM);
        add(SOCK_READ);
    }
    EXPECT_EQ(1u, log.lines().size()) << log.dump();
    add(SOCK_WRITE);
    EXPECT_EQ(1u, rig.pollAndServe()) << "a registration asks at once";
    EXPECT_EQ(1, handler->life->outputs);
}

}  // namespace
}  // namespace Orvex::Testing
