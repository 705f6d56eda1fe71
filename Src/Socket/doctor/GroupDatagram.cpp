// GroupDatagram: headers of foreign packets, which may be anything.
#include "Socket/doctor/GroupDatagram.h"

#include <linux/if_ether.h>
#include <netinet/in.h>

namespace Orvex::Reticor {

namespace {

unsigned word_at(const unsigned char* bytes) {
    return static_cast<unsigned>(bytes[0]) << 8 | bytes[1];
}

}  // namespace

std::optional<GroupDatagram> GroupDatagram::parse(const unsigned char* packet, size_t length,
                                                  unsigned protocol) {
    GroupDatagram found;
    size_t header = 40;
    if (protocol == ETH_P_IP) {
        constexpr size_t SHORTEST = 20;
        if (length < SHORTEST || packet[0] >> 4 != 4) {
            return std::nullopt;
        }
        header = size_t{4} * (packet[0] & 0xF);
        const bool first = (word_at(packet + 6) & 0x1FFF) == 0;
        if (header < SHORTEST || !first || packet[9] != IPPROTO_UDP || packet[16] >> 4 != 0xE) {
            return std::nullopt;
        }
        found.bytes = word_at(packet + 2);
        found.source = GroupAddress::of_ipv4(packet + 12);
        found.group = GroupAddress::of_ipv4(packet + 16);
    } else {
        if (protocol != ETH_P_IPV6 || length < header || packet[0] >> 4 != 6 || packet[6] != IPPROTO_UDP ||
            packet[24] != 0xFF) {
            return std::nullopt;
        }
        found.bytes = word_at(packet + 4) + 40;
        found.source = GroupAddress::of_ipv6(packet + 8);
        found.group = GroupAddress::of_ipv6(packet + 24);
    }
    if (length < header + 4) {
        return std::nullopt;
    }
    found.port = static_cast<uint16_t>(word_at(packet + header + 2));
    return found;
}

}  // namespace Orvex::Reticor
