// ResumePolicy: where a sender with a limit of lag goes on, from its place and the frame alone.
#include "Tool/media/FrameChoice.h"

#include "support/media/MediaFixture.h"

namespace Orvex::Testing {

using namespace Reticor;

namespace {

constexpr uint64_t COMPLETE_US = 5000000;
constexpr unsigned LAG_MS = 200;

class ResumePolicyOfASender : public MediaFixture {
protected:
    ResumePolicyOfASender() { made.sender->SetResumePolicy(LAG_MS, MediaResume::STRICT); }

    // A frame of channel 0 that is `age_us` old; the last one that went out was number `last`.
    FrameDecision decide(uint64_t ordinal, uint64_t last, bool key,
                         uint64_t age_us = 0) INFRA_NO_THREAD_SAFETY_ANALYSIS {
        CFrame frame;
        frame.m_ordinal = ordinal;
        frame.m_key_mask = key ? 1 : 0;
        frame.m_complete_us = COMPLETE_US;
        CFrame before;
        before.m_ordinal = last;
        record.m_courses.begin(before);
        return ResumePolicy::decide(record, frame, COMPLETE_US + age_us);
    }
    void wait() INFRA_NO_THREAD_SAFETY_ANALYSIS { record.set_waits(CFrame(), true); }

    MediaClient& made = client();
    SenderRecord& record = made.state();
};

TEST_F(ResumePolicyOfASender, AFrameThatFollowsIsTaken) {
    EXPECT_TRUE(decide(5, 4, false).send);
    EXPECT_FALSE(decide(5, 4, false).waits);
}

TEST_F(ResumePolicyOfASender, AfterAGapOnlyAKeyFrameIsTaken) {
    EXPECT_FALSE(decide(6, 4, false).send);
    EXPECT_TRUE(decide(6, 4, false).waits);
    EXPECT_TRUE(decide(6, 4, true).send);
    EXPECT_FALSE(decide(6, 4, true).waits);
}

TEST_F(ResumePolicyOfASender, TheLimitOfLagIsExact) {
    EXPECT_TRUE(decide(5, 4, false, LAG_MS * 1000).send);
    EXPECT_FALSE(decide(5, 4, false, LAG_MS * 1000 + 1).send);
    EXPECT_FALSE(decide(5, 4, true, LAG_MS * 1000 + 1).send) << "a key frame that is too old is none";
    EXPECT_TRUE(decide(5, 4, true, LAG_MS * 1000 + 1).waits);
}

TEST_F(ResumePolicyOfASender, WhoWaitsTakesNoFollowerButAKeyFrame) {
    wait();
    EXPECT_FALSE(decide(5, 4, false).send);
    EXPECT_TRUE(decide(5, 4, true).send);
    EXPECT_FALSE(decide(5, 4, true).waits);
}

}  // namespace
}  // namespace Orvex::Testing
