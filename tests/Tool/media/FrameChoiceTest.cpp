// FrameChoice: whether a sender takes a frame, from its place and the frame alone.
#include "Tool/media/FrameChoice.h"

#include "support/media/MediaFixture.h"

namespace Orvex::Testing {

using namespace Reticor;

namespace {

class FrameChoiceTests : public MediaFixture {
protected:
    FrameDecision decide(int channel, bool key) INFRA_NO_THREAD_SAFETY_ANALYSIS {
        CFrame frame;
        frame.m_level = mediaLevel(channel, key ? 1 : 5);
        frame.m_key_mask = key ? frame.channel_bit() : uint8_t{0};
        return FrameChoice::decide(record, frame, 0);
    }
    void lose(int channel) INFRA_NO_THREAD_SAFETY_ANALYSIS {
        CFrame frame;
        frame.m_level = mediaLevel(channel, 5);
        record.set_waits(frame, true);
    }

    SenderRecord& record = client().state();
};

using FrameChoiceOfASender = FrameChoiceTests;

TEST_F(FrameChoiceOfASender, TakesEveryFrameOfAChannelThatItWants) {
    EXPECT_TRUE(decide(0, false).send);
    EXPECT_TRUE(decide(7, true).send);
    record.choose_channel(2);
    EXPECT_TRUE(decide(2, false).send);
    EXPECT_FALSE(decide(3, true).send);
    record.give_up_channel(2);
    EXPECT_FALSE(decide(2, true).send);
    EXPECT_FALSE(decide(2, true).waits);
}

TEST_F(FrameChoiceOfASender, WaitsForAKeyFrameOfAChannelOnWhichOneWasLost) {
    lose(1);
    EXPECT_FALSE(decide(1, false).send);
    EXPECT_TRUE(decide(1, false).waits);
    EXPECT_TRUE(decide(1, true).send);
    EXPECT_FALSE(decide(1, true).waits);
    EXPECT_TRUE(decide(0, false).send) << "other channels do not wait";
}

TEST_F(FrameChoiceOfASender, AKeyFrameEndsTheWaitOfAChannelThatWasGivenUp) {
    lose(1);
    record.give_up_channel(1);
    EXPECT_TRUE(decide(1, false).waits);
    EXPECT_FALSE(decide(1, true).send);
    EXPECT_FALSE(decide(1, true).waits);
}

}  // namespace
}  // namespace Orvex::Testing
