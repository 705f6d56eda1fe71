// DgramGroups: memberships and options of groups, see ip(7) and ipv6(7).
#include "Socket/socket/DgramGroups.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>

#include "Socket/socket/JoinRefusals.h"

namespace Orvex::Reticor {

void DgramGroups::receive_joined_only(int handle, bool is_ipv4) {
    const int off = 0;
    ::setsockopt(handle, IPPROTO_IP, IP_MULTICAST_ALL, &off, sizeof off);
    if (!is_ipv4) {
        ::setsockopt(handle, IPPROTO_IPV6, IPV6_MULTICAST_ALL, &off, sizeof off);
    }
}

int DgramGroups::join(int handle, const SockAddrRecord& group) {
    int result = 0;
    if (group.is_ipv4()) {
        ip_mreq request{};
        request.imr_multiaddr = group.ipv4().sin_addr;
        result = ::setsockopt(handle, IPPROTO_IP, IP_ADD_MEMBERSHIP, &request, sizeof request);
    } else {
        ipv6_mreq request{};
        request.ipv6mr_multiaddr = group.ipv6().sin6_addr;
        result = ::setsockopt(handle, IPPROTO_IPV6, IPV6_JOIN_GROUP, &request, sizeof request);
    }
    if (result == 0) {
        m_group = group;
        m_on_default_interface = true;
    } else {
        JoinRefusals::count();
    }
    return result;
}

void DgramGroups::forget() {
    m_group = SockAddrRecord();
    m_on_default_interface = false;
}

// The kernel takes a request without an interface for the one that its routes name, and would drop a
// membership that has been moved there: whether there is one to move is known here.
DgramGroups::Step DgramGroups::move_to(int handle, unsigned ip) {
    if (!m_group.is_ipv4() || !m_on_default_interface) {
        errno = EADDRNOTAVAIL;
        return Step::drop;
    }
    ip_mreq request{};
    request.imr_multiaddr = m_group.ipv4().sin_addr;
    if (::setsockopt(handle, IPPROTO_IP, IP_DROP_MEMBERSHIP, &request, sizeof request) == -1) {
        return Step::drop;
    }
    m_on_default_interface = false;
    request.imr_interface.s_addr = htonl(ip);
    if (::setsockopt(handle, IPPROTO_IP, IP_ADD_MEMBERSHIP, &request, sizeof request) == -1) {
        JoinRefusals::count();
        return Step::add;
    }
    const in_addr through = request.imr_interface;
    return ::setsockopt(handle, IPPROTO_IP, IP_MULTICAST_IF, &through, sizeof through) == -1
               ? Step::send_through
               : Step::done;
}

int DgramGroups::send_through_default(int handle) {
    const int any_interface = 0;
    return ::setsockopt(handle, IPPROTO_IPV6, IPV6_MULTICAST_IF, &any_interface, sizeof any_interface);
}

int DgramGroups::set_hops(int handle, bool is_ipv4, unsigned char hops) {
    if (is_ipv4) {
        return ::setsockopt(handle, IPPROTO_IP, IP_MULTICAST_TTL, &hops, sizeof hops);
    }
    const int value = hops;
    return ::setsockopt(handle, IPPROTO_IPV6, IPV6_MULTICAST_HOPS, &value, sizeof value);
}

int DgramGroups::set_loop(int handle, bool on) const {
    const int value = on ? 1 : 0;
    return is_ipv4() ? ::setsockopt(handle, IPPROTO_IP, IP_MULTICAST_LOOP, &value, sizeof value)
                     : ::setsockopt(handle, IPPROTO_IPV6, IPV6_MULTICAST_LOOP, &value, sizeof value);
}

}  // namespace Orvex::Reticor
