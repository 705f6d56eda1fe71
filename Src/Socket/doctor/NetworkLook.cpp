// NetworkLook: getifaddrs(3), the process's descriptors, socket options, /proc.
#include "Socket/doctor/NetworkLook.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <ifaddrs.h>
#include <linux/sock_diag.h>
#include <net/if.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

#include "Socket/socket/CloseCount.h"
#include "Socket/socket/JoinRefusals.h"

namespace Orvex::Reticor {

namespace {

// The network is that of the thread that asks, which a program may have moved.
constexpr char PROC[] = "/proc/thread-self/net/";
constexpr char CONF[] = "/proc/sys/net/ipv4/conf/";

int64_t setting(const std::string& path, int64_t otherwise) {
    return ProcNet::parse_number(ProcNet::read(path)).value_or(otherwise);
}

template <class Value>
bool option(int handle, int level, int name, Value& value) {
    socklen_t length = sizeof value;
    return ::getsockopt(handle, level, name, &value, &length) == 0;
}

int leading_ones(const unsigned char* bytes, size_t count) {
    int ones = 0;
    for (size_t i = 0; i < count * 8 && (bytes[i / 8] >> (7 - i % 8) & 1) != 0; ++i) {
        ++ones;
    }
    return ones;
}

InterfaceFacts& interface_named(DoctorFacts& facts, const char* name) {
    for (InterfaceFacts& one : facts.interfaces) {
        if (std::strcmp(one.name, name) == 0) {
            return one;
        }
    }
    InterfaceFacts one{};
    std::strncpy(one.name, name, sizeof one.name - 1);
    one.index = static_cast<int32_t>(::if_nametoindex(name));
    facts.interfaces.push_back(one);
    return facts.interfaces.back();
}

void add_address(InterfaceFacts& one, const ifaddrs& entry) {
    const int family = entry.ifa_addr->sa_family;
    GroupAddress address;
    int prefix = 0;
    if (family == AF_INET) {
        address = GroupAddress::of_ipv4(&reinterpret_cast<sockaddr_in*>(entry.ifa_addr)->sin_addr);
    } else {
        address = GroupAddress::of_ipv6(&reinterpret_cast<sockaddr_in6*>(entry.ifa_addr)->sin6_addr);
    }
    if (entry.ifa_netmask != nullptr && family == AF_INET) {
        const in_addr& mask = reinterpret_cast<sockaddr_in*>(entry.ifa_netmask)->sin_addr;
        prefix = leading_ones(reinterpret_cast<const unsigned char*>(&mask), 4);
    } else if (entry.ifa_netmask != nullptr) {
        prefix = leading_ones(reinterpret_cast<sockaddr_in6*>(entry.ifa_netmask)->sin6_addr.s6_addr, 16);
    }
    const std::string text =
        (one.addresses[0] != '\0' ? " " : "") + address.text() + "/" + std::to_string(prefix);
    const size_t used = std::strlen(one.addresses);
    if (used + text.size() < sizeof one.addresses) {
        std::memcpy(one.addresses + used, text.c_str(), text.size() + 1);
    }
}

// The address and port to which a socket is bound.
void name_of(int handle, SocketFacts& socket) {
    sockaddr_storage storage{};
    socklen_t length = sizeof storage;
    if (::getsockname(handle, reinterpret_cast<sockaddr*>(&storage), &length) != 0) {
        return;
    }
    const auto& ipv4 = reinterpret_cast<const sockaddr_in&>(storage);
    const auto& ipv6 = reinterpret_cast<const sockaddr_in6&>(storage);
    const GroupAddress address = socket.family == AF_INET ? GroupAddress::of_ipv4(&ipv4.sin_addr)
                                                          : GroupAddress::of_ipv6(&ipv6.sin6_addr);
    constexpr in6_addr NONE{};
    socket.any_address = std::memcmp(&address.bytes, &NONE, sizeof NONE) == 0;
    socket.port = ntohs(ipv4.sin_port);
    address.write(socket.address, sizeof socket.address);
}

int descriptor_of(const char* name) {
    char* end = nullptr;
    const long number = std::strtol(name, &end, 10);
    return end != name && *end == '\0' && number >= 0 ? static_cast<int>(number) : -1;
}

}  // namespace

int NetworkLook::find_interfaces(DoctorFacts& facts) {
    ifaddrs* list = nullptr;
    if (::getifaddrs(&list) != 0) {
        return -1;
    }
    const std::unique_ptr<ifaddrs, decltype(&::freeifaddrs)> freed(list, &::freeifaddrs);
    const std::vector<std::string> routes =
        ProcNet::parse_default_routes(ProcNet::read(std::string(PROC) + "route"));
    const int64_t filter_of_all = setting(std::string(CONF) + "all/rp_filter", 0);
    for (const ifaddrs* entry = list; entry != nullptr; entry = entry->ifa_next) {
        InterfaceFacts& one = interface_named(facts, entry->ifa_name);
        one.up = (entry->ifa_flags & IFF_UP) != 0 ? 1 : 0;
        one.running = one.up != 0 && (entry->ifa_flags & IFF_RUNNING) != 0 ? 1 : 0;
        one.multicast = (entry->ifa_flags & IFF_MULTICAST) != 0 ? 1 : 0;
        if (entry->ifa_addr != nullptr &&
            (entry->ifa_addr->sa_family == AF_INET || entry->ifa_addr->sa_family == AF_INET6)) {
            add_address(one, *entry);
        }
    }
    for (InterfaceFacts& one : facts.interfaces) {
        const std::string path = CONF + std::string(one.name) + "/rp_filter";
        one.rp_filter = static_cast<int32_t>(std::max(filter_of_all, setting(path, 0)));
        one.has_default_route = std::find(routes.begin(), routes.end(), one.name) != routes.end();
    }
    std::sort(facts.interfaces.begin(), facts.interfaces.end(),
              [](const auto& a, const auto& b) { return a.index < b.index; });
    return 0;
}

bool NetworkLook::look_at(int handle, SocketFacts& socket) {
    int type = 0;
    int protocol = 0;
    if (!option(handle, SOL_SOCKET, SO_TYPE, type) || type != SOCK_DGRAM ||
        !option(handle, SOL_SOCKET, SO_DOMAIN, socket.family) ||
        (socket.family != AF_INET && socket.family != AF_INET6) ||
        !option(handle, SOL_SOCKET, SO_PROTOCOL, protocol) || protocol != IPPROTO_UDP) {
        return false;
    }
    socket.handle = handle;
    name_of(handle, socket);
    struct stat status {};
    socket.inode = ::fstat(handle, &status) == 0 ? status.st_ino : 0;
    uint32_t memory[SK_MEMINFO_VARS] = {};
    if (option(handle, SOL_SOCKET, SO_MEMINFO, memory)) {
        socket.waiting = memory[SK_MEMINFO_RMEM_ALLOC];
        socket.room = memory[SK_MEMINFO_RCVBUF];
        socket.lost = memory[SK_MEMINFO_DROPS];
    }
    int all = 0;
    socket.foreign_v4 = option(handle, IPPROTO_IP, IP_MULTICAST_ALL, all) && all != 0 ? 1 : 0;
    all = 0;
    const bool is_ipv6 = socket.family == AF_INET6;
    socket.foreign_v6 = is_ipv6 && option(handle, IPPROTO_IPV6, IPV6_MULTICAST_ALL, all) && all != 0 ? 1 : 0;
    return true;
}

int NetworkLook::find_sockets(DoctorFacts& facts) {
    DIR* const folder = ::opendir("/proc/thread-self/fd");
    if (folder == nullptr) {
        return -1;
    }
    const auto close_folder = [](DIR* open) { ::closedir(open); };
    const std::unique_ptr<DIR, decltype(close_folder)> closed(folder, close_folder);
    while (const dirent* const entry = ::readdir(folder)) {
        const int handle = descriptor_of(entry->d_name);
        SocketFacts socket{};
        if (handle >= 0 && look_at(handle, socket)) {
            facts.sockets.push_back(socket);
        }
    }
    std::sort(facts.sockets.begin(), facts.sockets.end(),
              [](const auto& a, const auto& b) { return a.handle < b.handle; });
    return 0;
}

// The kernel has no list of a socket's groups, but it tells the sources that a membership lets through, and
// refuses where there is no membership. An IPv6 socket may have joined IPv4 groups too.
bool NetworkLook::has_joined(int handle, const GroupAddress& group, int interface_index) {
    group_filter filter{};
    filter.gf_interface = static_cast<uint32_t>(interface_index);
    if (group.family == AF_INET) {
        auto& address = reinterpret_cast<sockaddr_in&>(filter.gf_group);
        address.sin_family = AF_INET;
        std::memcpy(&address.sin_addr, &group.bytes, sizeof address.sin_addr);
    } else {
        auto& address = reinterpret_cast<sockaddr_in6&>(filter.gf_group);
        address.sin6_family = AF_INET6;
        address.sin6_addr = group.bytes;
    }
    return option(handle, group.family == AF_INET ? IPPROTO_IP : IPPROTO_IPV6, MCAST_MSFILTER, filter);
}

void NetworkLook::find_groups(DoctorFacts& facts) {
    std::vector<JoinedGroup> joined;
    ProcNet::parse_igmp(ProcNet::read(std::string(PROC) + "igmp"), joined);
    ProcNet::parse_igmp6(ProcNet::read(std::string(PROC) + "igmp6"), joined);
    for (const JoinedGroup& one : joined) {
        GroupFacts row{};
        row.handle = -1;
        row.interface_index = one.interface_index;
        row.members = one.members;
        row.address = one.group;
        one.group.write(row.group, sizeof row.group);
        InterfaceFacts* on = nullptr;
        for (InterfaceFacts& place : facts.interfaces) {
            on = place.index == one.interface_index ? &place : on;
        }
        if (on != nullptr) {
            std::memcpy(row.interface_name, on->name, sizeof row.interface_name);
        }
        bool own = false;
        for (SocketFacts& socket : facts.sockets) {
            if ((one.group.family == AF_INET6 && socket.family != AF_INET6) ||
                !has_joined(socket.handle, one.group, one.interface_index)) {
                continue;
            }
            own = true;
            ++(one.group.family == AF_INET ? socket.memberships_v4 : socket.memberships_v6);
            if (on != nullptr) {
                ++on->memberships;
            }
            GroupFacts member = row;
            member.handle = socket.handle;
            member.port = socket.port;
            facts.groups.push_back(member);
        }
        if (!own) {
            facts.groups.push_back(row);
        }
    }
    std::stable_sort(facts.groups.begin(), facts.groups.end(), [](const auto& a, const auto& b) {
        return a.interface_index != b.interface_index ? a.interface_index < b.interface_index
                                                      : a.address < b.address;
    });
}

uint64_t NetworkLook::filtered() {
    return ProcNet::parse_counter(ProcNet::read(std::string(PROC) + "netstat"),
                                  "TcpExt:", "IPReversePathFilter")
        .value_or(0);
}

uint32_t NetworkLook::groups_per_socket() {
    return static_cast<uint32_t>(
        std::clamp<int64_t>(setting("/proc/sys/net/ipv4/igmp_max_memberships", 0), 0, UINT32_MAX));
}

void NetworkLook::find_settings(DoctorFacts& facts) {
    MulticastOverview& overview = facts.overview;
    overview.groups_per_socket = groups_per_socket();
    overview.filtered = filtered();
    overview.refused_room = JoinRefusals::sm_room.load(std::memory_order_relaxed);
    overview.refused_device = JoinRefusals::sm_device.load(std::memory_order_relaxed);
    overview.refused_other = JoinRefusals::sm_other.load(std::memory_order_relaxed);
    // Connecting looks for a route, and sends nothing. Without a descriptor nobody knows: nothing is said.
    const int handle = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in group{};
    group.sin_family = AF_INET;
    group.sin_port = htons(9);
    group.sin_addr.s_addr = htonl(0xEFFFFFFA);
    const auto* const name = reinterpret_cast<const sockaddr*>(&group);
    overview.routed = handle == -1 || ::connect(handle, name, sizeof group) == 0 ? 1 : 0;
    if (handle != -1) {
        close_counted(handle);
    }
}

}  // namespace Orvex::Reticor
