// TimerBuckets: what is put aside comes out with its time, whatever the span.
#include "Core/service/TimerBuckets.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <set>
#include <vector>

#include "support/SeededRandom.h"
#include "support/core/AlignedAllocations.h"

namespace Orvex::Reticor {
namespace {

constexpr uint64_t SPAN = TimerBuckets::SPAN_US;

std::vector<int64_t> advanceBehind(TimerBuckets& buckets, uint64_t time) {
    std::vector<int64_t> taken;
    buckets.AdvanceBehind(time, [&](const TimerEntry& entry) { taken.push_back(entry.id); });
    std::sort(taken.begin(), taken.end());
    return taken;
}

TEST(TimerBuckets, CoversFromItsFirstBucketToItsLast) {
    TimerBuckets buckets;
    buckets.StartAt(5 * SPAN + 7);
    EXPECT_EQ(5 * SPAN, buckets.Begin());
    EXPECT_FALSE(buckets.Covers(5 * SPAN - 1));
    EXPECT_TRUE(buckets.Covers(5 * SPAN));
    EXPECT_TRUE(buckets.Covers((5 + TimerBuckets::COUNT) * SPAN - 1));
    EXPECT_FALSE(buckets.Covers((5 + TimerBuckets::COUNT) * SPAN));
}

TEST(TimerBuckets, AdvancingHandsOutTheBucketOfTheTimeAndAllBeforeIt) {
    TimerBuckets buckets;
    buckets.Put({0, 1});
    buckets.Put({2 * SPAN - 1, 2});
    buckets.Put({2 * SPAN, 3});
    buckets.Put({9 * SPAN, 4});
    EXPECT_EQ((std::vector<int64_t>{1, 2}), advanceBehind(buckets, SPAN));
    EXPECT_EQ(2 * SPAN, buckets.Begin());
    EXPECT_EQ((std::vector<int64_t>{}), advanceBehind(buckets, SPAN));
    EXPECT_EQ((std::vector<int64_t>{3, 4}), advanceBehind(buckets, 100 * SPAN));
    EXPECT_EQ(0u, buckets.Size());
}

TEST(TimerBuckets, GoesRoundItsRing) {
    constexpr int64_t AHEAD = TimerBuckets::COUNT - 2;
    TimerBuckets buckets;
    for (int64_t id = 1; id <= 5000; ++id) {
        const uint64_t time = static_cast<uint64_t>(id) * SPAN;
        const std::vector<int64_t> due = advanceBehind(buckets, time);
        ASSERT_EQ(id > AHEAD ? std::vector<int64_t>{id - AHEAD} : std::vector<int64_t>{}, due);
        ASSERT_TRUE(buckets.Covers(time + AHEAD * SPAN));
        buckets.Put({time + AHEAD * SPAN, id});
    }
}

TEST(TimerBuckets, SoonestLooksAtTheLivingAndDropsTheDeadOnTheWay) {
    TimerBuckets buckets;
    for (int64_t id = 1; id <= 40; ++id) {
        buckets.Put({static_cast<uint64_t>(id) * SPAN / 20, id});  // two spans and a little
    }
    EXPECT_EQ(SPAN / 20, buckets.Soonest([](const TimerEntry&) { return true; }));
    EXPECT_EQ(25 * SPAN / 20, buckets.Soonest([](const TimerEntry& entry) { return entry.id >= 25; }));
    EXPECT_EQ(16u, buckets.Size()) << "the rest of the second bucket, and the third";
    EXPECT_EQ(0u, buckets.Soonest([](const TimerEntry&) { return false; }));
    EXPECT_EQ(0u, buckets.Size());
}

TEST(TimerBuckets, KeepOnlyDropsEverywhere) {
    TimerBuckets buckets;
    for (int64_t id = 0; id < 1000; ++id) {
        buckets.Put({static_cast<uint64_t>(id) * SPAN / 10, id});
    }
    buckets.KeepOnly([](const TimerEntry& entry) { return entry.id % 10 == 3; });
    EXPECT_EQ(100u, buckets.Size());
    const std::vector<int64_t> left = advanceBehind(buckets, 1000 * SPAN);
    EXPECT_EQ(100u, left.size());
    EXPECT_TRUE(std::all_of(left.begin(), left.end(), [](int64_t id) { return id % 10 == 3; }));
}

// ---- limits --------------------------------------------------------------------------------------------

/// Entries of one chunk of a bucket.
constexpr int64_t IN_CHUNK = 15;

bool everyEntry(const TimerEntry&) {
    return true;
}

// The ids of the entries in the bucket of `time`, which is to be the first one.
void fillBucket(TimerBuckets& buckets, uint64_t time, int64_t count) {
    for (int64_t id = 1; id <= count; ++id) {
        ASSERT_TRUE(buckets.Put({time, id}));
    }
}

TEST(TimerBuckets, ABucketHoldsAnyNumberAcrossItsChunks) {
    for (int64_t count : {int64_t{1}, IN_CHUNK - 1, IN_CHUNK, IN_CHUNK + 1, 2 * IN_CHUNK, 7 * IN_CHUNK + 3}) {
        TimerBuckets buckets;
        fillBucket(buckets, 3 * SPAN, count);
        EXPECT_EQ(static_cast<size_t>(count), buckets.Size());
        const std::vector<int64_t> taken = advanceBehind(buckets, 3 * SPAN);
        ASSERT_EQ(static_cast<size_t>(count), taken.size());
        EXPECT_EQ(1, taken.front());
        EXPECT_EQ(count, taken.back());
        EXPECT_EQ(0u, buckets.Size());
    }
}

TEST(TimerBuckets, TimesFarFromTheFirstBucketAreCoveredByNone) {
    TimerBuckets buckets;
    buckets.StartAt(UINT64_MAX);
    EXPECT_TRUE(buckets.Covers(UINT64_MAX));
    EXPECT_FALSE(buckets.Covers(0)) << "not after the last one, but before the first";
    EXPECT_FALSE(buckets.Covers(UINT64_MAX - SPAN));
    buckets.StartAt(0);
    EXPECT_FALSE(buckets.Covers(UINT64_MAX));
}

TEST(TimerBuckets, TheFirstBucketNeverGoesBack) {
    TimerBuckets buckets;
    buckets.StartAt(10 * SPAN);
    ASSERT_TRUE(buckets.Put({10 * SPAN, 1}));
    EXPECT_TRUE(advanceBehind(buckets, 2 * SPAN).empty());
    EXPECT_EQ(10 * SPAN, buckets.Begin());
    EXPECT_EQ(std::vector<int64_t>{1}, advanceBehind(buckets, 10 * SPAN));
    EXPECT_EQ(11 * SPAN, buckets.Begin());
    EXPECT_TRUE(advanceBehind(buckets, 500 * SPAN).empty());
    EXPECT_EQ(501 * SPAN, buckets.Begin()) << "also without an entry";
}

// The words of the map of filled buckets, of 64 each, and the ring's end.
TEST(TimerBuckets, FindsTheNextFilledBucketAcrossWordsAndTheEndOfTheRing) {
    for (uint64_t first : {uint64_t{0}, uint64_t{63}, uint64_t{64}, uint64_t{1000}, uint64_t{1023}}) {
        for (uint64_t ahead :
             {uint64_t{0}, uint64_t{1}, uint64_t{63}, uint64_t{64}, uint64_t{65}, uint64_t{1023}}) {
            TimerBuckets buckets;
            buckets.StartAt(first * SPAN);
            const uint64_t expire = (first + ahead) * SPAN + 5;
            ASSERT_TRUE(buckets.Covers(expire));
            ASSERT_TRUE(buckets.Put({expire, 1}));
            EXPECT_EQ(expire, buckets.Soonest(&everyEntry)) << first << " and " << ahead;
            if (ahead > 0) {
                EXPECT_TRUE(advanceBehind(buckets, expire - SPAN).empty());
            }
            EXPECT_EQ(1u, advanceBehind(buckets, expire).size()) << first << " and " << ahead;
        }
    }
}

TEST(TimerBuckets, FetchingAheadChangesNothing) {
    TimerBuckets buckets;
    buckets.Prefetch(5 * SPAN);
    fillBucket(buckets, 5 * SPAN, IN_CHUNK);
    buckets.Prefetch(5 * SPAN);  // the chunk is full
    buckets.Prefetch(UINT64_MAX);
    EXPECT_EQ(static_cast<size_t>(IN_CHUNK), buckets.Size());
    EXPECT_EQ(static_cast<size_t>(IN_CHUNK), advanceBehind(buckets, 5 * SPAN).size());
}

// ---- memory --------------------------------------------------------------------------------------------

TEST(TimerBuckets, WithoutMemoryOnlyAFullChunkRefusesAnEntry) {
    TimerBuckets buckets;
    {
        Testing::NoAlignedMemory none;
        EXPECT_FALSE(buckets.Put({SPAN, 1}));
    }
    EXPECT_EQ(0u, buckets.Size());
    EXPECT_EQ(0u, buckets.Soonest(&everyEntry));
    ASSERT_TRUE(buckets.Put({SPAN, 1}));
    Testing::NoAlignedMemory none;
    for (int64_t id = 2; id <= IN_CHUNK; ++id) {
        ASSERT_TRUE(buckets.Put({SPAN, id}));
    }
    EXPECT_FALSE(buckets.Put({SPAN, IN_CHUNK + 1}));
    EXPECT_FALSE(buckets.Put({2 * SPAN, 1})) << "another bucket";
    EXPECT_EQ(static_cast<size_t>(IN_CHUNK), advanceBehind(buckets, SPAN).size()) << "taking needs none";
    EXPECT_TRUE(buckets.Put({2 * SPAN, 1})) << "the chunk that was given back";
}

// The heap looks a little too early then, which costs a tick and no more.
TEST(TimerBuckets, WithoutMemoryTheSoonestExpiryIsTheBeginningOfItsBucket) {
    TimerBuckets buckets;
    ASSERT_TRUE(buckets.Put({7 * SPAN + 1234, 1}));
    ASSERT_TRUE(buckets.Put({7 * SPAN + 99, 2}));
    {
        Testing::NoAlignedMemory none;
        EXPECT_EQ(7 * SPAN, buckets.Soonest(&everyEntry));
        EXPECT_EQ(7 * SPAN, buckets.Soonest([](const TimerEntry&) { return false; })) << "nobody was asked";
        EXPECT_EQ(2u, buckets.Size());
    }
    EXPECT_EQ(7 * SPAN + 99, buckets.Soonest(&everyEntry));
}

TEST(TimerBuckets, WithoutMemoryTheDeadStayAndNothingIsLost) {
    TimerBuckets buckets;
    for (uint64_t bucket = 1; bucket <= 5; ++bucket) {
        fillBucket(buckets, bucket * SPAN, 4);
    }
    const auto even = [](const TimerEntry& entry) { return entry.id % 2 == 0; };
    {
        Testing::NoAlignedMemory none;
        buckets.KeepOnly(even);
        EXPECT_EQ(20u, buckets.Size());
    }
    buckets.KeepOnly(even);
    EXPECT_EQ(10u, buckets.Size());
    EXPECT_EQ((std::vector<int64_t>{2, 2, 2, 2, 2, 4, 4, 4, 4, 4}), advanceBehind(buckets, 5 * SPAN));
}

// One spare chunk is enough: what is put back never runs ahead of what was taken out.
TEST(TimerBuckets, KeepingEveryEntryOfALongBucketTakesNoMoreThanOneChunk) {
    TimerBuckets buckets;
    fillBucket(buckets, SPAN, 40 * IN_CHUNK + 1);
    Testing::NoAlignedMemory none(1);
    const size_t before = Testing::alignedAllocationCount();
    buckets.KeepOnly(&everyEntry);
    EXPECT_EQ(before + 1, Testing::alignedAllocationCount());
    EXPECT_EQ(static_cast<size_t>(40 * IN_CHUNK + 1), buckets.Size());
    buckets.KeepOnly(&everyEntry);
    EXPECT_EQ(before + 1, Testing::alignedAllocationCount()) << "it has one now";
    EXPECT_EQ(static_cast<size_t>(40 * IN_CHUNK + 1), advanceBehind(buckets, SPAN).size());
}

// 4096 chunks rest, and no more: a mass of timers that ended must not hold its memory for ever.
TEST(TimerBuckets, ChunksRestForTheNextEntriesUpToALimit) {
    constexpr int64_t CHUNKS = 4500;
    constexpr int64_t RESTING = 4096;
    TimerBuckets buckets;
    size_t before = Testing::alignedAllocationCount();
    fillBucket(buckets, SPAN, CHUNKS * IN_CHUNK);
    EXPECT_EQ(before + CHUNKS, Testing::alignedAllocationCount());
    EXPECT_EQ(static_cast<size_t>(CHUNKS * IN_CHUNK), advanceBehind(buckets, SPAN).size());
    before = Testing::alignedAllocationCount();
    fillBucket(buckets, 2 * SPAN, RESTING * IN_CHUNK);
    EXPECT_EQ(before, Testing::alignedAllocationCount());
    ASSERT_TRUE(buckets.Put({2 * SPAN, 1}));
    EXPECT_EQ(before + 1, Testing::alignedAllocationCount());
}

// ---- model ---------------------------------------------------------------------------------------------

// The buckets once more: a sorted map, and which of its entries live.
class BucketsModel {
public:
    void put(const TimerEntry& entry) {
        m_entries.emplace(entry.expire, entry.id);
        m_living.insert(entry.id);
    }
    void kill(int64_t id) { m_living.erase(id); }
    bool lives(int64_t id) const { return m_living.count(id) != 0; }
    size_t size() const { return m_entries.size(); }

    // All entries of the bucket of `time` and of those before it.
    std::vector<int64_t> advance(uint64_t time) {
        std::vector<int64_t> taken;
        const auto end = m_entries.lower_bound((time / SPAN + 1) * SPAN);
        for (auto at = m_entries.begin(); at != end; at = m_entries.erase(at)) {
            taken.push_back(at->second);
            m_living.erase(at->second);
        }
        std::sort(taken.begin(), taken.end());
        return taken;
    }
    // Drops the dead of every bucket up to that of the soonest living one.
    uint64_t soonest() {
        const auto found = std::find_if(m_entries.begin(), m_entries.end(),
                                        [this](const auto& one) { return lives(one.second); });
        const uint64_t soonest = found != m_entries.end() ? found->first : 0;
        drop_dead(found != m_entries.end() ? (soonest / SPAN + 1) * SPAN : UINT64_MAX);
        return soonest;
    }
    void drop_dead(uint64_t before) {
        for (auto at = m_entries.begin(); at != m_entries.end() && at->first < before;) {
            at = lives(at->second) ? std::next(at) : m_entries.erase(at);
        }
    }
    int64_t any(Testing::SeededRandom& random) const {
        return std::next(m_entries.begin(),
                         static_cast<long>(random.between<size_t>(0, m_entries.size() - 1)))
            ->second;
    }

private:
    std::multimap<uint64_t, int64_t> m_entries;
    std::set<int64_t> m_living;
};

TEST(TimerBuckets, RandomOperationsAgreeWithASortedMap) {
    Testing::SeededRandom random;
    TimerBuckets buckets;
    BucketsModel model;
    uint64_t time = random.between<uint64_t>(0, 2000) * SPAN;
    int64_t next = 1;
    buckets.StartAt(time);
    const auto keep = [&](const TimerEntry& entry) { return model.lives(entry.id); };
    for (int step = 0; step < 30000; ++step) {
        const int choice = random.between(0, 99);
        if (choice < 60) {
            const uint64_t expire =
                time + random.between<uint64_t>(0, random.oneIn(3) ? 1100 * SPAN : 20 * SPAN);
            ASSERT_EQ(
                expire / SPAN >= buckets.Begin() / SPAN && expire / SPAN < buckets.Begin() / SPAN + 1024,
                buckets.Covers(expire));
            if (buckets.Covers(expire)) {
                ASSERT_TRUE(buckets.Put({expire, next}));
                model.put({expire, next++});
            }
        } else if (choice < 85 && model.size() > 0) {
            model.kill(model.any(random));
        } else if (choice < 92) {
            ASSERT_EQ(model.soonest(), buckets.Soonest(keep));
        } else if (choice < 94) {
            model.drop_dead(UINT64_MAX);
            buckets.KeepOnly(keep);
        } else {
            time += random.between<uint64_t>(0, random.oneIn(10) ? 300 * SPAN : 2 * SPAN);
            ASSERT_EQ(model.advance(time), advanceBehind(buckets, time));
            ASSERT_EQ((time / SPAN + 1) * SPAN, buckets.Begin());
        }
        ASSERT_EQ(model.size(), buckets.Size());
    }
}

}  // namespace
}  // namespace Orvex::Reticor
