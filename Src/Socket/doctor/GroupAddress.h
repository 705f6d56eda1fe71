// GroupAddress: an address of either family that can be compared.
#pragma once

#include <netinet/in.h>

#include <cstddef>
#include <string>

namespace Orvex::Reticor {

/// An address of either family, in the order of the network.
struct GroupAddress {
    int family = AF_UNSPEC;
    in6_addr bytes{};  ///< An IPv4 address stands in the first four.

    static GroupAddress of_ipv4(const void* bytes);
    static GroupAddress of_ipv6(const void* bytes);
    /// As text, with an end mark; `size` is INET6_ADDRSTRLEN or more.
    void write(char* room, size_t size) const;
    std::string text() const;
    bool operator==(const GroupAddress& other) const;
    bool operator!=(const GroupAddress& other) const { return !(*this == other); }
    bool operator<(const GroupAddress& other) const;
};

}  // namespace Orvex::Reticor
