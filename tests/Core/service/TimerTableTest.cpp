// TimerTable: from an id to its timer, and the memory of the places.
#include "Core/service/TimerTable.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <vector>

#include "support/SeededRandom.h"
#include "support/socket/Allocations.h"

namespace Orvex::Reticor {
namespace {

/// Places of one chunk of the table.
constexpr int64_t CHUNK = 1024;

int64_t placeId(int64_t place, int64_t generation = 0, int64_t first = CObjectId::FIRST_COUNTER) {
    return ((first - place) * 256 + 3) * 256 + generation;
}

ArmedTimer timerOf(int64_t id, int64_t owner = -1, uint64_t expire = 0) {
    return {id, owner, expire, 0};
}

class TimerTableCase : public ::testing::Test {
protected:
    void hold(int64_t id) { ASSERT_TRUE(table.Hold(id)); }
    void arm(int64_t id, int64_t owner = -1) {
        hold(id);
        table.Put(timerOf(id, owner));
    }
    void disarm(int64_t id) {
        ArmedTimer* const timer = table.Find(id);
        ASSERT_NE(nullptr, timer);
        TimerTable::Erase(timer);
        table.Drop(id);
    }
    // The owners of all chunks, each chunk's in order.
    std::vector<int64_t> owners() {
        std::vector<int64_t> found;
        for (size_t chunk = 0; table.ListOwners(chunk, found); ++chunk) {
        }
        return found;
    }

    TimerTable table;
};

TEST_F(TimerTableCase, FindsATimerByItsWholeId) {
    arm(placeId(4, 9), -77);
    ArmedTimer* const found = table.Find(placeId(4, 9));
    ASSERT_NE(nullptr, found);
    EXPECT_EQ(-77, found->obj_id);
    EXPECT_EQ(nullptr, table.Find(placeId(4, 8))) << "an earlier timer of the place";
    EXPECT_EQ(nullptr, table.Find(placeId(4, 10)));
    EXPECT_EQ(nullptr, table.Find(placeId(3, 9)));
    EXPECT_EQ(nullptr, table.Find(placeId(5, 9)));
}

TEST_F(TimerTableCase, FindsNothingForIdsThatItCannotHave) {
    EXPECT_EQ(nullptr, table.Find(placeId(0))) << "an empty table has no chunk";
    arm(placeId(0));
    // Of places that are far too large, drawn before the first one, and numbers that are not ids.
    for (const int64_t id : {placeId(CHUNK), placeId(5 * CHUNK), placeId(-1), placeId(-99), int64_t{0},
                             int64_t{-1}, int64_t{1}, INT64_MAX, INT64_MIN}) {
        EXPECT_EQ(nullptr, table.Find(id)) << id;
    }
}

TEST_F(TimerTableCase, APlaceThatIsHeldHasNoTimerUntilOneIsPut) {
    hold(placeId(2));
    EXPECT_EQ(nullptr, table.Find(placeId(2)));
    EXPECT_TRUE(owners().empty());
    table.Put(timerOf(placeId(2), -5, 700));
    ASSERT_NE(nullptr, table.Find(placeId(2)));
    EXPECT_EQ(700u, table.Find(placeId(2))->expire);
    TimerTable::Erase(table.Find(placeId(2)));
    EXPECT_EQ(nullptr, table.Find(placeId(2)));
    table.Put(timerOf(placeId(2), -5, 900));
    EXPECT_EQ(900u, table.Find(placeId(2))->expire) << "the place was held all the time";
}

TEST_F(TimerTableCase, HoldGivesThePlaceInWhichPutPuts) {
    for (const int64_t id : {placeId(0), placeId(CHUNK - 1), placeId(3 * CHUNK + 7)}) {
        ArmedTimer* const place = table.Hold(id);
        ASSERT_NE(nullptr, place) << id;
        EXPECT_EQ(0, place->id) << "it is free";
        *place = timerOf(id, -5, 700);
        EXPECT_EQ(place, table.Find(id));
        TimerTable::Erase(place);
        table.Put(timerOf(id, -6, 900));
        EXPECT_EQ(-6, place->obj_id) << id;
        EXPECT_EQ(900u, place->expire) << id;
    }
}

TEST_F(TimerTableCase, PutTakesNoMemoryWhereThePlaceIsHeld) {
    std::vector<int64_t> ids;
    for (int64_t place = 0; place < 3 * CHUNK; place += 100) {
        ids.push_back(placeId(place));
        hold(ids.back());
    }
    const size_t before = Testing::allocationCount();
    for (const int64_t id : ids) {
        table.Put(timerOf(id));
        TimerTable::Erase(table.Find(id));
        table.Put(timerOf(id));
    }
    EXPECT_EQ(before, Testing::allocationCount());
}

TEST_F(TimerTableCase, ChunksInBetweenTakeNoMemoryUntilTheyAreUsed) {
    arm(placeId(9 * CHUNK));
    const size_t before = Testing::allocationCount();
    arm(placeId(9 * CHUNK + 1));
    EXPECT_EQ(before, Testing::allocationCount());
    arm(placeId(4 * CHUNK));
    EXPECT_EQ(before + 1, Testing::allocationCount());
    EXPECT_EQ(nullptr, table.Find(placeId(5 * CHUNK)));
    EXPECT_EQ(3u, owners().size());
}

// Ids count down for ever, so places that are never seen again must cost nothing.
TEST_F(TimerTableCase, AChunkThatNobodyHoldsServesTheNextOneWithoutMemory) {
    std::vector<int64_t> room;
    room.reserve(4);
    for (int64_t place = 0; place < CHUNK; place += CHUNK / 4) {
        arm(placeId(place), place);
    }
    arm(placeId(7 * CHUNK));  // the array is long enough for all chunks between
    for (int64_t place = 0; place < CHUNK; place += CHUNK / 4) {
        disarm(placeId(place));
    }
    EXPECT_EQ(nullptr, table.Find(placeId(0)));
    const size_t before = Testing::allocationCount();
    for (int64_t chunk = 1; chunk < 7; ++chunk) {
        const int64_t id = placeId(chunk * CHUNK + 17);
        arm(id, chunk);
        ASSERT_TRUE(table.ListOwners(static_cast<size_t>(chunk), room));
        ASSERT_EQ(1u, room.size()) << "nothing of its earlier life is in it";
        EXPECT_EQ(chunk, room[0]);
        room.clear();
        disarm(id);
    }
    EXPECT_EQ(before, Testing::allocationCount());
}

TEST_F(TimerTableCase, AChunkStaysAsLongAsOneOfItsPlacesIsHeld) {
    arm(placeId(10));
    hold(placeId(11));
    disarm(placeId(10));
    table.Put(timerOf(placeId(11), -3));  // would write to a chunk that is gone
    ASSERT_NE(nullptr, table.Find(placeId(11)));
    disarm(placeId(11));
    std::vector<int64_t> found;
    EXPECT_TRUE(table.ListOwners(0, found));
    EXPECT_TRUE(found.empty());
}

TEST_F(TimerTableCase, WithoutMemoryAPlaceIsNotHeldAndNothingElseChanges) {
    arm(placeId(1), -1);
    // The array of chunks, then the chunk.
    for (size_t successes : {0u, 1u}) {
        Testing::NoMemory none(successes);
        EXPECT_FALSE(table.Hold(placeId(100 * CHUNK))) << successes;
        EXPECT_EQ(nullptr, table.Find(placeId(100 * CHUNK)));
        EXPECT_NE(nullptr, table.Find(placeId(1)));
        EXPECT_TRUE(table.Hold(placeId(2))) << "its chunk is there";
    }
    EXPECT_EQ(std::vector<int64_t>{-1}, owners());
    arm(placeId(100 * CHUNK), -100);
    EXPECT_EQ((std::vector<int64_t>{-1, -100}), owners());
}

TEST_F(TimerTableCase, OwnersAreListedChunkByChunkOncePerTimer) {
    arm(placeId(CHUNK + 1), -20);
    arm(placeId(0), -10);
    arm(placeId(CHUNK - 1), -11);
    arm(placeId(3 * CHUNK), -10);
    std::vector<int64_t> found{99};
    EXPECT_TRUE(table.ListOwners(0, found));
    EXPECT_EQ((std::vector<int64_t>{99, -10, -11}), found) << "appended";
    found.clear();
    EXPECT_TRUE(table.ListOwners(2, found)) << "a chunk that nobody holds is empty";
    EXPECT_TRUE(found.empty());
    EXPECT_FALSE(table.ListOwners(4, found));
    EXPECT_EQ((std::vector<int64_t>{-10, -11, -20, -10}), owners());
}

TEST_F(TimerTableCase, ClearGivesAllUpAndTheNextIdsBeginAtPlace0) {
    arm(placeId(3), -1);
    arm(placeId(5 * CHUNK), -2);
    const int64_t first = CObjectId::FIRST_COUNTER - 6 * CHUNK;
    table.Clear(first);
    EXPECT_TRUE(owners().empty());
    EXPECT_EQ(nullptr, table.Find(placeId(3))) << "an id of the pool that has ended";
    EXPECT_EQ(nullptr, table.Find(placeId(5 * CHUNK)));
    arm(placeId(0, 0, first), -3);
    EXPECT_NE(nullptr, table.Find(placeId(0, 0, first)));
    std::vector<int64_t> found;
    EXPECT_TRUE(table.ListOwners(0, found));
    EXPECT_FALSE(table.ListOwners(1, found)) << "the chunks before it are not made again";
    EXPECT_EQ(std::vector<int64_t>{-3}, found);
}

// Against a map: timers come and go in places that wander off, as those of a pool do.
TEST_F(TimerTableCase, RandomOperationsAgreeWithAMap) {
    Testing::SeededRandom random;
    std::map<int64_t, int64_t> armed;  // id to owner
    std::vector<int64_t> held;         // without a timer
    int64_t first = CObjectId::FIRST_COUNTER;
    int64_t lowest = 0;
    const auto any = [&] {
        return std::next(armed.begin(), static_cast<long>(random.between<size_t>(0, armed.size() - 1)));
    };
    for (int step = 0; step < 30000; ++step) {
        const int choice = random.between(0, 99);
        if (choice < 45) {
            const int64_t id = placeId(lowest + random.between<int64_t>(0, 3 * CHUNK),
                                       random.between<int64_t>(0, 255), first);
            const auto samePlace = [&](int64_t other) { return other >> 16 == id >> 16; };
            const auto at = armed.lower_bound(id & ~int64_t{0xFFFF});
            if ((at != armed.end() && samePlace(at->first)) ||
                std::any_of(held.begin(), held.end(), samePlace)) {
                continue;
            }
            armed[id] = -step;
            arm(id, -step);
        } else if (choice < 75 && !armed.empty()) {
            const auto gone = any();
            disarm(gone->first);
            armed.erase(gone);
        } else if (choice < 85 && !armed.empty() && held.size() < 50) {
            const auto due = any();
            TimerTable::Erase(table.Find(due->first));
            held.push_back(due->first);
            armed.erase(due);
        } else if (choice < 94 && !held.empty()) {
            const int64_t id = held.back();
            held.pop_back();
            if (random.oneIn(2)) {
                table.Drop(id);
            } else {
                table.Put(timerOf(id, -step));
                armed[id] = -step;
            }
        } else if (choice < 99) {
            lowest += random.between<int64_t>(0, 20);
        } else if (random.oneIn(20)) {
            first -= lowest + 4 * CHUNK;
            lowest = 0;
            table.Clear(first);
            armed.clear();
            held.clear();
        }
        if (!armed.empty()) {
            const auto one = any();
            ArmedTimer* const found = table.Find(one->first);
            ASSERT_NE(nullptr, found);
            ASSERT_EQ(one->second, found->obj_id);
        }
        if (!held.empty()) {
            ASSERT_EQ(nullptr, table.Find(held.front()));
        }
        if (step % 1000 == 0) {
            std::vector<int64_t> expected;
            std::transform(armed.begin(), armed.end(), std::back_inserter(expected),
                           [](const auto& one) { return one.second; });
            std::vector<int64_t> found = owners();
            std::sort(expected.begin(), expected.end());
            std::sort(found.begin(), found.end());
            ASSERT_EQ(expected, found);
        }
    }
}

}  // namespace
}  // namespace Orvex::Reticor
