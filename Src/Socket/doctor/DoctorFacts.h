// DoctorFacts: all that one look at the multicast of this process has seen.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <Reticor/MulticastDoctor.h>

#include "Socket/doctor/ProcNet.h"

namespace Orvex::Reticor {

/// Beside what the public structures say: addresses that can be compared.
struct InterfaceFacts : MulticastInterface {
    bool has_default_route = false;  ///< For IPv4.
};

struct SocketFacts : MulticastSocket {
    int family = 0;
    bool any_address = false;  ///< It is bound to the wildcard, or not bound.
};

struct GroupFacts : MulticastGroup {
    GroupAddress address;
};

struct TrafficFacts : MulticastTraffic {
    GroupAddress address;
};

struct DoctorFacts {
    MulticastOverview overview{};
    std::vector<InterfaceFacts> interfaces;
    std::vector<SocketFacts> sockets;
    std::vector<GroupFacts> groups;
    std::vector<TrafficFacts> traffic;
    std::vector<MulticastProblem> problems;

    const InterfaceFacts* interface_of(int index) const {
        for (const InterfaceFacts& one : interfaces) {
            if (one.index == index) {
                return &one;
            }
        }
        return nullptr;
    }
    const SocketFacts* socket_of(int handle) const {
        for (const SocketFacts& one : sockets) {
            if (one.handle == handle) {
                return &one;
            }
        }
        return nullptr;
    }
    /// Whether the socket has joined the group; on any interface with the index 0.
    bool is_member(int handle, const GroupAddress& group, int interface_index) const {
        for (const GroupFacts& one : groups) {
            if (one.handle == handle && one.address == group &&
                (interface_index == 0 || one.interface_index == interface_index)) {
                return true;
            }
        }
        return false;
    }
};

}  // namespace Orvex::Reticor
