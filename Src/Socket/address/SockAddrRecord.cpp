// Records of addresses for the system's calls.
#include "Socket/address/SockAddrRecord.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <Reticor/SockAddr.h>
#include <Reticor/SockAddrStorage.h>

namespace Orvex::Reticor {

unsigned SockAddrRecord::familyTypeOf(const CSockAddr& addr) {
    const unsigned kept_as = addr.GetType();
    return kept_as == SOCKADDR_TYPE_STORAGE ? static_cast<const CSockAddrStorage&>(addr).GetInputType()
                                            : kept_as;
}

SockAddrRecord::SockAddrRecord(const CSockAddr& addr) {
    const unsigned kept_as = familyTypeOf(addr);
    if (kept_as != SOCKADDR_TYPE_IPV4 && kept_as != SOCKADDR_TYPE_IPV6) {
        return;
    }
    if (addr.GetAddr(reinterpret_cast<sockaddr*>(&storage)) != nullptr) {
        type = kept_as;
        length = addr.GetAddrLen();
    }
}

int SockAddrRecord::family() const {
    return type == SOCKADDR_TYPE_IPV4 ? AF_INET : AF_INET6;
}

unsigned short SockAddrRecord::port() const {
    // The port stands at the same place in both families.
    return ntohs(reinterpret_cast<const sockaddr_in&>(storage).sin_port);
}

}  // namespace Orvex::Reticor
