// EpollSet: the bits of the kernel, marks, and an instance that is replaced while sockets are registered.
#include "Core/watch/EpollSet.h"

#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <deque>
#include <memory>
#include <optional>
#include <set>
#include <utility>
#include <vector>

#include "support/SeededRandom.h"
#include "support/core/EpollSeam.h"
#include "support/core/Probes.h"
#include "support/core/SocketPair.h"

namespace Orvex::Testing {
namespace {

using namespace Reticor;

void setForm(CEvent& ev, MuxForm form) {
    ev.m_mux_state = static_cast<uint16_t>((ev.m_mux_state & ~(7u << MUX_FORM_SHIFT)) |
                                           static_cast<unsigned int>(form) << MUX_FORM_SHIFT);
}

bool isOpenNumber(int fd) {
    return ::fcntl(fd, F_GETFD) != -1;
}

// A socket and its record, of which the set knows nothing yet.
struct Known {
    SocketPair pair;
    CEvent ev;
    explicit Known(uint32_t sequence) {
        ev.m_key = pair.fd();
        ev.m_timer.m_sequence = sequence;
    }
};

class EpollSetCases : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(set.Open());
        set.Enlist(&socket.ev);
    }
    int inUse() const { return MultiplexerProbe::epoll(set); }
    int former() const { return MultiplexerProbe::formerEpoll(set); }

    EpollSet set;
    Known socket{17};
    SocketPair wake;
};

// ---- bits and marks ------------------------------------------------------------------------------------

TEST(EpollBits, DirectionsAreTheKernelsInAndOutAndPri) {
    EXPECT_EQ(0u, kernel_bits(0));
    EXPECT_EQ(uint32_t{EPOLLIN}, kernel_bits(SOCK_READ));
    EXPECT_EQ(uint32_t{EPOLLOUT}, kernel_bits(SOCK_WRITE));
    EXPECT_EQ(uint32_t{EPOLLPRI}, kernel_bits(SOCK_EXCEPT));
    EXPECT_EQ(uint32_t{EPOLLIN | EPOLLOUT | EPOLLPRI}, kernel_bits(SOCK_DIRECTIONS));
    EXPECT_EQ(0u, kernel_bits(SOCK_REMOVED | SOCK_ROOM | SOCK_WRITE_TOO));
}

// All reports there can be, for all directions that a socket can have places in.
TEST(EpollBits, WhatIsDeliveredIsWhatSelectWouldSay) {
    for (uint32_t admitted = 0; admitted <= SOCK_DIRECTIONS; ++admitted) {
        for (uint32_t bits = 0; bits < 32; ++bits) {
            const bool in = bits & 1, out = bits & 2, pri = bits & 4, err = bits & 8, hup = bits & 16;
            uint32_t reported = 0;
            for (const auto& [set, bit] : {std::pair<bool, uint32_t>{in, EPOLLIN},
                                           {out, EPOLLOUT},
                                           {pri, EPOLLPRI},
                                           {err, EPOLLERR},
                                           {hup, EPOLLHUP}}) {
                reported |= set ? bit : 0;
            }
            int expected = 0;
            if (pri && (admitted & SOCK_EXCEPT) != 0) {
                expected = REVENT_EXCEPT;
            } else {
                expected |= (in || err || hup) && (admitted & SOCK_READ) != 0 ? REVENT_READ : 0;
                expected |= (out || err) && (admitted & SOCK_WRITE) != 0 ? REVENT_WRITE : 0;
            }
            ASSERT_EQ(expected, delivered(reported, admitted)) << reported << " for " << admitted;
        }
    }
}

TEST(EpollBits, AMarkNamesTheHandleAndTheRegistration) {
    std::set<uint64_t> marks;
    for (const uint32_t sequence : {0u, 1u, 0x7FFFFFFFu, 0xFFFFFFFFu}) {
        for (const int handle : {0, 1, 4096, 0x7FFFFFFF}) {
            CEvent ev;
            ev.m_key = handle;
            ev.m_timer.m_sequence = sequence;
            EXPECT_EQ(static_cast<uint32_t>(handle), handle_in_mark(mark_of(&ev)));
            EXPECT_NE(EpollSet::WAKE_MARK, mark_of(&ev));
            EXPECT_TRUE(marks.insert(mark_of(&ev)).second);
        }
    }
}

// ---- one instance --------------------------------------------------------------------------------------

TEST(EpollSetClosed, NothingIsWatchedAndNothingIsWaitedFor) {
    EpollSet set;
    Known socket(1);
    set.Enlist(&socket.ev);
    EXPECT_FALSE(set.IsOpen());
    epoll_event report;
    EXPECT_EQ(-1, set.Wait(&report, 1, 0));
    EXPECT_EQ(EBADF, errno);
    EXPECT_FALSE(set.Tell(&socket.ev, EPOLL_CTL_ADD, EPOLLIN));
    EXPECT_EQ(EBADF, errno);
    EXPECT_FALSE(set.WatchWakeEnd(socket.pair.fd()));
}

TEST(EpollSetClosed, WithoutADescriptorItStaysSoAndCanBeOpenedLater) {
    EpollSet set;
    {
        const DescriptorShortage shortage(0);
        EXPECT_FALSE(set.Open());
        EXPECT_FALSE(set.IsOpen());
    }
    EXPECT_TRUE(set.Open());
    EXPECT_TRUE(set.IsOpen());
}

TEST(EpollSetClosed, BothInstancesAreClosedWithIt) {
    auto set = std::make_unique<EpollSet>();
    EXPECT_TRUE(set->Open());
    EXPECT_TRUE(set->Replace(-1));
    const int in_use = MultiplexerProbe::epoll(*set);
    const int former = MultiplexerProbe::formerEpoll(*set);
    EXPECT_EQ(FD_CLOEXEC, ::fcntl(in_use, F_GETFD));
    EXPECT_EQ(FD_CLOEXEC, ::fcntl(former, F_GETFD));
    set.reset();
    EXPECT_FALSE(isOpenNumber(in_use));
    EXPECT_FALSE(isOpenNumber(former));
}

TEST_F(EpollSetCases, TellsTheKernelOfARecordWithItsMark) {
    EXPECT_TRUE(set.Tell(&socket.ev, EPOLL_CTL_ADD, EPOLLIN));
    std::optional<EpollItem> item = epollItem(inUse(), socket.pair.fd());
    ASSERT_TRUE(item.has_value());
    EXPECT_EQ(uint32_t{EPOLLIN} | ALWAYS_REPORTED, item->events);
    EXPECT_EQ(mark_of(&socket.ev), item->data);
    socket.ev.m_timer.m_sequence = 18;
    EXPECT_TRUE(set.Tell(&socket.ev, EPOLL_CTL_MOD, EPOLLOUT));
    item = epollItem(inUse(), socket.pair.fd());
    EXPECT_EQ(uint32_t{EPOLLOUT} | ALWAYS_REPORTED, item->events);
    EXPECT_EQ(mark_of(&socket.ev), item->data);
    EXPECT_TRUE(set.Tell(&socket.ev, EPOLL_CTL_DEL, 0));
    EXPECT_FALSE(epollItem(inUse(), socket.pair.fd()).has_value());
}

TEST_F(EpollSetCases, AFailureComesBackWithItsReason) {
    EXPECT_FALSE(set.Tell(&socket.ev, EPOLL_CTL_MOD, EPOLLIN));
    EXPECT_EQ(ENOENT, errno);
    EXPECT_TRUE(set.Tell(&socket.ev, EPOLL_CTL_ADD, EPOLLIN));
    EXPECT_FALSE(set.Tell(&socket.ev, EPOLL_CTL_ADD, EPOLLIN));
    EXPECT_EQ(EEXIST, errno);
    const EpollFault fault(ENOSPC);
    EXPECT_FALSE(set.Tell(&socket.ev, EPOLL_CTL_MOD, EPOLLIN));
    EXPECT_EQ(ENOSPC, errno);
}

TEST_F(EpollSetCases, AWaitGivesMarksUpToItsLimit) {
    EXPECT_TRUE(set.WatchWakeEnd(wake.fd()));
    EXPECT_TRUE(set.Tell(&socket.ev, EPOLL_CTL_ADD, EPOLLIN));
    epoll_event reports[4] = {};
    EXPECT_EQ(0, set.Wait(reports, 4, 0));
    socket.pair.write();
    ASSERT_EQ(1, set.Wait(reports, 4, -1));
    const uint64_t mark = reports[0].data.u64;  // the structure is packed
    EXPECT_EQ(mark_of(&socket.ev), mark);
    EXPECT_EQ(uint32_t{EPOLLIN}, uint32_t{reports[0].events});
    wake.write();
    EXPECT_EQ(1, set.Wait(reports, 1, -1));
    ASSERT_EQ(2, set.Wait(reports, 4, -1));
    const std::set<uint64_t> marks{reports[0].data.u64, reports[1].data.u64};
    EXPECT_EQ((std::set<uint64_t>{mark_of(&socket.ev), EpollSet::WAKE_MARK}), marks);
}

// ---- an instance that is replaced ----------------------------------------------------------------------

TEST_F(EpollSetCases, TheNewOneKnowsTheWakeEndAlone) {
    EXPECT_TRUE(set.WatchWakeEnd(wake.fd()));
    EXPECT_TRUE(set.Tell(&socket.ev, EPOLL_CTL_ADD, EPOLLIN));
    const int before = inUse();
    EXPECT_TRUE(set.Replace(wake.fd()));
    EXPECT_NE(before, inUse());
    EXPECT_EQ(before, former());
    ASSERT_EQ(1u, epollItems(inUse()).size());
    EXPECT_EQ(EpollSet::WAKE_MARK, epollItem(inUse(), wake.fd())->data);
    EXPECT_EQ(2u, epollItems(before).size()) << "the former one is as it was";
}

TEST_F(EpollSetCases, ARecordIsToldToItsInstanceUntilItMovesOver) {
    EXPECT_TRUE(set.Tell(&socket.ev, EPOLL_CTL_ADD, EPOLLIN));
    setForm(socket.ev, MuxForm::level);
    EXPECT_TRUE(set.Replace(-1));
    EXPECT_TRUE(set.Tell(&socket.ev, EPOLL_CTL_MOD, EPOLLOUT));
    EXPECT_EQ(uint32_t{EPOLLOUT} | ALWAYS_REPORTED, epollItem(former(), socket.pair.fd())->events);
    Known fresh(2);
    set.Enlist(&fresh.ev);
    EXPECT_TRUE(set.Tell(&fresh.ev, EPOLL_CTL_ADD, EPOLLIN));
    EXPECT_TRUE(epollItem(inUse(), fresh.pair.fd()).has_value()) << "a new one belongs to the new one";
    EXPECT_TRUE(set.MoveOver(&socket.ev));
    EXPECT_FALSE(epollItem(former(), socket.pair.fd()).has_value());
    EXPECT_TRUE(set.Tell(&socket.ev, EPOLL_CTL_ADD, EPOLLIN));
    EXPECT_TRUE(epollItem(inUse(), socket.pair.fd()).has_value());
}

TEST_F(EpollSetCases, OnlyWhatTheKernelWatchesIsTakenOutOfTheFormerOne) {
    EXPECT_TRUE(set.Replace(-1));
    for (const MuxForm form : {MuxForm::out, MuxForm::always, MuxForm::gone, MuxForm::refused}) {
        setForm(socket.ev, form);
        EpollRecorder calls(socket.pair.fd());
        EXPECT_TRUE(set.MoveOver(&socket.ev));
        EXPECT_TRUE(calls.calls().empty());
    }
}

TEST_F(EpollSetCases, ANumberThatTheFormerOneLostIsToldAndMovesOverAllTheSame) {
    EXPECT_TRUE(set.Tell(&socket.ev, EPOLL_CTL_ADD, EPOLLIN));
    setForm(socket.ev, MuxForm::level);
    EXPECT_TRUE(set.Replace(-1));
    EXPECT_EQ(0, ::epoll_ctl(former(), EPOLL_CTL_DEL, socket.pair.fd(), nullptr));
    EXPECT_FALSE(set.MoveOver(&socket.ev));
    EXPECT_TRUE(set.Tell(&socket.ev, EPOLL_CTL_ADD, EPOLLIN));
    EXPECT_TRUE(epollItem(inUse(), socket.pair.fd()).has_value());
}

TEST_F(EpollSetCases, TheFormerOneIsClosedAndItsPlaceUsedForTheNext) {
    const int first = inUse();
    EXPECT_TRUE(set.Replace(-1));
    set.CloseFormer();
    EXPECT_EQ(-1, former());
    EXPECT_FALSE(isOpenNumber(first));
    EXPECT_TRUE(set.IsOpen());
    const int second = inUse();
    EXPECT_TRUE(set.Replace(-1));
    EXPECT_EQ(second, former());
    set.CloseFormer();
    EXPECT_FALSE(isOpenNumber(second));
}

TEST_F(EpollSetCases, WithoutADescriptorNothingIsReplaced) {
    const int before = inUse();
    const DescriptorShortage shortage(0);
    EXPECT_FALSE(set.Replace(wake.fd()));
    EXPECT_EQ(EMFILE, errno);
    EXPECT_EQ(before, inUse());
    EXPECT_EQ(-1, former());
}

TEST_F(EpollSetCases, AnInstanceThatCannotWatchTheWakeEndIsNotUsedAndNotKept) {
    const int before = inUse();
    const DescriptorShortage shortage(1);
    for (int i = 0; i < 3; ++i) {
        const EpollFault fault(ENOSPC);
        EXPECT_FALSE(set.Replace(wake.fd())) << i;
        EXPECT_EQ(ENOSPC, errno) << "and its one descriptor is there again for the next try";
    }
    EXPECT_EQ(before, inUse());
    EXPECT_EQ(-1, former());
    EXPECT_TRUE(set.Replace(wake.fd()));
}

// Which instance watches what, over any order of registrations and replacements.
TEST_F(EpollSetCases, AnyMixOfStepsMatchesAModel) {
    SeededRandom random;
    std::deque<Known> sockets;
    for (uint32_t i = 0; i < 8; ++i) {
        set.Enlist(&sockets.emplace_back(i).ev);
    }
    std::set<int> in_new, in_former;
    std::set<CEvent*> at_former;  // those that did not move over yet
    for (int i = 0; i < 1500; ++i) {
        Known& one = sockets[random.between(size_t{0}, sockets.size() - 1)];
        const int fd = one.pair.fd();
        std::set<int>& home = at_former.count(&one.ev) != 0 ? in_former : in_new;
        switch (random.between(0, 4)) {
            case 0:
                ASSERT_EQ(home.insert(fd).second, set.Tell(&one.ev, EPOLL_CTL_ADD, EPOLLIN));
                setForm(one.ev, MuxForm::level);
                break;
            case 1:
                ASSERT_EQ(home.erase(fd) != 0, set.Tell(&one.ev, EPOLL_CTL_DEL, 0));
                setForm(one.ev, MuxForm::out);
                break;
            case 2:
                ASSERT_EQ(home.count(fd) != 0, set.Tell(&one.ev, EPOLL_CTL_MOD, EPOLLOUT));
                break;
            case 3:
                if (at_former.erase(&one.ev) != 0) {
                    const bool told = kernel_knows(mux_form(&one.ev));
                    ASSERT_EQ(!told || in_former.erase(fd) != 0, set.MoveOver(&one.ev));
                    setForm(one.ev, MuxForm::out);
                }
                break;
            default:
                if (!at_former.empty()) {
                    break;
                }
                if (former() != -1) {
                    set.CloseFormer();
                    in_former.clear();
                } else {
                    ASSERT_TRUE(set.Replace(-1));
                    in_former.swap(in_new);
                    for (Known& any : sockets) {
                        at_former.insert(&any.ev);
                    }
                }
        }
        for (const int epoll : {inUse(), former()}) {
            std::set<int> seen;
            for (const EpollItem& item : epollItems(epoll)) {
                seen.insert(item.fd);
            }
            ASSERT_EQ(epoll == inUse() ? in_new : in_former, seen) << "after step " << i;
        }
    }
}

}  // namespace
}  // namespace Orvex::Testing
