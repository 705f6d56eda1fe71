// CSockDgram: opening, peers, datagrams, options. Groups are in DgramGroupsTest.cpp.
#include <Reticor/SockDgram.h>

#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <string>
#include <vector>

#include <Reticor/SockAddrIPv4.h>
#include <Reticor/SockAddrIPv6.h>
#include <Reticor/SockAddrStorage.h>

#include "support/LogCapture.h"
#include "support/socket/Loopback.h"
#include "support/socket/SystemSeam.h"
#include "support/socket/UnknownAddr.h"

namespace Orvex::Reticor {
namespace {

using Testing::CUnknownAddr;
using ::testing::ElementsAre;
using Testing::FailNext;
using ::testing::IsEmpty;
using Testing::LogCapture;
using Testing::LOOPBACK_IP;
using ::testing::MatchesRegex;
using Testing::optionOf;
using Testing::SystemCall;
using Testing::texts;
using Testing::waitFor;

// Bound to loopback with a port of the system's choice, which is kept in `port`.
struct Receiver {
    explicit Receiver(bool ipv6 = false) {
        const CSockAddrIPv4 ipv4("127.0.0.1", 0);
        const CSockAddrIPv6 local6("::1", 0);
        EXPECT_EQ(0, sock.Open(ipv6 ? static_cast<const CSockAddr*>(&local6) : &ipv4));
        CSockAddrStorage bound;
        EXPECT_EQ(0, sock.GetLocalAddr(&bound));
        port = bound.GetPort();
    }

    std::string receive(CSockAddr* from = nullptr) {
        std::string bytes(70000, '\0');
        if (!waitFor(sock.GetHandle(), POLLIN)) {
            return "nothing came";
        }
        const int count = sock.Recv(&bytes[0], static_cast<unsigned>(bytes.size()), from);
        return bytes.substr(0, static_cast<std::size_t>(std::max(count, 0)));
    }

    CSockDgram sock;
    unsigned short port = 0;
};

TEST(SockDgramOpen, StartsEmptyAndNonBlocking) {
    const CSockDgram sock;
    EXPECT_EQ(2u, sock.GetType());
    EXPECT_EQ(-1, sock.GetHandle());
    EXPECT_FALSE(sock.GetBlockOpt());
}

TEST(SockDgramOpen, NoAddressGivesAnUnboundIPv4Socket) {
    CSockDgram sock;
    EXPECT_EQ(0, sock.Open(nullptr));
    EXPECT_EQ(AF_INET, optionOf(sock, SOL_SOCKET, SO_DOMAIN));
    EXPECT_EQ(SOCK_DGRAM, optionOf(sock, SOL_SOCKET, SO_TYPE));
    EXPECT_TRUE(Testing::isNonBlocking(sock.GetHandle()));
    EXPECT_TRUE(Testing::isCloseOnExec(sock.GetHandle()));
    CSockAddrIPv4 local;
    EXPECT_EQ(0, sock.GetLocalAddr(&local));
    EXPECT_EQ(0, local.GetPort());
}

TEST(SockDgramOpen, NoAddressCannotBeReused) {
    CSockDgram sock;
    const LogCapture log;
    EXPECT_EQ(-1, sock.Open(nullptr, true));
    EXPECT_EQ(1u, log.countMatching(2,
                                    "Orvex::Reticor::CSockDgram::Open : open failed!Invalid parameter: "
                                    "reuseaddr:1, addr:\\(nil\\) \n"))
        << log.dump();
    EXPECT_EQ(-1, sock.GetHandle());
}

TEST(SockDgramOpen, BindsToAddressesOfEachClass) {
    const CSockAddrIPv4 ipv4("127.0.0.1", 0);
    const CSockAddrIPv6 ipv6("::1", 0);
    const CSockAddrStorage storage4("127.0.0.1", 0);
    const CSockAddrStorage storage6("::1", 0);
    const CSockAddrStorage mapped("::ffff:127.0.0.1", 0);
    const struct {
        const CSockAddr* addr;
        int family;
        const char* text;
    } cases[] = {{&ipv4, AF_INET, "127.0.0.1"},
                 {&ipv6, AF_INET6, "::1"},
                 {&storage4, AF_INET, "127.0.0.1"},
                 {&storage6, AF_INET6, "::1"},
                 {&mapped, AF_INET6, "::ffff:127.0.0.1"}};
    for (const auto& one : cases) {
        CSockDgram sock;
        EXPECT_EQ(0, sock.Open(one.addr)) << one.text;
        EXPECT_EQ(optionOf(sock, SOL_SOCKET, SO_DOMAIN), one.family);
        CSockAddrStorage local;
        EXPECT_EQ(0, sock.GetLocalAddr(&local));
        char text[64] = "";
        EXPECT_STREQ(local.GetIpStr(text, sizeof text), one.text);
        EXPECT_NE(0, local.GetPort());
    }
}

TEST(SockDgramOpen, PortIsTheOneThatTheAddressTells) {
    Receiver holder;
    const unsigned short port = holder.port;
    holder.sock.Close();
    CSockAddrStorage mapped("::ffff:127.0.0.1", 1);
    mapped.SetPort(port);  // The record of such an address keeps the port that it had before.
    CSockDgram sock;
    ASSERT_EQ(0, sock.Open(&mapped));
    CSockAddrStorage local;
    sock.GetLocalAddr(&local);
    EXPECT_EQ(local.GetPort(), port);
}

TEST(SockDgramOpen, KeepsTheScopeOfALinkLocalAddress) {
    const CSockAddrIPv6 local("fe80::1234", 0, 9999);
    CSockDgram sock;
    const LogCapture log;
    EXPECT_EQ(-1, sock.Open(&local));
    EXPECT_EQ(ENODEV, errno) << "without a scope the system would call it an invalid argument";
}

TEST(SockDgramOpen, SecondOpenClosesTheFirstSocketAndForgetsItsPeer) {
    Receiver peer;
    CSockDgram sock;
    sock.Open(nullptr);
    const CSockAddrIPv4 remote(LOOPBACK_IP, peer.port);
    ASSERT_EQ(0, sock.SetRemote(&remote));
    EXPECT_EQ(1, sock.Send("x", 1, nullptr));
    const CSockAddrIPv6 local("::1", 0);
    EXPECT_EQ(0, sock.Open(&local));
    EXPECT_EQ(AF_INET6, optionOf(sock, SOL_SOCKET, SO_DOMAIN));
    const LogCapture log;
    EXPECT_EQ(-1, sock.Send("x", 1, nullptr));
    EXPECT_THAT(texts(log),
                ElementsAre("2 Orvex::Reticor::CSockDgram::Send : send to failed! remote is null \n"));
}

TEST(SockDgramOpen, OpenAfterCloseForgetsThePeer) {
    Receiver peer;
    CSockDgram sock;
    sock.Open(nullptr);
    const CSockAddrIPv4 remote(LOOPBACK_IP, peer.port);
    ASSERT_EQ(0, sock.SetRemote(&remote));
    sock.Close();
    ASSERT_EQ(0, sock.Open(nullptr));
    const LogCapture log;
    EXPECT_EQ(-1, sock.Send("x", 1, nullptr));
    EXPECT_THAT(texts(log),
                ElementsAre("2 Orvex::Reticor::CSockDgram::Send : send to failed! remote is null \n"));
}

TEST(SockDgramOpen, AddressOfNoFamilyLeavesAnIPv6SocketOpenAndUnbound) {
    const CSockAddrStorage empty;
    const CUnknownAddr unknown;
    for (const CSockAddr* addr :
         {static_cast<const CSockAddr*>(&empty), static_cast<const CSockAddr*>(&unknown)}) {
        CSockDgram sock;
        const LogCapture log;
        EXPECT_EQ(-1, sock.Open(addr));
        EXPECT_EQ(AF_INET6, optionOf(sock, SOL_SOCKET, SO_DOMAIN));
        EXPECT_EQ(1u, log.countMatching(2, "getaddrinfo error:.*\n")) << log.dump();
    }
}

TEST(SockDgramOpen, SocketThatCannotBeMadeIsLogged) {
    const LogCapture log;
    {
        Testing::NoDescriptors none;
        CSockDgram sock;
        EXPECT_EQ(-1, sock.Open(nullptr));
        EXPECT_EQ(EMFILE, errno);
    }
    EXPECT_THAT(texts(log),
                ElementsAre("2 Orvex::Reticor::CSockDgram::Open : create socket failed, Too many open "
                            "files\n."));
}

TEST(SockDgramOpen, ModeThatCannotBeSetEndsIt) {
    CSockDgram sock;
    const CSockAddrIPv4 local("127.0.0.1", 0);
    const LogCapture log;
    const FailNext fail(SystemCall::ioctl, EIO);
    EXPECT_EQ(-1, sock.Open(&local));
    EXPECT_NE(-1, sock.GetHandle());
    CSockAddrIPv4 bound;
    sock.GetLocalAddr(&bound);
    EXPECT_EQ(0, bound.GetPort());
}

TEST(SockDgramOpen, BlockingModeIsKept) {
    CSockDgram sock;
    sock.SetBlockOpt(true);
    ASSERT_EQ(0, sock.Open(nullptr));
    EXPECT_FALSE(Testing::isNonBlocking(sock.GetHandle()));
}

TEST(SockDgramOpen, PortInUseIsLoggedAndTheHandleStays) {
    Receiver first;
    CSockDgram sock;
    const CSockAddrIPv4 local(LOOPBACK_IP, first.port);
    const LogCapture log;
    EXPECT_EQ(-1, sock.Open(&local));
    EXPECT_EQ(EADDRINUSE, errno);
    EXPECT_TRUE(sock.IsValid());
    EXPECT_THAT(texts(log), ElementsAre("2 Orvex::Reticor::CSockDgram::Open : bind failed! This port is " +
                                        std::to_string(first.port) + " Address already in use\n"));
    const CSockAddrIPv4 other("127.0.0.1", 0);
    EXPECT_EQ(0, sock.Open(&other)) << "the next Open closes it";
}

TEST(SockDgramOpen, PortIsSharedByThoseWhoAllAskForIt) {
    CSockDgram first;
    CSockAddrIPv4 local("127.0.0.1", 0);
    ASSERT_EQ(0, first.Open(&local, true)) << "port 0 asks for nothing";
    EXPECT_EQ(0, optionOf(first, SOL_SOCKET, SO_REUSEADDR));
    first.GetLocalAddr(&local);
    first.Close();
    ASSERT_EQ(0, first.Open(&local, true));
    EXPECT_EQ(1, optionOf(first, SOL_SOCKET, SO_REUSEADDR));
    CSockDgram second;
    EXPECT_EQ(0, second.Open(&local, true));
    const LogCapture log;
    CSockDgram third;
    EXPECT_EQ(-1, third.Open(&local, false));
}

TEST(SockDgramOpen, ReuseThatIsRefusedIsLogged) {
    CSockDgram sock;
    const CSockAddrIPv4 local("127.0.0.1", 45454);
    const LogCapture log;
    const FailNext fail(SystemCall::setsockopt, ENOPROTOOPT, 1);
    EXPECT_EQ(-1, sock.Open(&local, true));
    EXPECT_EQ(ENOPROTOOPT, errno);
    EXPECT_THAT(
        texts(log),
        ElementsAre("2 Orvex::Reticor::CSockDgram::Open : set reuseaddr failed!, Protocol not available\n"));
}

// ---- SetRemote -----------------------------------------------------------------------------------------

TEST(SockDgramSetRemote, ConnectsToAPeerAndReceivesFromItAlone) {
    for (const bool ipv6 : {false, true}) {
        Receiver peer(ipv6);
        Receiver stranger(ipv6);
        Receiver own(ipv6);
        const CSockAddrStorage remote(ipv6 ? "::1" : "127.0.0.1", peer.port);
        const CSockAddrStorage to(ipv6 ? "::1" : "127.0.0.1", own.port);
        ASSERT_EQ(0, own.sock.SetRemote(&remote));
        CSockAddrStorage connected;
        EXPECT_EQ(0, own.sock.GetRemoteAddr(&connected));
        EXPECT_EQ(connected.GetPort(), peer.port);
        EXPECT_EQ(8, stranger.sock.Send("stranger", 8, &to));
        EXPECT_EQ(4, peer.sock.Send("peer", 4, &to));
        EXPECT_EQ("peer", own.receive());
        EXPECT_EQ(6, own.sock.Send("answer", 6, nullptr));
        CSockAddrStorage from;
        EXPECT_EQ("answer", peer.receive(&from));
        EXPECT_EQ(from.GetPort(), own.port);
    }
}

TEST(SockDgramSetRemote, NoPeerAndNoRecordAreInvalid) {
    CSockDgram sock;
    sock.Open(nullptr);
    const CSockAddrStorage empty;
    const CUnknownAddr no_record(false);
    const LogCapture log;
    EXPECT_EQ(-1, sock.SetRemote(nullptr));
    EXPECT_EQ(-1, sock.SetRemote(&empty));
    EXPECT_EQ(-1, sock.SetRemote(&no_record));
    const std::string line = "2 Orvex::Reticor::CSockDgram::SetRemote : invalid remote addresst type!\n";
    EXPECT_THAT(texts(log), ElementsAre(line, line, line));
}

TEST(SockDgramSetRemote, AddressOfAnotherFamilyIsAnError) {
    CSockDgram sock;
    sock.Open(nullptr);
    const CSockAddrIPv4 valid(LOOPBACK_IP, 9);
    sock.SetRemote(&valid);
    const LogCapture log;
    const CUnknownAddr unknown;
    EXPECT_EQ(-1, sock.SetRemote(&unknown));
    EXPECT_EQ(-1, sock.Send("x", 1, nullptr)) << "the former peer is forgotten";
    EXPECT_THAT(texts(log),
                ElementsAre("2 Orvex::Reticor::CSockDgram::SetRemote : CSockDgram::SetRemote error!\n",
                            "2 Orvex::Reticor::CSockDgram::Send : send to failed! remote is null \n"));
}

TEST(SockDgramSetRemote, FourOnesAtTheEndMakeABroadcastAddressThatIsNotConnected) {
    for (const char* ip : {"127.0.0.15", "127.0.0.255", "127.0.0.31"}) {
        CSockDgram sock;
        sock.Open(nullptr);
        const CSockAddrIPv4 remote(ip, 9);
        EXPECT_EQ(0, sock.SetRemote(&remote)) << ip;
        EXPECT_EQ(1, optionOf(sock, SOL_SOCKET, SO_BROADCAST));
        CSockAddrIPv4 connected;
        const LogCapture log;
        EXPECT_EQ(-1, sock.GetRemoteAddr(&connected));
    }
    CSockDgram sock;
    sock.Open(nullptr);
    const CSockAddrIPv4 remote("127.0.0.14", 9);
    EXPECT_EQ(0, sock.SetRemote(&remote));
    EXPECT_EQ(0, optionOf(sock, SOL_SOCKET, SO_BROADCAST));
    CSockAddrIPv4 connected;
    EXPECT_EQ(0, sock.GetRemoteAddr(&connected));
}

TEST(SockDgramSetRemote, BroadcastThatIsRefusedIsLogged) {
    CSockDgram sock;
    sock.Open(nullptr);
    const CSockAddrIPv4 remote("127.0.0.255", 9);
    const LogCapture log;
    const FailNext fail(SystemCall::setsockopt, EACCES);
    EXPECT_EQ(-1, sock.SetRemote(&remote));
    EXPECT_THAT(texts(log),
                ElementsAre("2 Orvex::Reticor::CSockDgram::SetRemote : set SO_BROADCAST failed,errno:13, "
                            "errmsg Permission denied\n"));
}

TEST(SockDgramSetRemote, ConnectThatFailsClosesTheSocket) {
    CSockDgram sock;
    sock.Open(nullptr);
    const int handle = sock.GetHandle();
    const CSockAddrIPv6 remote("::1", 9);
    const LogCapture log;
    EXPECT_EQ(-1, sock.SetRemote(&remote));
    EXPECT_EQ(EAFNOSUPPORT, errno);
    EXPECT_EQ(-1, sock.GetHandle());
    EXPECT_FALSE(Testing::isOpen(handle));
    EXPECT_THAT(texts(log),
                ElementsAre("2 Orvex::Reticor::CSockDgram::SetRemote : connect faield! Address family "
                            "not supported by protocol\n"));
}

TEST(SockDgramSetRemote, FormerConnectStaysInForceUntilThereIsANewOne) {
    Receiver first;
    Receiver second;
    CSockDgram sock;
    sock.Open(nullptr);
    CSockAddrIPv4 remote(LOOPBACK_IP, first.port);
    ASSERT_EQ(0, sock.SetRemote(&remote));
    const CSockAddrIPv4 broadcast("127.0.0.255", 9);
    ASSERT_EQ(0, sock.SetRemote(&broadcast));
    const iovec piece{const_cast<char*>("still"), 5};
    EXPECT_EQ(5, sock.WriteV(&piece, 1));
    EXPECT_EQ("still", first.receive());
    remote.SetPort(second.port);
    ASSERT_EQ(0, sock.SetRemote(&remote));
    EXPECT_EQ(5, sock.WriteV(&piece, 1));
    EXPECT_EQ("still", second.receive());
}

// ---- Send, WriteV, Recv --------------------------------------------------------------------------------

TEST(SockDgramSend, InvalidParametersAreLogged) {
    CSockDgram sock;
    sock.Open(nullptr);
    const CSockAddrIPv4 remote(LOOPBACK_IP, 9);
    const CSockAddrIPv4 invalid(0xFFFFFFFFu, 0);
    const CSockAddrIPv6 no_port("::1", 0);
    const LogCapture log;
    EXPECT_EQ(-1, sock.Send(nullptr, 1, &remote));
    EXPECT_EQ(-1, sock.Send("x", 0, &remote));
    EXPECT_EQ(-1, sock.Send("x", 1, nullptr));
    EXPECT_EQ(-1, sock.Send("x", 1, &invalid));
    EXPECT_EQ(-1, sock.Send("x", 1, &no_port));
    const std::string start = "2 Orvex::Reticor::CSockDgram::Send : send to failed! ";
    EXPECT_THAT(texts(log), ElementsAre(start + "Invalid parameter: buf:(nil), len:1 \n",
                                        MatchesRegex(start + "Invalid parameter: buf:0x[0-9a-f]+, len:0 \n"),
                                        start + "remote is null \n", ::testing::HasSubstr("Invalid addr"),
                                        start + "remote is invalid \n", ::testing::HasSubstr("Invalid addr"),
                                        start + "remote is invalid \n"));
}

TEST(SockDgramSend, IPv4PeerWithPortZeroPassesTheTestAndFailsAtTheSystem) {
    CSockDgram sock;
    sock.Open(nullptr);
    const CSockAddrIPv4 no_port("127.0.0.1", 0);
    const LogCapture log;
    EXPECT_EQ(-1, sock.Send("x", 1, &no_port));
    EXPECT_THAT(texts(log),
                ElementsAre("2 Orvex::Reticor::CSockDgram::Send : send to failed! Invalid argument\n"));
}

TEST(SockDgramSend, GoesToTheAddressGivenThoughAnotherOneIsConnected) {
    for (const bool ipv6 : {false, true}) {
        Receiver fixed(ipv6);
        Receiver other(ipv6);
        Receiver own(ipv6);
        const char* const ip = ipv6 ? "::1" : "127.0.0.1";
        const CSockAddrStorage remote(ip, fixed.port);
        const CSockAddrStorage to(ip, other.port);
        ASSERT_EQ(0, own.sock.SetRemote(&remote));
        EXPECT_EQ(5, own.sock.Send("other", 5, &to));
        EXPECT_EQ(5, own.sock.Send("fixed", 5, nullptr));
        EXPECT_EQ("other", other.receive());
        EXPECT_EQ("fixed", fixed.receive());
    }
}

TEST(SockDgramSend, FullSocketGivesZero) {
    Receiver receiver;
    CSockDgram sock;
    sock.Open(nullptr);
    const CSockAddrIPv4 to(LOOPBACK_IP, receiver.port);
    const FailNext fail(SystemCall::sendto, EWOULDBLOCK);
    EXPECT_EQ(0, sock.Send("x", 1, &to));
    const FailNext interrupted(SystemCall::sendto, EINTR);
    EXPECT_EQ(0, sock.Send("x", 1, &to));
    EXPECT_EQ(1, sock.Send("x", 1, &to));
}

TEST(SockDgramSend, WhatNoDatagramHoldsIsAnError) {
    Receiver receiver;
    CSockDgram sock;
    sock.Open(nullptr);
    const CSockAddrIPv4 to(LOOPBACK_IP, receiver.port);
    const std::string bytes(65508, 'd');
    EXPECT_EQ(65507, sock.Send(bytes.data(), 65507, &to));
    EXPECT_EQ(65507u, receiver.receive().size());
    const LogCapture log;
    EXPECT_EQ(-1, sock.Send(bytes.data(), 65508, &to));
    EXPECT_EQ(EMSGSIZE, errno);
}

TEST(SockDgramSend, RefusedPortIsToldByTheNextSendAndTheSocketGoesOn) {
    Receiver gone;
    const CSockAddrIPv4 to(LOOPBACK_IP, gone.port);
    gone.sock.Close();
    CSockDgram sock;
    sock.Open(nullptr);
    ASSERT_EQ(0, sock.SetRemote(&to));
    EXPECT_EQ(1, sock.Send("x", 1, nullptr));
    ASSERT_TRUE(waitFor(sock.GetHandle(), POLLERR));
    const LogCapture log;
    EXPECT_EQ(-1, sock.Send("x", 1, nullptr));
    EXPECT_EQ(ECONNREFUSED, errno);
    EXPECT_EQ(1, sock.Send("x", 1, nullptr));
    ASSERT_TRUE(waitFor(sock.GetHandle(), POLLERR));
    char byte = 0;
    EXPECT_EQ(-1, sock.Recv(&byte, 1, nullptr));
    EXPECT_EQ(ECONNREFUSED, errno);
    EXPECT_THAT(texts(log),
                ElementsAre("2 Orvex::Reticor::CSockDgram::Send : send to failed! Connection refused\n",
                            "2 Orvex::Reticor::CSockDgram::Recv : recv from failed! Connection refused\n"));
}

TEST(SockDgramWriteV, PiecesMakeOneDatagram) {
    for (const bool ipv6 : {false, true}) {
        Receiver receiver(ipv6);
        Receiver own(ipv6);
        const CSockAddrStorage remote(ipv6 ? "::1" : "127.0.0.1", receiver.port);
        ASSERT_EQ(0, own.sock.SetRemote(&remote));
        const iovec pieces[] = {
            {const_cast<char*>("one "), 4}, {nullptr, 0}, {const_cast<char*>("datagram"), 8}};
        EXPECT_EQ(12, own.sock.WriteV(pieces, 3));
        EXPECT_EQ("one datagram", receiver.receive());
    }
}

TEST(SockDgramWriteV, LongListIsStillOneDatagram) {
    Receiver receiver;
    CSockDgram sock;
    sock.Open(nullptr);
    const CSockAddrIPv4 remote(LOOPBACK_IP, receiver.port);
    ASSERT_EQ(0, sock.SetRemote(&remote));
    std::string bytes = Testing::pattern(30000);
    for (const std::size_t count : {std::size_t{IOV_MAX - 1}, std::size_t{IOV_MAX}, std::size_t{IOV_MAX + 1},
                                    std::size_t{3000}, std::size_t{30000}}) {
        std::vector<iovec> pieces;
        for (std::size_t i = 0; i < count; ++i) {
            pieces.push_back({&bytes[i], 1});
            pieces.push_back({nullptr, 0});
        }
        EXPECT_EQ(sock.WriteV(pieces.data(), static_cast<int>(pieces.size())), static_cast<int>(count));
        EXPECT_EQ(receiver.receive(), bytes.substr(0, count));
    }
}

TEST(SockDgramWriteV, WhatNoDatagramHoldsIsAnErrorHoweverItIsCut) {
    Receiver receiver;
    CSockDgram sock;
    sock.Open(nullptr);
    const CSockAddrIPv4 remote(LOOPBACK_IP, receiver.port);
    sock.SetRemote(&remote);
    std::string bytes(65508, 'd');
    std::vector<iovec> pieces(2000, iovec{&bytes[0], 0});
    const LogCapture log;
    pieces[1999].iov_len = 65508;
    EXPECT_EQ(-1, sock.WriteV(pieces.data(), 2000));
    EXPECT_EQ(EMSGSIZE, errno);
    pieces[1999].iov_len = SIZE_MAX;
    EXPECT_EQ(-1, sock.WriteV(pieces.data(), 2000));
    EXPECT_EQ(EMSGSIZE, errno);
    EXPECT_EQ(-1, sock.WriteV(pieces.data(), -1));
    EXPECT_EQ(EMSGSIZE, errno);
    const std::string line = "2 Orvex::Reticor::CSockDgram::WriteV : send failed! Message too long\n";
    EXPECT_THAT(texts(log), ElementsAre(line, line, line));
}

TEST(SockDgramWriteV, NeedsAVectorAndAPeer) {
    CSockDgram sock;
    sock.Open(nullptr);
    const iovec piece{const_cast<char*>("x"), 1};
    const LogCapture log;
    EXPECT_EQ(-1, sock.WriteV(&piece, 1));
    const CSockAddrIPv4 remote(LOOPBACK_IP, 9);
    sock.SetRemote(&remote);
    EXPECT_EQ(-1, sock.WriteV(nullptr, 1));
    const std::string start =
        "2 Orvex::Reticor::CSockDgram::WriteV : WriteV failed! Invalid parameter: vector:";
    EXPECT_THAT(texts(log), ElementsAre(MatchesRegex(start + "0x[0-9a-f]+, m_remote_addr:\\(nil\\) \n"),
                                        MatchesRegex(start + "\\(nil\\), m_remote_addr:0x[0-9a-f]+ \n")));
}

TEST(SockDgramWriteV, FullSocketGivesZero) {
    Receiver receiver;
    CSockDgram sock;
    sock.Open(nullptr);
    const CSockAddrIPv4 remote(LOOPBACK_IP, receiver.port);
    sock.SetRemote(&remote);
    const iovec piece{const_cast<char*>("x"), 1};
    const FailNext fail(SystemCall::sendmsg, EWOULDBLOCK);
    EXPECT_EQ(0, sock.WriteV(&piece, 1));
    const FailNext interrupted(SystemCall::sendmsg, EINTR);
    EXPECT_EQ(0, sock.WriteV(&piece, 1));
    EXPECT_EQ(1, sock.WriteV(&piece, 1));
}

TEST(SockDgramRecv, NothingWaitingAndAnEmptyDatagramGiveZero) {
    Receiver receiver;
    char byte = 0;
    EXPECT_EQ(0, receiver.sock.Recv(&byte, 1, nullptr));
    CSockDgram sock;
    sock.Open(nullptr);
    const CSockAddrIPv4 remote(LOOPBACK_IP, receiver.port);
    sock.SetRemote(&remote);
    const iovec piece{const_cast<char*>(""), 0};
    EXPECT_EQ(0, sock.WriteV(&piece, 1));
    ASSERT_TRUE(waitFor(receiver.sock.GetHandle(), POLLIN));
    CSockAddrIPv4 from;
    EXPECT_EQ(0, receiver.sock.Recv(&byte, 1, &from));
    EXPECT_EQ(0, from.GetPort()) << "no address comes with it";
}

TEST(SockDgramRecv, TellsTheSenderInEachClass) {
    Receiver receiver4;
    Receiver receiver6(true);
    CSockAddrIPv4 ipv4;
    CSockAddrIPv6 ipv6;
    CSockAddrStorage storage;
    const CSockAddrIPv4 to4(LOOPBACK_IP, receiver4.port);
    const CSockAddrIPv6 to6("::1", receiver6.port);
    char text[64] = "";
    receiver4.sock.Send("a", 1, &to4);
    receiver4.sock.Send("b", 1, &to4);
    EXPECT_EQ("a", receiver4.receive(&ipv4));
    EXPECT_TRUE(ipv4 == to4);
    EXPECT_EQ("b", receiver4.receive(&storage));
    EXPECT_STREQ("127.0.0.1", storage.GetIpStr(text, sizeof text));
    EXPECT_EQ(storage.GetPort(), receiver4.port);
    receiver6.sock.Send("c", 1, &to6);
    receiver6.sock.Send("d", 1, &to6);
    EXPECT_EQ("c", receiver6.receive(&ipv6));
    EXPECT_TRUE(ipv6 == to6);
    EXPECT_EQ("d", receiver6.receive(&storage));
    EXPECT_STREQ("::1", storage.GetIpStr(text, sizeof text));
}

TEST(SockDgramRecv, IPv6SenderDoesNotFitInAnIPv4AddressAndTheDataStillCome) {
    Receiver receiver(true);
    const CSockAddrIPv6 to("::1", receiver.port);
    receiver.sock.Send("data", 4, &to);
    CSockAddrIPv4 from("10.0.0.1", 7);
    const LogCapture log;
    EXPECT_EQ("data", receiver.receive(&from));
    EXPECT_EQ(7, from.GetPort());
    EXPECT_THAT(texts(log),
                ElementsAre("2 Orvex::Reticor::CSockDgram::Recv : a ipv6 address can not put into "
                            "CSockAddrIPv4!\n"));
}

TEST(SockDgramRecv, IPv4SenderLeavesAnIPv6AddressAsItIs) {
    Receiver receiver;
    const CSockAddrIPv4 to(LOOPBACK_IP, receiver.port);
    receiver.sock.Send("data", 4, &to);
    CSockAddrIPv6 from("::1", 7);
    EXPECT_EQ("data", receiver.receive(&from));
    EXPECT_EQ(7, from.GetPort());
}

TEST(SockDgramRecv, IPv4SenderToADualStackSocketHasAMappedAddress) {
    CSockDgram dual;
    const CSockAddrIPv6 any("::", 0);
    ASSERT_EQ(0, dual.Open(&any));
    CSockAddrStorage bound;
    dual.GetLocalAddr(&bound);
    CSockDgram sock;
    sock.Open(nullptr);
    const CSockAddrIPv4 to(LOOPBACK_IP, bound.GetPort());
    EXPECT_EQ(1, sock.Send("x", 1, &to));
    ASSERT_TRUE(waitFor(dual.GetHandle(), POLLIN));
    CSockAddrStorage from;
    char byte = 0;
    EXPECT_EQ(1, dual.Recv(&byte, 1, &from));
    char text[64] = "";
    EXPECT_STREQ("::ffff:127.0.0.1", from.GetIpStr(text, sizeof text));
}

TEST(SockDgramRecv, InvalidParametersAreLogged) {
    Receiver receiver;
    char byte = 0;
    CUnknownAddr unknown;
    const LogCapture log;
    EXPECT_EQ(-1, receiver.sock.Recv(nullptr, 1, nullptr));
    EXPECT_EQ(-1, receiver.sock.Recv(&byte, 0, nullptr));
    EXPECT_EQ(-1, receiver.sock.Recv(&byte, 1, &unknown));
    const std::string start = "2 Orvex::Reticor::CSockDgram::Recv : recv failed! invalid parameter";
    EXPECT_THAT(texts(log), ElementsAre(start + ": buf:(nil), len:1 \n",
                                        MatchesRegex(start + ": buf:0x[0-9a-f]+, len:0 \n"),
                                        start + ",remote type:0 \n"));
}

TEST(SockDgramRecv, LongDatagramLosesItsEnd) {
    Receiver receiver;
    const CSockAddrIPv4 to(LOOPBACK_IP, receiver.port);
    receiver.sock.Send("longer", 6, &to);
    char bytes[4];
    ASSERT_TRUE(waitFor(receiver.sock.GetHandle(), POLLIN));
    EXPECT_EQ(4, receiver.sock.Recv(bytes, 4, nullptr));
    EXPECT_EQ(0, receiver.sock.Recv(bytes, 4, nullptr));
}

// ---- Options, closed objects ---------------------------------------------------------------------------

TEST(SockDgramOptions, BufferSizesAreSetAndTold) {
    CSockDgram sock;
    sock.Open(nullptr);
    EXPECT_EQ(0, sock.SetSockRecvBuf(32768));
    EXPECT_EQ(0, sock.SetSockSendBuf(16384));
    EXPECT_EQ(65536, sock.GetSockRecvBuf());
    EXPECT_EQ(32768, sock.GetSockSendBuf());
}

TEST(SockDgramOptions, ClosedSocketFailsEverywhere) {
    CSockDgram sock;
    const CSockAddrIPv4 to(LOOPBACK_IP, 9);
    char byte = 0;
    const LogCapture log;
    EXPECT_EQ(-1, sock.SetSockRecvBuf(1));
    EXPECT_EQ(-1, sock.SetSockSendBuf(1));
    EXPECT_EQ(-1, sock.GetSockRecvBuf());
    EXPECT_EQ(-1, sock.GetSockSendBuf());
    EXPECT_EQ(-1, sock.SetMulticastTTL(1));
    EXPECT_EQ(-1, sock.Send("x", 1, &to));
    EXPECT_EQ(-1, sock.Recv(&byte, 1, nullptr));
    EXPECT_EQ(-1, sock.SetRemote(&to));
    EXPECT_EQ(EBADF, errno);
    const std::string start = "2 Orvex::Reticor::CSockDgram::";
    EXPECT_THAT(texts(log),
                ElementsAre(start + "SetSockRecvBuf : setsockopt failed! Bad file descriptor\n",
                            start + "SetSockSendBuf : setsockopt failed! Bad file descriptor\n",
                            start + "GetSockRecvBuf : getsockopt failed! Bad file descriptor\n",
                            start + "GetSockSendBuf : getsockopt failed! Bad file descriptor\n",
                            start + "SetMulticastTTL : IP_MULTICAST_TTL failed, Bad file descriptor\n",
                            start + "Send : send to failed! Bad file descriptor\n",
                            start + "Recv : recv from failed! Bad file descriptor\n",
                            start + "SetRemote : connect faield! Bad file descriptor\n"));
}

}  // namespace
}  // namespace Orvex::Reticor
