// StepAhead: each sentence of the rule for senders that step ahead when they are late.
#include "Tool/frame/StepAhead.h"

#include <gtest/gtest.h>

namespace Orvex::Testing {

using namespace Reticor;

namespace {

constexpr uint64_t LIMIT_US = 1000000;
constexpr uint64_t HARD_US = 3000000;

enum class Does { SENDS, PASSES, PASSES_AND_WAITS, LEAVES_OUT };

Does does(const AheadQuestion& question, uint64_t hard_us = 0) {
    const FrameDecision decision = StepAhead::decide(question, {LIMIT_US, hard_us});
    if (decision.leaves_out) {
        EXPECT_FALSE(decision.send || decision.waits);
        return Does::LEAVES_OUT;
    }
    EXPECT_FALSE(decision.send && decision.waits);
    return decision.send ? Does::SENDS : decision.waits ? Does::PASSES_AND_WAITS : Does::PASSES;
}

AheadQuestion aged(uint64_t age_us) {
    AheadQuestion question;
    question.age_us = age_us;
    return question;
}
AheadQuestion disposable(uint64_t age_us) {
    AheadQuestion question = aged(age_us);
    question.disposable = true;
    return question;
}
AheadQuestion keyed(uint64_t age_us) {
    AheadQuestion question = aged(age_us);
    question.key = true;
    return question;
}

TEST(StepAheadRule, AFrameInTimeIsSent) {
    EXPECT_EQ(Does::SENDS, does(aged(0)));
    AheadQuestion question = aged(LIMIT_US);
    question.newer_key = true;
    EXPECT_EQ(Does::SENDS, does(question)) << "the limit is exact";
}

TEST(StepAheadRule, ALateFrameIsSteppedOverIfThereIsANewerKeyFrame) {
    AheadQuestion question = aged(LIMIT_US + 1);
    question.newer_key = true;
    EXPECT_EQ(Does::PASSES_AND_WAITS, does(question));
    question.key = true;
    EXPECT_EQ(Does::PASSES_AND_WAITS, does(question)) << "the newest is what it goes to";
}

TEST(StepAheadRule, ALateFrameIsSentIfThereIsNone) {
    EXPECT_EQ(Does::SENDS, does(aged(100 * LIMIT_US)));
}

TEST(StepAheadRule, TheNewestKeyFrameEndsTheWaitLateOrNot) {
    AheadQuestion question = keyed(100 * LIMIT_US);
    question.waits = true;
    EXPECT_EQ(Does::SENDS, does(question));
    question.newer_key = true;
    EXPECT_EQ(Does::PASSES_AND_WAITS, does(question));
}

TEST(StepAheadRule, AfterAGapAKeyFrameIsWaitedFor) {
    AheadQuestion question = aged(0);
    question.gap = true;
    EXPECT_EQ(Does::PASSES_AND_WAITS, does(question));
    question.key = true;
    EXPECT_EQ(Does::SENDS, does(question));
    question.newer_key = true;
    EXPECT_EQ(Does::PASSES_AND_WAITS, does(question));
}

TEST(StepAheadRule, WhileItWaitsNothingButAKeyFrameIsSent) {
    AheadQuestion question = aged(0);
    question.waits = true;
    EXPECT_EQ(Does::PASSES_AND_WAITS, does(question));
    question.disposable = true;
    EXPECT_EQ(Does::PASSES_AND_WAITS, does(question));
}

TEST(StepAheadRule, AboveTheHardBoundNothingIsSentButAKeyFrame) {
    EXPECT_EQ(Does::SENDS, does(aged(HARD_US), HARD_US));
    EXPECT_EQ(Does::PASSES_AND_WAITS, does(aged(HARD_US + 1), HARD_US));
    EXPECT_EQ(Does::SENDS, does(keyed(HARD_US + 1), HARD_US)) << "a picture that stands is better than none";
    AheadQuestion old_key = keyed(HARD_US + 1);
    old_key.newer_key = true;
    EXPECT_EQ(Does::PASSES_AND_WAITS, does(old_key, HARD_US));
}

TEST(StepAheadRule, AFollowerIsSentWhateverItsAge) {
    AheadQuestion question = keyed(100 * LIMIT_US);
    question.follows = true;
    question.newer_key = true;
    question.gap = true;
    question.waits = true;
    EXPECT_EQ(Does::SENDS, does(question));
}

TEST(StepAheadRule, AFollowerIsPassedAboveTheHardBound) {
    AheadQuestion question = keyed(HARD_US + 1);
    question.follows = true;
    EXPECT_EQ(Does::PASSES, does(question, HARD_US));
    question.age_us = HARD_US;
    EXPECT_EQ(Does::SENDS, does(question, HARD_US));
}

TEST(StepAheadRule, ADisposableFrameIsLeftOutAboveHalfTheLimit) {
    EXPECT_EQ(Does::SENDS, does(disposable(LIMIT_US / 2)));
    EXPECT_EQ(Does::LEAVES_OUT, does(disposable(LIMIT_US / 2 + 1)));
}

TEST(StepAheadRule, ADisposableFrameThatMayReferToAMissingOneIsLeftOut) {
    AheadQuestion question = disposable(0);
    question.refers = true;
    EXPECT_EQ(Does::LEAVES_OUT, does(question));
    question.disposable = false;
    EXPECT_EQ(Does::SENDS, does(question)) << "others refer to none such";
}

TEST(StepAheadRule, AfterALargeKeyFrameMoreIsAllowedAndLessAndLessUpToTheNext) {
    AheadQuestion question = disposable(0);
    question.key_took_us = 1600000;  // a quarter above it: 2 s
    question.group_us = 10000000;
    EXPECT_EQ(2000000U, StepAhead::disposable_lag_us(question, LIMIT_US));
    question.since_key_us = 5000000;
    EXPECT_EQ(1250000U, StepAhead::disposable_lag_us(question, LIMIT_US));
    question.age_us = 1250000;
    EXPECT_EQ(Does::SENDS, does(question));
    question.age_us = 1250001;
    EXPECT_EQ(Does::LEAVES_OUT, does(question));
    question.since_key_us = 10000000;
    EXPECT_EQ(LIMIT_US / 2, StepAhead::disposable_lag_us(question, LIMIT_US));
    question.since_key_us = 99000000;
    EXPECT_EQ(LIMIT_US / 2, StepAhead::disposable_lag_us(question, LIMIT_US));
}

TEST(StepAheadRule, ASmallKeyFrameOrAnUnknownGroupLeavesItAtHalfTheLimit) {
    AheadQuestion question = disposable(0);
    question.key_took_us = 400000;
    question.group_us = 10000000;
    EXPECT_EQ(LIMIT_US / 2, StepAhead::disposable_lag_us(question, LIMIT_US));
    question.key_took_us = 1600000;
    question.group_us = 0;
    EXPECT_EQ(LIMIT_US / 2, StepAhead::disposable_lag_us(question, LIMIT_US));
}

TEST(StepAheadRule, DisposableFramesObeyTheHardBoundToo) {
    AheadQuestion question = disposable(HARD_US + 1);
    question.key_took_us = 10 * HARD_US;
    question.group_us = 10 * HARD_US;
    EXPECT_EQ(Does::PASSES_AND_WAITS, does(question, HARD_US));
}

}  // namespace
}  // namespace Orvex::Testing
