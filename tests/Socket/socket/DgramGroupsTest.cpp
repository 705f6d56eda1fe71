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
    EXPECT_EQ(::getsockopt(sock.GetHandle(), level, option, &value, &length), 0);
    return value;
}

unsigned short portOf(CSockDgram& sock) {
    CSockAddrStorage local;
    EXPECT_EQ(sock.GetLocalAddr(&local), 0);
    return local.GetPort();
}

std::string ipOf(CSockDgram& sock) {
    CSockAddrStorage local;
    char text[64] = "";
    EXPECT_EQ(sock.GetLocalAddr(&local), 0);
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
        EXPECT_EQ(log.countMatching(2,
                                    "Orvex::Reticor::CSockDgram::Open : (IP_ADD_MEMBERSHIP|IPV6_JOIN_GROUP) "
                                    "failed, .*\n"),
                  1u)
            << log.dump();
        EXPECT_TRUE(sock.IsValid()) << "the next Open closes it";
        EXPECT_NE(portOf(sock), 0) << "it was bound before";
        return false;
    }

    MulticastNet net;
};

TEST_F(DgramGroups, GroupIsBoundToTheWildcardAndJoined) {
    CSockDgram first;
    if (!opens(first, CSockAddrIPv4("224.0.0.1", 0))) {
        return;
    }
    EXPECT_EQ(ipOf(first), "0.0.0.0");
    EXPECT_EQ(first.SetMulticastLoop(true), 0) << "which needs a group";
    CSockDgram last;
    ASSERT_TRUE(opens(last, CSockAddrIPv4("239.255.255.255", 0)));
    EXPECT_EQ(ipOf(last), "0.0.0.0");
    EXPECT_EQ(last.SetMulticastLoop(true), 0);
    CSockDgram ipv6;
    ASSERT_TRUE(opens(ipv6, CSockAddrIPv6(GROUP6, 0)));
    EXPECT_EQ(ipOf(ipv6), "::");
    EXPECT_EQ(ipv6.SetMulticastLoop(true), 0);
}

TEST_F(DgramGroups, AddressBehindTheGroupsIsBoundAsAPlainOne) {
    CSockDgram sock;
    const CSockAddrIPv4 above("240.0.0.1", 0);
    const CSockAddrIPv4 below("223.255.255.255", 0);
    const LogCapture log;
    EXPECT_EQ(sock.Open(&above), -1);
    EXPECT_EQ(errno, EADDRNOTAVAIL) << "bound to itself, and it is nobody's";
    EXPECT_EQ(sock.Open(&below), -1);
    EXPECT_EQ(errno, EADDRNOTAVAIL);
    const std::string line =
        std::string(START) + "Open : bind failed! This port is 0 Cannot assign requested address\n";
    EXPECT_THAT(texts(log), ElementsAre(line, line));
}

TEST_F(DgramGroups, StorageAddressOfAGroupJoinsInTheFamilyInWhichItIsKept) {
    CSockDgram ipv4;
    if (!opens(ipv4, CSockAddrStorage(GROUP4, 0))) {
        return;
    }
    EXPECT_EQ(optionOf(ipv4, SOL_SOCKET, SO_DOMAIN), AF_INET);
    EXPECT_EQ(ipOf(ipv4), "0.0.0.0");
    EXPECT_EQ(ipv4.SetMulticastLoop(true), 0);
    CSockDgram ipv6;
    ASSERT_TRUE(opens(ipv6, CSockAddrStorage(GROUP6, 0)));
    EXPECT_EQ(optionOf(ipv6, SOL_SOCKET, SO_DOMAIN), AF_INET6);
    EXPECT_EQ(ipv6.SetMulticastLoop(true), 0);
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
        EXPECT_EQ(third.Open(&group), -1) << "who does not share has the port alone";
        CSockDgram sender;
        ASSERT_EQ(sender.Open(text == GROUP4 ? nullptr : &group, text != GROUP4), 0);
        ASSERT_EQ(sender.SetRemote(&group), 0);
        EXPECT_EQ(sender.Send("to all", 6, nullptr), 6);
        EXPECT_EQ(receive(first), "to all");
        CSockAddrStorage from;
        EXPECT_EQ(receive(second, &from), "to all");
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
        ASSERT_EQ(bystander.Open(&wildcard, true), 0);
        CSockDgram sender;
        const CSockAddrStorage any(ipv6 ? "::" : "0.0.0.0", 0);
        ASSERT_EQ(sender.Open(&any), 0);
        EXPECT_EQ(sender.Send("members", 7, &group), 7);
        EXPECT_EQ(receive(member), "members");
        // Datagrams of one sender keep their order, so what was for members only would have come before this.
        EXPECT_EQ(sender.Send("others", 6, &other), 6);
        EXPECT_EQ(receive(elsewhere), "others");
        char byte = 0;
        EXPECT_EQ(bystander.Recv(&byte, 1, nullptr), 0);
    }
}

TEST_F(DgramGroups, PeerThatIsAGroupIsNotConnected) {
    for (const char* text : {GROUP4, GROUP6}) {
        CSockDgram sock;
        const CSockAddrStorage group(text, 5004);
        const CSockAddrStorage any(text == GROUP4 ? "0.0.0.0" : "::", 0);
        ASSERT_EQ(sock.Open(&any), 0);
        ASSERT_EQ(sock.SetRemote(&group), 0);
        const LogCapture log;
        const iovec piece{const_cast<char*>("x"), 1};
        EXPECT_EQ(sock.WriteV(&piece, 1), -1) << "a gather write names no peer";
        EXPECT_THAT(texts(log),
                    ElementsAre(std::string(START) + "WriteV : send failed! Destination address required\n"));
        if (net.made()) {
            EXPECT_EQ(sock.Send("x", 1, nullptr), 1);
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
        EXPECT_EQ(sock.Open(&group), -1);
        EXPECT_EQ(errno, ENOBUFS);
        EXPECT_NE(portOf(sock), 0);
        EXPECT_EQ(sock.SetMulticastLoop(true), -1);
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
    ASSERT_EQ(sock.Open(nullptr), 0);
    const LogCapture log;
    EXPECT_EQ(sock.SetMulticastLoop(true), -1);
    EXPECT_EQ(sock.SetMulticastIF(0x7F000001u), -1);
    EXPECT_THAT(texts(log),
                ElementsAre(std::string(START) +
                            "SetMulticastLoop : IP_MULTICAST_LOOP failed, multicast addr:(nil)\n"));
}

TEST_F(DgramGroups, MembershipMovesToAnotherInterfaceOnce) {
    CSockDgram sock;
    if (!opens(sock, CSockAddrIPv4(GROUP4, 0)) || !net.made()) {
        return;
    }
    EXPECT_EQ(sock.SetMulticastIF(MulticastNet::SECOND_IPV4), 0);
    EXPECT_EQ(ntohl(optionOf<in_addr>(sock, IPPROTO_IP, IP_MULTICAST_IF).s_addr),
              CSockAddrIPv4(MulticastNet::SECOND_IPV4, 0).GetIp());
    // Only what comes in on the second interface is for this socket now.
    const CSockAddrIPv4 group(GROUP4, portOf(sock));
    CSockDgram sender;
    sender.Open(nullptr);
    EXPECT_EQ(sender.Send("first", 5, &group), 5);
    EXPECT_EQ(sock.Send("second", 6, &group), 6);
    EXPECT_EQ(receive(sock), "second");
    const LogCapture log;
    EXPECT_EQ(sock.SetMulticastIF(CSockAddrIPv4(MulticastNet::FIRST_IPV4, 0).GetIp()), -1);
    EXPECT_EQ(errno, EADDRNOTAVAIL);
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
        EXPECT_EQ(sock.SetMulticastIF(MulticastNet::SECOND_IPV4), -1);
        EXPECT_EQ(errno, ENOBUFS);
        EXPECT_THAT(texts(log), ElementsAre(std::string(START) + "SetMulticastIF : " + lines[step]));
    }
}

TEST_F(DgramGroups, InterfaceIsNamedByADottedAddress) {
    CSockDgram sock;
    if (!opens(sock, CSockAddrIPv4(GROUP4, 0))) {
        return;
    }
    const LogCapture log;
    EXPECT_EQ(sock.SetMulticastIF(static_cast<const char*>(nullptr)), -1);
    EXPECT_EQ(sock.SetMulticastIF("localhost"), -1);
    EXPECT_EQ(sock.SetMulticastIF("::1"), -1);
    const std::string line = std::string(START) + "SetMulticastIF : inet_pton failed,, Invalid argument\n";
    EXPECT_THAT(texts(log), ElementsAre(line, line));
}

TEST_F(DgramGroups, IPv6GroupTakesAnyTextAndStaysOnTheDefaultInterface) {
    CSockDgram sock;
    if (!opens(sock, CSockAddrIPv6(GROUP6, 0))) {
        return;
    }
    EXPECT_EQ(sock.SetMulticastIF("not looked at"), 0);
    EXPECT_EQ(optionOf(sock, IPPROTO_IPV6, IPV6_MULTICAST_IF), 0);
    const LogCapture log;
    {
        const FailNext fail(SystemCall::setsockopt, ENOBUFS);
        EXPECT_EQ(sock.SetMulticastIF(""), -1);
    }
    EXPECT_EQ(sock.SetMulticastIF(0x0A4D0101u), -1) << "an IPv4 address names no interface to it";
    EXPECT_EQ(texts(log)[0],
              std::string(START) + "SetMulticastIF : IPV6_MULTICAST_IF faied, No buffer space available\n");
    EXPECT_EQ(
        log.countMatching(2, "Orvex::Reticor::CSockDgram::SetMulticastIF : IP_DROP_MEMBERSHIP failed,.*\n"),
        1u);
}

TEST_F(DgramGroups, InterfaceNeedsAGroup) {
    CSockDgram sock;
    sock.Open(nullptr);
    const LogCapture log;
    EXPECT_EQ(sock.SetMulticastIF("127.0.0.1"), -1);
    EXPECT_EQ(sock.SetMulticastIF(0x7F000001u), -1);
    EXPECT_THAT(texts(log), IsEmpty());
}

TEST_F(DgramGroups, HopsNeedNoGroup) {
    CSockDgram ipv4;
    ipv4.Open(nullptr);
    EXPECT_EQ(ipv4.SetMulticastTTL(37), 0);
    EXPECT_EQ(optionOf(ipv4, IPPROTO_IP, IP_MULTICAST_TTL), 37);
    CSockDgram ipv6;
    const CSockAddrIPv6 any("::", 0);
    ASSERT_EQ(ipv6.Open(&any), 0);
    EXPECT_EQ(ipv6.SetMulticastTTL(255), 0);
    EXPECT_EQ(optionOf(ipv6, IPPROTO_IPV6, IPV6_MULTICAST_HOPS), 255);
    const LogCapture log;
    for (CSockDgram* sock : {&ipv4, &ipv6}) {
        const FailNext fail(SystemCall::setsockopt, ENOBUFS);
        EXPECT_EQ(sock->SetMulticastTTL(1), -1);
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
    EXPECT_EQ(sock.SetMulticastLoop(true), -1) << "before Open, too";
    sock.Open(nullptr);
    EXPECT_EQ(sock.SetMulticastLoop(false), -1);
    EXPECT_EQ(sock.SetMulticastTTL(2), 0);
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
        EXPECT_EQ(sock.SetMulticastLoop(false), 0);
        EXPECT_EQ(optionOf(sock, level, option), 0);
        EXPECT_EQ(sock.SetMulticastLoop(true), 0);
        EXPECT_EQ(optionOf(sock, level, option), 1);
        const LogCapture log;
        const FailNext fail(SystemCall::setsockopt, ENOBUFS);
        EXPECT_EQ(sock.SetMulticastLoop(true), -1);
        EXPECT_THAT(texts(log),
                    ElementsAre(std::string(START) + "SetMulticastLoop : " + (ipv4 ? "IP" : "IPV6") +
                                "_MULTICAST_LOOP failed, No buffer space available\n"));
    }
}

}  // namespace
}  // namespace Orvex::Reticor
