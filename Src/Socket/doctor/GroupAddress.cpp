// GroupAddress: bytes and texts of addresses.
#include "Socket/doctor/GroupAddress.h"

#include <arpa/inet.h>

#include <cstring>

namespace Orvex::Reticor {

GroupAddress GroupAddress::of_ipv4(const void* bytes) {
    GroupAddress address;
    address.family = AF_INET;
    std::memcpy(&address.bytes, bytes, 4);
    return address;
}

GroupAddress GroupAddress::of_ipv6(const void* bytes) {
    GroupAddress address;
    address.family = AF_INET6;
    std::memcpy(&address.bytes, bytes, 16);
    return address;
}

void GroupAddress::write(char* room, size_t size) const {
    if (family == AF_UNSPEC || ::inet_ntop(family, &bytes, room, static_cast<socklen_t>(size)) == nullptr) {
        room[0] = '\0';
    }
}

std::string GroupAddress::text() const {
    char room[INET6_ADDRSTRLEN];
    write(room, sizeof room);
    return room;
}

bool GroupAddress::operator==(const GroupAddress& other) const {
    return family == other.family && std::memcmp(&bytes, &other.bytes, sizeof bytes) == 0;
}

bool GroupAddress::operator<(const GroupAddress& other) const {
    return family != other.family ? family < other.family
                                  : std::memcmp(&bytes, &other.bytes, sizeof bytes) < 0;
}

}  // namespace Orvex::Reticor
