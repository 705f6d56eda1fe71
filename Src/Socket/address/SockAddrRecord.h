// SockAddrRecord: an address in the form that the system's calls take.
#pragma once

#include <sys/socket.h>

namespace Orvex::Reticor {

class CSockAddr;

// The record of an address, taken once for socket(2), bind(2) and connect(2). Lives on the caller's stack.
struct SockAddrRecord {
    explicit SockAddrRecord(const CSockAddr& addr);

    // The family of an address as `type` has it below, or what its class says if that is no known one; for an
    // empty storage address 0. The address need not have a record.
    static unsigned familyTypeOf(const CSockAddr& addr);

    // Whether a socket can be opened for the address.
    bool hasFamily() const { return type != 0; }
    // AF_INET or AF_INET6; only if hasFamily().
    int family() const;
    // The port of the record, in host order.
    unsigned short port() const;
    const sockaddr* get() const { return reinterpret_cast<const sockaddr*>(&storage); }

    // SOCKADDR_TYPE_IPV4, SOCKADDR_TYPE_IPV6, or 0 for an address of no known family. A storage address
    // counts as the family in which it is kept.
    unsigned type = 0;
    socklen_t length = 0;
    sockaddr_storage storage{};
};

}  // namespace Orvex::Reticor
