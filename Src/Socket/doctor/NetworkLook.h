// NetworkLook: interfaces, sockets of this process and the groups that they have joined, asked of the kernel.
#pragma once

#include "Socket/doctor/DoctorFacts.h"

namespace Orvex::Reticor {

/// Each operation fills its part of `facts`, in this order. Without memory std::bad_alloc comes out.
class NetworkLook {
public:
    /// -1 if the system does not list them.
    static int find_interfaces(DoctorFacts& facts);
    /// The UDP sockets of this process. -1 if its descriptors cannot be listed.
    static int find_sockets(DoctorFacts& facts);
    /// The groups of all interfaces, and which sockets are members.
    static void find_groups(DoctorFacts& facts);
    /// What is set for the whole network, and what it has counted.
    static void find_settings(DoctorFacts& facts);

    /// Packets that `rp_filter` has dropped.
    static uint64_t filtered();
    /// IPv4 groups that one socket may join; 0 if that is not known.
    static uint32_t groups_per_socket();
    /// The facts of one socket; false if `handle` is not a UDP one.
    static bool look_at(int handle, SocketFacts& socket);
    /// Whether the socket has joined `group` on the interface.
    static bool has_joined(int handle, const GroupAddress& group, int interface_index);
};

}  // namespace Orvex::Reticor
