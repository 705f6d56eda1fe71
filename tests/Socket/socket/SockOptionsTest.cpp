// SockOptions: what the system holds after each of them.
#include "Socket/socket/SockOptions.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>

#include "support/LogCapture.h"

namespace Orvex::Reticor {
namespace {

struct Descriptor {
    explicit Descriptor(int type) : number(::socket(AF_INET, type | SOCK_CLOEXEC, 0)) {}
    ~Descriptor() { ::close(number); }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;

    int option(int level, int name) const {
        int value = -1;
        socklen_t length = sizeof value;
        EXPECT_EQ(0, ::getsockopt(number, level, name, &value, &length));
        return value;
    }

    const int number;
};

TEST(SockOptions, SizesOfBuffersComeBackAsTheKernelHoldsThem) {
    const Descriptor sock(SOCK_DGRAM);
    const SockOptions options(sock.number);
    EXPECT_EQ(0, options.set_receive_buffer(20000));
    EXPECT_EQ(0, options.set_send_buffer(30000));
    EXPECT_EQ(40000, options.receive_buffer());
    EXPECT_EQ(60000, options.send_buffer());
}

TEST(SockOptions, SwitchesGoOnAndOff) {
    const Descriptor sock(SOCK_STREAM);
    const SockOptions options(sock.number);
    for (const bool on : {true, false}) {
        EXPECT_EQ(0, options.set_keep_alive(on));
        EXPECT_EQ(0, options.set_no_delay(on));
        EXPECT_EQ(on ? 1 : 0, sock.option(SOL_SOCKET, SO_KEEPALIVE));
        EXPECT_EQ(on ? 1 : 0, sock.option(IPPROTO_TCP, TCP_NODELAY));
    }
}

TEST(SockOptions, PortIsSharedAndBroadcastAllowedWhenAskedFor) {
    const Descriptor sock(SOCK_DGRAM);
    const SockOptions options(sock.number);
    EXPECT_EQ(0, sock.option(SOL_SOCKET, SO_REUSEADDR));
    EXPECT_EQ(0, options.share_port());
    EXPECT_EQ(1, sock.option(SOL_SOCKET, SO_REUSEADDR));
    EXPECT_EQ(0, sock.option(SOL_SOCKET, SO_BROADCAST));
    EXPECT_EQ(0, options.allow_broadcast());
    EXPECT_EQ(1, sock.option(SOL_SOCKET, SO_BROADCAST));
}

TEST(SockOptions, FailureIsSilentAndLeavesItsError) {
    const Testing::LogCapture log;
    const SockOptions options(-1);
    for (const int result : {options.set_receive_buffer(1), options.set_send_buffer(1),
                             options.receive_buffer(), options.send_buffer(), options.set_keep_alive(true),
                             options.set_no_delay(true), options.share_port(), options.allow_broadcast()}) {
        EXPECT_EQ(-1, result);
    }
    EXPECT_EQ(EBADF, errno);
    EXPECT_TRUE(log.lines().empty());
}

}  // namespace
}  // namespace Orvex::Reticor
