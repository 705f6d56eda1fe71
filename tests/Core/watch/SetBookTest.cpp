// SetBook: places in a pool's three sets, full sets, and sockets that find no place.
#include "Core/watch/SetBook.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <deque>
#include <thread>
#include <vector>

#include "support/HandClock.h"
#include "support/SeededRandom.h"

namespace Orvex::Testing {
namespace {

using namespace Reticor;

constexpr uint32_t ALL_SETS = SOCK_READ | SOCK_WRITE | SOCK_EXCEPT;
constexpr uint32_t SET_BITS[] = {SOCK_READ, SOCK_WRITE, SOCK_EXCEPT};

class SetBookCases : public ::testing::Test {
protected:
    // Leaves so many places in one set.
    void fillSet(size_t set, int left) {
        for (int i = book.Left(set); i > left; --i) {
            CEvent& ev = m_fillers.emplace_back();
            ev.m_event_mask = SET_BITS[set];
            book.Add(&ev);
        }
        ASSERT_EQ(left, book.Left(set));
    }
    void freeOneFiller() {
        book.Remove(&m_fillers.back());
        m_fillers.pop_back();
    }
    std::array<int, 3> left() const { return {book.Left(0), book.Left(1), book.Left(2)}; }

    SetBook book;

private:
    std::deque<CEvent> m_fillers;
};

TEST_F(SetBookCases, EverySetBeginsWithAllItsPlaces) {
    EXPECT_EQ((std::array<int, 3>{FD_CAPACITY, FD_CAPACITY, FD_CAPACITY}), left());
    EXPECT_EQ(0, book.WithoutPlace());
}

TEST_F(SetBookCases, TheWakeEndTakesAPlaceInTheReadSetForGood) {
    book.TakeForWakeEnd();
    EXPECT_EQ((std::array<int, 3>{FD_CAPACITY - 1, FD_CAPACITY, FD_CAPACITY}), left());
}

TEST_F(SetBookCases, ASocketTakesAPlaceInEachSetThatItAsksForAndNoneTwice) {
    CEvent ev;
    ev.m_event_mask = SOCK_READ | SOCK_EXCEPT;
    book.Add(&ev);
    book.Add(&ev);
    EXPECT_EQ(SOCK_READ | SOCK_EXCEPT, mux_book(&ev));
    EXPECT_EQ((std::array<int, 3>{FD_CAPACITY - 1, FD_CAPACITY, FD_CAPACITY - 1}), left());
    ev.m_event_mask = SOCK_WRITE;
    book.Add(&ev);
    EXPECT_EQ(ALL_SETS, mux_book(&ev)) << "what it has it keeps until it is removed";
    book.Remove(&ev);
    EXPECT_EQ(0u, mux_book(&ev));
    book.Remove(&ev);
    EXPECT_EQ((std::array<int, 3>{FD_CAPACITY, FD_CAPACITY, FD_CAPACITY}), left()) << "and none twice";
}

TEST_F(SetBookCases, BitsOfTheMaskThatAreNoDirectionsTakeNoPlace) {
    CEvent ev;
    ev.m_event_mask = SOCK_REMOVED | SOCK_ROOM | SOCK_WRITE_TOO;
    book.Add(&ev);
    EXPECT_EQ(0u, mux_book(&ev));
    EXPECT_EQ(0, book.WithoutPlace());
    ev.m_event_mask = 0;
    book.Add(&ev);
    EXPECT_EQ((std::array<int, 3>{FD_CAPACITY, FD_CAPACITY, FD_CAPACITY}), left());
}

TEST_F(SetBookCases, TheLastPlaceOfEachSetIsGivenAndNoneAfterIt) {
    for (size_t set = 0; set < 3; ++set) {
        SCOPED_TRACE(set);
        fillSet(set, 1);
        CEvent last, refused;
        last.m_event_mask = refused.m_event_mask = SET_BITS[set];
        book.Add(&last);
        EXPECT_EQ(SET_BITS[set], mux_book(&last));
        EXPECT_EQ(0, book.Left(set));
        book.Add(&refused);
        EXPECT_EQ(0u, mux_book(&refused));
        EXPECT_EQ(0, book.Left(set));
        EXPECT_EQ(1, book.WithoutPlace());
        book.Forget(&refused);
        EXPECT_EQ(0, book.WithoutPlace());
        EXPECT_EQ(0, book.Left(set)) << "it had no place to give back";
        book.Forget(&last);
        EXPECT_EQ(1, book.Left(set));
    }
}

TEST_F(SetBookCases, ASocketThatFindsRoomInSomeSetsHasThose) {
    fillSet(1, 0);
    CEvent ev;
    ev.m_event_mask = ALL_SETS;
    book.Add(&ev);
    EXPECT_EQ(SOCK_READ | SOCK_EXCEPT, mux_book(&ev));
    EXPECT_EQ(1, book.WithoutPlace());
    book.Add(&ev);
    EXPECT_EQ(1, book.WithoutPlace()) << "a socket counts once";
    freeOneFiller();
    book.Add(&ev);
    EXPECT_EQ(ALL_SETS, mux_book(&ev));
    EXPECT_EQ(0, book.WithoutPlace());
    EXPECT_EQ(0, book.Left(1));
}

TEST_F(SetBookCases, WhoeverAsksForLessIsNotWithoutAPlaceAnyMore) {
    fillSet(1, 0);
    CEvent ev;
    ev.m_event_mask = SOCK_READ | SOCK_WRITE;
    book.Add(&ev);
    EXPECT_EQ(1, book.WithoutPlace());
    EXPECT_TRUE(has_flag(&ev, MUX_UNPLACED));
    ev.m_event_mask = SOCK_READ;
    book.Add(&ev);
    EXPECT_EQ(0, book.WithoutPlace());
    EXPECT_FALSE(has_flag(&ev, MUX_UNPLACED));
}

// ---- since when it is full ------------------------------------------------------------------------------

TEST_F(SetBookCases, IsFullFromTheFirstSocketThatIsLeftOutToTheLast) {
    HandClock clock;
    fillSet(0, 0);
    CEvent first, second;
    first.m_event_mask = second.m_event_mask = SOCK_READ;
    clock.advanceUs(1000);
    const uint64_t begun_us = clock.nowUs();
    book.Add(&first);
    clock.advanceUs(1000);
    book.Add(&second);
    EXPECT_TRUE(book.LookWhetherFull().lasts);
    EXPECT_EQ(begun_us, book.LookWhetherFull().since_us) << "nobody looked then";
    book.Forget(&first);
    freeOneFiller();
    EXPECT_TRUE(book.LookWhetherFull().lasts) << "one is still left out";
    clock.advanceUs(1000);
    const uint64_t ended_us = clock.nowUs();
    book.Forget(&second);
    clock.advanceUs(1000);
    const AlarmSpan::Facts over = book.LookWhetherFull();
    EXPECT_FALSE(over.lasts);
    EXPECT_EQ(begun_us, over.since_us);
    EXPECT_EQ(ended_us, over.ended_us);
    EXPECT_EQ(1u, over.times);
}

TEST_F(SetBookCases, ALastPlaceThatIsTakenIsSeenByALookOfWhicheverSet) {
    HandClock clock;
    for (size_t set = 0; set < 3; ++set) {
        clock.advanceUs(AlarmSpan::HOLD_US);
        fillSet(set, 1);
        EXPECT_FALSE(book.LookWhetherFull().lasts);
        fillSet(set, 0);
        EXPECT_TRUE(book.LookWhetherFull().lasts);
        EXPECT_EQ(clock.nowUs(), book.LookWhetherFull().since_us);
        EXPECT_EQ(set + 1, book.LookWhetherFull().times);
        freeOneFiller();
        EXPECT_FALSE(book.LookWhetherFull().lasts);
    }
}

// In flight a socket has given up its places; whether it found none before is still known.
TEST_F(SetBookCases, LeavingIsNotForgetting) {
    fillSet(0, 0);
    CEvent ev;
    ev.m_event_mask = SOCK_READ | SOCK_WRITE;
    book.Add(&ev);
    book.Remove(&ev);
    EXPECT_EQ(1, book.WithoutPlace());
    EXPECT_EQ(FD_CAPACITY, book.Left(1));
    book.Forget(&ev);
    EXPECT_EQ(0, book.WithoutPlace());
    book.Forget(&ev);
    EXPECT_EQ(0, book.WithoutPlace());
}

TEST_F(SetBookCases, ManyLeaveTogetherAndGiveBackOnce) {
    std::deque<CEvent> ready(10);
    for (size_t i = 0; i < ready.size(); ++i) {
        ready[i].m_event_mask = i % 2 == 0 ? ALL_SETS : uint32_t{SOCK_READ};
        book.Add(&ready[i]);
    }
    SetBook::Places freed{};
    for (CEvent& ev : ready) {
        SetBook::Leave(&ev, freed);
        EXPECT_EQ(0u, mux_book(&ev));
    }
    EXPECT_EQ((SetBook::Places{10, 5, 5}), freed);
    EXPECT_EQ(FD_CAPACITY - 10, book.Left(0)) << "not before they are given back";
    book.GiveBack(freed);
    EXPECT_EQ((std::array<int, 3>{FD_CAPACITY, FD_CAPACITY, FD_CAPACITY}), left());
    book.GiveBack(SetBook::Places{});
    EXPECT_EQ((std::array<int, 3>{FD_CAPACITY, FD_CAPACITY, FD_CAPACITY}), left());
}

// Sets that are nearly full, so that places run out again and again.
TEST_F(SetBookCases, AnyMixOfCallsMatchesAModel) {
    SeededRandom random;
    constexpr int ROOM[] = {6, 4, 3};
    for (size_t set = 0; set < 3; ++set) {
        fillSet(set, ROOM[set]);
    }
    struct Model {
        uint32_t places = 0;
        bool unplaced = false;
    };
    std::deque<CEvent> records(9);
    std::vector<Model> models(records.size());
    std::array<int, 3> taken{};
    for (int i = 0; i < 20000; ++i) {
        const size_t which = random.between(size_t{0}, records.size() - 1);
        CEvent& ev = records[which];
        Model& model = models[which];
        const int step = random.between(0, 3);
        if (step <= 1) {
            ev.m_event_mask = random.between(0u, ALL_SETS) | (random.oneIn(2) ? SOCK_ROOM : 0);
            for (size_t set = 0; set < 3; ++set) {
                const uint32_t bit = SET_BITS[set];
                if ((ev.m_event_mask & ~model.places & bit) != 0 && taken[set] < ROOM[set]) {
                    ++taken[set];
                    model.places |= bit;
                }
            }
            model.unplaced = (ev.m_event_mask & ALL_SETS & ~model.places) != 0;
            book.Add(&ev);
        } else {
            for (size_t set = 0; set < 3; ++set) {
                taken[set] -= (model.places & SET_BITS[set]) != 0 ? 1 : 0;
            }
            model.places = 0;
            model.unplaced = step == 2 && model.unplaced;
            step == 2 ? book.Remove(&ev) : book.Forget(&ev);
        }
        ASSERT_EQ(model.places, mux_book(&ev)) << "call " << i;
        for (size_t set = 0; set < 3; ++set) {
            ASSERT_EQ(ROOM[set] - taken[set], book.Left(set)) << "call " << i;
        }
        ASSERT_EQ(std::count_if(models.begin(), models.end(), [](const Model& m) { return m.unplaced; }),
                  book.WithoutPlace());
    }
}

TEST_F(SetBookCases, ThreadsThatWantTheLastPlacesGetEachOnce) {
    fillSet(0, 5);
    std::atomic<int> most{0};
    std::atomic<int> inside{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 3; ++i) {
        threads.emplace_back([&] {
            std::deque<CEvent> own(3);
            for (int n = 0; n < 2000; ++n) {
                for (CEvent& ev : own) {
                    ev.m_event_mask = SOCK_READ;
                    book.Add(&ev);
                    if (mux_book(&ev) != 0) {
                        const int now = ++inside;
                        for (int seen = most; now > seen && !most.compare_exchange_weak(seen, now);) {
                        }
                    }
                }
                for (CEvent& ev : own) {
                    inside -= mux_book(&ev) != 0 ? 1 : 0;
                    book.Forget(&ev);
                }
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_LE(most, 5);
    EXPECT_EQ(5, book.Left(0));
    EXPECT_EQ(0, book.WithoutPlace());
}

}  // namespace
}  // namespace Orvex::Testing
