// SockError: texts of errors, and errno on its way to the caller.
#include "Socket/address/SockError.h"

#include <netdb.h>

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "support/socket/Allocations.h"

namespace Orvex::Reticor {
namespace {

TEST(SockError, TextIsTheSystems) {
    EXPECT_EQ(GetSockErrorText(ECONNREFUSED), "Connection refused");
    EXPECT_EQ(GetSockErrorText(EBADF), "Bad file descriptor");
    EXPECT_EQ(GetSockErrorText(123456), "Unknown error 123456");
}

TEST(SockError, CodesOfLookUpsHaveTextsToo) {
    EXPECT_EQ(GetSockErrorText(EAI_NONAME), "Name or service not known");
    EXPECT_EQ(GetSockErrorText(EAI_AGAIN), "Temporary failure in name resolution");
}

TEST(SockError, TextLeavesErrnoAlone) {
    errno = EPIPE;
    GetSockErrorText(123456);
    EXPECT_EQ(errno, EPIPE);
}

TEST(SockError, WithoutMemoryTheTextIsEmptyAndErrnoLeftAlone) {
    const Testing::NoMemory no_memory;
    errno = EPIPE;
    EXPECT_TRUE(GetSockErrorText(EAFNOSUPPORT).empty());
    EXPECT_EQ(errno, EPIPE);
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
    EXPECT_EQ(failWith(ECONNRESET), -1);
    EXPECT_EQ(errno, ECONNRESET);
}

TEST(SockError, TryAgainMeansWouldBlockOrInterrupted) {
    EXPECT_TRUE(isTryAgain(EWOULDBLOCK));
    EXPECT_TRUE(isTryAgain(EAGAIN));
    EXPECT_TRUE(isTryAgain(EINTR));
    EXPECT_FALSE(isTryAgain(EINPROGRESS));
    EXPECT_FALSE(isTryAgain(ECONNRESET));
}

}  // namespace
}  // namespace Orvex::Reticor
