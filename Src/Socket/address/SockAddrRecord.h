// SockAddrRecord: an address in the form that the system's calls take.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

namespace Orvex::Reticor {

class CSockAddr;

/// The record of an address, taken once for socket(2), bind(2) and connect(2).
struct SockAddrRecord {
    /// Of no family.
    SockAddrRecord() = default;
    explicit SockAddrRecord(const CSockAddr& addr);

    /// The family of an address as `type` has it below, or what its class says if that is not a known one;
    /// for an empty storage address 0. The address need not have a record.
    static unsigned family_type_of(const CSockAddr& addr);

    /// Whether a socket can be opened for the address.
    bool has_family() const { return type != 0; }
    bool is_ipv4() const;
    /// AF_INET or AF_INET6; only if has_family().
    int family() const;
    /// The port of the record, in host order.
    unsigned short port() const;
    /// Whether this is the address of a multicast group: 224.0.0.0/4, ff00::/8.
    bool is_group() const;
    /// Whether this is an IPv4 address whose last four bits are all 1: a guess, since nobody tells the
    /// netmask.
    bool looks_like_broadcast() const;

    const sockaddr* get() const { return reinterpret_cast<const sockaddr*>(&storage); }
    /// The record by its family.
    const sockaddr_in& ipv4() const { return reinterpret_cast<const sockaddr_in&>(storage); }
    const sockaddr_in6& ipv6() const { return reinterpret_cast<const sockaddr_in6&>(storage); }

    /// SOCKADDR_TYPE_IPV4, SOCKADDR_TYPE_IPV6, or 0 for an address of no known family. A storage address
    /// counts as the family in which it is kept.
    unsigned type = 0;
    socklen_t length = 0;
    sockaddr_storage storage{};
};

}  // namespace Orvex::Reticor
