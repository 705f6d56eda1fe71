// AutoSend: on is once on the timer's list, off is not at all.
#include "Tool/step/AutoSend.h"

#include "Tool/step/TargetStepMark.h"
#include "support/core/StillPool.h"
#include "support/media/SenderHandlerProbe.h"

namespace Orvex::Testing {

using namespace Reticor;

namespace {

struct Target final : SendTarget_IF {
    void do_send() override { ++sends; }
    int sends = 0;
};

// The timer ticks by the test's hand.
class AutoSendOfABuffer : public ::testing::Test {
protected:
    ~AutoSendOfABuffer() override {
        own.disable();
        other.disable();
        SenderHandlerProbe::tick();
        for (CEvent* ev : rig.takeQueue()) {
            rig.serve(ev);
        }
    }

    StillPool rig{0};
    Target target;
    Target others;
    AutoSend own{target};
    AutoSend other{others};
};

TEST_F(AutoSendOfABuffer, SwitchedOnTwiceItIsCalledOnceInATick) {
    own.enable(70);
    own.enable(80);
    EXPECT_TRUE(SenderHandlerProbe::tick());
    EXPECT_EQ(1, target.sends);
    EXPECT_EQ(70U, SenderHandlerProbe::interval(*SenderHandlerProbe::running()));
}

TEST_F(AutoSendOfABuffer, SwitchedOffItIsNotCalledAndTheOthersAre) {
    own.enable(100);
    other.enable(100);
    own.disable();
    EXPECT_TRUE(SenderHandlerProbe::tick());
    EXPECT_EQ(0, target.sends);
    EXPECT_EQ(1, others.sends);
    own.disable();
    EXPECT_TRUE(SenderHandlerProbe::tick()) << "off is off, and takes nobody else's record away";
    EXPECT_EQ(2, others.sends);
}

TEST_F(AutoSendOfABuffer, SwitchedOffAndOnAgainItIsCalledAgain) {
    own.enable(100);
    own.disable();
    own.enable(100);
    SenderHandlerProbe::tick();
    EXPECT_EQ(1, target.sends);
}

TEST_F(AutoSendOfABuffer, InsideACallBackOfABufferBothAssert) {
    TargetStepMark::enter();
    EXPECT_DEATH(own.enable(100), "auto-send must not be switched");
    EXPECT_DEATH(own.disable(), "auto-send must not be switched");
    TargetStepMark::leave();
}

}  // namespace
}  // namespace Orvex::Testing
