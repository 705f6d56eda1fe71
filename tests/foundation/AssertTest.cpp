// The report of a failed assertion.
#include <Infra/Assert.h>

#include <gtest/gtest.h>
#include <signal.h>

#include <cassert>

namespace Orvex::Infra {
namespace {

TEST(AssertDeath, ReportNamesExpressionFunctionFileAndLineAndEndsTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(Detail::assertionFailed("p != 0", "Orvex::f", "include/component/ComPtr.h", 81),
                testing::KilledBySignal(SIGABRT),
                "include/component/ComPtr.h:81: Orvex::f: Assertion `p != 0' failed.\n");
}

TEST(AssertDeath, MissingTextsDoNotKeepTheReportFromBeingMade) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(Detail::assertionFailed(nullptr, nullptr, nullptr, 1),
                 "\\(null\\):1: \\(null\\): Assertion `\\(null\\)' failed.");
}

TEST(AssertDeath, AssertionsAreAliveInThisBuild) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const int zero = 0;
    EXPECT_DEATH(assert(zero == 1), "Assertion `zero == 1' failed");
}

}  // namespace
}  // namespace Orvex::Infra
