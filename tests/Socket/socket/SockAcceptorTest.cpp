// CSockAcceptor: listening, accepting, peers of both families, running out of descriptors.
#include <Reticor/SockAcceptor.h>

#include <netinet/in.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <memory>
#include <string>

#include <Reticor/SockAddrIPv6.h>
#include <Reticor/SockAddrStorage.h>

#include "support/LogCapture.h"
#include "support/socket/Allocations.h"
#include "support/socket/Loopback.h"
#include "support/socket/SystemSeam.h"
#include "support/socket/UnknownAddr.h"

namespace Orvex::Reticor {
namespace {

using Testing::CUnknownAddr;
using ::testing::ElementsAre;
using Testing::FailNext;
using ::testing::IsEmpty;
using Testing::isOpen;
using Testing::LogCapture;
using Testing::openOnLoopback;
using Testing::SystemCall;
using Testing::texts;

// A listener and a client whose connection waits in its queue.
struct Waiting {
    explicit Waiting(const CSockAddr& where, const CSockAddr& peer_family) {
        CSockAddrStorage bound;
        if (acceptor.Open(where) != 0 || acceptor.GetLocalAddr(&bound) != 0) {
            return;
        }
        port = bound.GetPort();
        const CSockAddrStorage target(peer_family.GetType() == SOCKADDR_TYPE_IPV4 ? "127.0.0.1" : "::1",
                                      port);
        ready = client.Connect(target, nullptr) == 0 && Testing::waitFor(acceptor.GetHandle(), POLLIN) &&
                client.GetLocalAddr(&client_addr) == 0;
    }

    CSockAcceptor acceptor;
    CSockStream client;
    CSockAddrStorage client_addr;
    unsigned short port = 0;
    bool ready = false;
};

TEST(SockAcceptor, OpenListensNonBlockingAndClosedOnExec) {
    CSockAcceptor acceptor;
    ASSERT_NE(0, openOnLoopback(acceptor));
    int listening = 0;
    int reuse = 0;
    socklen_t length = sizeof listening;
    ::getsockopt(acceptor.GetHandle(), SOL_SOCKET, SO_ACCEPTCONN, &listening, &length);
    ::getsockopt(acceptor.GetHandle(), SOL_SOCKET, SO_REUSEADDR, &reuse, &length);
    EXPECT_EQ(1, listening);
    EXPECT_EQ(1, reuse);
    EXPECT_TRUE(Testing::isNonBlocking(acceptor.GetHandle()));
    EXPECT_TRUE(Testing::isCloseOnExec(acceptor.GetHandle()));
}

TEST(SockAcceptor, OpenTakesEveryAddressClass) {
    CSockAcceptor acceptor;
    CSockAddrIPv4 ipv4;
    CSockAddrIPv6 ipv6;
    EXPECT_EQ(0, acceptor.Open(CSockAddrIPv4("127.0.0.1", 0)));
    EXPECT_EQ(0, acceptor.GetLocalAddr(&ipv4));
    EXPECT_EQ(0, acceptor.Open(CSockAddrIPv6("::1", 0)));
    EXPECT_EQ(0, acceptor.GetLocalAddr(&ipv6));
    EXPECT_EQ(0, acceptor.Open(CSockAddrStorage("127.0.0.1", 0)));
    EXPECT_EQ(0, acceptor.GetLocalAddr(&ipv4));
    EXPECT_EQ(0, acceptor.Open(CSockAddrStorage("::ffff:127.0.0.1", 0)));
    EXPECT_EQ(0, acceptor.GetLocalAddr(&ipv6)) << "kept as IPv6, opened as IPv6";
}

TEST(SockAcceptor, OpenOfAnUnknownTypeLosesTheOldSocket) {
    CSockAcceptor acceptor;
    ASSERT_NE(0, openOnLoopback(acceptor));
    const int handle = acceptor.GetHandle();
    const LogCapture log;
    EXPECT_EQ(-1, acceptor.Open(CUnknownAddr()));
    EXPECT_FALSE(isOpen(handle));
    EXPECT_EQ(-1, acceptor.GetHandle());
    EXPECT_EQ(-1, acceptor.Open(CSockAddrStorage()));
    EXPECT_THAT(texts(log),
                ElementsAre("2 Orvex::Reticor::CSockAcceptor::Open : invalid local addresst type!\n",
                            "2 Orvex::Reticor::CSockAcceptor::Open : invalid local addresst type!\n"));
}

TEST(SockAcceptor, SecondOpenReplacesTheFirst) {
    CSockAcceptor acceptor;
    const unsigned short first = openOnLoopback(acceptor);
    ASSERT_NE(0, first);
    ASSERT_NE(0, openOnLoopback(acceptor));
    CSockStream stream;
    stream.SetBlockOpt(true);
    EXPECT_EQ(-1, stream.Connect(CSockAddrIPv4(0x7F000001u, first), nullptr));
    EXPECT_EQ(ECONNREFUSED, errno);
}

TEST(SockAcceptor, OpenWithoutDescriptorsIsLogged) {
    const CSockAddrIPv4 local("127.0.0.1", 0);
    CSockAcceptor acceptor;
    const LogCapture log;
    {
        const Testing::NoDescriptors no_descriptors;
        EXPECT_EQ(-1, acceptor.Open(local));
        EXPECT_EQ(EMFILE, errno);
    }
    EXPECT_THAT(texts(log),
                ElementsAre("2 Orvex::Reticor::CSockAcceptor::Open : socket failed, Too many open files\n"));
    EXPECT_FALSE(acceptor.IsValid());
}

TEST(SockAcceptor, OpenOfATakenPortKeepsTheHandleUntilTheNextOpen) {
    CSockAcceptor first;
    const unsigned short port = openOnLoopback(first);
    ASSERT_NE(0, port);
    const LogCapture log;
    CSockAcceptor second;
    EXPECT_EQ(-1, second.Open(CSockAddrIPv4(0x7F000001u, port)));
    EXPECT_EQ(EADDRINUSE, errno);
    EXPECT_THAT(texts(log), ElementsAre("2 Orvex::Reticor::CSockAcceptor::Open : bind failed! This port is " +
                                        std::to_string(port) + " Address already in use\n"));
    ASSERT_TRUE(second.IsValid());
    const int kept = second.GetHandle();
    EXPECT_TRUE(isOpen(kept));
    first.Close();
    EXPECT_EQ(0, second.Open(CSockAddrIPv4(0x7F000001u, port)));
}

TEST(SockAcceptor, FailedOptionListenAndModeAreLoggedAndKeepTheHandle) {
    const CSockAddrIPv4 local("127.0.0.1", 0);
    CSockAcceptor acceptor;
    const LogCapture log;
    {
        const FailNext failure(SystemCall::setsockopt, ENOBUFS);
        EXPECT_EQ(-1, acceptor.Open(local));
        EXPECT_EQ(ENOBUFS, errno);
        EXPECT_TRUE(acceptor.IsValid());
    }
    {
        const FailNext failure(SystemCall::listen, EADDRINUSE);
        EXPECT_EQ(-1, acceptor.Open(local));
        EXPECT_EQ(EADDRINUSE, errno);
        EXPECT_TRUE(acceptor.IsValid());
    }
    {
        const FailNext failure(SystemCall::ioctl, ENOTTY);
        EXPECT_EQ(-1, acceptor.Open(local));
        EXPECT_EQ(ENOTTY, errno);
        EXPECT_TRUE(acceptor.IsValid());
    }
    EXPECT_THAT(texts(log),
                ElementsAre("2 Orvex::Reticor::CSockAcceptor::Open : set reuseaddr failed! No buffer space "
                            "available\n",
                            "2 Orvex::Reticor::CSockAcceptor::Open : listen failed! Address already in use\n",
                            "2 Orvex::Reticor::CSock::set_block_opt : set socket block failed! Inappropriate "
                            "ioctl for device\n"));
}

TEST(SockAcceptor, AcceptWithNoConnectionWaitingIsSilent) {
    CSockAcceptor acceptor;
    ASSERT_NE(0, openOnLoopback(acceptor));
    CSockStream stream;
    CSockAddrIPv4 remote(0x0A000001u, 80);
    const LogCapture log;
    EXPECT_EQ(-1, acceptor.Accept(stream, &remote));
    EXPECT_EQ(EWOULDBLOCK, errno);
    EXPECT_EQ(nullptr, acceptor.Accept(&remote));
    EXPECT_EQ(EWOULDBLOCK, errno);
    EXPECT_EQ(80, remote.GetPort());
    EXPECT_FALSE(stream.IsValid());
    EXPECT_THAT(texts(log), IsEmpty());
}

TEST(SockAcceptor, AcceptOnAClosedAcceptorIsSilent) {
    CSockAcceptor acceptor;
    CSockStream stream;
    const LogCapture log;
    EXPECT_EQ(-1, acceptor.Accept(stream, nullptr));
    EXPECT_EQ(EBADF, errno);
    EXPECT_EQ(nullptr, acceptor.Accept(nullptr));
    EXPECT_THAT(texts(log), IsEmpty());
}

TEST(SockAcceptor, AcceptGivesTheStreamTheConnectionAndThePeersAddress) {
    Waiting waiting(CSockAddrIPv4("127.0.0.1", 0), CSockAddrIPv4());
    ASSERT_TRUE(waiting.ready);
    CSockStream stream;
    CSockAddrIPv4 remote;
    EXPECT_EQ(0, waiting.acceptor.Accept(stream, &remote));
    EXPECT_EQ(0x7F000001u, remote.GetIp());
    EXPECT_EQ(remote.GetPort(), waiting.client_addr.GetPort());
    EXPECT_TRUE(Testing::isNonBlocking(stream.GetHandle()));
    EXPECT_TRUE(Testing::isCloseOnExec(stream.GetHandle()));
    EXPECT_EQ(5, waiting.client.Send("hello", 5));
    EXPECT_EQ("hello", Testing::receive(stream, 5));
}

TEST(SockAcceptor, AcceptOfAPeerOfTheOtherFamilyLogsAndGoesOn) {
    Waiting waiting(CSockAddrIPv6("::1", 0), CSockAddrIPv6());
    ASSERT_TRUE(waiting.ready);
    CSockStream stream;
    CSockAddrIPv4 remote(0x0A000001u, 80);
    const LogCapture log;
    EXPECT_EQ(0, waiting.acceptor.Accept(stream, &remote));
    EXPECT_TRUE(stream.IsValid());
    EXPECT_EQ(0x0A000001u, remote.GetIp());
    EXPECT_EQ(80, remote.GetPort());
    EXPECT_THAT(texts(log), ElementsAre("3 a ipv6 address can't be put into CSockAddrIPv4!\n"));
}

TEST(SockAcceptor, AcceptOfAnIPv4PeerIntoAnIPv6AddressGoesOnWithoutIt) {
    Waiting waiting(CSockAddrIPv4("127.0.0.1", 0), CSockAddrIPv4());
    ASSERT_TRUE(waiting.ready);
    CSockStream stream;
    CSockAddrIPv6 remote("2001:db8::1", 80);
    const LogCapture log;
    EXPECT_EQ(0, waiting.acceptor.Accept(stream, &remote));
    EXPECT_TRUE(remote == CSockAddrIPv6("2001:db8::1", 80));
    EXPECT_THAT(texts(log), IsEmpty());
}

TEST(SockAcceptor, AcceptRefusesAnAddressOfUnknownTypeBeforeItAccepts) {
    Waiting waiting(CSockAddrIPv4("127.0.0.1", 0), CSockAddrIPv4());
    ASSERT_TRUE(waiting.ready);
    CSockStream stream;
    CUnknownAddr remote;
    const LogCapture log;
    EXPECT_EQ(-1, waiting.acceptor.Accept(stream, &remote));
    EXPECT_FALSE(stream.IsValid());
    EXPECT_EQ(nullptr, waiting.acceptor.Accept(&remote));
    EXPECT_THAT(texts(log),
                ElementsAre("2 Orvex::Reticor::CSockAcceptor::Accept : invalid local address type!\n",
                            "2 Orvex::Reticor::CSockAcceptor::Accept : invalid local address type!\n"));
    EXPECT_EQ(0, waiting.acceptor.Accept(stream, nullptr)) << "the connection still waits";
}

TEST(SockAcceptor, AcceptIntoAStreamThatIsInUseLeavesTheConnectionWithoutAnOwner) {
    Waiting waiting(CSockAddrIPv4("127.0.0.1", 0), CSockAddrIPv4());
    ASSERT_TRUE(waiting.ready);
    const int next_number = ::dup(0);
    ::close(next_number);
    EXPECT_EQ(-1, waiting.acceptor.Accept(waiting.client, nullptr));
    EXPECT_TRUE(isOpen(next_number));
    CSockStream stream;
    EXPECT_EQ(-1, waiting.acceptor.Accept(stream, nullptr)) << "it was taken from the queue";
    ::close(next_number);
}

TEST(SockAcceptor, SecondFormGivesANonBlockingStreamEvenFromABlockingListener) {
    Waiting waiting(CSockAddrIPv4("127.0.0.1", 0), CSockAddrIPv4());
    ASSERT_TRUE(waiting.ready);
    waiting.acceptor.SetBlockOpt(true);
    CSockAddrStorage remote;
    const std::unique_ptr<CSockStream> stream(waiting.acceptor.Accept(&remote));
    ASSERT_NE(nullptr, stream);
    EXPECT_FALSE(stream->GetBlockOpt());
    EXPECT_TRUE(Testing::isNonBlocking(stream->GetHandle()));
    EXPECT_TRUE(remote == waiting.client_addr);
}

TEST(SockAcceptor, SecondFormClosesAConnectionWhoseModeCannotBeSet) {
    Waiting waiting(CSockAddrIPv4("127.0.0.1", 0), CSockAddrIPv4());
    ASSERT_TRUE(waiting.ready);
    const int next_number = ::dup(0);
    ::close(next_number);
    const FailNext failure(SystemCall::ioctl, ENOTTY);
    EXPECT_EQ(nullptr, waiting.acceptor.Accept(nullptr));
    EXPECT_EQ(ENOTTY, errno);
    EXPECT_FALSE(isOpen(next_number));
}

TEST(SockAcceptor, SecondFormWithoutMemoryGivesNull) {
    Waiting waiting(CSockAddrIPv4("127.0.0.1", 0), CSockAddrIPv4());
    ASSERT_TRUE(waiting.ready);
    {
        const Testing::NoMemory no_memory;
        EXPECT_EQ(nullptr, waiting.acceptor.Accept(nullptr));
    }
    CSockStream stream;
    EXPECT_EQ(0, waiting.acceptor.Accept(stream, nullptr)) << "the connection still waits";
}

TEST(SockAcceptor, OutOfDescriptorsAcceptIsSilentAndTheAcceptorStaysReady) {
    Waiting waiting(CSockAddrIPv4("127.0.0.1", 0), CSockAddrIPv4());
    ASSERT_TRUE(waiting.ready);
    CSockStream stream;
    const LogCapture log;
    {
        const Testing::NoDescriptors no_descriptors;
        EXPECT_EQ(-1, waiting.acceptor.Accept(stream, nullptr));
        EXPECT_EQ(EMFILE, errno);
        pollfd entry{waiting.acceptor.GetHandle(), POLLIN, 0};
        EXPECT_EQ(1, ::poll(&entry, 1, 0));
    }
    EXPECT_THAT(texts(log), IsEmpty());
    EXPECT_EQ(0, waiting.acceptor.Accept(stream, nullptr));
}

TEST(SockAcceptor, IPv6WildcardListenerTakesTheIPv4PortToo) {
    Waiting waiting(CSockAddrIPv6("::", 0), CSockAddrIPv4());
    ASSERT_TRUE(waiting.ready) << "an IPv4 client reaches it";
    CSockAcceptor second;
    EXPECT_EQ(-1, second.Open(CSockAddrIPv4(0u, waiting.port)));
    EXPECT_EQ(EADDRINUSE, errno);

    CSockStream stream;
    CSockAddrIPv6 remote;
    EXPECT_EQ(0, waiting.acceptor.Accept(stream, &remote));
    char text[64] = {};
    EXPECT_STREQ("::ffff:127.0.0.1", remote.GetIpStr(text, sizeof text));
    EXPECT_EQ(remote.GetPort(), waiting.client_addr.GetPort());
}

TEST(SockAcceptor, MappedPeerCannotBePutIntoAnIPv4Address) {
    Waiting waiting(CSockAddrIPv6("::", 0), CSockAddrIPv4());
    ASSERT_TRUE(waiting.ready);
    CSockStream stream;
    CSockAddrIPv4 remote;
    const LogCapture log;
    EXPECT_EQ(0, waiting.acceptor.Accept(stream, &remote));
    EXPECT_THAT(texts(log), ElementsAre("3 a ipv6 address can't be put into CSockAddrIPv4!\n"));
    EXPECT_EQ(0u, remote.GetIp());
}

TEST(SockAcceptor, MappedPeerInAStorageAddressIsReallyIPv4) {
    Waiting waiting(CSockAddrIPv6("::", 0), CSockAddrIPv4());
    ASSERT_TRUE(waiting.ready);
    CSockStream stream;
    CSockAddrStorage remote;
    EXPECT_EQ(0, waiting.acceptor.Accept(stream, &remote));
    EXPECT_EQ(1u, remote.GetRealType());
    EXPECT_EQ(2u, remote.GetInputType());
    EXPECT_EQ(remote.GetPort(), waiting.client_addr.GetPort());
}

}  // namespace
}  // namespace Orvex::Reticor
