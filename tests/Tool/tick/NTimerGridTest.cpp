// CNTimer: the grid of its ticks, with times that the test chooses.
#include <gtest/gtest.h>

#include <climits>
#include <cstdint>

#include "Tool/tick/NTimerInternal.h"

namespace Orvex::Reticor {
namespace {

constexpr uint64_t START = 5000000000;
constexpr long long PERIOD = 20000;

struct Grid : NTimerInternal {
    explicit Grid(long long period, int64_t ticks = 0, uint64_t start = START) {
        m_start = start;
        m_period = period;
        m_ticks = ticks;
    }
    bool kept(int64_t ticks) const { return m_start == START && m_ticks == ticks; }
    bool begunAt(uint64_t now) const { return m_start == now && m_ticks == 0; }
};

TEST(NTimerGrid, TheDelayLeadsToTheNextGridPoint) {
    Grid grid(PERIOD, 1);
    EXPECT_EQ(PERIOD, grid.next_delay(START + PERIOD));
    EXPECT_EQ(PERIOD - 1500, grid.next_delay(START + PERIOD + 1500)) << "lateness is taken back";
    EXPECT_EQ(PERIOD + 1500, grid.next_delay(START + PERIOD - 1500)) << "and so is coming early";
    EXPECT_TRUE(grid.kept(1));
}

TEST(NTimerGrid, NoDelayIsBelow2000) {
    Grid grid(PERIOD, 1);
    EXPECT_EQ(2001, grid.next_delay(START + 2 * PERIOD - 2001));
    EXPECT_EQ(2000, grid.next_delay(START + 2 * PERIOD - 1999));
    EXPECT_EQ(2000, grid.next_delay(START + 2 * PERIOD));
    EXPECT_TRUE(grid.kept(1));
}

TEST(NTimerGrid, TwentyPeriodsOffInEitherDirectionKeepTheGrid) {
    Grid late(PERIOD, 1);
    EXPECT_EQ(2000, late.next_delay(START + 22 * PERIOD));
    EXPECT_TRUE(late.kept(1));
    Grid early(PERIOD, 30);
    EXPECT_EQ(20 * PERIOD, early.next_delay(START + 11 * PERIOD));
    EXPECT_TRUE(early.kept(30));
}

TEST(NTimerGrid, MoreThanTwentyPeriodsOffBeginANewGrid) {
    Grid late(PERIOD, 1);
    EXPECT_EQ(PERIOD, late.next_delay(START + 22 * PERIOD + 1));
    EXPECT_TRUE(late.begunAt(START + 22 * PERIOD + 1));
    Grid early(PERIOD, 30);
    EXPECT_EQ(PERIOD, early.next_delay(START + 11 * PERIOD - 1));
    EXPECT_TRUE(early.begunAt(START + 11 * PERIOD - 1));
}

// Plays ticks that come exactly when they are due.
TEST(NTimerGrid, AfterAStallOfUpToTwentyPeriodsTicksAre2000ApartUntilTheGridIsReached) {
    Grid grid(PERIOD, 1);
    uint64_t now = START + 21 * PERIOD;  // the first tick of many came late
    int short_ticks = 0;
    int64_t delay = grid.next_delay(now);
    for (; delay == 2000; delay = grid.next_delay(now)) {
        now += 2000;
        ++grid.m_ticks;
        ASSERT_LT(++short_ticks, 100);
    }
    // The next tick is 380 ms late, and each one gains 18 ms.
    EXPECT_EQ(22, short_ticks);
    EXPECT_EQ(START, grid.m_start);
    EXPECT_EQ(static_cast<int64_t>(START) + PERIOD * (grid.m_ticks + 1), static_cast<int64_t>(now) + delay);
    now += static_cast<uint64_t>(delay);
    ++grid.m_ticks;
    EXPECT_EQ(PERIOD, grid.next_delay(now));
}

TEST(NTimerGrid, AfterALongerStallNoBurstFollows) {
    Grid grid(PERIOD, 1);
    uint64_t now = START + 500 * PERIOD + 3;
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(PERIOD, grid.next_delay(now));
        EXPECT_EQ(i, grid.m_ticks);
        now += PERIOD;
        ++grid.m_ticks;
    }
}

TEST(NTimerGrid, APeriodBelowTheFloorBeginsNewGridsAgainAndAgain) {
    Grid grid(100);
    uint64_t now = START;
    int begun = 0;
    for (int tick = 0; tick < 1000; ++tick) {
        now += 2000;
        ++grid.m_ticks;
        EXPECT_EQ(2000, grid.next_delay(now));
        begun += grid.begunAt(now) ? 1 : 0;
    }
    // Each tick loses 1900 us; more than 20 periods of 100 us are lost with every second one.
    EXPECT_EQ(500, begun);
}

TEST(NTimerGrid, PeriodsOfZeroAndBelowTickEvery2000) {
    for (long long period : {0LL, -1LL, -20000LL, LLONG_MIN / 20, LLONG_MIN}) {
        Grid grid(period);
        uint64_t now = START;
        for (int tick = 0; tick < 3; ++tick) {
            now += 2000;
            ++grid.m_ticks;
            EXPECT_EQ(2000, grid.next_delay(now)) << period;
        }
    }
}

TEST(NTimerGrid, TheLargestPeriodsAndTimesDoNotOverflow) {
    EXPECT_EQ(LLONG_MAX, Grid(LLONG_MAX, 1).next_delay(START + 7));
    EXPECT_EQ(LLONG_MAX / 2 * 2 - 7, Grid(LLONG_MAX / 2, 1).next_delay(START + 7));
    EXPECT_EQ(LLONG_MAX / 20 * 2 - 7, Grid(LLONG_MAX / 20, 1).next_delay(START + 7));
    Grid worn(LLONG_MAX, INT64_MAX - 1);
    EXPECT_EQ(LLONG_MAX, worn.next_delay(START));
    EXPECT_TRUE(worn.begunAt(START));
    Grid late(PERIOD, 1, 0);
    EXPECT_EQ(PERIOD, late.next_delay(UINT64_MAX));
    EXPECT_TRUE(late.begunAt(UINT64_MAX));
}

}  // namespace
}  // namespace Orvex::Reticor
