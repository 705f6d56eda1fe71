// KeptLine: frames come in order, and go by need, time and bytes.
#include "Tool/media/KeptLine.h"

#include "support/media/MediaFixture.h"

namespace Orvex::Testing {

using namespace Reticor;

namespace {

class KeptLineOfABuffer : public MediaFixture {
protected:
    CFrame& frame(uint64_t complete_us, int64_t bytes = 10) {
        CFrame& made = own.emplace_back();
        made.m_complete_us = complete_us;
        made.m_frame_len = bytes;
        kept.append(made);
        return made;
    }
    CFrame* take_over(uint64_t now_us) {
        const CoreGuard guard(*state().m_core);
        return kept.take_over(now_us, nullptr);
    }

    std::deque<CFrame> own;
    KeptLine kept;
};

TEST_F(KeptLineOfABuffer, FramesComeInOrderAndAreCounted) {
    EXPECT_TRUE(kept.empty());
    CFrame& first = frame(1);
    CFrame& second = frame(2, 7);
    EXPECT_EQ(&first, kept.head());
    EXPECT_EQ(&second, first.m_kept_next);
    EXPECT_TRUE(second.m_kept);
    EXPECT_EQ(17U, kept.bytes());
    EXPECT_EQ(&first, kept.take_head());
    EXPECT_FALSE(first.m_kept);
    EXPECT_EQ(&second, kept.take_head());
    EXPECT_EQ(nullptr, kept.take_head());
    CFrame& third = frame(3);
    EXPECT_EQ(&third, kept.head()) << "the end is where it was";
    EXPECT_EQ(10U, kept.bytes());
}

TEST_F(KeptLineOfABuffer, WhatNoSenderHoldsGoesUpToTheFirstThatOneHolds) {
    CFrame& first = frame(1);
    CFrame& second = frame(2);
    second.add_holder();
    frame(3);
    EXPECT_EQ(&first, kept.take_passed());
    EXPECT_EQ(nullptr, kept.take_passed());
    second.remove_holder();
    EXPECT_EQ(&second, kept.take_passed());
}

TEST_F(KeptLineOfABuffer, WhatIsTooOldGoesThoughASenderHoldsIt) {
    kept.set_bounds(1000, 1000000);
    CFrame& first = frame(1);
    first.add_holder();
    frame(500);
    EXPECT_EQ(nullptr, take_over(1001)) << "the bound is exact";
    EXPECT_EQ(&first, take_over(1002));
    EXPECT_EQ(nullptr, take_over(1002));
}

TEST_F(KeptLineOfABuffer, WhatIsTooMuchGoesFromTheOldestOn) {
    kept.set_bounds(1000000, 25);
    CFrame& first = frame(1);
    frame(2);
    EXPECT_EQ(nullptr, take_over(2));
    frame(3);
    EXPECT_EQ(&first, take_over(3));
    EXPECT_EQ(nullptr, take_over(3));
}

}  // namespace
}  // namespace Orvex::Testing
