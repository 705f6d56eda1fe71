// TargetStepMark: a thread knows whether it is inside, and calls its guests when it is out.
#include "Tool/step/TargetStepMark.h"

#include <gtest/gtest.h>

#include <thread>
#include <utility>

namespace Orvex::Reticor {
namespace {

struct Guest final : StepGuest_IF {
    void come() override {
        EXPECT_TRUE(TargetStepMark::inside());
        ++visits;
        TargetStepMark::enter();
        TargetStepMark::leave();
        if (next != nullptr) {
            TargetStepMark::await(*std::exchange(next, nullptr));
        }
    }
    int visits = 0;
    Guest* next = nullptr;
};

TEST(TargetStepMark, GuestsComeOnceWhenTheLastMarkHasGone) {
    Guest late;
    Guest guest;
    guest.next = &late;
    EXPECT_FALSE(TargetStepMark::inside());
    TargetStepMark::enter();
    TargetStepMark::enter();
    TargetStepMark::await(guest);
    TargetStepMark::leave();
    EXPECT_EQ(0, guest.visits);
    TargetStepMark::leave();
    EXPECT_EQ(1, guest.visits);
    EXPECT_EQ(1, late.visits) << "one that a guest brings comes as well";
    TargetStepMark::enter();
    TargetStepMark::leave();
    EXPECT_EQ(1, guest.visits);
    EXPECT_FALSE(TargetStepMark::inside());
}

TEST(TargetStepMark, EachThreadHasItsOwn) {
    TargetStepMark::enter();
    std::thread([] { EXPECT_FALSE(TargetStepMark::inside()); }).join();
    TargetStepMark::leave();
}

}  // namespace
}  // namespace Orvex::Reticor
