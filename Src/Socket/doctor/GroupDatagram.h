// GroupDatagram: what the headers of a UDP datagram to a group tell.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>

#include "Socket/doctor/GroupAddress.h"

namespace Orvex::Reticor {

/// A UDP datagram to a group, as its headers tell it.
struct GroupDatagram {
    GroupAddress group;
    GroupAddress source;
    uint16_t port = 0;
    uint32_t bytes = 0;  ///< Of the IP packet.

    /// Of the beginning of a packet, from the IP header on; `protocol` is ETH_P_IP or ETH_P_IPV6. Nothing if
    /// it is another kind of packet, a fragment that is not the first, or too short.
    static std::optional<GroupDatagram> parse(const unsigned char* packet, size_t length, unsigned protocol);
};

}  // namespace Orvex::Reticor
