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

int newStream() {
    return ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
}

TEST(CloseCount, ClosingRaisesTheCountOfThatNumberOnly) {
    const int handle = newStream();
    const std::uint32_t before = close_count(handle);
    const std::uint32_t neighbour = close_count(handle + 1);
    EXPECT_EQ(0, close_counted(handle));
    EXPECT_FALSE(Testing::isOpen(handle));
    EXPECT_EQ(close_count(handle), before + 1);
    EXPECT_EQ(close_count(handle + 1), neighbour);
}

TEST(CloseCount, NumbersShareCountersModuloTheTable) {
    const int handle = newStream();
    const std::uint32_t before = close_count(handle + 4096);
    const std::uint32_t other = close_count(handle + 2048);
    close_counted(handle);
    EXPECT_EQ(close_count(handle + 4096), before + 1);
    EXPECT_EQ(close_count(handle + 2048), other);
}

TEST(CloseCount, DeadNumbersAreReportedAndHarmless) {
    errno = 0;
    EXPECT_EQ(-1, close_counted(-1));
    EXPECT_EQ(EBADF, errno);
    close_count(-1);
    close_count(0x7FFFFFFF);
}

TEST(CloseCount, EveryCloseOfASocketIsCounted) {
    const int handle = newStream();
    std::uint32_t count = close_count(handle);
    {
        CSock sock;
        ASSERT_EQ(0, sock.Attach(handle));
        sock.Close();
        EXPECT_EQ(close_count(handle), ++count) << "Close";
        ASSERT_EQ(newStream(), handle);
        ASSERT_EQ(0, sock.Attach(handle));
    }
    EXPECT_EQ(close_count(handle), ++count) << "destructor";

    CSock unreachable;
    const CSockAddrIPv4 nobody("127.0.0.1", Testing::refusingPort(unreachable));
    CSockStream stream;
    ASSERT_EQ(0, stream.Connect(nobody, nullptr));
    const int first = stream.GetHandle();
    count = close_count(first);
    ASSERT_EQ(0, stream.Connect(nobody, nullptr));
    EXPECT_EQ(close_count(first), ++count) << "reconnect";
    stream.SetBlockOpt(true);
    EXPECT_EQ(-1, stream.Connect(nobody, nullptr));
    EXPECT_EQ(close_count(first), count + 2) << "reconnect and failed connect";

    CSockAcceptor acceptor;
    ASSERT_NE(0, Testing::openOnLoopback(acceptor));
    const int listening = acceptor.GetHandle();
    count = close_count(listening);
    EXPECT_EQ(-1, acceptor.Open(CSockAddrStorage()));
    EXPECT_EQ(close_count(listening), ++count) << "Open";
}

TEST(CloseCount, DetachingCountsNothing) {
    LoopbackPair pair;
    ASSERT_TRUE(pair.connected);
    const int handle = pair.client.GetHandle();
    const std::uint32_t before = close_count(handle);
    EXPECT_EQ(pair.client.Detach(), handle);
    EXPECT_EQ(close_count(handle), before);
    ::close(handle);
}

}  // namespace
}  // namespace Orvex::Reticor
