// SenderCourses and AheadCourse beside the whole story of a channel: each frame is sent, or missing for one
// reason.
#include "Tool/frame/SenderCourses.h"

#include <gtest/gtest.h>

#include <cstdint>

#include <Reticor/MediaPacket.h>

#include "support/SeededRandom.h"

namespace Orvex::Testing {

using namespace Reticor;

namespace {

class SenderCoursesModel : public ::testing::Test {
protected:
    static constexpr int CHANNEL = 3;

    // The next frame of the channel.
    CFrame& next(SeededRandom& random) {
        channel_end += static_cast<uint64_t>(frame.m_frame_len);
        frame.m_level = mediaLevel(CHANNEL, 5);
        frame.m_ordinal += 1;
        frame.m_channel_begin = channel_end;
        frame.m_frame_len = random.between<int64_t>(1, 5000);
        return frame;
    }
    static void add(Thinning::Sum& sum, const CFrame& one) {
        sum.frames += 1;
        sum.bytes += static_cast<uint64_t>(one.m_frame_len);
    }
    static void expect_sum(const Thinning::Sum& expected, const Thinning::Sum& sum) {
        EXPECT_EQ(expected.frames, sum.frames);
        EXPECT_EQ(expected.bytes, sum.bytes);
    }
    void begin(const CFrame& one) {
        const bool first = courses.last_ordinal(CHANNEL) == 0;
        EXPECT_EQ(!first && gone.frames != 0, !first && courses.misses_any(one));
        if (!courses.follows(one)) {
            const SenderCourses::Missed missed = courses.take_missed(one);
            expect_sum(first ? Thinning::Sum{} : stepped, missed.stepped);
            expect_sum(first ? Thinning::Sum{} : gone, missed.gone);
            EXPECT_EQ(missed.stepped.frames + missed.gone.frames, missed.all.frames);
            EXPECT_EQ(missed.stepped.bytes + missed.gone.bytes, missed.all.bytes);
        } else {
            EXPECT_EQ(0U, stepped.frames + gone.frames + left);
        }
        courses.begin(one);
        EXPECT_EQ(one.m_ordinal, courses.last_ordinal(CHANNEL));
        stepped = gone = {};
        left = 0;
    }

    SenderCourses courses;
    CFrame frame;
    uint64_t channel_end = 0;
    Thinning::Sum stepped;
    Thinning::Sum gone;
    uint64_t left = 0;
};

TEST_F(SenderCoursesModel, EveryFrameBetweenTwoThatAreBegunIsCountedForWhatBecameOfIt) {
    SeededRandom random;
    begin(next(random));
    for (int step = 0; step < 5000 && !HasFailure(); ++step) {
        CFrame& one = next(random);
        switch (random.between(0, 6)) {
            case 0:
                courses.step_over(one);
                add(stepped, one);
                break;
            case 1:
                courses.leave_out(one);
                ++left;
                break;
            case 2:
                courses.pass_needless(one);
                break;
            case 3:
                add(gone, one);  // It never saw that one.
                break;
            default:
                begin(one);
                break;
        }
        // Another channel has a course of its own.
        EXPECT_EQ(0U, courses.last_ordinal(CHANNEL + 1));
    }
}

TEST_F(SenderCoursesModel, AChannelThatComesBackBeginsAsIfItWereNew) {
    SeededRandom random;
    for (int round = 0; round < 50; ++round) {
        begin(next(random));
        courses.step_over(next(random));
        courses.pass_unwanted(next(random));
        EXPECT_EQ(0U, courses.last_ordinal(CHANNEL));
        EXPECT_FALSE(courses.ahead(CHANNEL).knows_needed());
        add(gone, next(random));
        const SenderCourses::Missed missed = courses.take_missed(next(random));
        expect_sum({}, missed.all);
        stepped = gone = {};
    }
}

// Frames that others need, as a book would number them, and what a sender makes of them.
TEST(AheadCourseModel, MissesExactlyTheNeededFramesThatItDidNotBegin) {
    SeededRandom random;
    AheadCourse course;
    uint64_t needed = 0;  // of the channel so far
    bool missed = false;  // one of them since the last one begun
    bool known = false;
    int lowest_left = 0;  // level of those left out
    for (int step = 0; step < 5000; ++step) {
        CFrame frame;
        const bool disposable = random.oneIn(3);
        const int level = random.between(1, 10);
        frame.m_level = mediaLevel(0, level);
        frame.m_frame_len = random.between<int64_t>(0, 100);
        frame.place_among_needed(needed, disposable);
        ASSERT_EQ(known, course.knows_needed());
        if (known) {
            ASSERT_EQ(missed, course.misses_needed(frame)) << step;
        }
        for (int other = 1; other <= 10; ++other) {
            ASSERT_EQ(lowest_left != 0 && other > lowest_left, course.may_refer_to_left(other));
        }
        needed += disposable ? 0 : 1;
        const int what = random.between(0, 9);
        if (what < 4) {
            course.begin(frame);
            known = true;
            missed = false;
            lowest_left = level <= lowest_left ? 0 : lowest_left;
            ASSERT_EQ(0U, course.left_out().frames);
        } else if (what < 6 && disposable) {
            course.leave_out(frame);
            lowest_left = lowest_left == 0 ? level : std::min(lowest_left, level);
        } else if (what == 6) {
            course.pass_needless(frame);  // A gap before it stays one.
        } else if (what == 7 && random.oneIn(10)) {
            course.pass_unwanted();
            known = false;
        } else {
            missed = missed || !disposable;
        }
    }
}

}  // namespace
}  // namespace Orvex::Testing
