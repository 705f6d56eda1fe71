// SockError: texts of errors, and errno on its way to the caller.
#include "Socket/address/SockError.h"

#include <netdb.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include <Infra/Log.h>

#include "support/LogCapture.h"
#include "support/socket/Allocations.h"

namespace Orvex::Reticor {
namespace {

TEST(SockError, TextIsTheSystems) {
    EXPECT_EQ("Connection refused", GetSockErrorText(ECONNREFUSED));
    EXPECT_EQ("Bad file descriptor", GetSockErrorText(EBADF));
    EXPECT_EQ("Unknown error 123456", GetSockErrorText(123456));
}

TEST(SockError, CodesOfLookUpsHaveTextsToo) {
    EXPECT_EQ("Name or service not known", GetSockErrorText(EAI_NONAME));
    EXPECT_EQ("Temporary failure in name resolution", GetSockErrorText(EAI_AGAIN));
}

TEST(SockError, TextLeavesErrnoAlone) {
    errno = EPIPE;
    GetSockErrorText(123456);
    EXPECT_EQ(EPIPE, errno);
}

TEST(SockError, WithoutMemoryTheTextIsEmptyAndErrnoLeftAlone) {
    const Testing::NoMemory no_memory;
    errno = EPIPE;
    EXPECT_TRUE(GetSockErrorText(EAFNOSUPPORT).empty());
    EXPECT_EQ(EPIPE, errno);
}

TEST(SockError, ThreadsDoNotShareTheirTexts) {
    std::vector<std::thread> threads;
    std::vector<int> wrong(4, 0);
    for (std::size_t i = 0; i < wrong.size(); ++i) {
        threads.emplace_back([i, &wrong] {
            const int error = 200000 + static_cast<int>(i);
            const std::string expected = "Unknown error " + std::to_string(error);
            for (int round = 0; round < 2000; ++round) {
                wrong[i] += GetSockErrorText(error) == expected ? 0 : 1;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(wrong, std::vector<int>(4, 0));
}

TEST(SockError, FailingKeepsTheErrorForTheCaller) {
    errno = 0;
    EXPECT_EQ(-1, fail_with(ECONNRESET));
    EXPECT_EQ(ECONNRESET, errno);
}

TEST(SockError, TryAgainMeansWouldBlockOrInterrupted) {
    EXPECT_TRUE(is_try_again(EWOULDBLOCK));
    EXPECT_TRUE(is_try_again(EAGAIN));
    EXPECT_TRUE(is_try_again(EINTR));
    EXPECT_FALSE(is_try_again(EINPROGRESS));
    EXPECT_FALSE(is_try_again(ECONNRESET));
}

struct Caller {
    int fail() { return SOCK_FAILED("it failed, %s\n"); }
    int fail_with_port(int port) { return SOCK_FAILED_WITH("it failed at %d %s\n", port); }
};

TEST(SockError, FailedOperationLogsItsNameItsObjectAndTheSystemsText) {
    Caller caller;
    const Testing::LogCapture log;
    errno = EPIPE;
    EXPECT_EQ(-1, caller.fail());
    EXPECT_EQ(EPIPE, errno);
    EXPECT_EQ(-1, caller.fail_with_port(42));
    EXPECT_EQ(EPIPE, errno);
    const auto lines = log.lines();
    ASSERT_EQ(2u, lines.size());
    char self[32];
    std::snprintf(self, sizeof self, "this:%p", static_cast<void*>(&caller));
    EXPECT_EQ(2, lines[0].level);
    EXPECT_THAT(lines[0].start, ::testing::HasSubstr(self));
    EXPECT_THAT(lines[0].text, ::testing::EndsWith("Caller::fail : it failed, Broken pipe\n"));
    EXPECT_THAT(lines[1].text, ::testing::EndsWith("Caller::fail_with_port : it failed at 42 Broken pipe\n"));
}

}  // namespace
}  // namespace Orvex::Reticor
