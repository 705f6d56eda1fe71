// CSockStream: connecting, sending, receiving, options. Its waits are in SockStreamWaitTest.cpp.
#include <Reticor/SockStream.h>

#include <limits.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <Infra/Thread.h>
#include <Reticor/SockAddrIPv6.h>
#include <Reticor/SockAddrStorage.h>

#include "support/Eventually.h"
#include "support/LogCapture.h"
#include "support/socket/Allocations.h"
#include "support/socket/Loopback.h"
#include "support/socket/SystemSeam.h"
#include "support/socket/UnknownAddr.h"

namespace Orvex::Reticor {
namespace {

using Testing::closeWithReset;
using Testing::CUnknownAddr;
using ::testing::ElementsAre;
using Testing::FailNext;
using ::testing::IsEmpty;
using Testing::isOpen;
using Testing::LogCapture;
using Testing::LOOPBACK_IP;
using Testing::LoopbackPair;
using Testing::optionOf;
using Testing::SystemCall;
using Testing::texts;
using Testing::waitFor;

TEST(SockStream, AMoveTakesTheHandleAndTheModeAlong) {
    LoopbackPair pair;
    const int handle = pair.client.GetHandle();
    pair.client.SetBlockOpt(true);
    CSockStream moved(std::move(pair.client));
    EXPECT_EQ(handle, moved.GetHandle());
    EXPECT_TRUE(moved.GetBlockOpt());
    EXPECT_EQ(-1, pair.client.GetHandle());

    LoopbackPair other;
    const int closed = other.client.GetHandle();
    other.client = std::move(moved);
    EXPECT_FALSE(isOpen(closed));
    EXPECT_EQ(handle, other.client.GetHandle());
    CSockStream& same = other.client;
    other.client = std::move(same);
    EXPECT_EQ(handle, other.client.GetHandle()) << "moved onto itself";
    EXPECT_TRUE(isOpen(handle));
}

TEST(SockStreamConnect, OpensANonBlockingSocketThatIsClosedOnExec) {
    LoopbackPair pair;
    ASSERT_TRUE(pair.connected);
    EXPECT_EQ(0, pair.client.GetConnectStatus());
    EXPECT_TRUE(Testing::isNonBlocking(pair.client.GetHandle()));
    EXPECT_TRUE(Testing::isCloseOnExec(pair.client.GetHandle()));
    EXPECT_EQ(SOCK_STREAM, optionOf(pair.client, SOL_SOCKET, SO_TYPE));
}

TEST(SockStreamConnect, TakesEveryAddressClass) {
    CSockAcceptor acceptor;
    ASSERT_EQ(0, acceptor.Open(CSockAddrIPv6("::", 0)));
    CSockAddrStorage bound;
    ASSERT_EQ(0, acceptor.GetLocalAddr(&bound));
    const unsigned short port = bound.GetPort();
    CSockAddrStorage mapped;
    mapped.SetPort(port);
    mapped.SetIp("::ffff:127.0.0.1");
    const CSockAddrIPv4 ipv4("127.0.0.1", port);
    const CSockAddrIPv6 ipv6("::1", port);
    const CSockAddrIPv6 mapped_ipv6("127.0.0.1", port);
    const CSockAddrStorage storage("::1", port);
    for (const CSockAddr* remote :
         {static_cast<const CSockAddr*>(&ipv4), static_cast<const CSockAddr*>(&ipv6),
          static_cast<const CSockAddr*>(&mapped_ipv6), static_cast<const CSockAddr*>(&storage),
          static_cast<const CSockAddr*>(&mapped)}) {
        CSockStream client;
        CSockStream server;
        EXPECT_EQ(0, client.Connect(*remote, nullptr));
        EXPECT_TRUE(Testing::acceptInto(acceptor, server));
        EXPECT_TRUE(waitFor(client.GetHandle(), POLLOUT));
        EXPECT_EQ(0, client.GetConnectStatus());
    }
}

TEST(SockStreamConnect, BindsToTheLocalAddress) {
    CSockAcceptor acceptor;
    const unsigned short port = Testing::openOnLoopback(acceptor);
    CSock holder;  // the port stays taken on another address, so that the system hands it to nobody else
    const unsigned short own_port = Testing::refusingPort(holder);
    const unsigned own_ip = 0x7F010000U | (static_cast<unsigned>(::getpid()) & 0xFFFFU);  // this process's
    CSockAddrIPv4 local(own_ip, own_port);
    CSockStream client;
    ASSERT_EQ(0, client.Connect(CSockAddrIPv4(LOOPBACK_IP, port), &local));
    CSockStream server;
    ASSERT_TRUE(Testing::acceptInto(acceptor, server));
    CSockAddrIPv4 remote;
    EXPECT_EQ(0, server.GetRemoteAddr(&remote));
    EXPECT_TRUE(remote == local);
}

TEST(SockStreamConnect, LocalAddressOfAnotherFamilyFailsBeforeAnySocketIsTouched) {
    LoopbackPair pair;
    ASSERT_TRUE(pair.connected);
    const int handle = pair.client.GetHandle();
    CSockAddrIPv6 local("::1", 0);
    CSockAddrStorage empty;
    const LogCapture log;
    EXPECT_EQ(-1, pair.client.Connect(CSockAddrIPv4(LOOPBACK_IP, 80), &local));
    EXPECT_EQ(-1, pair.client.Connect(CSockAddrIPv4(LOOPBACK_IP, 80), &empty));
    EXPECT_EQ(pair.client.GetHandle(), handle);
    EXPECT_EQ(5, pair.client.Send("still", 5));
    EXPECT_EQ("still", Testing::receive(pair.server, 5));
    EXPECT_THAT(texts(log), ElementsAre("2 Orvex::Reticor::CSockStream::Connect : SockAddr type error\n",
                                        "2 Orvex::Reticor::CSockStream::Connect : SockAddr type error\n"));
}

TEST(SockStreamConnect, RemoteAddressOfNoFamilyFailsBeforeAnySocketIsTouched) {
    LoopbackPair pair;
    ASSERT_TRUE(pair.connected);
    const int handle = pair.client.GetHandle();
    const LogCapture log;
    EXPECT_EQ(-1, pair.client.Connect(CUnknownAddr(), nullptr));
    EXPECT_EQ(-1, pair.client.Connect(CSockAddrStorage(), nullptr));
    EXPECT_EQ(pair.client.GetHandle(), handle);
    EXPECT_THAT(texts(log), ElementsAre("2 Orvex::Reticor::CSockStream::Connect : SockAddr type error\n",
                                        "2 Orvex::Reticor::CSockStream::Connect : SockAddr type error\n"));
}

TEST(SockStreamConnect, SecondConnectClosesTheFirstSocket) {
    LoopbackPair pair;
    ASSERT_TRUE(pair.connected);
    CSockAcceptor acceptor;
    const unsigned short port = Testing::openOnLoopback(acceptor);
    ASSERT_EQ(0, pair.client.Connect(CSockAddrIPv4(LOOPBACK_IP, port), nullptr));
    CSockStream server;
    ASSERT_TRUE(Testing::acceptInto(acceptor, server));
    ASSERT_TRUE(waitFor(pair.server.GetHandle(), POLLIN));
    char byte = 0;
    EXPECT_EQ(-1, pair.server.Recv(&byte, 1)) << "the first peer sees the close";
    EXPECT_EQ(3, pair.client.Send("new", 3));
    EXPECT_EQ("new", Testing::receive(server, 3));
}

TEST(SockStreamConnect, WithoutDescriptorsIsLogged) {
    const CSockAddrIPv4 remote(LOOPBACK_IP, 80);
    CSockStream stream;
    const LogCapture log;
    {
        const Testing::NoDescriptors no_descriptors;
        EXPECT_EQ(-1, stream.Connect(remote, nullptr));
        EXPECT_EQ(EMFILE, errno);
    }
    EXPECT_THAT(
        texts(log),
        ElementsAre("2 Orvex::Reticor::CSockStream::Connect : create socket failed! Too many open files\n"));
    EXPECT_FALSE(stream.IsValid());
}

TEST(SockStreamConnect, ModeThatCannotBeSetKeepsTheHandle) {
    const FailNext failure(SystemCall::ioctl, ENOTTY);
    CSockStream stream;
    EXPECT_EQ(-1, stream.Connect(CSockAddrIPv4(LOOPBACK_IP, 80), nullptr));
    EXPECT_EQ(ENOTTY, errno);
    EXPECT_TRUE(stream.IsValid());
}

TEST(SockStreamConnect, TakenLocalPortIsLoggedAndKeepsTheHandle) {
    CSock holder;
    const unsigned short port = Testing::refusingPort(holder);
    CSockAddrIPv4 local(LOOPBACK_IP, port);
    CSockStream stream;
    const LogCapture log;
    EXPECT_EQ(-1, stream.Connect(CSockAddrIPv4(LOOPBACK_IP, 80), &local));
    EXPECT_EQ(EADDRINUSE, errno);
    EXPECT_TRUE(stream.IsValid());
    EXPECT_THAT(texts(log),
                ElementsAre("2 Orvex::Reticor::CSockStream::Connect : bind failed! This port is " +
                            std::to_string(port) + " Address already in use\n"));
}

TEST(SockStreamConnect, BlockingConnectThatIsRefusedClosesTheHandle) {
    CSock holder;
    const CSockAddrIPv4 nobody(LOOPBACK_IP, Testing::refusingPort(holder));
    CSockStream stream;
    stream.SetBlockOpt(true);
    const LogCapture log;
    EXPECT_EQ(-1, stream.Connect(nobody, nullptr));
    EXPECT_EQ(ECONNREFUSED, errno);
    EXPECT_FALSE(stream.IsValid());
    EXPECT_THAT(texts(log),
                ElementsAre("2 Orvex::Reticor::CSockStream::Connect : connect faield! Connection refused\n"));
}

TEST(SockStreamConnect, RefusedConnectionIsReportedOnce) {
    CSock holder;
    const CSockAddrIPv4 nobody(LOOPBACK_IP, Testing::refusingPort(holder));
    CSockStream stream;
    ASSERT_EQ(0, stream.Connect(nobody, nullptr)) << "only under way";
    ASSERT_TRUE(waitFor(stream.GetHandle(), POLLOUT));
    const LogCapture log;
    EXPECT_EQ(-2, stream.GetConnectStatus());
    EXPECT_EQ(ECONNREFUSED, errno);
    EXPECT_THAT(texts(log), ElementsAre("2 Orvex::Reticor::CSockStream::GetConnectStatus : error: " +
                                        std::to_string(ECONNREFUSED) + "\n"));
    EXPECT_EQ(0, stream.GetConnectStatus()) << "the error is handed out once";
}

TEST(SockStreamConnect, RecvBeforeTheStatusTakesTheErrorAway) {
    CSock holder;
    const CSockAddrIPv4 nobody(LOOPBACK_IP, Testing::refusingPort(holder));
    CSockStream stream;
    ASSERT_EQ(0, stream.Connect(nobody, nullptr));
    ASSERT_TRUE(waitFor(stream.GetHandle(), POLLOUT));
    pollfd entry{stream.GetHandle(), POLLIN | POLLOUT | POLLPRI, 0};
    ASSERT_EQ(1, ::poll(&entry, 1, 0));
    EXPECT_NE(0, entry.revents & POLLIN) << "a refused connection shows as readable too";
    EXPECT_EQ(0, entry.revents & POLLPRI) << "and not as an exception";
    char byte = 0;
    EXPECT_EQ(-1, stream.Recv(&byte, 1));
    EXPECT_EQ(ECONNREFUSED, errno);
    EXPECT_EQ(0, stream.GetConnectStatus()) << "which is why reading is added after the status";
}

TEST(SockStreamConnect, StatusOfAClosedSocketFails) {
    CSockStream stream;
    const LogCapture log;
    EXPECT_EQ(-2, stream.GetConnectStatus());
    EXPECT_EQ(EBADF, errno);
    EXPECT_THAT(texts(log),
                ElementsAre("2 Orvex::Reticor::CSockStream::GetConnectStatus : getsockopt error, Bad "
                            "file descriptor\n"));
}

TEST(SockStreamSend, NullIsRefusedInSilence) {
    LoopbackPair pair;
    const LogCapture log;
    EXPECT_EQ(-1, pair.client.Send(nullptr, 1));
    EXPECT_EQ(-1, pair.client.WriteV(nullptr, 1));
    char byte = 0;
    EXPECT_EQ(-1, pair.client.Recv(nullptr, 1));
    EXPECT_EQ(-1, pair.client.Send_n(nullptr, 1, 1000));
    EXPECT_EQ(-1, pair.client.Recv_n(nullptr, 1, 1000));
    EXPECT_EQ(0, pair.client.Send(&byte, 0));
    EXPECT_THAT(texts(log), IsEmpty());
}

TEST(SockStreamSend, BytesArriveAndAFullSocketGivesZero) {
    LoopbackPair pair;
    ASSERT_TRUE(pair.connected);
    pair.shrink();
    const LogCapture log;
    const std::size_t taken = Testing::fill(pair.client);
    ASSERT_GT(taken, 0u);
    EXPECT_EQ(0, pair.client.Send("x", 1));
    iovec piece{const_cast<char*>("x"), 1};
    EXPECT_EQ(0, pair.client.WriteV(&piece, 1));
    EXPECT_EQ(Testing::receive(pair.server, taken).size(), taken);
    EXPECT_THAT(texts(log), IsEmpty());
}

TEST(SockStreamSend, LargeSendIsCutShort) {
    LoopbackPair pair;
    ASSERT_TRUE(pair.connected);
    pair.shrink();
    const std::string bytes = Testing::pattern(1024 * 1024);
    const int sent = pair.client.Send(bytes.data(), static_cast<unsigned>(bytes.size()));
    ASSERT_GT(sent, 0);
    ASSERT_LT(static_cast<std::size_t>(sent), bytes.size());
    EXPECT_EQ(Testing::receive(pair.server, static_cast<std::size_t>(sent)),
              bytes.substr(0, static_cast<std::size_t>(sent)));
}

TEST(SockStreamSend, ClosedOutputIsAResultAndNoSignal) {
    LoopbackPair pair;
    ASSERT_TRUE(pair.connected);
    ASSERT_EQ(0, ::shutdown(pair.client.GetHandle(), SHUT_WR));
    iovec piece{const_cast<char*>("x"), 1};
    const LogCapture log;
    EXPECT_EQ(-1, pair.client.Send("x", 1));
    EXPECT_EQ(EPIPE, errno);
    EXPECT_EQ(-1, pair.client.WriteV(&piece, 1));
    EXPECT_EQ(EPIPE, errno);
    EXPECT_EQ(-1, pair.client.Send_n("x", 1, 1000));
    EXPECT_EQ(EPIPE, errno);
    EXPECT_THAT(texts(log), ElementsAre("2 Orvex::Reticor::CSockStream::Send : send failed! Broken pipe\n",
                                        "2 Orvex::Reticor::CSockStream::WriteV : send failed! Broken pipe\n",
                                        "2 Orvex::Reticor::CSockStream::Send : send failed! Broken pipe\n"));
}

TEST(SockStreamSend, ResetByThePeerIsLogged) {
    LoopbackPair pair;
    ASSERT_TRUE(pair.connected);
    closeWithReset(pair.server);
    ASSERT_TRUE(waitFor(pair.client.GetHandle(), POLLHUP));
    const LogCapture log;
    EXPECT_EQ(-1, pair.client.Send("x", 1));
    EXPECT_THAT(texts(log),
                ElementsAre("2 Orvex::Reticor::CSockStream::Send : send failed! Connection reset by peer\n"));
}

TEST(SockStreamSend, ClosedSocketIsLogged) {
    CSockStream stream;
    iovec piece{const_cast<char*>("x"), 1};
    char byte = 0;
    const LogCapture log;
    EXPECT_EQ(-1, stream.Send("x", 1));
    EXPECT_EQ(EBADF, errno);
    EXPECT_EQ(-1, stream.WriteV(&piece, 1));
    EXPECT_EQ(EBADF, errno);
    EXPECT_EQ(-1, stream.Recv(&byte, 1));
    EXPECT_EQ(EBADF, errno);
    EXPECT_THAT(texts(log),
                ElementsAre("2 Orvex::Reticor::CSockStream::Send : send failed! Bad file descriptor\n",
                            "2 Orvex::Reticor::CSockStream::WriteV : send failed! Bad file descriptor\n",
                            "2 Orvex::Reticor::CSockStream::Recv : recv failed, Bad file descriptor\n"));
}

TEST(SockStreamWriteV, PiecesGoOutInOrder) {
    LoopbackPair pair;
    ASSERT_TRUE(pair.connected);
    std::string head = "head ";
    std::string middle;
    std::string tail = "tail";
    const iovec pieces[] = {{&head[0], head.size()}, {&middle[0], 0}, {&tail[0], tail.size()}};
    EXPECT_EQ(9, pair.client.WriteV(pieces, 3));
    EXPECT_EQ("head tail", Testing::receive(pair.server, 9));
    EXPECT_EQ(0, pair.client.WriteV(pieces, 0));
}

TEST(SockStreamWriteV, AtMostIovMaxPiecesGoOutInOneCall) {
    LoopbackPair pair;
    ASSERT_TRUE(pair.connected);
    std::string bytes = Testing::pattern(IOV_MAX + 10);
    std::vector<iovec> pieces;
    for (char& byte : bytes) {
        pieces.push_back({&byte, 1});
    }
    EXPECT_EQ(IOV_MAX, pair.client.WriteV(pieces.data(), static_cast<int>(pieces.size())));
    EXPECT_EQ(Testing::receive(pair.server, IOV_MAX), bytes.substr(0, IOV_MAX));
}

TEST(SockStreamWriteV, EmptyPiecesAheadOfTheKernelsLimitDoNotLookLikeAFullSocket) {
    LoopbackPair pair;
    ASSERT_TRUE(pair.connected);
    std::vector<iovec> pieces(3 * IOV_MAX, iovec{nullptr, 0});
    pieces.push_back({const_cast<char*>("behind"), 6});
    EXPECT_EQ(6, pair.client.WriteV(pieces.data(), static_cast<int>(pieces.size())));
    EXPECT_EQ("behind", Testing::receive(pair.server, 6));
    pieces.pop_back();
    EXPECT_EQ(0, pair.client.WriteV(pieces.data(), static_cast<int>(pieces.size())));
}

TEST(SockStreamWriteV, NegativeCountIsAnError) {
    LoopbackPair pair;
    ASSERT_TRUE(pair.connected);
    iovec piece{const_cast<char*>("x"), 1};
    const LogCapture log;
    EXPECT_EQ(-1, pair.client.WriteV(&piece, -1));
    EXPECT_EQ(EMSGSIZE, errno);
    EXPECT_THAT(texts(log),
                ElementsAre("2 Orvex::Reticor::CSockStream::WriteV : send failed! Message too long\n"));
}

TEST(SockStreamRecv, NothingWaitingGivesZero) {
    LoopbackPair pair;
    ASSERT_TRUE(pair.connected);
    char buffer[8];
    EXPECT_EQ(0, pair.client.Recv(buffer, sizeof buffer));
}

TEST(SockStreamRecv, OrderlyCloseIsAResetToTheCaller) {
    LoopbackPair pair;
    ASSERT_TRUE(pair.connected);
    ASSERT_EQ(4, pair.server.Send("last", 4));
    pair.server.Close();
    EXPECT_EQ("last", Testing::receive(pair.client, 4));
    ASSERT_TRUE(waitFor(pair.client.GetHandle(), POLLIN));
    char buffer[8];
    const LogCapture log;
    errno = 0;
    EXPECT_EQ(-1, pair.client.Recv(buffer, sizeof buffer));
    EXPECT_EQ(ECONNRESET, errno);
    EXPECT_EQ(0, pair.client.Recv_n(buffer, sizeof buffer, 1000000));
    EXPECT_THAT(texts(log), IsEmpty());
}

TEST(SockStreamRecv, ResetIsSilent) {
    LoopbackPair pair;
    ASSERT_TRUE(pair.connected);
    closeWithReset(pair.server);
    ASSERT_TRUE(waitFor(pair.client.GetHandle(), POLLIN));
    char buffer[8];
    const LogCapture log;
    errno = 0;
    EXPECT_EQ(-1, pair.client.Recv(buffer, sizeof buffer));
    EXPECT_EQ(ECONNRESET, errno);
    EXPECT_THAT(texts(log), IsEmpty());
}

TEST(SockStreamRecv, InterruptedBlockingCallsGiveZero) {
    LoopbackPair pair;
    ASSERT_TRUE(pair.connected);
    pair.shrink();
    pair.client.SetBlockOpt(true);
    Testing::Interrupter interrupter;
    std::atomic<int> kernel_id{0};
    int received = -5;
    int sent = -5;
    int gathered = -5;
    std::thread worker([&] {
        kernel_id = Infra::CThread::getCurrentThreadID();
        char byte = 0;
        received = pair.client.Recv(&byte, 1);
        pair.client.SetBlockOpt(false);
        Testing::fill(pair.client);
        pair.client.SetBlockOpt(true);
        sent = pair.client.Send("x", 1);
        iovec piece{const_cast<char*>("x"), 1};
        gathered = pair.client.WriteV(&piece, 1);
        kernel_id = -1;
    });
    ASSERT_EVENTUALLY(kernel_id != 0);
    // Each blocking call ends with a signal of its own.
    EXPECT_TRUE(Testing::eventually([&] {
        if (kernel_id > 0 && Testing::Interrupter::waitUntilAsleep(kernel_id)) {
            ::pthread_kill(worker.native_handle(), SIGUSR1);
        }
        return kernel_id < 0;
    }));
    worker.join();
    EXPECT_EQ(0, received);
    EXPECT_EQ(0, sent);
    EXPECT_EQ(0, gathered);
}

TEST(SockStreamCost, TransferAllocatesNothing) {
    LoopbackPair pair;
    ASSERT_TRUE(pair.connected);
    char buffer[16];
    iovec piece{const_cast<char*>("gather"), 6};
    const std::size_t before = Testing::allocationCount();
    const int sent = pair.client.Send("plain", 5);
    const int gathered = pair.client.WriteV(&piece, 1);
    const int waited = pair.client.Send_n("wait", 4, 1000);
    const int received = pair.server.Recv_n(buffer, sizeof buffer, 5000000);
    const int nothing = pair.client.Recv(buffer, sizeof buffer);
    EXPECT_EQ(Testing::allocationCount(), before);
    EXPECT_EQ(5, sent);
    EXPECT_EQ(6, gathered);
    EXPECT_EQ(4, waited);
    EXPECT_EQ(15, received);
    EXPECT_EQ(0, nothing);
}

TEST(SockStreamOptions, BuffersAreSetAndRead) {
    LoopbackPair pair;
    ASSERT_TRUE(pair.connected);
    EXPECT_EQ(0, pair.client.SetSockRecvBuf(20000));
    EXPECT_EQ(0, pair.client.SetSockSendBuf(30000));
    EXPECT_EQ(40000, pair.client.GetSockRecvBuf()) << "the kernel doubles";
    EXPECT_EQ(60000, pair.client.GetSockSendBuf());
}

TEST(SockStreamOptions, KeepAliveAndNoDelayAreSwitched) {
    LoopbackPair pair;
    ASSERT_TRUE(pair.connected);
    EXPECT_EQ(0, pair.client.SetSockKeepAlive(true));
    EXPECT_EQ(1, optionOf(pair.client, SOL_SOCKET, SO_KEEPALIVE));
    EXPECT_EQ(0, pair.client.SetSockKeepAlive(false));
    EXPECT_EQ(0, optionOf(pair.client, SOL_SOCKET, SO_KEEPALIVE));
    EXPECT_EQ(0, pair.client.SetSockNoDelay(true));
    EXPECT_EQ(1, optionOf(pair.client, IPPROTO_TCP, TCP_NODELAY));
    EXPECT_EQ(0, pair.client.SetSockNoDelay(false));
    EXPECT_EQ(0, optionOf(pair.client, IPPROTO_TCP, TCP_NODELAY));
}

TEST(SockStreamOptions, FailuresAreLogged) {
    CSockStream stream;
    const LogCapture log;
    EXPECT_EQ(-1, stream.SetSockRecvBuf(1));
    EXPECT_EQ(-1, stream.SetSockSendBuf(1));
    EXPECT_EQ(-1, stream.GetSockRecvBuf());
    EXPECT_EQ(-1, stream.GetSockSendBuf());
    EXPECT_EQ(-1, stream.SetSockKeepAlive(true));
    EXPECT_EQ(-1, stream.SetSockNoDelay(true));
    EXPECT_EQ(EBADF, errno);
    const std::string name = "2 Orvex::Reticor::CSockStream::";
    const std::string set = " : setsockopt failed! Bad file descriptor\n";
    const std::string get = " : getsockopt failed! Bad file descriptor\n";
    EXPECT_THAT(texts(log), ElementsAre(name + "SetSockRecvBuf" + set, name + "SetSockSendBuf" + set,
                                        name + "GetSockRecvBuf" + get, name + "GetSockSendBuf" + get,
                                        name + "SetSockKeepAlive" + set, name + "SetSockNoDelay" + set));
}

}  // namespace
}  // namespace Orvex::Reticor
