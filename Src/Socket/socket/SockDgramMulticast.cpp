// Groups and options of UDP sockets.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdint>

#include <Infra/Log.h>
#include <Reticor/SockAddrIPv4.h>
#include <Reticor/SockAddrIPv6.h>
#include <Reticor/SockDgram.h>

#include "Socket/address/IpLiteral.h"
#include "Socket/address/SockAddrRecord.h"
#include "Socket/address/SockError.h"
#include "Socket/socket/SockDgramRecord.h"

namespace Orvex::Reticor {

// Otherwise the kernel also delivers what is sent to a group that another process has joined, if only the
// port is right. A kernel that does not know the option, or a socket of the other family, leaves it at that.
void CSockDgram::receive_joined_groups_only() {
    const int off = 0;
    ::setsockopt(m_handle, IPPROTO_IP, IP_MULTICAST_ALL, &off, sizeof off);
    if (!m_record->m_is_ipv4) {
        ::setsockopt(m_handle, IPPROTO_IPV6, IPV6_MULTICAST_ALL, &off, sizeof off);
    }
}

// Always on the default interface.
int CSockDgram::join_group(const SockAddrRecord& group) {
    if (group.type == SOCKADDR_TYPE_IPV4) {
        ip_mreq request{};
        request.imr_multiaddr = reinterpret_cast<const sockaddr_in&>(group.storage).sin_addr;
        request.imr_interface.s_addr = htonl(0);
        if (::setsockopt(m_handle, IPPROTO_IP, IP_ADD_MEMBERSHIP, &request, sizeof request) == -1) {
            const int error = errno;
            INFRA_LOG(2, "%s : IP_ADD_MEMBERSHIP failed, %s\n", "Orvex::Reticor::CSockDgram::Open",
                      GetSockErrorText(error).c_str());
            return fail_with(error);
        }
        return 0;
    }
    ipv6_mreq request{};
    request.ipv6mr_multiaddr = reinterpret_cast<const sockaddr_in6&>(group.storage).sin6_addr;
    if (::setsockopt(m_handle, IPPROTO_IPV6, IPV6_JOIN_GROUP, &request, sizeof request) == -1) {
        const int error = errno;
        INFRA_LOG(2, "%s : IPV6_JOIN_GROUP failed, %s\n", "Orvex::Reticor::CSockDgram::Open",
                  GetSockErrorText(error).c_str());
        return fail_with(error);
    }
    return 0;
}

int CSockDgram::SetMulticastIF(unsigned ip) {
    const CSockAddr* const group = m_record ? m_record->m_multicast_addr.get() : nullptr;
    if (group == nullptr) {
        return -1;
    }
    ip_mreq request{};
    // An IPv6 group has no IPv4 address, and the system refuses the zero that stands for it.
    if (group->GetType() == SOCKADDR_TYPE_IPV4) {
        request.imr_multiaddr.s_addr = htonl(static_cast<const CSockAddrIPv4*>(group)->GetIp());
    }
    request.imr_interface.s_addr = htonl(0);
    if (::setsockopt(m_handle, IPPROTO_IP, IP_DROP_MEMBERSHIP, &request, sizeof request) == -1) {
        const int error = errno;
        INFRA_LOG(2, "%s : IP_DROP_MEMBERSHIP failed,errno:%d, errmsg %s\n", INFRA_FUNCTION, error,
                  GetSockErrorText(error).c_str());
        return fail_with(error);
    }
    request.imr_interface.s_addr = htonl(ip);
    if (::setsockopt(m_handle, IPPROTO_IP, IP_ADD_MEMBERSHIP, &request, sizeof request) == -1) {
        const int error = errno;
        INFRA_LOG(2, "%s : IP_ADD_MEMBERSHIP failed, %s\n", INFRA_FUNCTION, GetSockErrorText(error).c_str());
        return fail_with(error);
    }
    if (::setsockopt(m_handle, IPPROTO_IP, IP_MULTICAST_IF, &request.imr_interface,
                     sizeof request.imr_interface) == -1) {
        const int error = errno;
        INFRA_LOG(2, "%s : IP_MULTICAST_IF failed, %s\n", INFRA_FUNCTION, GetSockErrorText(error).c_str());
        return fail_with(error);
    }
    return 0;
}

int CSockDgram::SetMulticastIF(const char* ip) {
    const CSockAddr* const group = m_record ? m_record->m_multicast_addr.get() : nullptr;
    if (ip == nullptr || group == nullptr) {
        return -1;
    }
    if (group->GetType() == SOCKADDR_TYPE_IPV4) {
        in_addr address{};
        if (!parse_ipv4_literal(ip, address)) {
            INFRA_LOG(2, "%s : inet_pton failed,, %s\n", INFRA_FUNCTION, GetSockErrorText(EINVAL).c_str());
            return fail_with(EINVAL);
        }
        return SetMulticastIF(ntohl(address.s_addr));
    }
    const int any_interface = 0;
    if (::setsockopt(m_handle, IPPROTO_IPV6, IPV6_MULTICAST_IF, &any_interface, sizeof any_interface) == -1) {
        const int error = errno;
        INFRA_LOG(2, "%s : IPV6_MULTICAST_IF faied, %s\n", INFRA_FUNCTION, GetSockErrorText(error).c_str());
        return fail_with(error);
    }
    return 0;
}

int CSockDgram::SetMulticastTTL(unsigned char ttl) {
    if (!m_record || m_record->m_is_ipv4) {
        if (::setsockopt(m_handle, IPPROTO_IP, IP_MULTICAST_TTL, &ttl, sizeof ttl) == -1) {
            const int error = errno;
            INFRA_LOG(2, "%s : IP_MULTICAST_TTL failed, %s\n", INFRA_FUNCTION,
                      GetSockErrorText(error).c_str());
            return fail_with(error);
        }
        return 0;
    }
    const int hops = ttl;
    if (::setsockopt(m_handle, IPPROTO_IPV6, IPV6_MULTICAST_HOPS, &hops, sizeof hops) == -1) {
        const int error = errno;
        INFRA_LOG(2, "%s : IP_MULTICAST_HOPS failed, %s\n", INFRA_FUNCTION, GetSockErrorText(error).c_str());
        return fail_with(error);
    }
    return 0;
}

int CSockDgram::SetMulticastLoop(bool on) {
    const CSockAddr* const group = m_record ? m_record->m_multicast_addr.get() : nullptr;
    if (group == nullptr) {
        INFRA_LOG(2, "%s : IP_MULTICAST_LOOP failed, multicast addr:%p\n", INFRA_FUNCTION,
                  static_cast<const void*>(group));
        return -1;
    }
    const int value = on ? 1 : 0;
    if (group->GetType() == SOCKADDR_TYPE_IPV4) {
        if (::setsockopt(m_handle, IPPROTO_IP, IP_MULTICAST_LOOP, &value, sizeof value) == -1) {
            const int error = errno;
            INFRA_LOG(2, "%s : IP_MULTICAST_LOOP failed, %s\n", INFRA_FUNCTION,
                      GetSockErrorText(error).c_str());
            return fail_with(error);
        }
        return 0;
    }
    if (::setsockopt(m_handle, IPPROTO_IPV6, IPV6_MULTICAST_LOOP, &value, sizeof value) == -1) {
        const int error = errno;
        INFRA_LOG(2, "%s : IPV6_MULTICAST_LOOP failed, %s\n", INFRA_FUNCTION,
                  GetSockErrorText(error).c_str());
        return fail_with(error);
    }
    return 0;
}

int CSockDgram::SetSockRecvBuf(unsigned size) {
    const int result = ::setsockopt(m_handle, SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
    if (result < 0) {
        const int error = errno;
        INFRA_LOG(2, "%s : setsockopt failed! %s\n", INFRA_FUNCTION, GetSockErrorText(error).c_str());
        return fail_with(error);
    }
    return result;
}

int CSockDgram::SetSockSendBuf(unsigned size) {
    const int result = ::setsockopt(m_handle, SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
    if (result < 0) {
        const int error = errno;
        INFRA_LOG(2, "%s : setsockopt failed! %s\n", INFRA_FUNCTION, GetSockErrorText(error).c_str());
        return fail_with(error);
    }
    return result;
}

int CSockDgram::GetSockRecvBuf() {
    int size = 0;
    socklen_t length = sizeof size;
    if (::getsockopt(m_handle, SOL_SOCKET, SO_RCVBUF, &size, &length) < 0) {
        const int error = errno;
        INFRA_LOG(2, "%s : getsockopt failed! %s\n", INFRA_FUNCTION, GetSockErrorText(error).c_str());
        return fail_with(error);
    }
    return size;
}

int CSockDgram::GetSockSendBuf() {
    int size = 0;
    socklen_t length = sizeof size;
    if (::getsockopt(m_handle, SOL_SOCKET, SO_SNDBUF, &size, &length) < 0) {
        const int error = errno;
        INFRA_LOG(2, "%s : getsockopt failed! %s\n", INFRA_FUNCTION, GetSockErrorText(error).c_str());
        return fail_with(error);
    }
    return size;
}

}  // namespace Orvex::Reticor
