// TrafficCount: datagrams to groups on all interfaces, counted for a while with a packet socket (packet(7)).
#pragma once

#include <map>
#include <optional>
#include <tuple>

#include "Socket/doctor/DoctorFacts.h"

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

/// Thread safety: one thread.
class TrafficCount {
public:
    static constexpr size_t MOST_ROWS = 4096;

    /// Counts for so long, and blocks meanwhile. 0, or an errno value. Without memory std::bad_alloc comes
    /// out.
    int run(unsigned listen_ms);
    /// Counts one, which came in on that interface or goes out there.
    void add(int interface_index, bool outgoing, const GroupDatagram& datagram);
    /// What was counted, in the order of interfaces and groups, without the names of interfaces.
    std::vector<TrafficFacts> rows() const;
    /// What came too fast, or has found no row.
    uint64_t uncounted() const { return m_uncounted; }

private:
    void take_waiting(int handle);

    std::map<std::tuple<int, GroupAddress, uint16_t>, TrafficFacts> m_rows;
    uint64_t m_uncounted = 0;
};

}  // namespace Orvex::Reticor
