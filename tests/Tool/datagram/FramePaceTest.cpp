// FramePace: what is due when.
#include "Tool/datagram/FramePace.h"

#include <gtest/gtest.h>

namespace Orvex::Testing {

using namespace Reticor;

namespace {

constexpr uint64_t BEGIN_US = 1000000;

TEST(FramePace, SomeGoAtOnceAndTheOthersInEvenParts) {
    FramePace pace;
    pace.begin(0, BEGIN_US, 100);
    EXPECT_EQ(16U, pace.due(BEGIN_US));
    EXPECT_EQ(16U, pace.due(BEGIN_US - 1)) << "another clock reading";
    EXPECT_EQ(41U, pace.due(BEGIN_US + 5000));
    EXPECT_EQ(66U, pace.due(BEGIN_US + 10000));
    EXPECT_EQ(100U, pace.due(BEGIN_US + 19000));
    EXPECT_EQ(100U, pace.due(BEGIN_US + 20000));
}

TEST(FramePace, AShortFrameGoesAtOnce) {
    FramePace pace;
    pace.begin(0, BEGIN_US, 16);
    EXPECT_EQ(16U, pace.due(BEGIN_US));
}

TEST(FramePace, HalfTheTimeBetweenTheLastTwoOfTheChannelIsTaken) {
    FramePace pace;
    pace.begin(1, BEGIN_US, 100);
    pace.begin(2, BEGIN_US + 1000, 100);
    pace.begin(1, BEGIN_US + 16000, 100);
    EXPECT_EQ(66U, pace.due(BEGIN_US + 16000 + 4000));
    EXPECT_EQ(99U, pace.due(BEGIN_US + 16000 + 6700));
    EXPECT_EQ(100U, pace.due(BEGIN_US + 16000 + 8000));
    pace.begin(2, BEGIN_US + 31000, 100);
    EXPECT_EQ(16U + 33U, pace.due(BEGIN_US + 31000 + 5000)) << "30 ms between them";
}

TEST(FramePace, ASlowStreamIsNotDelayedForLong) {
    FramePace pace;
    pace.begin(0, BEGIN_US, 1000);
    pace.begin(0, BEGIN_US + 1000000, 1000);
    EXPECT_EQ(516U, pace.due(BEGIN_US + 1025000));
    EXPECT_EQ(1000U, pace.due(BEGIN_US + 1050000));
}

TEST(FramePace, FramesAtTheSameTimeGoAtOnce) {
    FramePace pace;
    pace.begin(0, BEGIN_US, 100);
    pace.begin(0, BEGIN_US, 100);
    EXPECT_EQ(100U, pace.due(BEGIN_US));
}

TEST(FramePace, WithoutItAllGoesAtOnce) {
    FramePace pace;
    pace.set_on(false);
    pace.begin(0, BEGIN_US, 100);
    EXPECT_EQ(100U, pace.due(BEGIN_US));
    pace.set_on(true);
    EXPECT_EQ(16U, pace.due(BEGIN_US));
}

TEST(FramePace, NextLookIsAfterAPauseOrWhenAllIsDue) {
    FramePace pace;
    pace.begin(0, BEGIN_US, 100);
    EXPECT_EQ(BEGIN_US + 5000, pace.next_us(BEGIN_US));
    EXPECT_EQ(BEGIN_US + 20000, pace.next_us(BEGIN_US + 18000));
    EXPECT_EQ(BEGIN_US + 20001, pace.next_us(BEGIN_US + 20000)) << "never in the past";
}

}  // namespace
}  // namespace Orvex::Testing
