// TrafficCount: datagrams to groups on all interfaces, counted for a while with a packet socket (packet(7)).
#pragma once

#include <map>
#include <tuple>

#include "Socket/doctor/DoctorFacts.h"
#include "Socket/doctor/GroupDatagram.h"

namespace Orvex::Reticor {

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
