// CloseCount: every close in the library moves the counter of its number.
#include "Socket/socket/CloseCount.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>

#include <Reticor/SockAddrStorage.h>

#include "support/socket/Loopback.h"

namespace Orvex::Reticor {
namespace {

using Testing::LoopbackPair;

int newHandle() {
    return ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
}

TEST(CloseCount, ClosingRaisesTheCountOfThatNumberOnly) {
    const int handle = newHandle();
    const std::uint32_t before = closeCount(handle);
    const std::uint32_t neighbour = closeCount(handle + 1);
    EXPECT_EQ(0, closeCounted(handle));
    EXPECT_FALSE(Testing::isOpen(handle));
    EXPECT_EQ(closeCount(handle), before + 1);
    EXPECT_EQ(closeCount(handle + 1), neighbour);
}

TEST(CloseCount, NumbersShareCountersModuloTheTable) {
    const int handle = newHandle();
    const std::uint32_t before = closeCount(handle + 4096);
    const std::uint32_t other = closeCount(handle + 2048);
    closeCounted(handle);
    EXPECT_EQ(closeCount(handle + 4096), before + 1);
    EXPECT_EQ(closeCount(handle + 2048), other);
}

TEST(CloseCount, DeadNumbersAreReportedAndHarmless) {
    errno = 0;
    EXPECT_EQ(-1, closeCounted(-1));
    EXPECT_EQ(EBADF, errno);
    closeCount(-1);
    closeCount(0x7FFFFFFF);
}

TEST(CloseCount, EveryCloseOfASocketIsCounted) {
    const int handle = newHandle();
    std::uint32_t count = closeCount(handle);
    {
        CSock sock;
        ASSERT_EQ(0, sock.Attach(handle));
        sock.Close();
        EXPECT_EQ(closeCount(handle), ++count) << "Close";
        ASSERT_EQ(newHandle(), handle);
        ASSERT_EQ(0, sock.Attach(handle));
    }
    EXPECT_EQ(closeCount(handle), ++count) << "destructor";

    CSock unreachable;
    const CSockAddrIPv4 nobody("127.0.0.1", Testing::refusingPort(unreachable));
    CSockStream stream;
    ASSERT_EQ(0, stream.Connect(nobody, nullptr));
    const int first = stream.GetHandle();
    count = closeCount(first);
    ASSERT_EQ(0, stream.Connect(nobody, nullptr));
    EXPECT_EQ(closeCount(first), ++count) << "reconnect";
    stream.SetBlockOpt(true);
    EXPECT_EQ(-1, stream.Connect(nobody, nullptr));
    EXPECT_EQ(closeCount(first), count + 2) << "reconnect and failed connect";

    CSockAcceptor acceptor;
    ASSERT_NE(0, Testing::openOnLoopback(acceptor));
    const int listening = acceptor.GetHandle();
    count = closeCount(listening);
    EXPECT_EQ(-1, acceptor.Open(CSockAddrStorage()));
    EXPECT_EQ(closeCount(listening), ++count) << "Open";
}

TEST(CloseCount, DetachingCountsNothing) {
    LoopbackPair pair;
    ASSERT_TRUE(pair.connected);
    const int handle = pair.client.GetHandle();
    const std::uint32_t before = closeCount(handle);
    EXPECT_EQ(pair.client.Detach(), handle);
    EXPECT_EQ(closeCount(handle), before);
    ::close(handle);
}

}  // namespace
}  // namespace Orvex::Reticor
