// Numeric address texts and mapped addresses.
#include "Socket/address/IpLiteral.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstring>

namespace Orvex::Reticor {

namespace {

// inet_pton knows no scopes; the resolver, asked for numeric texts only, does.
bool parse_scoped_literal(const char* text, sockaddr_in6& record) {
    addrinfo hints{};
    hints.ai_family = AF_INET6;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_NUMERICHOST;
    addrinfo* list = nullptr;
    if (getaddrinfo(text, nullptr, &hints, &list) != 0) {
        return false;
    }
    const bool found = list->ai_family == AF_INET6 && list->ai_addr != nullptr;
    if (found) {
        std::memcpy(&record, list->ai_addr, sizeof record);
    }
    freeaddrinfo(list);
    return found;
}

}  // namespace

bool parse_ipv4_literal(const char* text, in_addr& address) {
    return text != nullptr && inet_pton(AF_INET, text, &address) == 1;
}

bool parse_ipv6_literal(const char* text, sockaddr_in6& record) {
    if (text == nullptr) {
        return false;
    }
    if (std::strchr(text, '%') != nullptr) {
        return parse_scoped_literal(text, record);
    }
    in6_addr address;
    if (inet_pton(AF_INET6, text, &address) != 1) {
        return false;
    }
    record = sockaddr_in6{};
    record.sin6_family = AF_INET6;
    record.sin6_addr = address;
    return true;
}

void write_mapped_address(const in_addr& address, sockaddr_in6& record) {
    record.sin6_addr.s6_addr[10] = 0xFF;
    record.sin6_addr.s6_addr[11] = 0xFF;
    std::memcpy(&record.sin6_addr.s6_addr[12], &address, sizeof address);
}

}  // namespace Orvex::Reticor
