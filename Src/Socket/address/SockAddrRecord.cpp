// Records of addresses for the system's calls.
#include "Socket/address/SockAddrRecord.h"

#include <arpa/inet.h>

#include <cstdint>

#include <Reticor/SockAddr.h>
#include <Reticor/SockAddrStorage.h>

namespace Orvex::Reticor {

unsigned SockAddrRecord::family_type_of(const CSockAddr& addr) {
    const unsigned kept_as = addr.GetType();
    return kept_as == SOCKADDR_TYPE_STORAGE ? static_cast<const CSockAddrStorage&>(addr).GetInputType()
                                            : kept_as;
}

SockAddrRecord::SockAddrRecord(const CSockAddr& addr) {
    const unsigned kept_as = family_type_of(addr);
    if (kept_as != SOCKADDR_TYPE_IPV4 && kept_as != SOCKADDR_TYPE_IPV6) {
        return;
    }
    if (addr.GetAddr(reinterpret_cast<sockaddr*>(&storage)) != nullptr) {
        type = kept_as;
        length = addr.GetAddrLen();
    }
}

bool SockAddrRecord::is_ipv4() const {
    return type == SOCKADDR_TYPE_IPV4;
}

int SockAddrRecord::family() const {
    return is_ipv4() ? AF_INET : AF_INET6;
}

unsigned short SockAddrRecord::port() const {
    return ntohs(ipv4().sin_port);  // which stands at the same place in both families
}

bool SockAddrRecord::is_group() const {
    if (!has_family()) {
        return false;
    }
    if (is_ipv4()) {
        const uint32_t ip = ntohl(ipv4().sin_addr.s_addr);
        return ip >= 0xE0000000u && ip < 0xF0000000u;
    }
    return ipv6().sin6_addr.s6_addr[0] == 255;
}

bool SockAddrRecord::looks_like_broadcast() const {
    return is_ipv4() && (ntohl(ipv4().sin_addr.s_addr) & 0xFu) == 0xFu;
}

}  // namespace Orvex::Reticor
