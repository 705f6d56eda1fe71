// MediaTrace: a switch, and lines that go nowhere without a debug server.
#include "Tool/frame/MediaTrace.h"

#include <gtest/gtest.h>

#include "R3/print/FuncBox.h"

namespace Orvex::Reticor {
namespace {

TEST(MediaTrace, TheCommandSwitchesIt) {
    ASSERT_NE(nullptr, g_r3_funcbox);
    const TFuncEntry* const command = g_r3_funcbox->Find("MediaBufferPrt");
    ASSERT_NE(nullptr, command);
    EXPECT_FALSE(MediaTrace::on());
    command->func(1, 0, 0, 0, 0, 0, 0, 0, 0, 0);
    EXPECT_TRUE(MediaTrace::on());
    command->func(0, 0, 0, 0, 0, 0, 0, 0, 0, 0);
    EXPECT_FALSE(MediaTrace::on());
}

}  // namespace
}  // namespace Orvex::Reticor
