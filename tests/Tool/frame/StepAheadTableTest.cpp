// StepAhead in every case that there is, and Thinning beside a count: what must hold whatever else is true.
#include "Tool/frame/StepAhead.h"
#include "Tool/frame/Thinning.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "support/SeededRandom.h"

namespace Orvex::Testing {

using namespace Reticor;

namespace {

constexpr uint64_t TABLE_LIMIT_US = 1000000;
constexpr uint64_t TABLE_HARD_US = 3000000;
constexpr uint64_t AGES_US[] = {0,
                                TABLE_LIMIT_US / 2,
                                TABLE_LIMIT_US / 2 + 1,
                                TABLE_LIMIT_US,
                                TABLE_LIMIT_US + 1,
                                TABLE_HARD_US,
                                TABLE_HARD_US + 1,
                                100 * TABLE_HARD_US};

// Every question with these ages, under both kinds of limits.
template <typename Judge>
void for_each_case(Judge judge) {
    for (unsigned bits = 0; bits < 1U << 7; ++bits) {
        for (const uint64_t age_us : AGES_US) {
            AheadQuestion question;
            question.age_us = age_us;
            question.key = (bits & 1) != 0;
            question.newer_key = (bits & 2) != 0;
            question.disposable = (bits & 4) != 0;
            question.refers = (bits & 8) != 0;
            question.follows = (bits & 16) != 0;
            question.gap = (bits & 32) != 0;
            question.waits = (bits & 64) != 0;
            for (const uint64_t hard_us : {uint64_t{0}, TABLE_HARD_US}) {
                const AheadLimits limits{TABLE_LIMIT_US, hard_us};
                const bool above_hard = hard_us != 0 && age_us > hard_us;
                SCOPED_TRACE("bits " + std::to_string(bits) + " age " + std::to_string(age_us));
                judge(question, above_hard, StepAhead::decide(question, limits));
            }
        }
    }
}

TEST(StepAheadTable, AFrameIsSentOrNotAndOnlyThenDoesItsChannelWait) {
    for_each_case([](const AheadQuestion&, bool, const FrameDecision& decision) {
        EXPECT_LE((decision.send ? 1 : 0) + (decision.waits ? 1 : 0) + (decision.leaves_out ? 1 : 0), 1);
    });
}

TEST(StepAheadTable, AboveTheHardBoundNothingIsBegunButTheNewestKeyFrame) {
    for_each_case([](const AheadQuestion& question, bool above_hard, const FrameDecision& decision) {
        if (above_hard && decision.send) {
            EXPECT_TRUE(question.key && !question.newer_key && !question.follows);
        }
    });
}

TEST(StepAheadTable, TheNewestKeyFrameIsSentHoweverLate) {
    for_each_case([](const AheadQuestion& question, bool, const FrameDecision& decision) {
        if (question.key && !question.newer_key && !question.disposable && !question.follows) {
            EXPECT_TRUE(decision.send);
        }
    });
}

TEST(StepAheadTable, WithoutAKeyFrameAheadALateFrameIsBetterThanNone) {
    for_each_case([](const AheadQuestion& question, bool above_hard, const FrameDecision& decision) {
        if (!above_hard && !question.newer_key && !question.disposable && !question.gap && !question.waits) {
            EXPECT_TRUE(decision.send);
        }
    });
}

TEST(StepAheadTable, AChannelWaitsOnlyForAKeyFrameAndEndsItsWaitWithOne) {
    for_each_case([](const AheadQuestion& question, bool, const FrameDecision& decision) {
        if (decision.send && !question.follows && (question.waits || question.gap)) {
            EXPECT_TRUE(question.key && !question.newer_key);
        }
        if (question.follows) {
            EXPECT_FALSE(decision.waits) << "each of its frames is one to begin with";
        }
    });
}

TEST(StepAheadTable, OnlyDisposableFramesOfAChannelWithoutAGapAreLeftOut) {
    for_each_case([](const AheadQuestion& question, bool, const FrameDecision& decision) {
        if (decision.leaves_out) {
            EXPECT_TRUE(question.disposable && !question.gap && !question.waits && !question.follows);
            EXPECT_TRUE(question.refers || question.age_us > TABLE_LIMIT_US / 2);
        }
    });
}

// Later is never better: what was not sent at an age is not sent at a higher one.
TEST(StepAheadTable, AgeAloneNeverMakesAFrameSendable) {
    for (unsigned bits = 0; bits < 1U << 7; ++bits) {
        bool sent = true;
        for (const uint64_t age_us : AGES_US) {
            AheadQuestion question;
            question.age_us = age_us;
            question.key = (bits & 1) != 0;
            question.newer_key = (bits & 2) != 0;
            question.disposable = (bits & 4) != 0;
            question.refers = (bits & 8) != 0;
            question.follows = (bits & 16) != 0;
            question.gap = (bits & 32) != 0;
            question.waits = (bits & 64) != 0;
            const bool now = StepAhead::decide(question, {TABLE_LIMIT_US, TABLE_HARD_US}).send;
            EXPECT_TRUE(sent || !now) << bits << " " << age_us;
            sent = now;
        }
    }
}

TEST(StepAheadTable, WhatIsAllowedAfterALargeKeyFrameFallsInALineToHalfTheLimit) {
    SeededRandom random;
    for (int i = 0; i < 2000; ++i) {
        AheadQuestion question;
        question.key_took_us = random.between<uint64_t>(0, 5000000);
        question.group_us = random.between<uint64_t>(0, 10000000);
        const auto limit_us = random.between<uint64_t>(0, 4000000);
        const uint64_t half_us = limit_us / 2;
        const uint64_t key_us = question.key_took_us + question.key_took_us / 4;
        uint64_t before_us = UINT64_MAX;
        for (uint64_t since_us = 0; since_us <= question.group_us + 1;
             since_us += question.group_us / 7 + 1) {
            question.since_key_us = since_us;
            const uint64_t allowed_us = StepAhead::disposable_lag_us(question, limit_us);
            ASSERT_GE(allowed_us, half_us);
            ASSERT_LE(allowed_us, std::max(half_us, key_us));
            ASSERT_LE(allowed_us, before_us);
            before_us = allowed_us;
            if (since_us == 0 && question.group_us != 0) {
                ASSERT_EQ(std::max(half_us, key_us), allowed_us) << "a quarter above what the key frame took";
            }
        }
        question.since_key_us = question.group_us;
        ASSERT_EQ(half_us, StepAhead::disposable_lag_us(question, limit_us));
    }
}

TEST(ThinningModel, EachFrameIsOfOneEpisodeAndEachEpisodeIsToldOnce) {
    SeededRandom random;
    Thinning thinning;
    uint64_t now_us = 5000000;
    uint64_t last_us = 0;
    uint64_t episodes = 0;
    Thinning::Sum all;
    Thinning::Sum open;
    Thinning::Sum told;
    const uint64_t limit_us = random.between<uint64_t>(0, 2000000);
    const uint64_t quiet_us = std::max(Thinning::QUIET_US, limit_us);
    for (int step = 0; step < 5000; ++step) {
        now_us += random.between<uint64_t>(0, 700000);
        if (random.oneIn(2)) {
            const auto bytes = random.between<int64_t>(0, 9000);
            thinning.leave_out(bytes, now_us);
            episodes += open.frames == 0 ? 1 : 0;
            for (Thinning::Sum* const sum : {&all, &open}) {
                sum->frames += 1;
                sum->bytes += static_cast<uint64_t>(bytes);
            }
            last_us = now_us;
        } else {
            const Thinning::Sum over = thinning.take_over(now_us, limit_us);
            const bool is_over = open.frames != 0 && now_us - last_us >= quiet_us;
            ASSERT_EQ(is_over ? open.frames : 0, over.frames);
            ASSERT_EQ(is_over ? open.bytes : 0, over.bytes);
            told.frames += over.frames;
            open = is_over ? Thinning::Sum{} : open;
        }
        ASSERT_EQ(episodes, thinning.episodes());
        ASSERT_EQ(all.frames, thinning.all().frames);
        ASSERT_EQ(all.bytes, thinning.all().bytes);
        ASSERT_EQ(all.frames, told.frames + open.frames);
    }
}

}  // namespace
}  // namespace Orvex::Testing
