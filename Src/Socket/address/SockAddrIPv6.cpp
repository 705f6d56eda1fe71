// IPv6 addresses.
#include <Reticor/SockAddrIPv6.h>

#include <arpa/inet.h>
#include <netinet/in.h>

#include <cassert>
#include <cstring>
#include <new>

#include <Infra/Log.h>

#include "Socket/address/IpLiteral.h"
#include "Socket/address/ResolverHold.h"

namespace Orvex::Reticor {

namespace {

// Text buffers of this length and below are refused without a look at the address.
constexpr unsigned REFUSED_TEXT_LEN = 16;

void clear(sockaddr_in6& record) {
    record = sockaddr_in6{};
    record.sin6_family = AF_INET6;
}

// Resolves `host` into `record`, as a mapped address if it has none of IPv6. The port may change.
bool resolve(const char* host, sockaddr_in6& record) {
    CResolverHold resolver;
    if (resolver.GetAddressInfo(host, AF_INET6, reinterpret_cast<sockaddr*>(&record), sizeof record,
                                RESOLVE_LIMIT_MS)) {
        return true;
    }
    sockaddr_in mapped{};
    if (!resolver.GetAddressInfo(host, AF_INET, reinterpret_cast<sockaddr*>(&mapped), sizeof mapped,
                                 RESOLVE_LIMIT_MS)) {
        return false;
    }
    record.sin6_family = AF_INET6;
    write_mapped_address(mapped.sin_addr, record);
    return true;
}

}  // namespace

CSockAddrIPv6::CSockAddrIPv6() : CSockAddr(SOCKADDR_TYPE_IPV6), m_addr(new (std::nothrow) sockaddr_in6()) {
    if (m_addr) {
        clear(*m_addr);
    } else {
        INFRA_LOG(2, "no memory for an address!\n");
    }
}

CSockAddrIPv6::CSockAddrIPv6(const char* ip, unsigned short port) : CSockAddrIPv6() {
    SetAddr(ip, port);
}

CSockAddrIPv6::CSockAddrIPv6(const char* ip, unsigned short port, unsigned scope) : CSockAddrIPv6() {
    SetAddr(ip, port, scope);
}

CSockAddrIPv6::CSockAddrIPv6(const struct sockaddr_in6* addr) : CSockAddrIPv6() {
    SetAddr(addr);
}

CSockAddrIPv6::CSockAddrIPv6(const CSockAddrIPv6& other) : CSockAddrIPv6() {
    *this = other;
}

CSockAddrIPv6& CSockAddrIPv6::operator=(const CSockAddrIPv6& other) {
    if (this != &other) {
        m_type = other.m_type;
        sockaddr_in6 record{};
        other.GetAddr(reinterpret_cast<sockaddr*>(&record));
        SetAddr(&record);
    }
    return *this;
}

CSockAddrIPv6::~CSockAddrIPv6() {
    assert(m_type == SOCKADDR_TYPE_IPV6);
}

int CSockAddrIPv6::SetAddr(const char* ip, unsigned short port) {
    if (!m_addr) {
        return -1;
    }
    clear(*m_addr);
    if (SetIp(ip) < 0) {
        return -1;
    }
    return SetPort(port);
}

int CSockAddrIPv6::SetAddr(const char* ip, unsigned short port, unsigned scope) {
    if (SetAddr(ip, port) < 0) {
        return -1;
    }
    return SetScopeID(scope);
}

int CSockAddrIPv6::SetAddr(const struct sockaddr_in6* addr) {
    if (!m_addr || addr == nullptr || addr->sin6_family != AF_INET6) {
        return -1;
    }
    *m_addr = *addr;
    return 0;
}

int CSockAddrIPv6::SetIp(const char* ip) {
    if (!m_addr) {
        return -1;
    }
    if (parse_ipv6_literal(ip, *m_addr)) {
        return 0;
    }
    const in_port_t port = m_addr->sin6_port;
    if (!resolve(ip, *m_addr)) {
        return -1;
    }
    m_addr->sin6_port = port;
    return 0;
}

int CSockAddrIPv6::SetPort(unsigned short port) {
    if (!m_addr) {
        return -1;
    }
    m_addr->sin6_family = AF_INET6;
    m_addr->sin6_port = htons(port);
    return 0;
}

unsigned short CSockAddrIPv6::GetPort() const {
    return m_addr ? ntohs(m_addr->sin6_port) : 0;
}

int CSockAddrIPv6::SetScopeID(unsigned scope) {
    if (!m_addr) {
        return -1;
    }
    m_addr->sin6_scope_id = scope;
    return 0;
}

unsigned CSockAddrIPv6::GetScopeID() const {
    return m_addr ? m_addr->sin6_scope_id : 0;
}

char* CSockAddrIPv6::GetIpStr(char* buf, unsigned len) const {
    if (buf == nullptr || len <= REFUSED_TEXT_LEN || !m_addr) {
        return nullptr;
    }
    if (inet_ntop(AF_INET6, &m_addr->sin6_addr, buf, len) == nullptr) {
        INFRA_LOG(2, "inet_ntop error\n");
        return nullptr;
    }
    return buf;
}

struct sockaddr* CSockAddrIPv6::GetAddr(struct sockaddr* addr) const {
    if (addr == nullptr || !m_addr) {
        return nullptr;
    }
    std::memcpy(addr, m_addr.get(), sizeof *m_addr);
    return addr;
}

unsigned CSockAddrIPv6::GetAddrLen() const {
    return sizeof(sockaddr_in6);
}

bool CSockAddrIPv6::IsValid() const {
    if (!m_addr) {
        return false;
    }
    if (m_addr->sin6_port == 0 || IN6_IS_ADDR_UNSPECIFIED(&m_addr->sin6_addr)) {
        INFRA_LOG(2, "%s :Invalid addr: m_addr.sin6_port:%u \n", INFRA_FUNCTION,
                  static_cast<unsigned>(GetPort()));
        return false;
    }
    return true;
}

bool CSockAddrIPv6::operator==(const CSockAddrIPv6& other) const {
    return IsValid() && other.IsValid() && m_type == other.m_type &&
           m_addr->sin6_family == other.m_addr->sin6_family && m_addr->sin6_port == other.m_addr->sin6_port &&
           IN6_ARE_ADDR_EQUAL(&m_addr->sin6_addr, &other.m_addr->sin6_addr);
}

}  // namespace Orvex::Reticor
