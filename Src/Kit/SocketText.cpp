// A socket's address as text.
#include "Kit/SocketText.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <algorithm>
#include <cstdio>

namespace Orvex::Reticor::Kit {
inline namespace v1 {

size_t write_address(const sockaddr_storage* address, char* text, size_t size) {
    if (size == 0) {
        return 0;
    }
    char ip[INET6_ADDRSTRLEN] = "";
    int length = 0;
    text[0] = '\0';
    if (address != nullptr && address->ss_family == AF_INET) {
        const auto& four = reinterpret_cast<const sockaddr_in&>(*address);
        inet_ntop(AF_INET, &four.sin_addr, ip, sizeof ip);
        length = std::snprintf(text, size, "%s:%u", ip, static_cast<unsigned int>(ntohs(four.sin_port)));
    } else if (address != nullptr && address->ss_family == AF_INET6) {
        const auto& six = reinterpret_cast<const sockaddr_in6&>(*address);
        inet_ntop(AF_INET6, &six.sin6_addr, ip, sizeof ip);
        length = std::snprintf(text, size, "[%s]:%u", ip, static_cast<unsigned int>(ntohs(six.sin6_port)));
    }
    return std::min(size - 1, static_cast<size_t>(std::max(length, 0)));
}

}  // namespace v1
}  // namespace Orvex::Reticor::Kit
