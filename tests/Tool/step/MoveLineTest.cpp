// MoveLine: whoever waits is called once, in the order of coming, and can leave until then.
#include "Tool/step/MoveLine.h"

#include <gtest/gtest.h>

#include <functional>
#include <vector>

#include "Tool/step/MediaStep.h"

namespace Orvex::Testing {

using namespace Reticor;

namespace {

struct Mover final : MoveGuest_IF {
    void called(const MediaCore& core, bool gone) override {
        EXPECT_EQ(expected, &core);
        ++calls;
        was_gone = gone;
        if (on_call) {
            on_call();
        }
    }
    const MediaCore* expected = nullptr;
    std::function<void()> on_call;
    int calls = 0;
    bool was_gone = false;
};

class MoveLineOfABuffer : public ::testing::Test {
protected:
    MoveLineOfABuffer() {
        for (Mover& one : movers) {
            one.expected = &core;
        }
    }

    MediaCore core;
    MoveLine line;
    Mover movers[3];
};

TEST_F(MoveLineOfABuffer, EachOneIsCalledOnce) {
    EXPECT_TRUE(line.empty());
    line.add(movers[0]);
    line.add(movers[1]);
    EXPECT_FALSE(line.empty());
    line.call_all(core);
    line.call_all(core);
    EXPECT_EQ(1, movers[0].calls);
    EXPECT_EQ(1, movers[1].calls);
    EXPECT_FALSE(movers[0].was_gone);
    EXPECT_TRUE(line.empty());
}

TEST_F(MoveLineOfABuffer, WhoeverLeavesIsNotCalled) {
    for (Mover& one : movers) {
        line.add(one);
    }
    EXPECT_TRUE(line.remove(movers[1]));
    EXPECT_FALSE(line.remove(movers[1]));
    line.call_all(core, true);
    EXPECT_EQ(1, movers[0].calls);
    EXPECT_EQ(0, movers[1].calls);
    EXPECT_EQ(1, movers[2].calls);
    EXPECT_TRUE(movers[2].was_gone);
}

TEST_F(MoveLineOfABuffer, WhoeverComesAgainInsideItsCallIsCalledTheNextTime) {
    movers[0].on_call = [this] { line.add(movers[0]); };
    line.add(movers[0]);
    line.call_all(core);
    EXPECT_EQ(1, movers[0].calls);
    line.call_all(core);
    EXPECT_EQ(2, movers[0].calls);
}

}  // namespace

}  // namespace Orvex::Testing
