// TrafficCount: headers of datagrams, packets that are none, and rows.
#include "Socket/doctor/TrafficCount.h"

#include <linux/if_ether.h>
#include <netinet/in.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <string>
#include <vector>

#include "support/SeededRandom.h"
#include "support/socket/MulticastNet.h"

namespace Orvex::Reticor {
namespace {

using Testing::MulticastNet;
using Packet = std::vector<unsigned char>;

// 30 bytes to 239.1.2.3, port 5004, from 10.0.0.7.
Packet ipv4Datagram() {
    Packet packet(30);
    packet[0] = 0x45;
    packet[3] = 30;
    packet[9] = 17;
    const unsigned char addresses[] = {10, 0, 0, 7, 239, 1, 2, 3};
    std::copy(std::begin(addresses), std::end(addresses), packet.begin() + 12);
    packet[22] = 5004 >> 8;
    packet[23] = 5004 & 0xFF;
    return packet;
}

// 50 bytes to ff15::77, port 5004, from fd77::1.
Packet ipv6Datagram() {
    Packet packet(50);
    packet[0] = 0x60;
    packet[5] = 10;
    packet[6] = 17;
    packet[8] = 0xFD;
    packet[9] = 0x77;
    packet[23] = 1;
    packet[24] = 0xFF;
    packet[25] = 0x15;
    packet[39] = 0x77;
    packet[42] = 5004 >> 8;
    packet[43] = 5004 & 0xFF;
    return packet;
}

std::string told(const Packet& packet, unsigned protocol) {
    const std::optional<GroupDatagram> found = GroupDatagram::parse(packet.data(), packet.size(), protocol);
    return found ? found->source.text() + " to " + found->group.text() + " port " +
                       std::to_string(found->port) + ", " + std::to_string(found->bytes)
                 : "none";
}

TEST(TrafficCount, HeadersOfBothFamiliesAreRead) {
    EXPECT_EQ("10.0.0.7 to 239.1.2.3 port 5004, 30", told(ipv4Datagram(), ETH_P_IP));
    EXPECT_EQ("fd77::1 to ff15::77 port 5004, 50", told(ipv6Datagram(), ETH_P_IPV6));
}

TEST(TrafficCount, OptionsOfTheHeaderAreSteppedOver) {
    Packet packet = ipv4Datagram();
    packet[0] = 0x46;
    packet.insert(packet.begin() + 20, {9, 9, 9, 9});
    EXPECT_EQ("10.0.0.7 to 239.1.2.3 port 5004, 30", told(packet, ETH_P_IP));
    packet[0] = 0x4F;
    EXPECT_EQ("none", told(packet, ETH_P_IP)) << "the header is longer than what came";
    packet[0] = 0x44;
    EXPECT_EQ("none", told(packet, ETH_P_IP)) << "and shorter than one is";
}

TEST(TrafficCount, WhatIsNoDatagramToAGroupIsLeftOut) {
    const auto with = [](Packet packet, size_t at, int value, unsigned protocol) {
        packet[at] = static_cast<unsigned char>(value);
        return told(packet, protocol);
    };
    const std::string good = told(ipv4Datagram(), ETH_P_IP);
    EXPECT_EQ("none", with(ipv4Datagram(), 9, 6, ETH_P_IP)) << "TCP";
    EXPECT_EQ("none", with(ipv4Datagram(), 16, 192, ETH_P_IP)) << "to one machine";
    EXPECT_EQ("none", with(ipv4Datagram(), 16, 240, ETH_P_IP)) << "after the last group";
    EXPECT_EQ("none", with(ipv4Datagram(), 0, 0x65, ETH_P_IP));
    EXPECT_EQ("none", with(ipv4Datagram(), 7, 1, ETH_P_IP)) << "a later fragment";
    EXPECT_EQ("none", with(ipv4Datagram(), 6, 0x1F, ETH_P_IP));
    EXPECT_EQ(good, with(ipv4Datagram(), 6, 0x20, ETH_P_IP)) << "the first fragment has the ports";
    EXPECT_EQ("none", with(ipv6Datagram(), 6, 58, ETH_P_IPV6)) << "ICMP";
    EXPECT_EQ("none", with(ipv6Datagram(), 24, 0xFE, ETH_P_IPV6));
    EXPECT_EQ("none", with(ipv6Datagram(), 0, 0x45, ETH_P_IPV6));
    EXPECT_EQ("none", told(ipv4Datagram(), ETH_P_ARP));
    EXPECT_EQ("none", told(ipv4Datagram(), ETH_P_IPV6));
    EXPECT_EQ("none", told(ipv6Datagram(), ETH_P_IP));
}

TEST(TrafficCount, PacketsThatAreCutAreNotReadBeyondTheirEnd) {
    for (const auto& [whole, protocol, least] :
         {std::make_tuple(ipv4Datagram(), unsigned{ETH_P_IP}, size_t{24}),
          std::make_tuple(ipv6Datagram(), unsigned{ETH_P_IPV6}, size_t{44})}) {
        for (size_t length = 0; length <= whole.size(); ++length) {
            // On the heap and of exactly that length, so that sanitizers see a byte too far.
            const Packet cut(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(length));
            EXPECT_EQ(length >= least, told(cut, protocol) != "none") << length;
        }
    }
}

TEST(TrafficCount, AnyBytesGiveAGroupOrNothing) {
    Testing::SeededRandom random;
    for (int round = 0; round < 3000; ++round) {
        Packet packet(random.between(size_t{0}, size_t{96}));
        for (unsigned char& byte : packet) {
            byte = static_cast<unsigned char>(random.between(0, 255));
        }
        if (!packet.empty() && random.oneIn(2)) {
            packet[0] = random.oneIn(2) ? 0x45 : 0x60;
        }
        const unsigned protocol = random.oneIn(2) ? ETH_P_IP : ETH_P_IPV6;
        const std::optional<GroupDatagram> found =
            GroupDatagram::parse(packet.data(), packet.size(), protocol);
        if (found) {
            const unsigned first = found->group.bytes.s6_addr[0];
            EXPECT_TRUE(protocol == ETH_P_IP ? first >> 4 == 0xE : first == 0xFF);
        }
    }
}

TEST(TrafficCount, RowsAreByInterfaceGroupAndPort) {
    TrafficCount traffic;
    GroupDatagram datagram = *GroupDatagram::parse(ipv4Datagram().data(), 30, ETH_P_IP);
    traffic.add(7, false, datagram);
    traffic.add(7, false, datagram);
    traffic.add(7, true, datagram);
    traffic.add(8, false, datagram);
    datagram.port = 5005;
    traffic.add(7, false, datagram);
    const std::vector<TrafficFacts> rows = traffic.rows();
    ASSERT_EQ(3u, rows.size());
    EXPECT_EQ(7, rows[0].interface_index);
    EXPECT_EQ(5004u, rows[0].port);
    EXPECT_EQ(2u, rows[0].datagrams);
    EXPECT_EQ(60u, rows[0].bytes);
    EXPECT_EQ(1u, rows[0].sent);
    EXPECT_STREQ("239.1.2.3", rows[0].group);
    EXPECT_STREQ("10.0.0.7", rows[0].source);
    EXPECT_EQ(5005u, rows[1].port);
    EXPECT_EQ(8, rows[2].interface_index);
    EXPECT_EQ(0u, traffic.uncounted());
}

TEST(TrafficCount, FloodOfPortsTakesNoMoreThanItsRows) {
    TrafficCount traffic;
    GroupDatagram datagram = *GroupDatagram::parse(ipv4Datagram().data(), 30, ETH_P_IP);
    for (unsigned port = 0; port < TrafficCount::MOST_ROWS + 10; ++port) {
        datagram.port = static_cast<uint16_t>(port);
        traffic.add(7, false, datagram);
    }
    EXPECT_EQ(TrafficCount::MOST_ROWS, traffic.rows().size());
    EXPECT_EQ(10u, traffic.uncounted());
    datagram.port = 3;
    traffic.add(7, false, datagram);
    EXPECT_EQ(2u, traffic.rows()[3].datagrams) << "rows that are there go on counting";
}

TEST(TrafficCount, ListeningEndsWithItsTime) {
    const MulticastNet net;
    TrafficCount traffic;
    const int result = traffic.run(20);
    EXPECT_EQ(net.made() ? 0 : EPERM, result);
}

}  // namespace
}  // namespace Orvex::Reticor
