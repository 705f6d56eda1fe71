// SenderCourses: what is missing before a frame, by whose doing.
#include "Tool/frame/SenderCourses.h"

#include <gtest/gtest.h>

namespace Orvex::Testing {

using namespace Reticor;

class SenderCoursesOfASender : public ::testing::Test {
protected:
    static constexpr int64_t LENGTH = 10;

    // The frame with this number of channel 2. All are of one length.
    CFrame& number(uint64_t ordinal, uint64_t needed_before = 0, bool disposable = false) {
        frame.m_level = mediaLevel(2, 5);
        frame.m_ordinal = ordinal;
        frame.m_frame_len = LENGTH;
        frame.m_channel_begin = (ordinal - 1) * LENGTH;
        frame.place_among_needed(needed_before, disposable);
        return frame;
    }
    static void expectSum(uint64_t frames, const Thinning::Sum& sum) {
        EXPECT_EQ(frames, sum.frames);
        EXPECT_EQ(frames * LENGTH, sum.bytes);
    }

    SenderCourses courses;
    CFrame frame;
};

TEST_F(SenderCoursesOfASender, NothingIsMissingBeforeTheFirstFrame) {
    courses.step_over(number(3));
    EXPECT_FALSE(courses.follows(number(4)));
    const SenderCourses::Missed missed = courses.take_missed(number(4));
    expectSum(0, missed.all);
    expectSum(0, missed.stepped);
    expectSum(0, missed.gone);
}

TEST_F(SenderCoursesOfASender, WhatIsMissingWasSteppedOverOrIsGone) {
    courses.begin(number(1));
    EXPECT_TRUE(courses.follows(number(2)));
    courses.step_over(number(2));
    EXPECT_FALSE(courses.follows(number(5)));
    const SenderCourses::Missed missed = courses.take_missed(number(5));
    expectSum(3, missed.all);
    expectSum(1, missed.stepped);
    expectSum(2, missed.gone);
    courses.begin(number(5));
    expectSum(1, courses.take_missed(number(7)).gone);
}

TEST_F(SenderCoursesOfASender, WhatWasLeftOutIsNotMissing) {
    courses.begin(number(1));
    courses.leave_out(number(2));
    courses.step_over(number(3));
    EXPECT_FALSE(courses.misses_any(number(4)));
    EXPECT_TRUE(courses.misses_any(number(5)));
    const SenderCourses::Missed missed = courses.take_missed(number(5));
    expectSum(2, missed.all);
    expectSum(1, missed.stepped);
    expectSum(1, missed.gone);
}

TEST_F(SenderCoursesOfASender, AFrameThatNobodyNeedsIsAsIfItHadNotBeen) {
    courses.begin(number(1));
    courses.pass_needless(number(2));
    EXPECT_TRUE(courses.follows(number(3)));
    expectSum(1, courses.take_missed(number(4)).all);
    SenderCourses fresh;
    fresh.pass_needless(number(2));
    EXPECT_EQ(0U, fresh.last_ordinal(2)) << "before the first one there is nothing to move";
}

TEST_F(SenderCoursesOfASender, AChannelThatIsNotWantedBeginsAnew) {
    courses.begin(number(1));
    courses.pass_unwanted(number(2));
    expectSum(0, courses.take_missed(number(9)).all);
}

TEST_F(SenderCoursesOfASender, WhatOthersNeedIsMissingOnlyIfItIsKnown) {
    courses.begin(number(1));
    EXPECT_TRUE(courses.misses_needed(number(3, 1))) << "nothing is known: a number is missing";
    courses.ahead(2).begin(number(1, 0));
    EXPECT_FALSE(courses.misses_needed(number(3, 1))) << "but nobody needs it";
    EXPECT_TRUE(courses.misses_needed(number(3, 2)));
    courses.forget_ahead();
    EXPECT_TRUE(courses.misses_needed(number(3, 1)));
    EXPECT_EQ(1U, courses.last_ordinal(2));
    courses.forget();
    EXPECT_EQ(0U, courses.last_ordinal(2));
}

}  // namespace Orvex::Testing
