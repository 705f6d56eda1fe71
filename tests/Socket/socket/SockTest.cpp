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
    EXPECT_EQ(sock.GetHandle(), -1);
    EXPECT_EQ(sock.GetType(), 7u);
    EXPECT_FALSE(sock.GetBlockOpt());
    EXPECT_FALSE(sock.IsValid());
    EXPECT_EQ(CSockStream().GetType(), 1u);
    EXPECT_EQ(CSockAcceptor().GetType(), 6u);
}

TEST(Sock, CloseClosesOnceAndIsQuietAfterwards) {
    const int handle = newHandle();
    CSock sock;
    ASSERT_EQ(sock.Attach(handle), 0);
    const LogCapture log;
    EXPECT_EQ(sock.Close(), 0);
    EXPECT_FALSE(isOpen(handle));
    EXPECT_EQ(sock.GetHandle(), -1);
    EXPECT_EQ(sock.Close(), -1);
    EXPECT_THAT(texts(log), IsEmpty());
}

TEST(Sock, CloseForgetsTheHandleEvenIfTheSystemRefuses) {
    const int handle = newHandle();
    CSock sock;
    ASSERT_EQ(sock.Attach(handle), 0);
    ::close(handle);
    EXPECT_EQ(sock.Close(), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_FALSE(sock.IsValid());
}

TEST(Sock, AttachGivesTheHandleTheObjectsMode) {
    const int first = newHandle();
    CSock sock;
    EXPECT_EQ(sock.Attach(first), 0);
    EXPECT_EQ(sock.GetHandle(), first);
    EXPECT_TRUE(sock.IsValid());
    EXPECT_TRUE(isNonBlocking(first));

    const int second = newHandle();
    ::fcntl(second, F_SETFL, O_NONBLOCK);
    CSock blocking;
    blocking.SetBlockOpt(true);
    EXPECT_EQ(blocking.Attach(second), 0);
    EXPECT_FALSE(isNonBlocking(second));
}

TEST(Sock, AttachKeepsAHandleThatIsHeldAlready) {
    const int first = newHandle();
    const int second = newHandle();
    CSock sock;
    ASSERT_EQ(sock.Attach(first), 0);
    EXPECT_EQ(sock.Attach(second), -1);
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
    EXPECT_EQ(sock.Attach(dead), -1);
    EXPECT_EQ(errno, EBADF);
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
        ASSERT_EQ(sock.Attach(handle), 0);
        EXPECT_EQ(sock.Detach(), handle);
        EXPECT_EQ(sock.GetHandle(), -1);
        EXPECT_EQ(sock.Detach(), -1);
    }
    EXPECT_TRUE(isOpen(handle));
    ::close(handle);
}

TEST(Sock, DestructorClosesAnAttachedHandle) {
    const int handle = newHandle();
    {
        CSock sock;
        ASSERT_EQ(sock.Attach(handle), 0);
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
        EXPECT_EQ(copy.GetType(), 1u);
        CSock base;
        base = copy;
        EXPECT_EQ(base.GetHandle(), handle);
        EXPECT_EQ(base.GetType(), 1u);
        EXPECT_TRUE(base.GetBlockOpt());
        base.Detach();
        EXPECT_EQ(pair.client.Detach(), handle);
    }
    EXPECT_FALSE(isOpen(handle)) << "the copy closed it";
}

TEST(Sock, SecondCloseOfACopyActsOnADeadNumber) {
    CSock first;
    ASSERT_EQ(first.Attach(newHandle()), 0);
    CSock second(first);
    EXPECT_EQ(first.Close(), 0);
    EXPECT_TRUE(second.IsValid());
    EXPECT_EQ(second.Close(), -1);
}

TEST(Sock, AssignmentDoesNotCloseTheOldHandle) {
    const int old_handle = newHandle();
    CSock target;
    CSock source;
    ASSERT_EQ(target.Attach(old_handle), 0);
    ASSERT_EQ(source.Attach(newHandle()), 0);
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
    ASSERT_EQ(sock.Attach(handle), 0);
    EXPECT_FALSE(isNonBlocking(handle));

    CSockAcceptor acceptor;
    acceptor.SetBlockOpt(true);
    ASSERT_NE(Testing::openOnLoopback(acceptor), 0);
    EXPECT_FALSE(isNonBlocking(acceptor.GetHandle()));
}

TEST(Sock, BlockOptSwitchesAnOpenSocket) {
    CSock sock;
    const int handle = newHandle();
    ASSERT_EQ(sock.Attach(handle), 0);
    sock.SetBlockOpt(true);
    EXPECT_FALSE(isNonBlocking(handle));
    sock.SetBlockOpt(false);
    EXPECT_TRUE(isNonBlocking(handle));
}

TEST(Sock, BlockOptDoesNothingIfTheFlagIsUnchanged) {
    CSock sock;
    const int handle = newHandle();
    ASSERT_EQ(sock.Attach(handle), 0);
    ::fcntl(handle, F_SETFL, 0);
    sock.SetBlockOpt(false);
    EXPECT_FALSE(isNonBlocking(handle));
}

TEST(Sock, BlockOptStaysAtTheNewValueWhenItFails) {
    CSock sock;
    const int handle = newHandle();
    ASSERT_EQ(sock.Attach(handle), 0);
    ::close(handle);
    const LogCapture log;
    sock.SetBlockOpt(true);
    EXPECT_TRUE(sock.GetBlockOpt());
    EXPECT_EQ(errno, EBADF);
    EXPECT_THAT(
        texts(log),
        ElementsAre("2 Orvex::Reticor::CSock::set_block_opt : set socket block failed! Bad file descriptor\n",
                    "2 Orvex::Reticor::CSock::SetBlockOpt : SetBlockOpt failed! \n"));
    sock.Detach();
}

TEST(Sock, LinesStartWithPlaceObjectAndThread) {
    CSock sock;
    const LogCapture log;
    EXPECT_EQ(sock.GetRemoteAddr(nullptr), -1);
    ASSERT_EQ(log.lines().size(), 1u);
    std::ostringstream start;
    start << "[Src/Socket/Sock.cpp:" << log.lines()[0].line << "] this:" << static_cast<void*>(&sock)
          << " tid:" << Infra::CThread::getCurrentThreadID() << ", ";
    EXPECT_EQ(log.lines()[0].start, start.str());
    EXPECT_EQ(log.lines()[0].module, "Unknown");
    EXPECT_EQ(log.lines()[0].module2, "Unknown");
    EXPECT_EQ(log.lines()[0].function, "Orvex::Reticor::CSock::GetRemoteAddr");
}

TEST(Sock, AddressesOfAnIPv4Connection) {
    LoopbackPair pair;
    ASSERT_TRUE(pair.connected);
    CSockAddrIPv4 client_local;
    CSockAddrIPv4 server_remote;
    CSockAddrStorage storage;
    EXPECT_EQ(pair.client.GetLocalAddr(&client_local), 0);
    EXPECT_EQ(pair.server.GetRemoteAddr(&server_remote), 0);
    EXPECT_TRUE(client_local == server_remote);
    EXPECT_EQ(client_local.GetIp(), 0x7F000001u);
    EXPECT_EQ(pair.server.GetRemoteAddr(&storage), 0);
    EXPECT_EQ(storage.GetPort(), client_local.GetPort());
    EXPECT_EQ(storage.GetRealType(), 1u);
    EXPECT_EQ(pair.client.GetLocalAddr(&storage), 0);
    EXPECT_EQ(storage.GetPort(), client_local.GetPort());
}

TEST(Sock, AddressesOfAnIPv6Connection) {
    CSockAcceptor acceptor;
    CSockAddrIPv6 local("::1", 0);
    ASSERT_EQ(acceptor.Open(local), 0);
    ASSERT_EQ(acceptor.GetLocalAddr(&local), 0);
    CSockStream client;
    CSockStream server;
    ASSERT_EQ(client.Connect(local, nullptr), 0);
    ASSERT_TRUE(Testing::acceptInto(acceptor, server));
    CSockAddrIPv6 remote;
    CSockAddrStorage storage;
    EXPECT_EQ(client.GetRemoteAddr(&remote), 0);
    EXPECT_TRUE(remote == local);
    EXPECT_EQ(server.GetLocalAddr(&storage), 0);
    EXPECT_EQ(storage.GetInputType(), 2u);
    EXPECT_EQ(storage.GetPort(), local.GetPort());
}

TEST(Sock, AddressOfTheWrongFamilyIsRefusedAndUnchanged) {
    LoopbackPair pair;
    ASSERT_TRUE(pair.connected);
    CSockAddrIPv6 ipv6("2001:db8::1", 80);
    const CSockAddrIPv6 before(ipv6);
    const LogCapture log;
    EXPECT_EQ(pair.client.GetLocalAddr(&ipv6), -1);
    EXPECT_EQ(pair.client.GetLocalAddr(nullptr), -1);
    EXPECT_THAT(texts(log), IsEmpty());
    EXPECT_EQ(pair.client.GetRemoteAddr(&ipv6), -1);
    EXPECT_EQ(pair.client.GetRemoteAddr(nullptr), -1);
    EXPECT_THAT(texts(log), ElementsAre("2 Orvex::Reticor::CSock::GetRemoteAddr : Unkonw Sockaddr Type.\n",
                                        "2 Orvex::Reticor::CSock::GetRemoteAddr : Unkonw Sockaddr Type.\n"));
    EXPECT_TRUE(ipv6 == before);

    CSock sock;
    ASSERT_EQ(sock.Attach(newHandle(AF_INET6)), 0);
    CSockAddrIPv4 ipv4(0x0A000001u, 80);
    EXPECT_EQ(sock.GetLocalAddr(&ipv4), -1);
    EXPECT_EQ(ipv4.GetPort(), 80);
}

TEST(Sock, AddressesOfOtherFamiliesAreRefused) {
    int pair[2] = {-1, -1};
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair), 0);
    CSock first;
    CSock second;
    ASSERT_EQ(first.Attach(pair[0]), 0);
    ASSERT_EQ(second.Attach(pair[1]), 0);
    CSockAddrStorage storage;
    EXPECT_EQ(first.GetLocalAddr(&storage), -1);
    EXPECT_EQ(first.GetRemoteAddr(&storage), -1);
}

TEST(Sock, AddressesOfAClosedOrUnconnectedSocket) {
    CSock closed;
    CSock unconnected;
    ASSERT_EQ(unconnected.Attach(newHandle()), 0);
    CSockAddrIPv4 addr;
    const LogCapture log;
    EXPECT_EQ(closed.GetLocalAddr(&addr), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_THAT(texts(log), IsEmpty());
    EXPECT_EQ(closed.GetRemoteAddr(&addr), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(unconnected.GetRemoteAddr(&addr), -1);
    EXPECT_EQ(errno, ENOTCONN);
    EXPECT_THAT(
        texts(log),
        ElementsAre("2 Orvex::Reticor::CSock::GetRemoteAddr : getpeername failed! Bad file descriptor\n",
                    "2 Orvex::Reticor::CSock::GetRemoteAddr : getpeername failed! Transport endpoint is "
                    "not connected\n"));
}

}  // namespace
}  // namespace Orvex::Reticor
