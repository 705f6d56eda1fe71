// SocketWriter: each kind of socket is written to by its own operation.
#include "Socket/socket/SocketWriter.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <string>

#include <Reticor/SimulatorStream.h>
#include <Reticor/SockAcceptor.h>
#include <Reticor/SockAddrIPv4.h>
#include <Reticor/SockAddrStorage.h>
#include <Reticor/SockDgram.h>
#include <Reticor/SockStream.h>
#include <Reticor/SslStream.h>

#include "support/LogCapture.h"
#include "support/socket/Loopback.h"

namespace Orvex::Reticor {
namespace {

using Testing::LogCapture;

constexpr uint32_t KINDS[] = {SOCK_TYPE_STREAM,    SOCK_TYPE_DGRAM,    SOCK_TYPE_SSL_STREAM,
                              SOCK_TYPE_SIMULATOR, SOCK_TYPE_ACCEPTOR, SOCK_TYPE_UNKNOWN};

char ab[] = "ab";
char cde[] = "cde";
const iovec PIECES[] = {{ab, 2}, {cde, 3}};

/// Two ends that know each other; the far one is read from here.
struct Ends {
    Ends() { EXPECT_EQ(0, ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, fds)); }
    ~Ends() {
        ::close(fds[0]);
        ::close(fds[1]);
    }
    std::string read() const {
        char bytes[64];
        const ssize_t length = ::recv(fds[1], bytes, sizeof bytes, MSG_DONTWAIT);
        return length < 0 ? "nothing" : std::string(bytes, static_cast<size_t>(length));
    }
    int fds[2] = {-1, -1};
};

/// Lends a socket the near end.
class Lent {
public:
    explicit Lent(const Ends& ends) { sock.Attach(ends.fds[0]); }
    ~Lent() { sock.Detach(); }
    CSockStream sock;
};

TEST(SocketWriter, WritesToAStream) {
    const Ends ends;
    Lent near(ends);
    const SocketWriter writer(near.sock);
    EXPECT_EQ(4, writer.send("four", 4));
    EXPECT_EQ("four", ends.read());
    EXPECT_EQ(5, writer.write_v(PIECES, 2));
    EXPECT_EQ("abcde", ends.read());
}

TEST(SocketWriter, GivesZeroWhenAStreamTakesNothingAndMinusOneWhenItFailed) {
    const Ends ends;
    Lent near(ends);
    const SocketWriter writer(near.sock);
    const std::string much(1 << 16, 'm');
    for (int i = 0; i < 10000 && writer.send(much.data(), 1 << 16) > 0; ++i) {
    }
    EXPECT_EQ(0, writer.send("x", 1));
    EXPECT_EQ(0, writer.write_v(PIECES, 2));
    ASSERT_EQ(0, ::shutdown(ends.fds[0], SHUT_WR));
    EXPECT_EQ(-1, writer.send("x", 1));
    EXPECT_EQ(-1, writer.write_v(PIECES, 2));
}

TEST(SocketWriter, WritesEachCallAsOneDatagramToThePeer) {
    const CSockAddrIPv4 any_port("127.0.0.1", 0);
    CSockDgram far;
    ASSERT_EQ(0, far.Open(&any_port));
    CSockAddrStorage bound;
    ASSERT_EQ(0, far.GetLocalAddr(&bound));
    CSockDgram near;
    ASSERT_EQ(0, near.Open(&any_port));
    const CSockAddrIPv4 peer("127.0.0.1", bound.GetPort());
    ASSERT_EQ(0, near.SetRemote(&peer));
    const SocketWriter writer(near);
    EXPECT_EQ(5, writer.write_v(PIECES, 2));
    EXPECT_EQ(4, writer.send("four", 4));
    for (const char* const expected : {"abcde", "four"}) {
        char bytes[64];
        ASSERT_TRUE(Testing::waitFor(far.GetHandle(), POLLIN));
        const int length = far.Recv(bytes, sizeof bytes, nullptr);
        ASSERT_GT(length, 0);
        EXPECT_EQ(expected, std::string(bytes, static_cast<size_t>(length)));
    }
}

TEST(SocketWriter, WritesThroughASimulator) {
    const Ends ends;
    Lent near(ends);
    CSimulatorStream simulator;
    simulator.SetRealSocket(&near.sock);
    const SocketWriter writer(simulator);
    EXPECT_EQ(0, writer.send("no bandwidth", 12)) << "it is the simulator that is asked";
    simulator.SetBandWidth(1);
    EXPECT_EQ(4, writer.send("four", 4));
    EXPECT_EQ(5, writer.write_v(PIECES, 2));
    EXPECT_EQ("fourabcde", ends.read());
}

TEST(SocketWriter, AsksASecureStream) {
    const LogCapture log;
    CSslStream secure;
    const SocketWriter writer(secure);
    EXPECT_EQ(-1, writer.send("x", 1));
    EXPECT_EQ(-1, writer.write_v(PIECES, 2));
    EXPECT_EQ(3U, log.count(3, "The Reticor version is not support ssl!\n"));
}

TEST(SocketWriter, BytesWithoutAHandshakeGoToStreamsAndSimulators) {
    for (const uint32_t kind : KINDS) {
        EXPECT_EQ(kind == SOCK_TYPE_STREAM || kind == SOCK_TYPE_SIMULATOR,
                  SocketWriter::is_byte_stream(kind));
    }
}

TEST(SocketWriterDeath, NothingElseIsWrittenTo) {
    CSock plain;
    CSockAcceptor acceptor;
    EXPECT_DEATH(SocketWriter(plain).send("x", 1), "Assertion `0'");
    EXPECT_DEATH(SocketWriter(plain).write_v(PIECES, 2), "Assertion `0'");
    EXPECT_DEATH(SocketWriter(acceptor).send("x", 1), "Assertion `0'");
    EXPECT_DEATH(SocketWriter(acceptor).write_v(PIECES, 2), "Assertion `0'");
}

}  // namespace
}  // namespace Orvex::Reticor
