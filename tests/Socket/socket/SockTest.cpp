// CSock: owning, closing and handing over a handle, blocking mode, addresses.
#include <Reticor/Sock.h>

#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <sstream>
#include <string>
#include <type_traits>

#include <Infra/Thread.h>
#include <Reticor/SockAddrIPv6.h>
#include <Reticor/SockAddrStorage.h>

#include "support/LogCapture.h"
#include "support/socket/Loopback.h"

namespace Orvex::Reticor {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using Testing::isNonBlocking;
using Testing::isOpen;
using Testing::LogCapture;
using Testing::LoopbackPair;
using Testing::texts;

static_assert(std::has_virtual_destructor_v<CSock> && !std::is_abstract_v<CSock>);
static_assert(SOCK_TYPE_STREAM == 1 && SOCK_TYPE_DGRAM == 2 && SOCK_TYPE_SSL_STREAM == 3 &&
              SOCK_TYPE_SIMULATOR == 4 && SOCK_TYPE_ACCEPTOR == 6 && SOCK_TYPE_UNKNOWN == 7);

int newHandle(int family = AF_INET) {
    return ::socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0);
}

TEST(Sock, NewSocketHasNoHandleAndIsNotBlocking) {
    CSock sock;
    EXPECT_EQ(-1, sock.GetHandle());
    EXPECT_EQ(7u, sock.GetType());
    EXPECT_FALSE(sock.GetBlockOpt());
    EXPECT_FALSE(sock.IsValid());
    EXPECT_EQ(1u, CSockStream().GetType());
    EXPECT_EQ(6u, CSockAcceptor().GetType());
}

TEST(Sock, CloseClosesOnceAndIsQuietAfterwards) {
    const int handle = newHandle();
    CSock sock;
    ASSERT_EQ(0, sock.Attach(handle));
    const LogCapture log;
    EXPECT_EQ(0, sock.Close());
    EXPECT_FALSE(isOpen(handle));
    EXPECT_EQ(-1, sock.GetHandle());
    EXPECT_EQ(-1, sock.Close());
    EXPECT_THAT(texts(log), IsEmpty());
}

TEST(Sock, CloseForgetsTheHandleEvenIfTheSystemRefuses) {
    const int handle = newHandle();
    CSock sock;
    ASSERT_EQ(0, sock.Attach(handle));
    ::close(handle);
    EXPECT_EQ(-1, sock.Close());
    EXPECT_EQ(EBADF, errno);
    EXPECT_FALSE(sock.IsValid());
}

TEST(Sock, AttachGivesTheHandleTheObjectsMode) {
    const int first = newHandle();
    CSock sock;
    EXPECT_EQ(0, sock.Attach(first));
    EXPECT_EQ(sock.GetHandle(), first);
    EXPECT_TRUE(sock.IsValid());
    EXPECT_TRUE(isNonBlocking(first));

    const int second = newHandle();
    ::fcntl(second, F_SETFL, O_NONBLOCK);
    CSock blocking;
    blocking.SetBlockOpt(true);
    EXPECT_EQ(0, blocking.Attach(second));
    EXPECT_FALSE(isNonBlocking(second));
}

TEST(Sock, AttachKeepsAHandleThatIsHeldAlready) {
    const int first = newHandle();
    const int second = newHandle();
    CSock sock;
    ASSERT_EQ(0, sock.Attach(first));
    EXPECT_EQ(-1, sock.Attach(second));
    EXPECT_EQ(sock.GetHandle(), first);
    EXPECT_TRUE(isOpen(first));
    EXPECT_TRUE(isOpen(second));
    EXPECT_FALSE(isNonBlocking(second)) << "nothing changes";
    ::close(second);
}

TEST(Sock, AttachKeepsAHandleWhoseModeCannotBeSet) {
    const int dead = newHandle();
    ::close(dead);
    const LogCapture log;
    CSock sock;
    EXPECT_EQ(-1, sock.Attach(dead));
    EXPECT_EQ(EBADF, errno);
    EXPECT_EQ(sock.GetHandle(), dead);
    EXPECT_THAT(
        texts(log),
        ElementsAre(
            "2 Orvex::Reticor::CSock::set_block_opt : set socket block failed! Bad file descriptor\n"));
}

TEST(Sock, DetachGivesTheHandleUpWithoutClosingIt) {
    const int handle = newHandle();
    {
        CSock sock;
        ASSERT_EQ(0, sock.Attach(handle));
        EXPECT_EQ(sock.Detach(), handle);
        EXPECT_EQ(-1, sock.GetHandle());
        EXPECT_EQ(-1, sock.Detach());
    }
    EXPECT_TRUE(isOpen(handle));
    ::close(handle);
}

TEST(Sock, DestructorClosesAnAttachedHandle) {
    const int handle = newHandle();
    {
        CSock sock;
        ASSERT_EQ(0, sock.Attach(handle));
    }
    EXPECT_FALSE(isOpen(handle));
}

TEST(Sock, CopyDuplicatesTheNumberModeAndTypeOnly) {
    LoopbackPair pair;
    ASSERT_TRUE(pair.connected);
    pair.client.SetBlockOpt(true);
    const int handle = pair.client.GetHandle();
    {
        CSockStream copy(pair.client);
        EXPECT_EQ(copy.GetHandle(), handle);
        EXPECT_TRUE(copy.GetBlockOpt());
        EXPECT_EQ(1u, copy.GetType());
        CSock base;
        base = copy;
        EXPECT_EQ(base.GetHandle(), handle);
        EXPECT_EQ(1u, base.GetType());
        EXPECT_TRUE(base.GetBlockOpt());
        base.Detach();
        EXPECT_EQ(pair.client.Detach(), handle);
    }
    EXPECT_FALSE(isOpen(handle)) << "the copy closed it";
}

TEST(Sock, SecondCloseOfACopyActsOnADeadNumber) {
    CSock first;
    ASSERT_EQ(0, first.Attach(newHandle()));
    CSock second(first);
    EXPECT_EQ(0, first.Close());
    EXPECT_TRUE(second.IsValid());
    EXPECT_EQ(-1, second.Close());
}

TEST(Sock, AssignmentDoesNotCloseTheOldHandle) {
    const int old_handle = newHandle();
    CSock target;
    CSock source;
    ASSERT_EQ(0, target.Attach(old_handle));
    ASSERT_EQ(0, source.Attach(newHandle()));
    target = source;
    EXPECT_EQ(target.GetHandle(), source.GetHandle());
    EXPECT_TRUE(isOpen(old_handle));
    target.Detach();
    ::close(old_handle);
}

TEST(Sock, BlockOptIsKeptUntilASocketIsOpenedOrAttached) {
    CSock sock;
    const LogCapture log;
    sock.SetBlockOpt(true);
    EXPECT_TRUE(sock.GetBlockOpt());
    EXPECT_THAT(texts(log), IsEmpty());
    const int handle = newHandle();
    ASSERT_EQ(0, sock.Attach(handle));
    EXPECT_FALSE(isNonBlocking(handle));

    CSockAcceptor acceptor;
    acceptor.SetBlockOpt(true);
    ASSERT_NE(0, Testing::openOnLoopback(acceptor));
    EXPECT_FALSE(isNonBlocking(acceptor.GetHandle()));
}

TEST(Sock, BlockOptSwitchesAnOpenSocket) {
    CSock sock;
    const int handle = newHandle();
    ASSERT_EQ(0, sock.Attach(handle));
    sock.SetBlockOpt(true);
    EXPECT_FALSE(isNonBlocking(handle));
    sock.SetBlockOpt(false);
    EXPECT_TRUE(isNonBlocking(handle));
}

TEST(Sock, BlockOptDoesNothingIfTheFlagIsUnchanged) {
    CSock sock;
    const int handle = newHandle();
    ASSERT_EQ(0, sock.Attach(handle));
    ::fcntl(handle, F_SETFL, 0);
    sock.SetBlockOpt(false);
    EXPECT_FALSE(isNonBlocking(handle));
}

TEST(Sock, BlockOptStaysAtTheNewValueWhenItFails) {
    CSock sock;
    const int handle = newHandle();
    ASSERT_EQ(0, sock.Attach(handle));
    ::close(handle);
    const LogCapture log;
    sock.SetBlockOpt(true);
    EXPECT_TRUE(sock.GetBlockOpt());
    EXPECT_EQ(EBADF, errno);
    EXPECT_THAT(
        texts(log),
        ElementsAre("2 Orvex::Reticor::CSock::set_block_opt : set socket block failed! Bad file descriptor\n",
                    "2 Orvex::Reticor::CSock::SetBlockOpt : SetBlockOpt failed! \n"));
    sock.Detach();
}

TEST(Sock, LinesStartWithPlaceObjectAndThread) {
    CSock sock;
    const LogCapture log;
    EXPECT_EQ(-1, sock.GetRemoteAddr(nullptr));
    ASSERT_EQ(1u, log.lines().size());
    std::ostringstream start;
    start << "[Src/Socket/Sock.cpp:" << log.lines()[0].line << "] this:" << static_cast<void*>(&sock)
          << " tid:" << Infra::CThread::getCurrentThreadID() << ", ";
    EXPECT_EQ(log.lines()[0].start, start.str());
    EXPECT_EQ("Unknown", log.lines()[0].module);
    EXPECT_EQ("Unknown", log.lines()[0].module2);
    EXPECT_EQ("Orvex::Reticor::CSock::GetRemoteAddr", log.lines()[0].function);
}

TEST(Sock, AddressesOfAnIPv4Connection) {
    LoopbackPair pair;
    ASSERT_TRUE(pair.connected);
    CSockAddrIPv4 client_local;
    CSockAddrIPv4 server_remote;
    CSockAddrStorage storage;
    EXPECT_EQ(0, pair.client.GetLocalAddr(&client_local));
    EXPECT_EQ(0, pair.server.GetRemoteAddr(&server_remote));
    EXPECT_TRUE(client_local == server_remote);
    EXPECT_EQ(0x7F000001u, client_local.GetIp());
    EXPECT_EQ(0, pair.server.GetRemoteAddr(&storage));
    EXPECT_EQ(storage.GetPort(), client_local.GetPort());
    EXPECT_EQ(1u, storage.GetRealType());
    EXPECT_EQ(0, pair.client.GetLocalAddr(&storage));
    EXPECT_EQ(storage.GetPort(), client_local.GetPort());
}

TEST(Sock, AddressesOfAnIPv6Connection) {
    CSockAcceptor acceptor;
    CSockAddrIPv6 local("::1", 0);
    ASSERT_EQ(0, acceptor.Open(local));
    ASSERT_EQ(0, acceptor.GetLocalAddr(&local));
    CSockStream client;
    CSockStream server;
    ASSERT_EQ(0, client.Connect(local, nullptr));
    ASSERT_TRUE(Testing::acceptInto(acceptor, server));
    CSockAddrIPv6 remote;
    CSockAddrStorage storage;
    EXPECT_EQ(0, client.GetRemoteAddr(&remote));
    EXPECT_TRUE(remote == local);
    EXPECT_EQ(0, server.GetLocalAddr(&storage));
    EXPECT_EQ(2u, storage.GetInputType());
    EXPECT_EQ(storage.GetPort(), local.GetPort());
}

TEST(Sock, AddressOfTheWrongFamilyIsRefusedAndUnchanged) {
    LoopbackPair pair;
    ASSERT_TRUE(pair.connected);
    CSockAddrIPv6 ipv6("2001:db8::1", 80);
    const CSockAddrIPv6 before(ipv6);
    const LogCapture log;
    EXPECT_EQ(-1, pair.client.GetLocalAddr(&ipv6));
    EXPECT_EQ(-1, pair.client.GetLocalAddr(nullptr));
    EXPECT_THAT(texts(log), IsEmpty());
    EXPECT_EQ(-1, pair.client.GetRemoteAddr(&ipv6));
    EXPECT_EQ(-1, pair.client.GetRemoteAddr(nullptr));
    EXPECT_THAT(texts(log), ElementsAre("2 Orvex::Reticor::CSock::GetRemoteAddr : Unkonw Sockaddr Type.\n",
                                        "2 Orvex::Reticor::CSock::GetRemoteAddr : Unkonw Sockaddr Type.\n"));
    EXPECT_TRUE(ipv6 == before);

    CSock sock;
    ASSERT_EQ(0, sock.Attach(newHandle(AF_INET6)));
    CSockAddrIPv4 ipv4(0x0A000001u, 80);
    EXPECT_EQ(-1, sock.GetLocalAddr(&ipv4));
    EXPECT_EQ(80, ipv4.GetPort());
}

TEST(Sock, AddressesOfOtherFamiliesAreRefused) {
    int pair[2] = {-1, -1};
    ASSERT_EQ(0, ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair));
    CSock first;
    CSock second;
    ASSERT_EQ(0, first.Attach(pair[0]));
    ASSERT_EQ(0, second.Attach(pair[1]));
    CSockAddrStorage storage;
    EXPECT_EQ(-1, first.GetLocalAddr(&storage));
    EXPECT_EQ(-1, first.GetRemoteAddr(&storage));
}

TEST(Sock, AddressesOfAClosedOrUnconnectedSocket) {
    CSock closed;
    CSock unconnected;
    ASSERT_EQ(0, unconnected.Attach(newHandle()));
    CSockAddrIPv4 addr;
    const LogCapture log;
    EXPECT_EQ(-1, closed.GetLocalAddr(&addr));
    EXPECT_EQ(EBADF, errno);
    EXPECT_THAT(texts(log), IsEmpty());
    EXPECT_EQ(-1, closed.GetRemoteAddr(&addr));
    EXPECT_EQ(EBADF, errno);
    EXPECT_EQ(-1, unconnected.GetRemoteAddr(&addr));
    EXPECT_EQ(ENOTCONN, errno);
    EXPECT_THAT(
        texts(log),
        ElementsAre("2 Orvex::Reticor::CSock::GetRemoteAddr : getpeername failed! Bad file descriptor\n",
                    "2 Orvex::Reticor::CSock::GetRemoteAddr : getpeername failed! Transport endpoint is "
                    "not connected\n"));
}

}  // namespace
}  // namespace Orvex::Reticor
