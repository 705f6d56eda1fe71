// DgramGroups: the group that a datagram socket has joined, and what is set for groups.
#pragma once

#include "Socket/address/SockAddrRecord.h"

namespace Orvex::Reticor {

/// A socket joins one group, on the system's default interface; an IPv4 membership can move from there once.
/// The handle stays the caller's. Each operation gives 0, or -1 with errno, in silence, unless another result
/// is named.
///
/// Thread safety: as of the socket.
class DgramGroups {
public:
    /// Otherwise the kernel also delivers what is sent to a group that another process has joined, if only
    /// the port is right. A kernel that does not know the option, or a socket of the other family, leaves it
    /// at that.
    static void receive_joined_only(int handle, bool is_ipv4);

    /// Joins `group`, which is one (SockAddrRecord::is_group), on the default interface.
    int join(int handle, const SockAddrRecord& group);
    /// Knows of no group any more. The membership itself ends with the socket.
    void forget();
    bool joined() const { return m_group.has_family(); }
    /// The family of the group that was joined.
    bool is_ipv4() const { return m_group.is_ipv4(); }

    /// The steps of a move, in their order.
    enum class Step { drop, add, send_through, done };
    /// Moves the membership of the group from the default interface to the one with the address `ip`, in host
    /// order, and sends to groups through that. `done`, or the step that failed, with errno: the former steps
    /// stay done. Without an IPv4 membership on the default interface, `drop` fails with EADDRNOTAVAIL.
    Step move_to(int handle, unsigned ip);
    /// Sends to IPv6 groups through the default interface.
    static int send_through_default(int handle);

    static int set_hops(int handle, bool is_ipv4, unsigned char hops);
    /// Whether datagrams to the group come back to this host.
    int set_loop(int handle, bool on) const;

private:
    SockAddrRecord m_group;               ///< Of no family while none is joined.
    bool m_on_default_interface = false;  ///< The membership is where `join` made it.
};

}  // namespace Orvex::Reticor
