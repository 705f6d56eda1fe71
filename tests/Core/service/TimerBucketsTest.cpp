// TimerBuckets: what is put aside comes out with its time, whatever the span.
#include "Core/service/TimerBuckets.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

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

}  // namespace
}  // namespace Orvex::Reticor
