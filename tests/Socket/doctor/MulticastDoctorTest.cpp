// CMulticastDoctor in a network of the test's own: each situation is made, and its sentence waited for.
//
// Where the system gives no such network a case says so, and proves nothing.
#include <Reticor/MulticastDoctor.h>

#include <arpa/inet.h>
#include <linux/capability.h>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include <Reticor/SockAddrIPv4.h>
#include <Reticor/SockAddrIPv6.h>
#include <Reticor/SockAddrStorage.h>
#include <Reticor/SockDgram.h>

#include "R3/print/FuncBox.h"
#include "Socket/doctor/NetworkLook.h"
#include "support/Eventually.h"
#include "support/LogCapture.h"
#include "support/debug/DaemonStandIn.h"
#include "support/socket/Loopback.h"
#include "support/socket/MulticastNet.h"

namespace Orvex::Reticor {
namespace {

using ::testing::AllOf;
using ::testing::ElementsAre;
using Testing::eventually;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using Testing::MulticastNet;
using ::testing::UnorderedElementsAre;
using Testing::waitFor;

constexpr char DOCTOR_GROUP[] = "239.1.2.3";
constexpr char DOCTOR_GROUP6[] = "ff15::77";
constexpr unsigned short DOCTOR_PORT = 5004;

std::vector<std::string> sentences(const CMulticastDoctor& doctor, MulticastFault fault) {
    std::vector<std::string> found;
    MulticastProblem problem;
    for (size_t i = 0; doctor.GetProblem(i, problem) == 0; ++i) {
        if (problem.fault == fault) {
            found.emplace_back(problem.sentence);
        }
    }
    return found;
}

std::string textOf(const CMulticastDoctor& doctor) {
    std::string text(doctor.toText(nullptr, 0), '\0');
    EXPECT_EQ(text.size(), doctor.toText(&text[0], text.size()));
    return text;
}

MulticastSocket socketOf(const CMulticastDoctor& doctor, const CSock& sock) {
    MulticastSocket one{};
    for (size_t i = 0; doctor.GetSocket(i, one) == 0; ++i) {
        if (one.handle == sock.GetHandle()) {
            return one;
        }
    }
    ADD_FAILURE() << "socket " << sock.GetHandle() << " was not seen";
    return MulticastSocket{};
}

MulticastInterface interfaceNamed(const CMulticastDoctor& doctor, const std::string& name) {
    MulticastInterface one{};
    for (size_t i = 0; doctor.GetInterface(i, one) == 0; ++i) {
        if (one.name == name) {
            return one;
        }
    }
    ADD_FAILURE() << name << " was not seen";
    return MulticastInterface{};
}

// The rows of a socket's groups: "239.1.2.3 mc0 5004".
std::vector<std::string> groupsOf(const CMulticastDoctor& doctor, int handle) {
    std::vector<std::string> rows;
    MulticastGroup one{};
    for (size_t i = 0; doctor.GetGroup(i, one) == 0; ++i) {
        if (one.handle == handle) {
            rows.push_back(std::string(one.group) + " " + one.interface_name + " " +
                           std::to_string(one.port));
        }
    }
    return rows;
}

int joinMore(const CSock& sock, const std::string& group, const char* ip = MulticastNet::FIRST_IPV4) {
    ip_mreq request{};
    ::inet_pton(AF_INET, group.c_str(), &request.imr_multiaddr);
    ::inet_pton(AF_INET, ip, &request.imr_interface);
    return ::setsockopt(sock.GetHandle(), IPPROTO_IP, IP_ADD_MEMBERSHIP, &request, sizeof request);
}

// A socket as the kernel makes it: it takes all groups.
void openPlain(CSock& sock, bool ipv6, unsigned short port) {
    const int handle = ::socket(ipv6 ? AF_INET6 : AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const int on = 1;
    ASSERT_EQ(0, ::setsockopt(handle, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on));
    sockaddr_in6 any{};
    any.sin6_family = ipv6 ? AF_INET6 : AF_INET;
    any.sin6_port = htons(port);
    ASSERT_EQ(0, ::bind(handle, reinterpret_cast<const sockaddr*>(&any),
                        ipv6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in)));
    ASSERT_EQ(0, sock.Attach(handle));
}

// Does something again and again on a thread of its own, while it lives.
class Meanwhile {
public:
    template <class Work>
    explicit Meanwhile(Work work)
        : m_thread([this, work] {
              while (!m_end.load()) {
                  work();
                  ::poll(nullptr, 0, 1);
              }
          }) {}
    ~Meanwhile() {
        m_end.store(true);
        m_thread.join();
    }
    Meanwhile(const Meanwhile&) = delete;
    Meanwhile& operator=(const Meanwhile&) = delete;

private:
    std::atomic<bool> m_end{false};
    std::thread m_thread;
};

class MulticastDoctor : public ::testing::Test {
protected:
    // Without a network of its own a case ends here.
    bool hasNet() const {
        if (!net.made()) {
            std::puts("not tried: it takes root, or user namespaces, to make a network");
        }
        return net.made();
    }
    void open(CSockDgram& sock, const char* group, unsigned short port = DOCTOR_PORT) {
        const CSockAddrStorage address(group, port);
        ASSERT_EQ(0, sock.Open(&address, true));
    }
    std::vector<std::string> look(MulticastFault fault, unsigned listen_ms = 0) {
        EXPECT_EQ(0, doctor.Take(listen_ms));
        return sentences(doctor, fault);
    }
    // Listens again and again, until there is a row of the group on that interface.
    bool counts(const std::string& group, const std::string& interface_name, MulticastTraffic& row) {
        return eventually([&] {
            EXPECT_EQ(0, doctor.Take(30));
            for (size_t i = 0; doctor.GetTraffic(i, row) == 0; ++i) {
                if (row.group == group && row.interface_name == interface_name) {
                    return true;
                }
            }
            return false;
        });
    }

    MulticastNet net;
    CMulticastDoctor doctor;
};

TEST_F(MulticastDoctor, ALookAtAProcessWithoutGroupsComplainsOfNothing) {
    MulticastOverview overview;
    EXPECT_EQ(-1, doctor.GetOverview(overview)) << "before the first look";
    EXPECT_EQ(0u, doctor.toText(nullptr, 0));
    EXPECT_EQ(0u, doctor.GetInterfaceCount() + doctor.GetProblemCount() + doctor.GetSocketCount());
    ASSERT_EQ(0, doctor.Take());
    EXPECT_EQ(0u, doctor.GetProblemCount()) << textOf(doctor);
    EXPECT_THAT(textOf(doctor), HasSubstr("nothing is wrong\n"));
    ASSERT_EQ(0, doctor.GetOverview(overview));
    EXPECT_EQ(0u, overview.listened_ms);
    EXPECT_EQ(0u, doctor.GetTrafficCount());
    EXPECT_NE(0u, overview.groups_per_socket);
}

TEST_F(MulticastDoctor, InterfacesAreListedWithWhatIsSetForThem) {
    if (!hasNet()) {
        return;
    }
    ASSERT_TRUE(net.set("conf/mc1/rp_filter", 2));
    ASSERT_EQ(0, doctor.Take());
    const MulticastInterface first = interfaceNamed(doctor, "mc0");
    EXPECT_EQ(static_cast<int>(::if_nametoindex("mc0")), first.index);
    EXPECT_EQ(1u, first.up);
    EXPECT_EQ(1u, first.running);
    EXPECT_EQ(1u, first.multicast);
    EXPECT_EQ(0u, first.memberships);
    EXPECT_THAT(first.addresses, AllOf(HasSubstr("10.77.0.1/24"), HasSubstr("fd77::1/64")));
    EXPECT_EQ(2, interfaceNamed(doctor, "mc1").rp_filter);
    EXPECT_EQ(0u, interfaceNamed(doctor, "lo").multicast);
    ASSERT_TRUE(net.set("conf/all/rp_filter", 1));
    ASSERT_TRUE(net.set("conf/mc0/rp_filter", 0));
    ASSERT_EQ(0, doctor.Take());
    EXPECT_EQ(1, interfaceNamed(doctor, "mc0").rp_filter) << "the stricter of the two holds";
}

TEST_F(MulticastDoctor, AllAddressesOfAnInterfaceThatFitAreNamedWhole) {
    if (!hasNet()) {
        return;
    }
    for (int i = 0; i < 3; ++i) {
        const std::string number = std::to_string(i);
        ASSERT_TRUE(net.addPair(("va" + number).c_str(), ("vb" + number).c_str(),
                                ("10.78." + number + ".1").c_str()));
    }
    ASSERT_EQ(0, doctor.Take());
    EXPECT_EQ(9u, doctor.GetInterfaceCount());
    EXPECT_THAT(interfaceNamed(doctor, "va2").addresses, HasSubstr("10.78.2.1/24"));
    int before = 0;
    MulticastInterface one{};
    for (size_t i = 0; doctor.GetInterface(i, one) == 0; ++i) {
        EXPECT_LT(before, one.index);
        before = one.index;
    }
}

TEST_F(MulticastDoctor, GroupsAreListedWithTheirSocketsWhoeverJoinedThem) {
    if (!hasNet()) {
        return;
    }
    CSockDgram ipv4;
    open(ipv4, DOCTOR_GROUP);
    // The system's interface for IPv6 groups is the one that was there first, the pair's other end.
    CSockDgram ipv6;
    open(ipv6, DOCTOR_GROUP6);
    CSock plain;
    openPlain(plain, false, 5010);
    ASSERT_EQ(0, joinMore(plain, "239.1.2.4", MulticastNet::SECOND_IPV4));
    // An IPv6 socket can be a member of IPv4 groups.
    ASSERT_EQ(0, joinMore(ipv6, "239.1.2.5"));
    ASSERT_EQ(0, doctor.Take());
    EXPECT_THAT(groupsOf(doctor, ipv4.GetHandle()), ElementsAre("239.1.2.3 mc0 5004"));
    EXPECT_THAT(groupsOf(doctor, ipv6.GetHandle()),
                UnorderedElementsAre("239.1.2.5 mc0 5004", "ff15::77 mc1 5004"));
    EXPECT_THAT(groupsOf(doctor, plain.GetHandle()), ElementsAre("239.1.2.4 mc1 5010"));
    EXPECT_THAT(groupsOf(doctor, -1), ::testing::Contains("224.0.0.1 mc0 0")) << "of the system itself";
    EXPECT_EQ(2u, interfaceNamed(doctor, "mc0").memberships);
    EXPECT_EQ(2u, interfaceNamed(doctor, "mc1").memberships);
    const MulticastSocket both = socketOf(doctor, ipv6);
    EXPECT_EQ(1u, both.memberships_v4);
    EXPECT_EQ(1u, both.memberships_v6);
    EXPECT_STREQ("::", both.address);
    EXPECT_EQ(0u, both.foreign_v4 + both.foreign_v6);
    EXPECT_EQ(1u, socketOf(doctor, plain).foreign_v4);
    ipv4.Close();
    ASSERT_EQ(0, doctor.Take());
    EXPECT_THAT(textOf(doctor), ::testing::Not(HasSubstr("239.1.2.3 ")));
}

TEST_F(MulticastDoctor, OnlyUdpSocketsAreListed) {
    const CSockAddrIPv4 loopback("127.0.0.1", 0);
    CSockDgram bound;
    ASSERT_EQ(0, bound.Open(&loopback));
    CSockAcceptor acceptor;
    ASSERT_NE(0, Testing::openOnLoopback(acceptor));
    int pipe[2];
    ASSERT_EQ(0, ::pipe(pipe));
    int pair[2];
    ASSERT_EQ(0, ::socketpair(AF_UNIX, SOCK_DGRAM, 0, pair));
    ASSERT_EQ(0, doctor.Take());
    EXPECT_STREQ("127.0.0.1", socketOf(doctor, bound).address);
    MulticastSocket one{};
    for (size_t i = 0; doctor.GetSocket(i, one) == 0; ++i) {
        for (const int other : {acceptor.GetHandle(), pipe[0], pipe[1], pair[0], pair[1]}) {
            EXPECT_NE(other, one.handle);
        }
    }
    for (const int handle : {pipe[0], pipe[1], pair[0], pair[1]}) {
        ::close(handle);
    }
}

// SO_RXQ_OVFL tells losses with the next datagram only, and here none is ever read.
TEST_F(MulticastDoctor, LossesAreToldOfASocketThatNobodyReads) {
    if (!hasNet()) {
        return;
    }
    CSockDgram slow;
    open(slow, DOCTOR_GROUP);
    ASSERT_EQ(0, slow.SetSockRecvBuf(2304));
    const CSockAddrIPv4 group(DOCTOR_GROUP, DOCTOR_PORT);
    CSockDgram sender;
    ASSERT_EQ(0, sender.Open(nullptr));
    EXPECT_THAT(look(MulticastFault::LOSS), IsEmpty());
    const char bytes[1000] = {};
    const auto lose = [&](uint64_t least) {
        return eventually([&] {
            sender.Send(bytes, sizeof bytes, &group);
            CMulticastDoctor other;
            EXPECT_EQ(0, other.Take());
            return socketOf(other, slow).lost >= least;
        });
    };
    ASSERT_TRUE(lose(5));
    const std::vector<std::string> told = look(MulticastFault::LOSS);
    const MulticastSocket seen = socketOf(doctor, slow);
    EXPECT_GE(seen.lost, 5u);
    EXPECT_EQ(seen.lost, seen.lost_since);
    EXPECT_LE(seen.waiting, seen.room + 2304);
    EXPECT_THAT(told,
                ElementsAre(AllOf(
                    HasSubstr("socket " + std::to_string(slow.GetHandle()) + " (port 5004) has lost " +
                              std::to_string(seen.lost) + " datagrams: the kernel had no room"),
                    HasSubstr(" of " + std::to_string(seen.room) + " bytes"), HasSubstr("SetSockRecvBuf"))));
    EXPECT_THAT(look(MulticastFault::LOSS), IsEmpty()) << "nothing was lost since then";
    ASSERT_TRUE(lose(seen.lost + 1));
    EXPECT_THAT(look(MulticastFault::LOSS), ElementsAre(HasSubstr(" since the last look")));
}

TEST_F(MulticastDoctor, AnotherSocketOfTheSameNumberHasLossesOfItsOwn) {
    if (!hasNet()) {
        return;
    }
    const CSockAddrIPv4 group(DOCTOR_GROUP, DOCTOR_PORT);
    CSockDgram sender;
    ASSERT_EQ(0, sender.Open(nullptr));
    const char bytes[1000] = {};
    uint64_t lost = 0;
    int number = -1;
    for (const uint64_t wanted : {uint64_t{1}, uint64_t{9}}) {
        CSockDgram slow;
        open(slow, DOCTOR_GROUP);
        EXPECT_TRUE(number == -1 || number == slow.GetHandle());
        number = slow.GetHandle();
        ASSERT_EQ(0, slow.SetSockRecvBuf(2304));
        ASSERT_TRUE(eventually([&] {
            sender.Send(bytes, sizeof bytes, &group);
            CMulticastDoctor other;
            EXPECT_EQ(0, other.Take());
            lost = socketOf(other, slow).lost;
            return lost >= wanted;
        }));
        EXPECT_EQ(1u, look(MulticastFault::LOSS).size());
        EXPECT_EQ(socketOf(doctor, slow).lost, socketOf(doctor, slow).lost_since);
    }
}

TEST_F(MulticastDoctor, ForeignGroupsComeUntilTheyAreSwitchedOff) {
    if (!hasNet()) {
        return;
    }
    for (const bool ipv6 : {false, true}) {
        const std::string text = ipv6 ? DOCTOR_GROUP6 : DOCTOR_GROUP;
        const CSockAddrStorage group(text.c_str(), DOCTOR_PORT);
        CSockDgram member;
        open(member, text.c_str());
        CSock plain;
        openPlain(plain, ipv6, DOCTOR_PORT);
        CSockDgram sender;
        const CSockAddrStorage any(ipv6 ? "::" : "0.0.0.0", 0);
        ASSERT_EQ(0, sender.Open(&any));
        char byte = 0;
        ASSERT_EQ(1, sender.Send("1", 1, &group));
        EXPECT_TRUE(waitFor(member.GetHandle(), POLLIN));
        EXPECT_TRUE(waitFor(plain.GetHandle(), POLLIN)) << "which has joined nothing";
        const std::string number = std::to_string(plain.GetHandle());
        EXPECT_THAT(
            look(MulticastFault::FOREIGN_GROUP),
            ElementsAre(AllOf(HasSubstr("socket " + number + " (port 5004) gets group " + text),
                              HasSubstr("socket " + std::to_string(member.GetHandle()) + " has joined it"),
                              HasSubstr("SetForeignGroups(" + number + ", false)"))));
        ASSERT_EQ(0, CMulticastDoctor::SetForeignGroups(plain.GetHandle(), false));
        EXPECT_THAT(look(MulticastFault::FOREIGN_GROUP), IsEmpty());
        EXPECT_EQ(1, ::recv(plain.GetHandle(), &byte, 1, MSG_DONTWAIT));
        EXPECT_EQ(1, member.Recv(&byte, 1, nullptr));
        ASSERT_EQ(1, sender.Send("2", 1, &group));
        EXPECT_TRUE(waitFor(member.GetHandle(), POLLIN));
        EXPECT_EQ(-1, ::recv(plain.GetHandle(), &byte, 1, MSG_DONTWAIT));
        ASSERT_EQ(0, CMulticastDoctor::SetForeignGroups(plain.GetHandle(), true));
        EXPECT_EQ(1u, look(MulticastFault::FOREIGN_GROUP).size());
    }
}

// The socket that has joined may be another process's: only what comes in tells.
TEST_F(MulticastDoctor, ForeignGroupOfAnotherPortOrProcessIsSeenByItsDatagrams) {
    if (!hasNet()) {
        return;
    }
    CSock plain;
    openPlain(plain, false, DOCTOR_PORT);
    CSock joiner;
    openPlain(joiner, false, 5099);
    ASSERT_EQ(0, joinMore(joiner, DOCTOR_GROUP, MulticastNet::SECOND_IPV4));
    EXPECT_THAT(look(MulticastFault::FOREIGN_GROUP), IsEmpty()) << "nothing shows it";
    const Meanwhile sending([&] { net.inject("mc0", "10.77.1.7", DOCTOR_GROUP, DOCTOR_PORT, "x"); });
    EXPECT_TRUE(waitFor(plain.GetHandle(), POLLIN));
    MulticastTraffic row;
    ASSERT_TRUE(counts(DOCTOR_GROUP, "mc1", row));
    EXPECT_THAT(
        sentences(doctor, MulticastFault::FOREIGN_GROUP),
        ElementsAre(AllOf(HasSubstr("(port 5004) gets group 239.1.2.3"), HasSubstr(" came in on mc1"))));
    EXPECT_EQ(0, CMulticastDoctor::SetForeignGroups(plain.GetHandle(), false));
    ASSERT_TRUE(counts(DOCTOR_GROUP, "mc1", row));
    EXPECT_THAT(sentences(doctor, MulticastFault::FOREIGN_GROUP), IsEmpty());
}

TEST_F(MulticastDoctor, SwitchOfForeignGroupsTellsWhatTheSystemSays) {
    EXPECT_EQ(-1, CMulticastDoctor::SetForeignGroups(-1, false));
    EXPECT_EQ(EBADF, errno);
    int pair[2];
    ASSERT_EQ(0, ::socketpair(AF_UNIX, SOCK_DGRAM, 0, pair));
    EXPECT_EQ(-1, CMulticastDoctor::SetForeignGroups(pair[0], false));
    ::close(pair[0]);
    ::close(pair[1]);
}

TEST_F(MulticastDoctor, FilterThatDropsTheSendersIsTold) {
    if (!hasNet()) {
        return;
    }
    ASSERT_TRUE(net.set("conf/all/rp_filter", 0));
    ASSERT_TRUE(net.set("conf/mc1/rp_filter", 1));
    CSockDgram member;
    open(member, DOCTOR_GROUP);
    ASSERT_EQ(0, member.SetMulticastIF(MulticastNet::SECOND_IPV4));
    EXPECT_THAT(look(MulticastFault::FILTERED),
                ElementsAre(AllOf(HasSubstr("mc1 takes only senders to which the routes lead through it"),
                                  HasSubstr("net.ipv4.conf.mc1.rp_filter"))));
    EXPECT_TRUE(eventually([&] {
        EXPECT_TRUE(net.inject("mc0", "10.99.0.7", DOCTOR_GROUP, DOCTOR_PORT, "lost"));
        const std::vector<std::string> told = look(MulticastFault::FILTERED);
        return told.size() == 1 && told[0].find(" packets of this machine were dropped") != std::string::npos;
    }));
    MulticastOverview overview;
    ASSERT_EQ(0, doctor.GetOverview(overview));
    EXPECT_NE(0u, overview.filtered);
    char bytes[8] = "";
    EXPECT_EQ(0, member.Recv(bytes, sizeof bytes, nullptr)) << "nothing came through";
    // What the sentence says helps.
    ASSERT_TRUE(net.set("conf/mc1/rp_filter", 0));
    EXPECT_THAT(look(MulticastFault::FILTERED), IsEmpty());
    EXPECT_TRUE(net.inject("mc0", "10.99.0.7", DOCTOR_GROUP, DOCTOR_PORT, "came"));
    EXPECT_TRUE(waitFor(member.GetHandle(), POLLIN));
    EXPECT_EQ(4, member.Recv(bytes, sizeof bytes, nullptr));
}

TEST_F(MulticastDoctor, TwentyFirstJoinHasASentenceOfItsOwn) {
    if (!hasNet()) {
        return;
    }
    ASSERT_TRUE(net.set("igmp_max_memberships", 20));
    CSockDgram sock;
    open(sock, "239.1.1.1");
    for (int i = 2; i <= 20; ++i) {
        EXPECT_THAT(look(MulticastFault::SOCKET_FULL), IsEmpty());
        ASSERT_EQ(0, joinMore(sock, "239.1.1." + std::to_string(i))) << i;
    }
    const std::string number = std::to_string(sock.GetHandle());
    EXPECT_THAT(look(MulticastFault::SOCKET_FULL),
                ElementsAre(HasSubstr("socket " + number + " (port 5004) has joined 20 IPv4 groups")));
    ASSERT_EQ(-1, joinMore(sock, "239.1.1.21"));
    ASSERT_EQ(ENOBUFS, errno);
    char room[300] = "";
    const CSockAddrIPv4 group("239.1.1.21", 0);
    const size_t length =
        CMulticastDoctor::ExplainJoin(sock.GetHandle(), group, ENOBUFS, room, sizeof room - 1);
    EXPECT_EQ("socket " + number +
                  " has joined 20 IPv4 groups, as many as one socket may; join 239.1.1.21 on "
                  "another socket, or raise net.ipv4.igmp_max_memberships (20)",
              std::string(room));
    EXPECT_EQ(std::strlen(room), length);
    // Either advice helps.
    CSockDgram another;
    open(another, "239.1.1.21");
    ASSERT_TRUE(net.set("igmp_max_memberships", 21));
    EXPECT_EQ(0, joinMore(sock, "239.1.1.21"));
    EXPECT_EQ(1u, look(MulticastFault::SOCKET_FULL).size());
    ASSERT_TRUE(net.set("igmp_max_memberships", 22));
    EXPECT_THAT(look(MulticastFault::SOCKET_FULL), IsEmpty());
}

TEST_F(MulticastDoctor, SecondJoinOfOneGroupIsExplained) {
    if (!hasNet()) {
        return;
    }
    CSockDgram sock;
    open(sock, DOCTOR_GROUP);
    ASSERT_EQ(-1, joinMore(sock, DOCTOR_GROUP));
    char room[300] = "";
    const CSockAddrIPv4 group(DOCTOR_GROUP, 0);
    CMulticastDoctor::ExplainJoin(sock.GetHandle(), group, errno, room, sizeof room - 1);
    EXPECT_THAT(room, HasSubstr("has joined 239.1.2.3 on that interface before"));
    char few[5] = "1234";
    EXPECT_LT(4u, CMulticastDoctor::ExplainJoin(sock.GetHandle(), group, EADDRINUSE, few, 3));
    EXPECT_STREQ("soc4", few) << "no more than the room";
    EXPECT_LT(0u, CMulticastDoctor::ExplainJoin(-1, CSockAddrStorage(), EPERM, nullptr, 0));
}

// The lines and errno of CSockDgram stay as they are; the sentence stands beside.
TEST_F(MulticastDoctor, JoinsThatCSockDgramWasRefusedAreCounted) {
    if (!hasNet()) {
        return;
    }
    const CSockAddrIPv4 group(DOCTOR_GROUP, DOCTOR_PORT);
    EXPECT_THAT(look(MulticastFault::JOIN_REFUSED), IsEmpty());
    ASSERT_TRUE(net.set("igmp_max_memberships", 0));
    CSockDgram sock;
    {
        const Testing::LogCapture log;
        EXPECT_EQ(-1, sock.Open(&group));
        EXPECT_EQ(ENOBUFS, errno);
        EXPECT_THAT(
            Testing::texts(log),
            ElementsAre("2 Orvex::Reticor::CSockDgram::Open : IP_ADD_MEMBERSHIP failed, No buffer space "
                        "available\n"));
    }
    EXPECT_THAT(look(MulticastFault::JOIN_REFUSED),
                ElementsAre(HasSubstr("1 join by CSockDgram was refused with ENOBUFS: one socket may join "
                                      "net.ipv4.igmp_max_memberships IPv4 groups (0 now)")));
    ASSERT_TRUE(net.set("igmp_max_memberships", 20));
    ASSERT_TRUE(net.removeRoute());
    EXPECT_EQ(-1, sock.Open(&group));
    EXPECT_EQ(ENODEV, errno);
    EXPECT_EQ(-1, sock.Open(&group));
    EXPECT_THAT(
        look(MulticastFault::JOIN_REFUSED),
        ElementsAre(HasSubstr("ENOBUFS"), HasSubstr("2 joins by CSockDgram were refused with ENODEV: no "
                                                    "route led to the group")));
    EXPECT_THAT(sentences(doctor, MulticastFault::NO_ROUTE),
                ElementsAre(HasSubstr("ip route add 224.0.0.0/4")));
    MulticastOverview overview;
    ASSERT_EQ(0, doctor.GetOverview(overview));
    EXPECT_EQ(0u, overview.routed);
    EXPECT_EQ(1u, overview.refused_room);
    EXPECT_EQ(2u, overview.refused_device);
    EXPECT_EQ(0u, overview.refused_other);
}

TEST_F(MulticastDoctor, MoveToAnAddressThatNoInterfaceHasIsCounted) {
    if (!hasNet()) {
        return;
    }
    CSockDgram sock;
    open(sock, DOCTOR_GROUP);
    EXPECT_EQ(-1, sock.SetMulticastIF("10.200.0.1"));
    EXPECT_THAT(look(MulticastFault::JOIN_REFUSED), ElementsAre(HasSubstr("no interface had the address")));
}

TEST_F(MulticastDoctor, MissingRouteIsToldToThoseWhoUseGroups) {
    if (!hasNet()) {
        return;
    }
    ASSERT_TRUE(net.removeRoute());
    EXPECT_THAT(look(MulticastFault::NO_ROUTE), IsEmpty()) << "nobody here has joined anything";
    CSock sock;
    openPlain(sock, false, DOCTOR_PORT);
    ASSERT_EQ(0, joinMore(sock, DOCTOR_GROUP));
    EXPECT_THAT(look(MulticastFault::NO_ROUTE), ElementsAre(HasSubstr("no route leads to IPv4 groups")));
}

TEST_F(MulticastDoctor, ALookWithoutDescriptorsLeavesTheOneBefore) {
    ASSERT_EQ(0, doctor.Take());
    const std::string before = textOf(doctor);
    int taken = 0;
    DoctorFacts facts;
    {
        // Sanitizers need a descriptor to look at memory, so nothing is expected before there are some again.
        const Testing::NoDescriptors none;
        taken = doctor.Take();
        NetworkLook::find_settings(facts);
    }
    EXPECT_EQ(-1, taken);
    EXPECT_EQ(before, textOf(doctor));
    EXPECT_EQ(1u, facts.overview.routed) << "that nobody could ask is not the same as no route";
}

TEST_F(MulticastDoctor, InterfaceThatIsSwitchedOffIsTold) {
    if (!hasNet()) {
        return;
    }
    CSockDgram sock;
    open(sock, DOCTOR_GROUP);
    EXPECT_THAT(look(MulticastFault::DOWN), IsEmpty());
    ASSERT_TRUE(net.setUp("mc0", false));
    EXPECT_THAT(
        look(MulticastFault::DOWN),
        ElementsAre("groups are joined on mc0, which is switched off: nothing comes; ip link set mc0 up"));
    EXPECT_THAT(sentences(doctor, MulticastFault::NO_LINK), IsEmpty());
    EXPECT_EQ(0u, interfaceNamed(doctor, "mc0").up);
    ASSERT_TRUE(net.setUp("mc0", true));
    EXPECT_THAT(look(MulticastFault::DOWN), IsEmpty());
}

TEST_F(MulticastDoctor, InterfaceWithoutALinkIsTold) {
    if (!hasNet()) {
        return;
    }
    CSockDgram sock;
    open(sock, DOCTOR_GROUP);
    ASSERT_TRUE(net.setUp("mc1", false)) << "the other end of mc0";
    EXPECT_TRUE(eventually([&] { return look(MulticastFault::NO_LINK).size() == 1; })) << textOf(doctor);
    EXPECT_THAT(sentences(doctor, MulticastFault::NO_LINK), ElementsAre(HasSubstr("mc0, which has no link")));
    EXPECT_THAT(textOf(doctor), HasSubstr("no link"));
    ASSERT_TRUE(net.setUp("mc1", true));
    EXPECT_TRUE(eventually([&] { return look(MulticastFault::NO_LINK).empty(); }));
}

TEST_F(MulticastDoctor, InterfaceThatDoesNotCarryMulticastIsTold) {
    if (!hasNet()) {
        return;
    }
    CSockDgram sock;
    open(sock, DOCTOR_GROUP);
    ASSERT_TRUE(net.setMulticast("mc0", false));
    EXPECT_THAT(
        look(MulticastFault::NOT_MULTICAST),
        ElementsAre("groups are joined on mc0, which does not carry multicast; ip link set mc0 multicast "
                    "on"));
    ASSERT_TRUE(net.setMulticast("mc0", true));
    EXPECT_THAT(look(MulticastFault::NOT_MULTICAST), IsEmpty());
}

TEST_F(MulticastDoctor, GroupThatIsJoinedTwiceIsTold) {
    if (!hasNet()) {
        return;
    }
    CSockDgram first;
    open(first, DOCTOR_GROUP);
    EXPECT_THAT(look(MulticastFault::JOINED_TWICE), IsEmpty());
    CSockDgram second;
    open(second, DOCTOR_GROUP);
    const int low = std::min(first.GetHandle(), second.GetHandle());
    const int high = std::max(first.GetHandle(), second.GetHandle());
    EXPECT_THAT(look(MulticastFault::JOINED_TWICE),
                ElementsAre("239.1.2.3 is joined on mc0 by the sockets " + std::to_string(low) + " and " +
                            std::to_string(high) +
                            ", both with port 5004: each datagram comes to both; close one "
                            "of them, if that is not wanted"));
    second.Close();
    CSockDgram other_port;
    open(other_port, DOCTOR_GROUP, 5006);
    EXPECT_THAT(look(MulticastFault::JOINED_TWICE), IsEmpty()) << "another stream of the group";
    ASSERT_EQ(0, joinMore(first, DOCTOR_GROUP, MulticastNet::SECOND_IPV4));
    EXPECT_THAT(look(MulticastFault::JOINED_TWICE),
                ElementsAre("socket " + std::to_string(first.GetHandle()) +
                            " has joined 239.1.2.3 on mc1 and on "
                            "mc0: what both networks carry comes twice; leave the group on one of them"));
}

TEST_F(MulticastDoctor, DatagramsAreCountedByInterfaceGroupAndPort) {
    if (!hasNet()) {
        return;
    }
    CSockDgram member;
    open(member, DOCTOR_GROUP);
    ASSERT_EQ(0, member.SetMulticastIF(MulticastNet::SECOND_IPV4));
    MulticastTraffic row;
    {
        const Meanwhile sending(
            [&] { net.inject("mc0", "10.77.1.7", DOCTOR_GROUP, DOCTOR_PORT, "12345678"); });
        ASSERT_TRUE(counts(DOCTOR_GROUP, "mc1", row));
    }
    EXPECT_NE(0u, row.datagrams);
    EXPECT_EQ(row.datagrams * (20 + 8 + 8), row.bytes);
    EXPECT_EQ(0u, row.sent);
    EXPECT_EQ(DOCTOR_PORT, row.port);
    EXPECT_EQ(1u, row.members);
    EXPECT_STREQ("10.77.1.7", row.source);
    EXPECT_EQ(static_cast<int>(::if_nametoindex("mc1")), row.interface_index);
    MulticastOverview overview;
    ASSERT_EQ(0, doctor.GetOverview(overview));
    EXPECT_EQ(30u, overview.listened_ms);
    EXPECT_EQ(0, overview.listen_error);
    EXPECT_THAT(textOf(doctor), HasSubstr("counted for 30 ms"));
    EXPECT_THAT(sentences(doctor, MulticastFault::SILENT), IsEmpty()) << textOf(doctor);
    ASSERT_EQ(0, doctor.Take());
    EXPECT_EQ(0u, doctor.GetTrafficCount()) << "a look that does not listen knows of none";
}

TEST_F(MulticastDoctor, WhatThisMachineSendsIsCountedAsSent) {
    if (!hasNet()) {
        return;
    }
    CSockDgram sender;
    const CSockAddrIPv6 any("::", 0);
    ASSERT_EQ(0, sender.Open(&any));
    const CSockAddrIPv6 group(DOCTOR_GROUP6, DOCTOR_PORT);
    const int through = static_cast<int>(::if_nametoindex("mc0"));
    ASSERT_EQ(0, ::setsockopt(sender.GetHandle(), IPPROTO_IPV6, IPV6_MULTICAST_IF, &through, sizeof through));
    const Meanwhile sending([&] { sender.Send("x", 1, &group); });
    MulticastTraffic out;
    ASSERT_TRUE(counts(DOCTOR_GROUP6, "mc0", out));
    EXPECT_NE(0u, out.sent);
    EXPECT_EQ(0u, out.datagrams);
    EXPECT_STREQ("", out.source);
    MulticastTraffic in;
    ASSERT_TRUE(counts(DOCTOR_GROUP6, "mc1", in));
    EXPECT_NE(0u, in.datagrams);
    EXPECT_STREQ("fd77::1", in.source);
}

TEST_F(MulticastDoctor, DatagramsOnAnotherInterfaceThanTheJoinedOneAreTold) {
    if (!hasNet()) {
        return;
    }
    ASSERT_TRUE(net.addPair("mc2", "mc3", "10.77.2.1"));
    CSockDgram member;
    open(member, DOCTOR_GROUP);
    const Meanwhile sending([&] { net.inject("mc3", "10.77.2.7", DOCTOR_GROUP, DOCTOR_PORT, "x"); });
    MulticastTraffic row;
    ASSERT_TRUE(counts(DOCTOR_GROUP, "mc2", row));
    EXPECT_EQ(0u, row.members);
    EXPECT_THAT(sentences(doctor, MulticastFault::OTHER_INTERFACE),
                ElementsAre(AllOf(HasSubstr("239.1.2.3, port 5004, comes in on mc2, but socket " +
                                            std::to_string(member.GetHandle()) + " has joined it on mc0"),
                                  HasSubstr("SetMulticastIF(address of mc2)"))));
    // What the sentence says helps.
    ASSERT_EQ(0, member.SetMulticastIF("10.77.2.1"));
    EXPECT_TRUE(waitFor(member.GetHandle(), POLLIN));
    ASSERT_TRUE(counts(DOCTOR_GROUP, "mc2", row));
    EXPECT_THAT(sentences(doctor, MulticastFault::OTHER_INTERFACE), IsEmpty());
}

TEST_F(MulticastDoctor, GroupForWhichNothingComesIsTold) {
    if (!hasNet()) {
        return;
    }
    CSockDgram member;
    open(member, DOCTOR_GROUP);
    EXPECT_THAT(look(MulticastFault::SILENT), IsEmpty()) << "nobody listened";
    EXPECT_THAT(look(MulticastFault::SILENT, 20),
                ElementsAre(AllOf(HasSubstr("239.1.2.3, port 5004, is joined on mc0 by socket " +
                                            std::to_string(member.GetHandle())),
                                  HasSubstr("nothing came in 20 ms"), HasSubstr("IGMP snooping"))));
}

// Takes a capability from this thread.
bool drop(unsigned capability) {
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct sets[2] = {};
    if (::syscall(SYS_capget, &header, sets) != 0) {
        return false;
    }
    sets[0].effective &= ~(1u << capability);
    return ::syscall(SYS_capset, &header, sets) == 0;
}

TEST_F(MulticastDoctor, WithoutTheRightToListenTheRestIsSeenAllTheSame) {
    ASSERT_TRUE(drop(CAP_NET_RAW));
    EXPECT_THAT(look(MulticastFault::NOT_COUNTED), IsEmpty()) << "nobody asked";
    EXPECT_THAT(look(MulticastFault::NOT_COUNTED, 20),
                ElementsAre(AllOf(HasSubstr("Operation not permitted"), HasSubstr("CAP_NET_RAW"))));
    MulticastOverview overview;
    ASSERT_EQ(0, doctor.GetOverview(overview));
    EXPECT_EQ(EPERM, overview.listen_error);
    EXPECT_EQ(0u, overview.listened_ms);
    EXPECT_LT(0u, doctor.GetInterfaceCount());
}

TEST_F(MulticastDoctor, NetworkIsThatOfTheThreadThatLooks) {
    if (!hasNet()) {
        return;
    }
    CSockDgram member;
    open(member, DOCTOR_GROUP);
    std::thread elsewhere([this] {
        ASSERT_TRUE(MulticastNet().made()) << "one more, for this thread";
        ASSERT_TRUE(net.setUp("mc0", false));
        ASSERT_EQ(0, doctor.Take());
        EXPECT_EQ(0u, interfaceNamed(doctor, "mc0").up);
    });
    elsewhere.join();
    ASSERT_EQ(0, doctor.Take());
    EXPECT_EQ(1u, interfaceNamed(doctor, "mc0").up);
}

TEST_F(MulticastDoctor, StructuresOfOlderAndNewerCallersAreFilledAsFarAsTheyGo) {
    ASSERT_EQ(0, doctor.Take());
    struct {
        MulticastInterface known;
        unsigned char more[16];
    } newer{};
    newer.known.size = sizeof newer;
    std::memset(newer.more, 0xAA, sizeof newer.more);
    ASSERT_EQ(0, doctor.GetInterface(0, newer.known));
    EXPECT_STREQ("lo", newer.known.name);
    EXPECT_EQ(sizeof newer, newer.known.size) << "it stays the caller's";
    for (const unsigned char byte : newer.more) {
        EXPECT_EQ(0, byte) << "what the library does not know";
    }
    MulticastInterface older{};
    older.size = offsetof(MulticastInterface, up);
    older.up = 77;
    ASSERT_EQ(0, doctor.GetInterface(0, older));
    EXPECT_EQ(77u, older.up) << "what the caller does not know";
    EXPECT_NE(0, older.index);
    older.size = 4;
    EXPECT_EQ(-1, doctor.GetInterface(0, older));
    MulticastGroup group;
    MulticastTraffic row;
    MulticastSocket socket;
    MulticastProblem problem;
    EXPECT_EQ(-1, doctor.GetInterface(doctor.GetInterfaceCount(), newer.known));
    EXPECT_EQ(-1, doctor.GetGroup(doctor.GetGroupCount(), group));
    EXPECT_EQ(-1, doctor.GetTraffic(doctor.GetTrafficCount(), row));
    EXPECT_EQ(-1, doctor.GetSocket(doctor.GetSocketCount(), socket));
    EXPECT_EQ(-1, doctor.GetProblem(doctor.GetProblemCount(), problem));
}

TEST_F(MulticastDoctor, LookIsMovedWhole) {
    ASSERT_EQ(0, doctor.Take());
    const std::string text = textOf(doctor);
    CMulticastDoctor moved(std::move(doctor));
    EXPECT_EQ(text, textOf(moved));
    CMulticastDoctor assigned;
    assigned = std::move(moved);
    EXPECT_EQ(text, textOf(assigned));
    char room[4] = "xyz";
    EXPECT_EQ(text.size(), assigned.toText(room, 2)) << "the whole length";
    EXPECT_EQ(text.substr(0, 2) + "z", room);
    EXPECT_STREQ("foreign_group", CMulticastDoctor::GetName(MulticastFault::FOREIGN_GROUP));
}

TEST_F(MulticastDoctor, CommandPrintsTheTextAndListensOnRequest) {
    CSockDgram member;
    if (hasNet()) {
        open(member, DOCTOR_GROUP);
    }
    const auto printed = [](int listen_ms) {
        Testing::DaemonStandIn daemon;
        const TFuncEntry* const entry = g_r3_funcbox->Find("multicast");
        EXPECT_NE(nullptr, entry);
        EXPECT_EQ(0, entry->func(listen_ms, 0, 0, 0, 0, 0, 0, 0, 0, 0));
        std::string whole;
        for (const std::string& piece : daemon.texts()) {
            EXPECT_LT(piece.size(), 4096u);
            whole += piece;
        }
        return whole;
    };
    const std::string text = printed(0);
    EXPECT_THAT(text, AllOf(HasSubstr("interface"), HasSubstr("lo"), HasSubstr("IPv4 groups")));
    EXPECT_THAT(printed(-5), HasSubstr("interface"));
    if (net.made()) {
        EXPECT_THAT(text, ::testing::Not(HasSubstr("counted for")));
        EXPECT_THAT(printed(10), AllOf(HasSubstr("counted for 10 ms"), HasSubstr("silent: 239.1.2.3")));
    }
}

}  // namespace
}  // namespace Orvex::Reticor
