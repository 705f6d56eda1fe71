// Diagnosis: what is not to be complained of, and the sentences for errors of joins.
#include "Socket/doctor/Diagnosis.h"

#include <arpa/inet.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "Socket/doctor/DoctorText.h"

namespace Orvex::Reticor {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

GroupAddress groupOf(const char* text) {
    unsigned char bytes[16];
    return ::inet_pton(AF_INET, text, bytes) == 1    ? GroupAddress::of_ipv4(bytes)
           : ::inet_pton(AF_INET6, text, bytes) == 1 ? GroupAddress::of_ipv6(bytes)
                                                     : GroupAddress();
}

// A healthy machine: socket 7 has joined a group on mc0, and gets datagrams.
class Diagnosed : public ::testing::Test {
protected:
    Diagnosed() {
        facts.overview.routed = 1;
        facts.overview.groups_per_socket = 20;
        InterfaceFacts& mc0 = facts.interfaces.emplace_back();
        mc0.index = 3;
        mc0.up = mc0.running = mc0.multicast = 1;
        mc0.memberships = 1;
        mc0.has_default_route = true;
        std::strcpy(mc0.name, "mc0");
        SocketFacts& socket = facts.sockets.emplace_back();
        socket.handle = 7;
        socket.port = 5004;
        socket.family = AF_INET;
        socket.any_address = true;
        socket.memberships_v4 = 1;
        facts.groups.push_back(joined(7, "239.1.2.3"));
    }
    GroupFacts joined(int handle, const char* group) {
        GroupFacts one{};
        one.handle = handle;
        one.port = handle != -1 ? 5004 : 0;
        one.interface_index = 3;
        one.address = groupOf(group);
        std::strcpy(one.group, group);
        std::strcpy(one.interface_name, "mc0");
        return one;
    }
    TrafficFacts came(int interface_index, const char* group, uint64_t datagrams) {
        TrafficFacts row{};
        row.interface_index = interface_index;
        row.port = 5004;
        row.datagrams = datagrams;
        row.address = groupOf(group);
        std::strcpy(row.group, group);
        return row;
    }
    std::vector<std::string> faults() {
        Diagnosis::judge(facts);
        std::vector<std::string> names;
        for (const MulticastProblem& problem : facts.problems) {
            names.emplace_back(name_of_fault(problem.fault));
            EXPECT_NE('\0', problem.sentence[0]);
        }
        return names;
    }

    DoctorFacts facts;
};

TEST_F(Diagnosed, NothingIsSaidOfAHealthyMachine) {
    EXPECT_THAT(faults(), IsEmpty());
    facts.overview.listened_ms = 100;
    facts.traffic.push_back(came(3, "239.1.2.3", 5));
    EXPECT_THAT(faults(), IsEmpty());
}

TEST_F(Diagnosed, FilterIsNoFaultWhereTheDefaultRouteLeadsThroughTheInterface) {
    facts.interfaces[0].rp_filter = 1;
    EXPECT_THAT(faults(), IsEmpty());
    facts.overview.filtered_since = 3;
    EXPECT_THAT(faults(), ElementsAre("filtered")) << "but for what it was seen to drop";
    facts.overview.filtered_since = 0;
    facts.interfaces[0].has_default_route = false;
    EXPECT_THAT(faults(), ElementsAre("filtered"));
    facts.interfaces[0].rp_filter = 2;
    EXPECT_THAT(faults(), IsEmpty()) << "any route will do";
    facts.interfaces[0].rp_filter = 1;
    facts.groups[0] = joined(7, "ff15::77");
    EXPECT_THAT(faults(), IsEmpty()) << "it is of IPv4 alone";
    facts.groups[0] = joined(-1, "239.1.2.3");
    EXPECT_THAT(faults(), IsEmpty()) << "others have joined";
}

TEST_F(Diagnosed, LossesOfLongAgoAreNotToldAgain) {
    facts.sockets[0].lost = 594;
    EXPECT_THAT(faults(), IsEmpty());
    facts.sockets[0].lost_since = 4;
    EXPECT_THAT(faults(), ElementsAre("loss"));
    EXPECT_NE(nullptr, std::strstr(facts.problems[0].sentence, "lost 594 datagrams, 4 since the last look"));
}

TEST_F(Diagnosed, SocketOfOneAddressGetsNoForeignGroups) {
    facts.sockets[0].foreign_v4 = 1;
    facts.groups.push_back(joined(8, "239.9.9.9"));
    EXPECT_THAT(faults(), ElementsAre("foreign_group"));
    facts.sockets[0].any_address = false;
    EXPECT_THAT(faults(), IsEmpty());
    facts.sockets[0].any_address = true;
    facts.groups[1].port = 5006;
    EXPECT_THAT(faults(), IsEmpty()) << "they go to another port";
    facts.groups[1] = joined(8, "ff15::77");
    facts.sockets[0].foreign_v6 = 1;
    EXPECT_THAT(faults(), IsEmpty()) << "an IPv4 socket gets nothing of IPv6";
}

TEST_F(Diagnosed, ForeignGroupIsToldOnce) {
    facts.sockets[0].foreign_v4 = 1;
    facts.overview.listened_ms = 100;
    facts.groups.push_back(joined(-1, "239.9.9.9"));
    facts.traffic = {came(3, "239.1.2.3", 1), came(3, "239.9.9.9", 1), came(4, "239.9.9.9", 5)};
    EXPECT_THAT(faults(), ElementsAre("foreign_group"));
    EXPECT_NE(nullptr, std::strstr(facts.problems[0].sentence, "1 datagram came in on "));
    facts.traffic[1].datagrams = 0;
    EXPECT_THAT(faults(), IsEmpty()) << "on the other interface nobody has joined it";
}

TEST_F(Diagnosed, WhatThisMachineSendsToAGroupIsNoSilence) {
    facts.overview.listened_ms = 100;
    EXPECT_THAT(faults(), ElementsAre("silent"));
    facts.traffic.push_back(came(3, "239.1.2.3", 0));
    facts.traffic[0].sent = 4;
    EXPECT_THAT(faults(), IsEmpty());
    facts.traffic.push_back(came(4, "239.1.2.3", 4));
    EXPECT_THAT(faults(), IsEmpty()) << "two interfaces on one network";
    facts.traffic.erase(facts.traffic.begin());
    EXPECT_THAT(faults(), ElementsAre("other_interface"));
    facts.traffic[0].port = 5005;
    EXPECT_THAT(faults(), ElementsAre("silent")) << "of another port";
    facts.groups[0].port = 0;
    EXPECT_THAT(faults(), IsEmpty()) << "a socket that is not bound waits for nothing";
}

TEST_F(Diagnosed, FaultsComeInTheirOrder) {
    facts.overview.listened_ms = 100;
    facts.overview.routed = 0;
    facts.overview.refused_device = 2;
    facts.overview.refused_room = 1;
    facts.overview.refused_other = 3;
    facts.sockets[0].lost = facts.sockets[0].lost_since = 1;
    facts.sockets[0].memberships_v4 = 20;
    facts.interfaces[0].up = facts.interfaces[0].running = facts.interfaces[0].multicast = 0;
    EXPECT_THAT(faults(), ElementsAre("loss", "socket_full", "join_refused", "join_refused", "join_refused",
                                      "no_route", "down", "not_multicast", "silent"));
    EXPECT_NE(nullptr, std::strstr(facts.problems[0].sentence, "has lost 1 datagram:"));
    EXPECT_NE(nullptr, std::strstr(facts.problems[2].sentence, "1 join by CSockDgram was refused"));
    EXPECT_NE(nullptr, std::strstr(facts.problems[3].sentence, "2 joins by CSockDgram were refused"));
}

TEST_F(Diagnosed, LongestSentenceFitsIn) {
    SocketFacts& socket = facts.sockets[0];
    socket.handle = INT32_MAX;
    socket.port = 65535;
    socket.lost = socket.waiting = socket.room = UINT64_MAX;
    socket.lost_since = UINT64_MAX - 1;
    socket.foreign_v6 = 1;
    socket.family = AF_INET6;
    socket.memberships_v4 = 20;
    std::strcpy(facts.interfaces[0].name, "fifteen_letters");
    facts.interfaces[0].has_default_route = false;
    facts.interfaces[0].rp_filter = 1;
    facts.overview.filtered_since = UINT64_MAX;
    facts.overview.listened_ms = 60000;
    facts.overview.refused_room = facts.overview.refused_device = UINT64_MAX;
    facts.overview.groups_per_socket = 20;
    const char* const group = "ff15:1111:2222:3333:4444:5555:6666:7777";
    for (const int interface_index : {3, 4}) {
        for (const int handle : {INT32_MAX - 1, INT32_MAX - 2}) {
            facts.groups.push_back(joined(handle, group));
            facts.groups.back().port = 65535;
            facts.groups.back().interface_index = interface_index;
            std::strcpy(facts.groups.back().interface_name, "fifteen_letters");
        }
    }
    facts.traffic.push_back(came(5, group, UINT64_MAX));
    facts.traffic[0].port = 65535;
    std::strcpy(facts.traffic[0].interface_name, "fifteen_letters");
    EXPECT_THAT(faults(),
                ::testing::IsSupersetOf({"loss", "foreign_group", "filtered", "socket_full", "join_refused",
                                         "joined_twice", "other_interface", "silent"}));
    for (const MulticastProblem& problem : facts.problems) {
        EXPECT_LT(std::strlen(problem.sentence), sizeof problem.sentence - 1) << problem.sentence;
    }
}

std::string explained(int error, uint32_t memberships = 1, const char* group = "239.1.1.21") {
    return Diagnosis::explain_join(7, groupOf(group), error, memberships, 20);
}

TEST(JoinErrors, EachHasASentenceOfItsOwn) {
    EXPECT_EQ(
        "socket 7 has joined 20 IPv4 groups, as many as one socket may; join 239.1.1.21 on another socket, "
        "or raise net.ipv4.igmp_max_memberships (20)",
        explained(ENOBUFS, 20));
    EXPECT_EQ(
        "socket 7 has no room for 239.1.1.21 among its options; join on another socket, or raise "
        "net.core.optmem_max",
        explained(ENOBUFS, 19));
    EXPECT_EQ(explained(ENOBUFS, 19, "ff15::77"), explained(ENOMEM, 20, "ff15::77"))
        << "IPv6 knows no number of groups";
    EXPECT_EQ(
        "no route leads to 239.1.1.21, or no interface has what was named; ip route add 239.1.1.21/32 dev "
        "INTERFACE, or name one that is up",
        explained(ENODEV));
    EXPECT_NE(std::string::npos, explained(ENODEV, 1, "ff15::77").find("ff15::77/128"));
    EXPECT_EQ("socket 7 has joined 239.1.1.21 on that interface before; nothing is to be done",
              explained(EADDRINUSE));
    EXPECT_NE(std::string::npos,
              explained(EINVAL, 1, "10.0.0.1").find("10.0.0.1 cannot be joined: it is not"));
    EXPECT_NE(std::string::npos, explained(ENOPROTOOPT).find("of the other family"));
    EXPECT_EQ("239.1.1.21 could not be joined with socket 7: Operation not permitted", explained(EPERM));
}

TEST(FaultNames, EachIsOneWord) {
    for (uint32_t i = 0; i <= static_cast<uint32_t>(MulticastFault::NOT_COUNTED); ++i) {
        const std::string name = name_of_fault(static_cast<MulticastFault>(i));
        EXPECT_NE("unknown", name);
        EXPECT_EQ(std::string::npos, name.find_first_not_of("abcdefghijklmnopqrstuvwxyz_"));
    }
    EXPECT_STREQ("unknown", name_of_fault(static_cast<MulticastFault>(99)));
}

}  // namespace
}  // namespace Orvex::Reticor
