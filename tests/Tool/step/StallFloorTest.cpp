// StallFloor: who has stalled, from what was acknowledged and when.
#include "Tool/step/StallFloor.h"

#include <gtest/gtest.h>

namespace Orvex::Testing {

using namespace Reticor;

namespace {

constexpr uint64_t SECOND_US = 1000000;
constexpr uint64_t TIMEOUT_US = 10 * SECOND_US;
constexpr uint64_t BLOCKED_US = 77;

class StallFloorOfASender : public ::testing::Test {
protected:
    StallFloorOfASender() { floor.set_bytes(1000); }
    // A reader of that many bytes in a second, for a minute. After how many seconds it is called stalled; -1:
    // not at all.
    int stalls_after(uint64_t bytes_in_a_second) {
        for (uint64_t second = 0; second < 60; ++second) {
            if (floor.look(BLOCKED_US, now_us + second * SECOND_US, TIMEOUT_US, second * bytes_in_a_second)) {
                return static_cast<int>(second);
            }
        }
        return -1;
    }

    StallFloor floor;
    uint64_t now_us = 5 * SECOND_US;
};

TEST_F(StallFloorOfASender, WhoeverReadsSteadilyHasNotStalled) {
    EXPECT_EQ(-1, stalls_after(200));
}

TEST_F(StallFloorOfASender, WhoeverTakesNothingHas) {
    EXPECT_EQ(10, stalls_after(0));
}

TEST_F(StallFloorOfASender, WhoeverTricklesHas) {
    EXPECT_EQ(10, stalls_after(99));
    EXPECT_FALSE(floor.look(BLOCKED_US + 1, 100 * SECOND_US, TIMEOUT_US, 6000)) << "a new time";
}

TEST_F(StallFloorOfASender, AWriteThatBlocksAnewBeginsANewTime) {
    EXPECT_FALSE(floor.look(BLOCKED_US, now_us, TIMEOUT_US, 0));
    EXPECT_FALSE(floor.look(BLOCKED_US + 1, now_us + 50 * SECOND_US, TIMEOUT_US, 0));
    EXPECT_TRUE(floor.look(BLOCKED_US + 1, now_us + 60 * SECOND_US, TIMEOUT_US, 0));
}

}  // namespace

}  // namespace Orvex::Testing
