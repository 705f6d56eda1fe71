// SpreadTally: in which place a time is counted, and sums of several.
#include "Core/count/Spread.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <thread>
#include <vector>

#include "support/SeededRandom.h"

namespace Orvex::Testing {
namespace {

using namespace Reticor;

// The places as their comment has them: the first one whose power of two is above the time.
size_t placeByHand(uint64_t ns) {
    size_t place = 0;
    while (place < SPREAD_PLACES - 1 && ns >= uint64_t{1} << place) {
        ++place;
    }
    return place;
}

SpreadValues valuesOf(const SpreadTally& tally) {
    SpreadValues values;
    tally.AddTo(values);
    return values;
}

uint64_t allOf(const SpreadValues& values) {
    uint64_t all = 0;
    for (const uint64_t count : values.count) {
        all += count;
    }
    return all;
}

void expectEqual(const SpreadValues& expected, const SpreadValues& actual) {
    for (size_t i = 0; i < SPREAD_PLACES; ++i) {
        EXPECT_EQ(expected.count[i], actual.count[i]) << "place " << i;
    }
    EXPECT_EQ(expected.sum_ns, actual.sum_ns);
    EXPECT_EQ(expected.max_ns, actual.max_ns);
}

TEST(Spread, EachPlaceEndsBelowItsPowerOfTwo) {
    EXPECT_EQ(0u, SpreadTally::place_of(0));
    for (size_t place = 1; place < SPREAD_PLACES - 1; ++place) {
        const uint64_t end = uint64_t{1} << place;
        EXPECT_EQ(place, SpreadTally::place_of(end - 1));
        EXPECT_EQ(place + 1, SpreadTally::place_of(end));
        EXPECT_EQ(placeByHand(end), SpreadTally::place_of(end));
    }
}

TEST(Spread, TheLastPlaceTakesTheRestFromNineMinutesOn) {
    constexpr uint64_t NINE_MINUTES_NS = uint64_t{540} * 1000000000;
    EXPECT_EQ(SPREAD_PLACES - 2, SpreadTally::place_of(NINE_MINUTES_NS / 2));
    EXPECT_EQ(SPREAD_PLACES - 1, SpreadTally::place_of(NINE_MINUTES_NS * 102 / 100));
    EXPECT_EQ(SPREAD_PLACES - 1, SpreadTally::place_of(uint64_t{1} << 63));
    EXPECT_EQ(SPREAD_PLACES - 1, SpreadTally::place_of(~uint64_t{0}));
}

TEST(Spread, CountsByPowersOfTwo) {
    SpreadTally tally;
    for (const uint64_t ns : {uint64_t{0}, uint64_t{1}, uint64_t{1023}, uint64_t{1024}, ~uint64_t{0} >> 4}) {
        tally.Add(ns);
    }
    const SpreadValues values = valuesOf(tally);
    EXPECT_EQ(1u, values.count[0]);
    EXPECT_EQ(1u, values.count[1]);
    EXPECT_EQ(1u, values.count[10]);
    EXPECT_EQ(1u, values.count[11]);
    EXPECT_EQ(1u, values.count[SPREAD_PLACES - 1]);
    EXPECT_EQ(~uint64_t{0} >> 4, values.max_ns);
}

TEST(Spread, AFreshTallyAddsNothing) {
    SpreadValues values;
    values.count[3] = 7;
    values.sum_ns = 50;
    values.max_ns = 20;
    SpreadTally().AddTo(values);
    EXPECT_EQ(7u, allOf(values));
    EXPECT_EQ(50u, values.sum_ns);
    EXPECT_EQ(20u, values.max_ns) << "the greatest so far stays";
}

TEST(Spread, SumAndGreatestAreThoseOfTheTimes) {
    SpreadTally tally;
    for (const uint64_t ns : {uint64_t{900}, uint64_t{70000}, uint64_t{3}}) {
        tally.Add(ns);
    }
    const SpreadValues values = valuesOf(tally);
    EXPECT_EQ(70903u, values.sum_ns);
    EXPECT_EQ(70000u, values.max_ns);
    EXPECT_EQ(3u, allOf(values));
}

TEST(Spread, FoldedInATallyIsThereOnceAndTheOtherOneStays) {
    SpreadTally sum;
    sum.Add(10);
    SpreadTally ended;
    ended.Add(1000);
    ended.Add(12);
    sum.Fold(ended);
    EXPECT_EQ(3u, allOf(valuesOf(sum)));
    EXPECT_EQ(1022u, valuesOf(sum).sum_ns);
    EXPECT_EQ(1000u, valuesOf(sum).max_ns);
    EXPECT_EQ(2u, allOf(valuesOf(ended)));
    SpreadTally lower;
    lower.Add(5);
    sum.Fold(lower);
    EXPECT_EQ(1000u, valuesOf(sum).max_ns) << "a lower one changes the greatest no more";
}

TEST(Spread, AnyMixOfTalliesSumsUpToTheTimesThemselves) {
    SeededRandom random;
    std::vector<std::unique_ptr<SpreadTally>> tallies;
    for (int i = 0; i < 5; ++i) {
        tallies.push_back(std::make_unique<SpreadTally>());
    }
    SpreadValues expected;
    SpreadTally ended;
    for (int i = 0; i < 20000; ++i) {
        const uint64_t ns = random.between<uint64_t>(0, ~uint64_t{0}) >> random.between(0, 63);
        std::unique_ptr<SpreadTally>& tally = tallies[random.between<size_t>(0, tallies.size() - 1)];
        tally->Add(ns);
        ++expected.count[placeByHand(ns)];
        expected.sum_ns += ns;
        expected.max_ns = std::max(expected.max_ns, ns);
        if (random.oneIn(100)) {  // its thread ends, and another one begins
            ended.Fold(*tally);
            tally = std::make_unique<SpreadTally>();
        }
    }
    SpreadValues seen = valuesOf(ended);
    for (const auto& tally : tallies) {
        tally->AddTo(seen);
    }
    expectEqual(expected, seen);
}

TEST(Spread, IsReadByOthersWhileItsThreadCounts) {
    constexpr uint64_t TIMES = 50000;
    SpreadTally tally;
    std::atomic<bool> wrong{false};
    std::thread reader([&] {
        for (uint64_t before = 0, now = 0; now < TIMES; before = now) {
            const SpreadValues values = valuesOf(tally);
            now = allOf(values);
            wrong = wrong || now < before || values.max_ns > TIMES || now > TIMES;
            std::this_thread::yield();
        }
    });
    for (uint64_t ns = 1; ns <= TIMES; ++ns) {
        tally.Add(ns);
    }
    reader.join();
    EXPECT_FALSE(wrong);
    EXPECT_EQ(TIMES * (TIMES + 1) / 2, valuesOf(tally).sum_ns);
}

}  // namespace
}  // namespace Orvex::Testing
