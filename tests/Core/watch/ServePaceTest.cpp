// ServePace: how many workers a batch is worth, by a clock that goes by hand.
#include "Core/watch/ServePace.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>

#include "support/HandClock.h"
#include "support/SeededRandom.h"

namespace Orvex::Testing {
namespace {

using Reticor::ServePace;

class ServePaceCases : public ::testing::Test {
protected:
    // A batch whose handlers take that long for each socket; what it was worth.
    int batch(int count, int64_t us_each) {
        const int workers = pace.WorkersFor(count);
        clock.advanceUs(count * us_each);
        pace.TokenBack();
        return workers;
    }
    void batches(int times, int count, int64_t us_each) {
        for (int i = 0; i < times; ++i) {
            batch(count, us_each);
        }
    }

    HandClock clock;
    ServePace pace;
};

TEST_F(ServePaceCases, BeforeAnythingIsKnownEachSocketIsWorthAWorker) {
    EXPECT_EQ(0, ServePace().WorkersFor(0));
    EXPECT_EQ(1, ServePace().WorkersFor(1));
    EXPECT_EQ(512, ServePace().WorkersFor(512));
}

TEST_F(ServePaceCases, QuickHandlersAreServedByWhoeverPolled) {
    batches(100, 10, 1);
    EXPECT_EQ(0, batch(10, 1));
    EXPECT_LE(batch(512, 1), 512 / 50 + 1) << "50 us of work for each worker that is woken";
    batches(400, 10, 0);
    EXPECT_EQ(0, batch(512, 0));
}

TEST_F(ServePaceCases, SlowHandlersAreWorthAWorkerEachAndNoMoreThanFour) {
    batches(1000, 4, 100);
    EXPECT_EQ(7, batch(4, 100)) << "100 us each, and a mean that comes up from below";
    batches(1000, 4, 1000000);
    EXPECT_EQ(3, batch(1, 1000000)) << "however long one takes, it counts as 200 us";
}

TEST_F(ServePaceCases, TheFirstBatchIsTimedAndThenEachEighth) {
    EXPECT_EQ(100, batch(100, 0));
    EXPECT_EQ(50, batch(100, 0)) << "half of it after the first";
    for (int i = 2; i <= 8; ++i) {
        EXPECT_EQ(50, batch(100, 0)) << i;
    }
    EXPECT_EQ(25, batch(100, 0));
}

TEST_F(ServePaceCases, BatchesOfNothingAreNotCounted) {
    EXPECT_EQ(100, batch(100, 0));
    for (int i = 0; i < 30; ++i) {
        EXPECT_EQ(0, batch(0, 0));
    }
    for (int i = 1; i <= 8; ++i) {
        EXPECT_EQ(50, batch(100, 0)) << i;
    }
    EXPECT_EQ(25, batch(100, 0));
}

TEST_F(ServePaceCases, AnEmptyBatchEndsTheTimingOfTheOneBeforeIt) {
    EXPECT_EQ(100, pace.WorkersFor(100));
    pace.TokenBack();
    EXPECT_EQ(0, pace.WorkersFor(0));
    clock.advanceUs(1000000);
    pace.TokenBack();
    EXPECT_EQ(50, pace.WorkersFor(100));
}

TEST_F(ServePaceCases, ATokenThatComesBackBeforeAnyBatchTellsNothing) {
    clock.advanceUs(1000000);
    pace.TokenBack();
    EXPECT_EQ(100, pace.WorkersFor(100));
}

// During one batch the system may have run something else.
TEST_F(ServePaceCases, OneSlowBatchRaisesTheMeanByAnEighth) {
    batches(1000, 10, 0);
    ASSERT_EQ(0, batch(512, 0));
    while (pace.WorkersFor(1000) == 0) {
        clock.advanceUs(1000 * 40);
        pace.TokenBack();
    }
    EXPECT_EQ(100, pace.WorkersFor(1000)) << "5 us of the 40 that each took";
}

TEST_F(ServePaceCases, AnyRunOfBatchesMatchesASlidingMean) {
    SeededRandom random;
    uint64_t mean_ns = 50000;
    uint64_t full = 0;
    for (int i = 0; i < 20000; ++i) {
        const int count = random.oneIn(4) ? 0 : random.between(1, 512);
        const auto took_us = random.between<int64_t>(0, int64_t{1} << random.between(0, 20));
        ASSERT_EQ(static_cast<int>(static_cast<uint64_t>(count) * mean_ns / 50000), pace.WorkersFor(count));
        clock.advanceUs(took_us);
        pace.TokenBack();
        if (count > 0 && full++ % 8 == 0) {
            const uint64_t each_ns = std::min<uint64_t>(
                static_cast<uint64_t>(took_us) * 1000 / static_cast<uint64_t>(count), 200000);
            mean_ns = each_ns < mean_ns ? (mean_ns + each_ns) / 2 : (mean_ns * 7 + each_ns) / 8;
        }
    }
}

}  // namespace
}  // namespace Orvex::Testing
