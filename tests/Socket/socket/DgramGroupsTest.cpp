// CSockDgram: joining groups, moving memberships, options of groups, in a network of the test's own.
//
// Where the system gives no such network the cases look at what the machine's own one says to a join: either
// it works, or it is told as a failed one.
#include <Reticor/SockDgram.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <string>

#include <Reticor/SockAddrIPv4.h>
#include <Reticor/SockAddrIPv6.h>
#include <Reticor/SockAddrStorage.h>

#include "support/LogCapture.h"
#include "support/socket/Loopback.h"
#include "support/socket/MulticastNet.h"
#include "support/socket/SystemSeam.h"

namespace Orvex::Reticor {
namespace {

using ::testing::ElementsAre;
using Testing::FailNext;
using ::testing::IsEmpty;
using Testing::LogCapture;
using Testing::MulticastNet;
using Testing::SystemCall;
using Testing::texts;
using Testing::waitFor;

constexpr char GROUP4[] = "239.1.2.3";
constexpr char GROUP6[] = "ff15::77";
constexpr char START[] = "2 Orvex::Reticor::CSockDgram::";

template <typename Value = int>
Value optionOf(const CSock& sock, int level, int option) {
    Value value{};
    socklen_t length = sizeof value;
    EXPECT_EQ(0, ::getsockopt(sock.GetHandle(), level, option, &value, &length));
    return value;
}

unsigned short portOf(CSockDgram& sock) {
    CSockAddrStorage local;
    EXPECT_EQ(0, sock.GetLocalAddr(&local));
    return local.GetPort();
}

std::string ipOf(CSockDgram& sock) {
    CSockAddrStorage local;
    char text[64] = "";
    EXPECT_EQ(0, sock.GetLocalAddr(&local));
    return local.GetIpStr(text, sizeof text);
}

std::string receive(CSockDgram& sock, CSockAddr* from = nullptr) {
    char bytes[2048];
    if (!waitFor(sock.GetHandle(), POLLIN)) {
        return "nothing came";
    }
    const int count = sock.Recv(bytes, sizeof bytes, from);
    return std::string(bytes, static_cast<std::size_t>(std::max(count, 0)));
}

class DgramGroups : public ::testing::Test {
protected:
    // True if the group was joined. False only outside of a network of our own, and then the failure was
    // told.
    bool opens(CSockDgram& sock, const CSockAddr& group, bool reuseaddr = false) {
        const LogCapture log;
        if (sock.Open(&group, reuseaddr) == 0) {
            EXPECT_THAT(texts(log), IsEmpty());
            return true;
        }
        EXPECT_FALSE(net.made()) << log.dump();
        EXPECT_EQ(1u,
                  log.countMatching(2,
                                    "Orvex::Reticor::CSockDgram::Open : (IP_ADD_MEMBERSHIP|IPV6_JOIN_GROUP) "
                                    "failed, .*\n"))
            << log.dump();
        EXPECT_TRUE(sock.IsValid()) << "the next Open closes it";
        EXPECT_NE(0, portOf(sock)) << "it was bound before";
        return false;
    }

    MulticastNet net;
};

TEST_F(DgramGroups, GroupIsBoundToTheWildcardAndJoined) {
    CSockDgram first;
    if (!opens(first, CSockAddrIPv4("224.0.0.1", 0))) {
        return;
    }
    EXPECT_EQ("0.0.0.0", ipOf(first));
    EXPECT_EQ(0, first.SetMulticastLoop(true)) << "which needs a group";
    CSockDgram last;
    ASSERT_TRUE(opens(last, CSockAddrIPv4("239.255.255.255", 0)));
    EXPECT_EQ("0.0.0.0", ipOf(last));
    EXPECT_EQ(0, last.SetMulticastLoop(true));
    CSockDgram ipv6;
    ASSERT_TRUE(opens(ipv6, CSockAddrIPv6(GROUP6, 0)));
    EXPECT_EQ("::", ipOf(ipv6));
    EXPECT_EQ(0, ipv6.SetMulticastLoop(true));
}

TEST_F(DgramGroups, AddressBehindTheGroupsIsBoundAsAPlainOne) {
    CSockDgram sock;
    const CSockAddrIPv4 above("240.0.0.1", 0);
    const CSockAddrIPv4 below("223.255.255.255", 0);
    const LogCapture log;
    EXPECT_EQ(-1, sock.Open(&above));
    EXPECT_EQ(EADDRNOTAVAIL, errno) << "bound to itself, and it is nobody's";
    EXPECT_EQ(-1, sock.Open(&below));
    EXPECT_EQ(EADDRNOTAVAIL, errno);
    const std::string line =
        std::string(START) + "Open : bind failed! This port is 0 Cannot assign requested address\n";
    EXPECT_THAT(texts(log), ElementsAre(line, line));
}

TEST_F(DgramGroups, StorageAddressOfAGroupJoinsInTheFamilyInWhichItIsKept) {
    CSockDgram ipv4;
    if (!opens(ipv4, CSockAddrStorage(GROUP4, 0))) {
        return;
    }
    EXPECT_EQ(AF_INET, optionOf(ipv4, SOL_SOCKET, SO_DOMAIN));
    EXPECT_EQ("0.0.0.0", ipOf(ipv4));
    EXPECT_EQ(0, ipv4.SetMulticastLoop(true));
    CSockDgram ipv6;
    ASSERT_TRUE(opens(ipv6, CSockAddrStorage(GROUP6, 0)));
    EXPECT_EQ(AF_INET6, optionOf(ipv6, SOL_SOCKET, SO_DOMAIN));
    EXPECT_EQ(0, ipv6.SetMulticastLoop(true));
}

TEST_F(DgramGroups, DatagramsReachEveryoneWhoJoinedOnThePort) {
    for (const char* text : {GROUP4, GROUP6}) {
        CSockDgram first;
        if (!opens(first, CSockAddrStorage(text, 5004), true)) {
            return;
        }
        CSockDgram second;
        ASSERT_TRUE(opens(second, CSockAddrStorage(text, 5004), true));
        CSockDgram third;
        const LogCapture log;
        const CSockAddrStorage group(text, 5004);
        EXPECT_EQ(-1, third.Open(&group)) << "who does not share has the port alone";
        CSockDgram sender;
        ASSERT_EQ(0, sender.Open(text == GROUP4 ? nullptr : &group, text != GROUP4));
        ASSERT_EQ(0, sender.SetRemote(&group));
        EXPECT_EQ(6, sender.Send("to all", 6, nullptr));
        EXPECT_EQ("to all", receive(first));
        CSockAddrStorage from;
        EXPECT_EQ("to all", receive(second, &from));
        EXPECT_TRUE(from.IsValid());
    }
}

TEST_F(DgramGroups, GroupsThatOthersJoinedAreNotReceived) {
    for (const bool ipv6 : {false, true}) {
        const CSockAddrStorage group(ipv6 ? GROUP6 : GROUP4, 5006);
        const CSockAddrStorage other(ipv6 ? "ff15::78" : "239.1.2.4", 5006);
        const CSockAddrStorage wildcard(ipv6 ? "::" : "0.0.0.0", 5006);
        CSockDgram member;
        if (!opens(member, group, true)) {
            return;
        }
        CSockDgram elsewhere;
        ASSERT_TRUE(opens(elsewhere, other, true));
        CSockDgram bystander;
        ASSERT_EQ(0, bystander.Open(&wildcard, true));
        CSockDgram sender;
        const CSockAddrStorage any(ipv6 ? "::" : "0.0.0.0", 0);
        ASSERT_EQ(0, sender.Open(&any));
        EXPECT_EQ(7, sender.Send("members", 7, &group));
        EXPECT_EQ("members", receive(member));
        // Datagrams of one sender keep their order, so what was for members only would have come before this.
        EXPECT_EQ(6, sender.Send("others", 6, &other));
        EXPECT_EQ("others", receive(elsewhere));
        char byte = 0;
        EXPECT_EQ(0, bystander.Recv(&byte, 1, nullptr));
    }
}

TEST_F(DgramGroups, PeerThatIsAGroupIsNotConnected) {
    for (const char* text : {GROUP4, GROUP6}) {
        CSockDgram sock;
        const CSockAddrStorage group(text, 5004);
        const CSockAddrStorage any(text == GROUP4 ? "0.0.0.0" : "::", 0);
        ASSERT_EQ(0, sock.Open(&any));
        ASSERT_EQ(0, sock.SetRemote(&group));
        const LogCapture log;
        const iovec piece{const_cast<char*>("x"), 1};
        EXPECT_EQ(-1, sock.WriteV(&piece, 1)) << "a gather write names no peer";
        EXPECT_THAT(texts(log),
                    ElementsAre(std::string(START) + "WriteV : send failed! Destination address required\n"));
        if (net.made()) {
            EXPECT_EQ(1, sock.Send("x", 1, nullptr));
        }
    }
}

TEST_F(DgramGroups, JoinThatIsRefusedLeavesABoundSocketWithoutAGroup) {
    for (const char* text : {GROUP4, GROUP6}) {
        CSockDgram sock;
        const CSockAddrStorage group(text, 0);
        const LogCapture log;
        // In front of it go the options that keep the groups of others away.
        const FailNext fail(SystemCall::setsockopt, ENOBUFS, text == GROUP4 ? 1 : 2);
        EXPECT_EQ(-1, sock.Open(&group));
        EXPECT_EQ(ENOBUFS, errno);
        EXPECT_NE(0, portOf(sock));
        EXPECT_EQ(-1, sock.SetMulticastLoop(true));
        EXPECT_EQ(texts(log)[0], std::string(START) +
                                     "Open : " + (text == GROUP4 ? "IP_ADD_MEMBERSHIP" : "IPV6_JOIN_GROUP") +
                                     " failed, No buffer space available\n");
    }
}

TEST_F(DgramGroups, SecondOpenForgetsTheGroup) {
    CSockDgram sock;
    if (!opens(sock, CSockAddrIPv4(GROUP4, 0))) {
        return;
    }
    ASSERT_EQ(0, sock.Open(nullptr));
    const LogCapture log;
    EXPECT_EQ(-1, sock.SetMulticastLoop(true));
    EXPECT_EQ(-1, sock.SetMulticastIF(0x7F000001u));
    EXPECT_THAT(texts(log),
                ElementsAre(std::string(START) +
                            "SetMulticastLoop : IP_MULTICAST_LOOP failed, multicast addr:(nil)\n"));
}

TEST_F(DgramGroups, MembershipMovesToAnotherInterfaceOnce) {
    CSockDgram sock;
    if (!opens(sock, CSockAddrIPv4(GROUP4, 0)) || !net.made()) {
        return;
    }
    EXPECT_EQ(0, sock.SetMulticastIF(MulticastNet::SECOND_IPV4));
    EXPECT_EQ(ntohl(optionOf<in_addr>(sock, IPPROTO_IP, IP_MULTICAST_IF).s_addr),
              CSockAddrIPv4(MulticastNet::SECOND_IPV4, 0).GetIp());
    // Only what comes in on the second interface is for this socket now.
    const CSockAddrIPv4 group(GROUP4, portOf(sock));
    CSockDgram sender;
    sender.Open(nullptr);
    EXPECT_EQ(5, sender.Send("first", 5, &group));
    EXPECT_EQ(6, sock.Send("second", 6, &group));
    EXPECT_EQ("second", receive(sock));
    const LogCapture log;
    EXPECT_EQ(-1, sock.SetMulticastIF(CSockAddrIPv4(MulticastNet::FIRST_IPV4, 0).GetIp()));
    EXPECT_EQ(EADDRNOTAVAIL, errno);
    EXPECT_THAT(texts(log), ElementsAre(std::string(START) +
                                        "SetMulticastIF : IP_DROP_MEMBERSHIP failed,errno:99, errmsg Cannot "
                                        "assign requested address\n"));
}

// The kernel would take the default interface for wherever its routes lead, and drop what has moved there.
TEST_F(DgramGroups, MembershipMovesOnceEvenOntoTheDefaultInterfaceItself) {
    CSockDgram sock;
    if (!opens(sock, CSockAddrIPv4(GROUP4, 0)) || !net.made()) {
        return;
    }
    ASSERT_EQ(0, sock.SetMulticastIF(MulticastNet::FIRST_IPV4));
    const LogCapture log;
    EXPECT_EQ(-1, sock.SetMulticastIF(MulticastNet::SECOND_IPV4));
    EXPECT_EQ(EADDRNOTAVAIL, errno);
    EXPECT_THAT(texts(log), ElementsAre(std::string(START) +
                                        "SetMulticastIF : IP_DROP_MEMBERSHIP failed,errno:99, errmsg Cannot "
                                        "assign requested address\n"));
    const CSockAddrIPv4 group(GROUP4, portOf(sock));
    EXPECT_EQ(4, sock.Send("stay", 4, &group));
    EXPECT_EQ("stay", receive(sock)) << "the membership that there is remains";
}

TEST_F(DgramGroups, MembershipMovesAgainAfterANewOpen) {
    CSockDgram sock;
    for (int life = 0; life < 2; ++life) {
        if (!opens(sock, CSockAddrIPv4(GROUP4, 0)) || !net.made()) {
            return;
        }
        EXPECT_EQ(0, sock.SetMulticastIF(MulticastNet::SECOND_IPV4)) << life;
    }
}

TEST_F(DgramGroups, IPv6GroupHasNoIPv4MembershipToMove) {
    CSockDgram sock;
    if (!opens(sock, CSockAddrIPv6(GROUP6, 0))) {
        return;
    }
    const LogCapture log;
    // What a system says that has no IPv4 route when it is asked to drop what cannot be there.
    const FailNext fail(SystemCall::setsockopt, ENODEV);
    EXPECT_EQ(-1, sock.SetMulticastIF(0x0A4D0101u));
    EXPECT_EQ(EADDRNOTAVAIL, errno);
    EXPECT_THAT(texts(log), ElementsAre(std::string(START) +
                                        "SetMulticastIF : IP_DROP_MEMBERSHIP failed,errno:99, errmsg Cannot "
                                        "assign requested address\n"));
}

TEST_F(DgramGroups, OpenAfterCloseForgetsTheGroup) {
    CSockDgram sock;
    if (!opens(sock, CSockAddrIPv4(GROUP4, 0))) {
        return;
    }
    sock.Close();
    ASSERT_EQ(0, sock.Open(nullptr));
    const LogCapture log;
    EXPECT_EQ(-1, sock.SetMulticastLoop(true));
    EXPECT_THAT(texts(log),
                ElementsAre(std::string(START) +
                            "SetMulticastLoop : IP_MULTICAST_LOOP failed, multicast addr:(nil)\n"));
}

TEST_F(DgramGroups, EachRefusedStepOfAMoveIsLogged) {
    const char* const lines[] = {"IP_DROP_MEMBERSHIP failed,errno:105, errmsg No buffer space available\n",
                                 "IP_ADD_MEMBERSHIP failed, No buffer space available\n",
                                 "IP_MULTICAST_IF failed, No buffer space available\n"};
    for (int step = 0; step < 3; ++step) {
        CSockDgram sock;
        if (!opens(sock, CSockAddrIPv4(GROUP4, 0)) || !net.made()) {
            return;
        }
        const LogCapture log;
        const FailNext fail(SystemCall::setsockopt, ENOBUFS, step);
        EXPECT_EQ(-1, sock.SetMulticastIF(MulticastNet::SECOND_IPV4));
        EXPECT_EQ(ENOBUFS, errno);
        EXPECT_THAT(texts(log), ElementsAre(std::string(START) + "SetMulticastIF : " + lines[step]));
    }
}

TEST_F(DgramGroups, InterfaceIsNamedByADottedAddress) {
    CSockDgram sock;
    if (!opens(sock, CSockAddrIPv4(GROUP4, 0))) {
        return;
    }
    const LogCapture log;
    EXPECT_EQ(-1, sock.SetMulticastIF(static_cast<const char*>(nullptr)));
    EXPECT_EQ(-1, sock.SetMulticastIF("localhost"));
    EXPECT_EQ(-1, sock.SetMulticastIF("::1"));
    const std::string line = std::string(START) + "SetMulticastIF : inet_pton failed,, Invalid argument\n";
    EXPECT_THAT(texts(log), ElementsAre(line, line));
}

TEST_F(DgramGroups, IPv6GroupTakesAnyTextAndStaysOnTheDefaultInterface) {
    CSockDgram sock;
    if (!opens(sock, CSockAddrIPv6(GROUP6, 0))) {
        return;
    }
    EXPECT_EQ(0, sock.SetMulticastIF("not looked at"));
    EXPECT_EQ(0, optionOf(sock, IPPROTO_IPV6, IPV6_MULTICAST_IF));
    const LogCapture log;
    {
        const FailNext fail(SystemCall::setsockopt, ENOBUFS);
        EXPECT_EQ(-1, sock.SetMulticastIF(""));
    }
    EXPECT_EQ(-1, sock.SetMulticastIF(0x0A4D0101u)) << "an IPv4 address names no interface to it";
    EXPECT_EQ(texts(log)[0],
              std::string(START) + "SetMulticastIF : IPV6_MULTICAST_IF faied, No buffer space available\n");
    EXPECT_EQ(1u, log.countMatching(
                      2, "Orvex::Reticor::CSockDgram::SetMulticastIF : IP_DROP_MEMBERSHIP failed,.*\n"));
}

TEST_F(DgramGroups, InterfaceNeedsAGroup) {
    CSockDgram sock;
    sock.Open(nullptr);
    const LogCapture log;
    EXPECT_EQ(-1, sock.SetMulticastIF("127.0.0.1"));
    EXPECT_EQ(-1, sock.SetMulticastIF(0x7F000001u));
    EXPECT_THAT(texts(log), IsEmpty());
}

TEST_F(DgramGroups, HopsNeedNoGroup) {
    CSockDgram ipv4;
    ipv4.Open(nullptr);
    EXPECT_EQ(0, ipv4.SetMulticastTTL(37));
    EXPECT_EQ(37, optionOf(ipv4, IPPROTO_IP, IP_MULTICAST_TTL));
    CSockDgram ipv6;
    const CSockAddrIPv6 any("::", 0);
    ASSERT_EQ(0, ipv6.Open(&any));
    EXPECT_EQ(0, ipv6.SetMulticastTTL(255));
    EXPECT_EQ(255, optionOf(ipv6, IPPROTO_IPV6, IPV6_MULTICAST_HOPS));
    const LogCapture log;
    for (CSockDgram* sock : {&ipv4, &ipv6}) {
        const FailNext fail(SystemCall::setsockopt, ENOBUFS);
        EXPECT_EQ(-1, sock->SetMulticastTTL(1));
    }
    EXPECT_THAT(
        texts(log),
        ElementsAre(std::string(START) + "SetMulticastTTL : IP_MULTICAST_TTL failed, No buffer space "
                                         "available\n",
                    std::string(START) + "SetMulticastTTL : IP_MULTICAST_HOPS failed, No buffer space "
                                         "available\n"));
}

TEST_F(DgramGroups, LoopNeedsAGroup) {
    CSockDgram sock;
    const LogCapture log;
    EXPECT_EQ(-1, sock.SetMulticastLoop(true)) << "before Open, too";
    sock.Open(nullptr);
    EXPECT_EQ(-1, sock.SetMulticastLoop(false));
    EXPECT_EQ(0, sock.SetMulticastTTL(2));
    const std::string line =
        std::string(START) + "SetMulticastLoop : IP_MULTICAST_LOOP failed, multicast addr:(nil)\n";
    EXPECT_THAT(texts(log), ElementsAre(line, line));
}

TEST_F(DgramGroups, LoopIsSwitchedInEachFamily) {
    for (const char* text : {GROUP4, GROUP6}) {
        const bool ipv4 = text == GROUP4;
        CSockDgram sock;
        if (!opens(sock, CSockAddrStorage(text, 0))) {
            return;
        }
        const int level = ipv4 ? IPPROTO_IP : IPPROTO_IPV6;
        const int option = ipv4 ? IP_MULTICAST_LOOP : IPV6_MULTICAST_LOOP;
        EXPECT_EQ(0, sock.SetMulticastLoop(false));
        EXPECT_EQ(0, optionOf(sock, level, option));
        EXPECT_EQ(0, sock.SetMulticastLoop(true));
        EXPECT_EQ(1, optionOf(sock, level, option));
        const LogCapture log;
        const FailNext fail(SystemCall::setsockopt, ENOBUFS);
        EXPECT_EQ(-1, sock.SetMulticastLoop(true));
        EXPECT_THAT(texts(log),
                    ElementsAre(std::string(START) + "SetMulticastLoop : " + (ipv4 ? "IP" : "IPV6") +
                                "_MULTICAST_LOOP failed, No buffer space available\n"));
    }
}

}  // namespace
}  // namespace Orvex::Reticor
