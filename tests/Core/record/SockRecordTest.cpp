// SockRecord: the bits of a socket's record, and RecordPin.
#include "Core/record/SockRecord.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <utility>
#include <vector>

#include "support/SeededRandom.h"

namespace Orvex::Testing {
namespace {

using namespace Reticor;

constexpr uint16_t MUX_FLAGS[] = {MUX_BUSY, MUX_FORCE, MUX_LISTED, MUX_ORPHAN, MUX_UNPLACED, MUX_SIDE};

// ---- m_mux_state ---------------------------------------------------------------------------------------

// The groups and flags of the word, each by itself.
struct MuxModel {
    uint32_t book = 0;
    uint32_t armed = 0;
    MuxForm form = MuxForm::out;
    std::vector<bool> flags = std::vector<bool>(std::size(MUX_FLAGS));

    uint16_t word() const {
        unsigned int word = book << MUX_BOOK_SHIFT | armed << MUX_ARMED_SHIFT |
                            static_cast<unsigned int>(form) << MUX_FORM_SHIFT;
        for (size_t i = 0; i < flags.size(); ++i) {
            word |= flags[i] ? MUX_FLAGS[i] : 0u;
        }
        return static_cast<uint16_t>(word);
    }
};

TEST(SockRecord, GroupsAndFlagsOfTheWordHaveBitsOfTheirOwn) {
    std::vector<unsigned int> parts = {SOCK_DIRECTIONS << MUX_BOOK_SHIFT, SOCK_DIRECTIONS << MUX_ARMED_SHIFT,
                                       7u << MUX_FORM_SHIFT};
    parts.insert(parts.end(), std::begin(MUX_FLAGS), std::end(MUX_FLAGS));
    unsigned int seen = 0;
    for (const unsigned int part : parts) {
        EXPECT_EQ(0u, seen & part) << std::hex << part;
        EXPECT_EQ(0u, part & ~0xFFFFu) << std::hex << part;
        seen |= part;
    }
    EXPECT_LE(static_cast<unsigned int>(MuxForm::refused), 7u);
}

TEST(SockRecord, AChangeOfOnePartLeavesTheOthersAlone) {
    SeededRandom random;
    CEvent ev;
    MuxModel model;
    for (int i = 0; i < 5000; ++i) {
        const size_t flag = random.between(size_t{0}, std::size(MUX_FLAGS) - 1);
        switch (random.between(0, 3)) {
            case 0:
                model.book = random.between(0u, SOCK_DIRECTIONS);
                set_mux_book(&ev, model.book);
                break;
            case 1:
                model.flags[flag] = true;
                set_flag(&ev, MUX_FLAGS[flag]);
                break;
            case 2:
                model.flags[flag] = false;
                clear_flag(&ev, MUX_FLAGS[flag]);
                break;
            default:  // as the multiplexer writes what the kernel knows
                model.armed = random.between(0u, SOCK_DIRECTIONS);
                model.form = static_cast<MuxForm>(random.between(0, static_cast<int>(MuxForm::refused)));
                ev.m_mux_state = model.word();
        }
        ASSERT_EQ(model.word(), ev.m_mux_state);
        ASSERT_EQ(model.book, mux_book(&ev));
        ASSERT_EQ(model.armed, mux_armed(&ev));
        ASSERT_EQ(model.form, mux_form(&ev));
        for (size_t n = 0; n < std::size(MUX_FLAGS); ++n) {
            ASSERT_EQ(model.flags[n], has_flag(&ev, MUX_FLAGS[n]));
        }
    }
}

TEST(SockRecord, TheKernelKnowsWhatItWatchesAndWhatIsParked) {
    EXPECT_TRUE(kernel_knows(MuxForm::level));
    EXPECT_TRUE(kernel_knows(MuxForm::parked));
    EXPECT_TRUE(kernel_knows(MuxForm::edge));
    EXPECT_FALSE(kernel_knows(MuxForm::out));
    EXPECT_FALSE(kernel_knows(MuxForm::always));
    EXPECT_FALSE(kernel_knows(MuxForm::gone));
    EXPECT_FALSE(kernel_knows(MuxForm::refused));
}

TEST(SockRecord, IsInFlightWithSomethingToDeliverOrABusyMark) {
    CEvent ev;
    EXPECT_FALSE(is_in_flight(&ev));
    for (const int16_t revents : {REVENT_READ, REVENT_WRITE, REVENT_EXCEPT, REVENT_READ_TIMEOUT,
                                  REVENT_WRITE_TIMEOUT, REVENT_REMOVED}) {
        set_revents(&ev, revents);
        EXPECT_EQ(revents, revents_now(&ev));
        EXPECT_TRUE(is_in_flight(&ev)) << revents;
    }
    set_revents(&ev, 0);
    EXPECT_FALSE(is_in_flight(&ev));
    set_flag(&ev, MUX_BUSY);
    EXPECT_TRUE(is_in_flight(&ev)) << "a time-out of a socket without a direction";
    clear_flag(&ev, MUX_BUSY);
    set_flag(&ev, MUX_LISTED | MUX_ORPHAN | MUX_FORCE);
    EXPECT_FALSE(is_in_flight(&ev)) << "no other mark means that";
}

// ---- the interest in room ------------------------------------------------------------------------------

// Every mask that there can be.
TEST(SockRecord, InterestInRoomGoesAndWritingStaysForWhoeverElseAsked) {
    for (uint32_t mask = 0; mask < 2 * SOCK_WRITE_TOO; ++mask) {
        CEvent ev;
        ev.m_event_mask = mask;
        const bool dropped = drop_room(&ev);
        ASSERT_EQ((mask & SOCK_ROOM) != 0, dropped) << mask;
        if (!dropped) {
            ASSERT_EQ(mask, ev.m_event_mask) << "nothing changes without such an interest";
            continue;
        }
        ASSERT_EQ(0u, ev.m_event_mask & (SOCK_ROOM | SOCK_WRITE_TOO)) << mask;
        ASSERT_EQ((mask & SOCK_WRITE_TOO) != 0, (ev.m_event_mask & SOCK_WRITE) != 0) << mask;
        const uint32_t others = ~(SOCK_ROOM | SOCK_WRITE_TOO | SOCK_WRITE);
        ASSERT_EQ(mask & others, ev.m_event_mask & others) << mask;
        ASSERT_FALSE(drop_room(&ev)) << "once";
    }
}

TEST(SockRecord, LossesOfRoomAreCountedByAnyThread) {
    constexpr uint32_t EACH = 100000;
    const uint32_t before = RoomLosses::count();
    std::atomic<int> ready{0};
    std::vector<std::thread> losers;
    for (int i = 0; i < 3; ++i) {
        losers.emplace_back([&ready] {
            ++ready;
            while (ready < 3) {
                std::this_thread::yield();
            }
            for (uint32_t n = 0; n < EACH; ++n) {
                RoomLosses::note();
            }
        });
    }
    for (std::thread& loser : losers) {
        loser.join();
    }
    EXPECT_EQ(before + 3 * EACH, RoomLosses::count());
}

// ---- RecordPin -----------------------------------------------------------------------------------------

// Whether another thread could enter the record's mutex now.
bool isFreeForOthers(CEvent& ev) {
    bool free = false;
    std::thread([&] { free = static_cast<bool>(RecordPin::Try(&ev)); }).join();
    return free;
}

TEST(RecordPin, HoldsTheMutexUntilItGoes) {
    CEvent ev;
    {
        const RecordPin pin = RecordPin::Enter(&ev);
        EXPECT_TRUE(pin);
        EXPECT_EQ(&ev, pin.get());
        EXPECT_EQ(0, pin->m_revents);
        EXPECT_FALSE(isFreeForOthers(ev));
    }
    EXPECT_TRUE(isFreeForOthers(ev));
}

// As a lookup in the socket tree leaves it, which the annotations cannot express.
void enterRecord(CEvent& ev) INFRA_NO_THREAD_SAFETY_ANALYSIS {
    ev.m_mutex.enter();
}

TEST(RecordPin, AdoptsAMutexThatItsThreadHasEntered) {
    CEvent ev;
    enterRecord(ev);
    { const RecordPin pin = RecordPin::Adopt(&ev); }
    EXPECT_TRUE(isFreeForOthers(ev));
    const RecordPin none = RecordPin::Adopt(nullptr);
    EXPECT_FALSE(none);
    EXPECT_EQ(nullptr, none.get());
}

TEST(RecordPin, ATryAtAHeldMutexIsEmptyAndChangesNothing) {
    CEvent ev;
    {
        const RecordPin pin = RecordPin::Try(&ev);
        EXPECT_TRUE(pin);
        std::thread([&] {
            RecordPin other = RecordPin::Try(&ev);
            EXPECT_FALSE(other);
            other.Leave();
        }).join();
        EXPECT_FALSE(isFreeForOthers(ev)) << "an empty pin leaves nobody's mutex";
    }
    EXPECT_TRUE(isFreeForOthers(ev));
}

TEST(RecordPin, LeavesAtOnceWhenAskedAndThenNotAgain) {
    CEvent ev;
    RecordPin outer = RecordPin::Enter(&ev);
    {
        RecordPin inner = RecordPin::Enter(&ev);
        inner.Leave();
        EXPECT_FALSE(inner);
        inner.Leave();
    }
    EXPECT_FALSE(isFreeForOthers(ev)) << "the second call would have left for the outer one";
    outer.Leave();
    EXPECT_TRUE(isFreeForOthers(ev));
}

TEST(RecordPin, AMoveCarriesTheMutex) {
    CEvent ev;
    RecordPin first = RecordPin::Enter(&ev);
    RecordPin moved = std::move(first);
    EXPECT_FALSE(first);
    EXPECT_EQ(&ev, moved.get());
    EXPECT_FALSE(isFreeForOthers(ev));
    moved = RecordPin();
    EXPECT_TRUE(isFreeForOthers(ev));
}

// Two pins of one thread on one record, since a thread holds the mutex of one record at a time.
TEST(RecordPin, AnAssignmentLeavesWhatThePinHeld) {
    CEvent ev;
    RecordPin outer = RecordPin::Enter(&ev);
    RecordPin inner = RecordPin::Enter(&ev);
    outer = std::move(inner);
    EXPECT_FALSE(inner);
    EXPECT_EQ(&ev, outer.get());
    EXPECT_FALSE(isFreeForOthers(ev)) << "the one that was moved still holds it";
    outer.Leave();
    EXPECT_TRUE(isFreeForOthers(ev)) << "and the other one does not";
}

TEST(RecordPin, ThreadsThatPinARecordHaveItOneAtATime) {
    CEvent ev;
    int unguarded = 0;
    int tried = 0;
    std::vector<std::thread> threads;
    for (int i = 0; i < 3; ++i) {
        threads.emplace_back([&, i] {
            for (int n = 0; n < 3000; ++n) {
                RecordPin pin = i == 0 ? RecordPin::Try(&ev) : RecordPin::Enter(&ev);
                if (pin) {
                    const RecordPin moved = std::move(pin);
                    ++unguarded;
                    tried += i == 0 ? 1 : 0;
                }
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(6000 + tried, unguarded);
}

}  // namespace
}  // namespace Orvex::Testing
