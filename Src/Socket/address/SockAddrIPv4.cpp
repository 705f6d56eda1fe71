// IPv4 addresses.
#include <Reticor/SockAddrIPv4.h>

#include <arpa/inet.h>
#include <netinet/in.h>

#include <cstring>
#include <new>

#include <Infra/Log.h>

#include "Socket/address/IpLiteral.h"
#include "Socket/address/ResolverHold.h"

namespace Orvex::Reticor {

namespace {

// The shortest dotted text is "0.0.0.0".
constexpr unsigned SHORTEST_TEXT = 7;

}  // namespace

CSockAddrIPv4::CSockAddrIPv4() : CSockAddr(SOCKADDR_TYPE_IPV4), m_addrin(new (std::nothrow) sockaddr_in()) {
    if (m_addrin) {
        m_addrin->sin_family = AF_INET;
    } else {
        INFRA_LOG(2, "no memory for an address!\n");
    }
}

CSockAddrIPv4::CSockAddrIPv4(unsigned ip, unsigned short port) : CSockAddrIPv4() {
    SetAddr(ip, port);
}

CSockAddrIPv4::CSockAddrIPv4(const char* ip, unsigned short port) : CSockAddrIPv4() {
    SetAddr(ip, port);
}

CSockAddrIPv4::CSockAddrIPv4(const struct sockaddr_in& addr) : CSockAddrIPv4() {
    SetAddr(addr);
}

CSockAddrIPv4::CSockAddrIPv4(const CSockAddrIPv4& other) : CSockAddrIPv4() {
    SetAddr(other.GetIp(), other.GetPort());
}

CSockAddrIPv4& CSockAddrIPv4::operator=(const CSockAddrIPv4& other) {
    if (this != &other) {
        SetAddr(other.GetIp(), other.GetPort());
    }
    return *this;
}

CSockAddrIPv4::~CSockAddrIPv4() = default;

int CSockAddrIPv4::SetAddr(unsigned ip, unsigned short port) {
    m_type = SOCKADDR_TYPE_IPV4;
    const int result = SetIp(ip);
    SetPort(port);
    return result < 0 ? -1 : 0;
}

int CSockAddrIPv4::SetAddr(const char* ip, unsigned short port) {
    m_type = SOCKADDR_TYPE_IPV4;
    const int result = SetIp(ip);
    SetPort(port);
    return result < 0 ? -1 : 0;
}

int CSockAddrIPv4::SetAddr(const struct sockaddr_in& addr) {
    m_type = SOCKADDR_TYPE_IPV4;
    if (!m_addrin) {
        return -1;
    }
    *m_addrin = addr;
    return 0;
}

int CSockAddrIPv4::SetIp(unsigned ip) {
    if (!m_addrin) {
        return -1;
    }
    m_addrin->sin_family = AF_INET;
    m_addrin->sin_addr.s_addr = htonl(ip);
    return 0;
}

int CSockAddrIPv4::SetIp(const char* ip) {
    if (!m_addrin) {
        return -1;
    }
    if (ip == nullptr || *ip == '\0') {
        m_addrin->sin_addr.s_addr = 0;
        return 0;
    }
    sockaddr_in found{};
    if (sockaddr_in6 literal; parse_ipv6_literal(ip, literal)) {
        if (!IN6_IS_ADDR_V4MAPPED(&literal.sin6_addr)) {
            return -1;
        }
        std::memcpy(&found.sin_addr, &literal.sin6_addr.s6_addr[12], sizeof found.sin_addr);
    } else if (!parse_ipv4_literal(ip, found.sin_addr)) {
        CResolverHold resolver;
        if (!resolver.GetAddressInfo(ip, AF_INET, reinterpret_cast<sockaddr*>(&found), sizeof found,
                                     RESOLVE_LIMIT_MS)) {
            return -1;
        }
    }
    m_addrin->sin_family = AF_INET;
    m_addrin->sin_addr = found.sin_addr;
    return 0;
}

int CSockAddrIPv4::SetPort(unsigned short port) {
    if (!m_addrin) {
        return -1;
    }
    m_addrin->sin_port = htons(port);
    return 0;
}

unsigned CSockAddrIPv4::GetIp() const {
    return m_addrin ? ntohl(m_addrin->sin_addr.s_addr) : 0;
}

unsigned short CSockAddrIPv4::GetPort() const {
    return m_addrin ? ntohs(m_addrin->sin_port) : 0;
}

char* CSockAddrIPv4::GetIpStr(char* buf, unsigned len) const {
    if (buf == nullptr || len < SHORTEST_TEXT || !m_addrin) {
        return nullptr;
    }
    if (inet_ntop(AF_INET, &m_addrin->sin_addr, buf, len) == nullptr) {
        INFRA_LOG(2, "inet_ntop error\n");
        return nullptr;
    }
    return buf;
}

struct sockaddr* CSockAddrIPv4::GetAddr(struct sockaddr* addr) const {
    if (addr == nullptr || !m_addrin) {
        return nullptr;
    }
    std::memcpy(addr, m_addrin.get(), sizeof *m_addrin);
    return addr;
}

unsigned CSockAddrIPv4::GetAddrLen() const {
    return sizeof(sockaddr_in);
}

bool CSockAddrIPv4::IsValid() const {
    if (!m_addrin) {
        return false;
    }
    if (m_addrin->sin_addr.s_addr == INADDR_NONE && m_addrin->sin_port == 0) {
        INFRA_LOG(2, "%s :Invalid addr, m_addrin.sin_port:%u \n", INFRA_FUNCTION,
                  static_cast<unsigned>(GetPort()));
        return false;
    }
    return true;
}

bool CSockAddrIPv4::operator==(const CSockAddrIPv4& other) const {
    return IsValid() && other.IsValid() && m_type == other.m_type && GetIp() == other.GetIp() &&
           GetPort() == other.GetPort();
}

}  // namespace Orvex::Reticor
