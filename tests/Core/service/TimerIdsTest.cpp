// TimerIds: which ids wait for the next timer, how long, and how they come back.
#include "Core/service/TimerIds.h"

#include <gtest/gtest.h>

#include <deque>
#include <set>

#include "support/SeededRandom.h"
#include "support/socket/Allocations.h"

namespace Orvex::Reticor {
namespace {

constexpr int64_t WAITING = CObjectId::WAITING;
constexpr int64_t MOST = 2 * WAITING;

int64_t idAt(int64_t place, int64_t generation = 0) {
    return ((CObjectId::FIRST_COUNTER - place) * 256 + 7) * 256 + generation;
}

void putMany(TimerIds& ids, int64_t count) {
    for (int64_t place = 0; place < count; ++place) {
        ASSERT_TRUE(ids.Put(idAt(place)));
    }
}

TEST(TimerIds, GivesNoneUntilMoreThan1024Wait) {
    TimerIds ids;
    EXPECT_EQ(0, ids.Take()) << "nobody has put any";
    putMany(ids, WAITING);
    EXPECT_EQ(0, ids.Take());
    EXPECT_EQ(static_cast<size_t>(WAITING), ids.Count());
    EXPECT_TRUE(ids.Put(idAt(WAITING)));
    EXPECT_EQ(idAt(0, 1), ids.Take()) << "the oldest, with its next generation";
    EXPECT_EQ(0, ids.Take());
}

TEST(TimerIds, ComeBackInTheOrderInWhichTheyWerePut) {
    TimerIds ids;
    putMany(ids, MOST);
    for (int64_t place = 0; place < MOST - WAITING; ++place) {
        ASSERT_EQ(idAt(place, 1), ids.Take());
    }
    EXPECT_EQ(0, ids.Take());
}

TEST(TimerIds, RefusesWhatHasNoRoomAndKeepsWhatItHas) {
    TimerIds ids;
    putMany(ids, MOST);
    EXPECT_FALSE(ids.Put(idAt(MOST)));
    EXPECT_EQ(static_cast<size_t>(MOST), ids.Count());
    EXPECT_EQ(idAt(0, 1), ids.Take()) << "nothing was overwritten";
    EXPECT_TRUE(ids.Put(idAt(MOST)));
}

// Or the id would name another pool, or a timer of another place.
TEST(TimerIds, TheGenerationAfter255Is0AndTheRestOfTheIdStays) {
    TimerIds ids;
    ASSERT_TRUE(ids.Put(idAt(5, 255)));
    for (int64_t place = 10; place < 10 + WAITING; ++place) {
        ASSERT_TRUE(ids.Put(idAt(place)));
    }
    EXPECT_EQ(idAt(5, 0), ids.Take());
}

TEST(TimerIds, WithoutMemoryTheFirstOneIsRefusedAndTheNextOneTriesAgain) {
    TimerIds ids;
    {
        Testing::NoMemory none;
        EXPECT_FALSE(ids.Put(idAt(0)));
    }
    EXPECT_EQ(0u, ids.Count());
    EXPECT_EQ(0, ids.Take());
    EXPECT_TRUE(ids.Put(idAt(1)));
    {
        Testing::NoMemory none;
        for (int64_t place = 2; place < 2 + WAITING; ++place) {
            ASSERT_TRUE(ids.Put(idAt(place))) << "the room for all of them is there";
        }
        EXPECT_EQ(idAt(1, 1), ids.Take());
    }
}

TEST(TimerIds, TakesItsMemoryOnceHoweverOftenItIsClearedAndFilled) {
    TimerIds ids;
    putMany(ids, 1);
    const size_t before = Testing::allocationCount();
    for (int round = 0; round < 3; ++round) {
        ids.Clear();
        putMany(ids, MOST);
    }
    EXPECT_EQ(before, Testing::allocationCount());
}

// The ids of an ended pool are of no use to the next one in its place.
TEST(TimerIds, ClearForgetsAllOfThem) {
    TimerIds ids;
    putMany(ids, MOST);
    ASSERT_NE(0, ids.Take());
    ids.Clear();
    EXPECT_EQ(0u, ids.Count());
    EXPECT_EQ(0, ids.Take());
    for (int64_t place = 5000; place <= 5000 + WAITING; ++place) {
        ASSERT_TRUE(ids.Put(idAt(place)));
    }
    EXPECT_EQ(idAt(5000, 1), ids.Take()) << "none of those that were there before";
}

// Against a deque: what waits, in which order, and how long.
TEST(TimerIds, RandomOperationsAgreeWithADeque) {
    Testing::SeededRandom random;
    TimerIds ids;
    std::deque<int64_t> model;
    int64_t next = 0;
    for (int step = 0; step < 200000; ++step) {
        // The ring runs full and nearly empty in turn.
        const bool filling = step / 4000 % 2 == 0;
        if (random.oneIn(5000)) {
            ids.Clear();
            model.clear();
        } else if (random.oneIn(3) != filling) {
            const bool room = model.size() < static_cast<size_t>(MOST);
            const int64_t id = idAt(next++, random.between<int64_t>(0, 255));
            ASSERT_EQ(room, ids.Put(id));
            if (room) {
                model.push_back(id);
            }
        } else {
            int64_t expected = 0;
            if (model.size() > static_cast<size_t>(WAITING)) {
                expected = CObjectId::next_generation(model.front());
                model.pop_front();
            }
            ASSERT_EQ(expected, ids.Take());
        }
        ASSERT_EQ(model.size(), ids.Count());
    }
}

// The promise that all of this is for: a late look for an old id finds no new timer.
TEST(TimerIds, AnIdThatWasTakenIsNotGivenAgainBefore1024Others) {
    TimerIds ids;
    std::deque<int64_t> recent;
    std::set<int64_t> among;
    putMany(ids, WAITING + 50);
    for (int step = 0; step < 20000; ++step) {
        const int64_t id = ids.Take();
        ASSERT_NE(0, id);
        ASSERT_TRUE(among.insert(id >> CObjectId::COUNTER_SHIFT).second) << "given again too early";
        recent.push_back(id >> CObjectId::COUNTER_SHIFT);
        if (recent.size() > static_cast<size_t>(WAITING)) {
            among.erase(recent.front());
            recent.pop_front();
        }
        ASSERT_TRUE(ids.Put(id));
    }
}

}  // namespace
}  // namespace Orvex::Reticor
