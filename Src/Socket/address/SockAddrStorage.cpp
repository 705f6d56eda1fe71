// Addresses of either family, with their text.
#include <Reticor/SockAddrStorage.h>

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>

#include <cstdint>
#include <cstring>
#include <new>

#include <Infra/Log.h>

#include <Reticor/SockAddrIPv4.h>
#include <Reticor/SockAddrIPv6.h>

namespace Orvex::Reticor {

namespace {

constexpr size_t HOST_SIZE = 128;  // a text of 127 characters and its terminator

}  // namespace

struct CSockAddrStorage::Record {
    uint32_t m_real_type;    // what the address turned out to be
    uint32_t m_input_type;   // the family in which it is kept
    char m_host[HOST_SIZE];  // the text that was given, zero-filled
    uint16_t m_port;         // host order
    sockaddr_in6 m_addr6;    // used while m_input_type is IPv6
    sockaddr_in m_addr4;     // used while m_input_type is IPv4
};

CSockAddrStorage::CSockAddrStorage()
    : CSockAddr(SOCKADDR_TYPE_STORAGE), m_storage(new (std::nothrow) Record()) {
    if (!m_storage) {
        INFRA_LOG(2, "no memory for an address!\n");
    }
}

CSockAddrStorage::CSockAddrStorage(const char* ip, unsigned short port) : CSockAddrStorage() {
    SetAddr(ip, port);
}

CSockAddrStorage::CSockAddrStorage(const CSockAddrStorage& other) : CSockAddrStorage() {
    *this = other;
}

CSockAddrStorage& CSockAddrStorage::operator=(const CSockAddrStorage& other) {
    if (this != &other && m_storage && other.m_storage) {
        *m_storage = *other.m_storage;
    }
    return *this;
}

CSockAddrStorage::~CSockAddrStorage() = default;

int CSockAddrStorage::SetAddr(const char* ip, unsigned short port) {
    const int ip_result = SetIp(ip);
    const int port_result = SetPort(port);
    return ip_result != 0 || port_result != 0 ? -1 : 0;
}

int CSockAddrStorage::SetAddr(const struct sockaddr_in* addr) {
    if (!m_storage || addr == nullptr) {
        return -1;
    }
    char text[HOST_SIZE] = {};
    sockaddr_in ipv4;
    std::memcpy(&ipv4, addr, sizeof ipv4);
    if (ipv4.sin_family == AF_INET) {
        m_storage->m_port = ntohs(ipv4.sin_port);
        if (inet_ntop(AF_INET, &ipv4.sin_addr, text, sizeof text) == nullptr) {
            INFRA_LOG(2, "inet_ntop error\n");
            return -1;
        }
        return SetAddr(text, m_storage->m_port);
    }
    if (ipv4.sin_family == AF_INET6) {
        sockaddr_in6 ipv6;
        std::memcpy(&ipv6, addr, sizeof ipv6);
        m_storage->m_port = ntohs(ipv6.sin6_port);
        if (getnameinfo(reinterpret_cast<const sockaddr*>(&ipv6), sizeof ipv6, text, sizeof text, nullptr, 0,
                        NI_NUMERICHOST) != 0) {
            return -1;
        }
        m_storage->m_addr6.sin6_scope_id = ipv6.sin6_scope_id;
        return SetAddr(text, m_storage->m_port);
    }
    return -1;
}

int CSockAddrStorage::SetIp(const char* ip) {
    if (!m_storage || ip == nullptr) {
        return -1;
    }
    Record& record = *m_storage;
    std::memset(record.m_host, 0, sizeof record.m_host);
    std::memcpy(record.m_host, ip, strnlen(ip, sizeof record.m_host - 1));
    CSockAddrIPv4 ipv4;
    CSockAddrIPv6 ipv6;
    // A colon stands in every IPv6 literal and in no host name, so such a text is never asked for as IPv4.
    record.m_input_type = std::strchr(ip, ':') != nullptr ? SOCKADDR_TYPE_IPV6 : SOCKADDR_TYPE_UNKNOWN;
    if (record.m_input_type == SOCKADDR_TYPE_UNKNOWN && ipv4.SetIp(ip) == 0) {
        record.m_real_type = SOCKADDR_TYPE_IPV4;
        record.m_input_type = SOCKADDR_TYPE_IPV4;
        ipv4.GetAddr(reinterpret_cast<sockaddr*>(&record.m_addr4));
        record.m_addr4.sin_port = htons(record.m_port);
        record.m_addr4.sin_family = AF_INET;
        return 0;
    }
    if (ipv6.SetIp(ip) != 0) {
        record.m_real_type = SOCKADDR_TYPE_UNKNOWN;
        return -1;
    }
    ipv6.GetAddr(reinterpret_cast<sockaddr*>(&record.m_addr6));
    record.m_addr6.sin6_port = htons(record.m_port);
    record.m_addr6.sin6_family = AF_INET6;
    // IPv4 takes a text with a colon only if it is a mapped literal.
    const bool mapped = record.m_input_type == SOCKADDR_TYPE_IPV6 && ipv4.SetIp(ip) == 0;
    record.m_real_type = mapped ? SOCKADDR_TYPE_IPV4 : SOCKADDR_TYPE_IPV6;
    record.m_input_type = SOCKADDR_TYPE_IPV6;
    return 0;
}

int CSockAddrStorage::SetPort(unsigned short port) {
    if (!m_storage) {
        return -1;
    }
    m_storage->m_port = port;
    if (m_storage->m_real_type == SOCKADDR_TYPE_IPV4) {
        // For a mapped literal this is not the record that GetAddr gives; see the header of the class.
        m_storage->m_addr4.sin_port = htons(port);
    } else if (m_storage->m_real_type == SOCKADDR_TYPE_IPV6) {
        m_storage->m_addr6.sin6_port = htons(port);
    }
    return 0;
}

unsigned short CSockAddrStorage::GetPort() const {
    return IsValid() ? m_storage->m_port : 0;
}

unsigned CSockAddrStorage::GetRealType() const {
    return m_storage ? m_storage->m_real_type : SOCKADDR_TYPE_UNKNOWN;
}

unsigned CSockAddrStorage::GetInputType() const {
    return IsValid() ? m_storage->m_input_type : SOCKADDR_TYPE_UNKNOWN;
}

bool CSockAddrStorage::GetRealSockAddr(CSockAddr* /*addr*/) {
    INFRA_LOG(2, "%s : this interface is no support in windows system!\n", INFRA_FUNCTION);
    return false;
}

char* CSockAddrStorage::GetIpStr(char* buf, unsigned len) const {
    if (buf == nullptr || !m_storage || m_storage->m_real_type == SOCKADDR_TYPE_UNKNOWN) {
        return nullptr;
    }
    const size_t text_len = std::strlen(m_storage->m_host);
    if (len <= text_len) {
        return nullptr;
    }
    std::memcpy(buf, m_storage->m_host, text_len + 1);
    return buf;
}

struct sockaddr* CSockAddrStorage::GetAddr(struct sockaddr* addr) const {
    const unsigned len = GetAddrLen();
    if (addr == nullptr || len == 0) {
        return nullptr;
    }
    const bool ipv4 = len == sizeof(sockaddr_in);
    std::memcpy(addr, ipv4 ? static_cast<const void*>(&m_storage->m_addr4) : &m_storage->m_addr6, len);
    return addr;
}

unsigned CSockAddrStorage::GetAddrLen() const {
    if (!m_storage) {
        return 0;
    }
    switch (m_storage->m_input_type) {
        case SOCKADDR_TYPE_IPV4:
            return sizeof(sockaddr_in);
        case SOCKADDR_TYPE_IPV6:
            return sizeof(sockaddr_in6);
        default:
            return 0;
    }
}

bool CSockAddrStorage::IsValid() const {
    return GetAddrLen() != 0 && m_storage->m_host[0] != '\0';
}

bool CSockAddrStorage::operator==(const CSockAddrStorage& other) const {
    return IsValid() && other.IsValid() && m_type == other.m_type && GetInputType() == other.GetInputType() &&
           std::strncmp(m_storage->m_host, other.m_storage->m_host, HOST_SIZE) == 0 &&
           GetPort() == other.GetPort();
}

}  // namespace Orvex::Reticor
