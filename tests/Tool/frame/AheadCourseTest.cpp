// AheadCourse: what a sender that keeps frames has of a channel, and what it lacks.
#include "Tool/frame/AheadCourse.h"

#include <gtest/gtest.h>

namespace Orvex::Testing {
namespace {

using namespace Reticor;

struct AheadCourseOfAChannel : testing::Test {
    AheadCourse course;
    CFrame frame;

    CFrame& at(uint64_t needed_before, bool disposable, int level) {
        frame.place_among_needed(needed_before, disposable);
        frame.m_level = level;
        frame.m_frame_len = 10;
        return frame;
    }
};

TEST_F(AheadCourseOfAChannel, NothingIsKnownUntilAFrameIsBegunNorAfterOneThatWasNotWanted) {
    EXPECT_FALSE(course.knows_needed());
    course.begin(at(7, false, 1));
    EXPECT_TRUE(course.knows_needed());
    course.pass_unwanted();
    EXPECT_FALSE(course.knows_needed());
}

TEST_F(AheadCourseOfAChannel, AFrameThatOthersNeedMovesItAndADisposableOneDoesNot) {
    course.begin(at(7, false, 1));
    EXPECT_FALSE(course.misses_needed(at(8, true, 3)));
    EXPECT_TRUE(course.misses_needed(at(9, false, 1)));
    course.begin(at(8, true, 3));
    EXPECT_FALSE(course.misses_needed(at(8, false, 1)));
}

TEST_F(AheadCourseOfAChannel, WhatIsLeftOutCountsUntilTheNextFrameIsBegunOrItIsTaken) {
    course.leave_out(at(1, true, 3));
    course.leave_out(at(1, true, 3));
    EXPECT_EQ(2U, course.left_out().frames);
    EXPECT_EQ(20U, course.take_left_out().bytes);
    EXPECT_EQ(0U, course.left_out().frames);
    course.leave_out(at(1, true, 3));
    course.begin(at(1, false, 1));
    EXPECT_EQ(0U, course.left_out().frames);
    EXPECT_EQ(0U, course.left_out().bytes);
}

TEST_F(AheadCourseOfAChannel, FramesAboveTheLowestLevelLeftOutMayReferToItUntilThatLevelIsSent) {
    EXPECT_FALSE(course.may_refer_to_left(9));
    course.leave_out(at(1, true, 4));
    course.leave_out(at(1, true, 3));
    course.leave_out(at(1, true, 5));
    EXPECT_FALSE(course.may_refer_to_left(3));
    EXPECT_TRUE(course.may_refer_to_left(4));
    course.begin(at(1, true, 4));
    EXPECT_TRUE(course.may_refer_to_left(4));
    course.begin(at(1, true, 3));
    EXPECT_FALSE(course.may_refer_to_left(9));
}

TEST_F(AheadCourseOfAChannel, TheLastKeyFrameIsKnownByItsTimes) {
    frame.offer(5000);
    course.end_key(frame, 300);
    EXPECT_EQ(300U, course.key_took_us());
    EXPECT_EQ(5000U, course.key_made_us());
}

}  // namespace
}  // namespace Orvex::Testing
