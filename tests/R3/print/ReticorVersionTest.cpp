// The command `reticorversion`.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "R3/print/FuncBox.h"
#include "support/debug/DaemonStandIn.h"

namespace {

using Orvex::Reticor::g_r3_funcbox;
using Orvex::Testing::DaemonStandIn;

TEST(ReticorVersion, PrintsNameVersionAndTimeOfTheBuild) {
    DaemonStandIn daemon;
    g_r3_funcbox->Find("reticorversion")->func(0, 0, 0, 0, 0, 0, 0, 0, 0, 0);
    ASSERT_EQ(1U, daemon.texts().size());
    EXPECT_THAT(daemon.texts()[0], testing::MatchesRegex("Orvex<Reticor> 1\\.0\\.0 \\| [^\n]+ [^\n ]+\n"));
}

TEST(ReticorVersion, ArgumentsMakeNoDifference) {
    DaemonStandIn daemon;
    const Orvex::Reticor::TFuncEntry* entry = g_r3_funcbox->Find("reticorversion");
    entry->func(0, 0, 0, 0, 0, 0, 0, 0, 0, 0);
    entry->func(1, 2, 3, 4, 5, 6, 7, 8, 9, 10);
    ASSERT_EQ(2U, daemon.texts().size());
    EXPECT_EQ(daemon.texts()[0], daemon.texts()[1]);
}

TEST(ReticorVersion, WithoutADaemonPrintsNothing) {
    g_r3_funcbox->Find("reticorversion")->func(0, 0, 0, 0, 0, 0, 0, 0, 0, 0);
    DaemonStandIn daemon;
    EXPECT_TRUE(daemon.texts().empty()) << "a line without a listener is lost";
}

}  // namespace
