// Diagnosis: one function for each kind of fault, in the order in which they are told.
#include "Socket/doctor/Diagnosis.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "Socket/address/SockError.h"

namespace Orvex::Reticor {

namespace {

std::string socket_named(const MulticastSocket& socket) {
    return "socket " + std::to_string(socket.handle) + " (port " + std::to_string(socket.port) + ")";
}

std::string datagrams(uint64_t count) {
    return count == 1 ? "1 datagram" : std::to_string(count) + " datagrams";
}

struct About {
    int handle = -1;
    int interface_index = 0;
};

void tell(DoctorFacts& facts, MulticastFault fault, About about, const std::string& sentence) {
    MulticastProblem problem{};
    problem.fault = fault;
    problem.handle = about.handle;
    problem.interface_index = about.interface_index;
    std::strncpy(problem.sentence, sentence.c_str(), sizeof problem.sentence - 1);
    facts.problems.push_back(problem);
}

bool is_own(const GroupFacts& group) {
    return group.handle != -1;
}

bool same_place(const GroupFacts& group, const TrafficFacts& row) {
    return group.address == row.address && group.interface_index == row.interface_index;
}

void judge_losses(DoctorFacts& facts) {
    for (const SocketFacts& socket : facts.sockets) {
        if (socket.lost_since == 0) {
            continue;
        }
        const std::string before = socket.lost > socket.lost_since
                                       ? ", " + std::to_string(socket.lost_since) + " since the last look"
                                       : "";
        tell(facts, MulticastFault::LOSS, {socket.handle},
             socket_named(socket) + " has lost " + datagrams(socket.lost) + before +
                 ": the kernel had no room in its receive buffer, where " + std::to_string(socket.waiting) +
                 " of " + std::to_string(socket.room) +
                 " bytes are in use now; read faster, or give it more room with SetSockRecvBuf "
                 "(net.core.rmem_max bounds it)");
    }
}

// A datagram gets to a socket of that port on an interface where anybody has joined the group.
void judge_foreign_groups(DoctorFacts& facts) {
    for (const SocketFacts& socket : facts.sockets) {
        const auto takes = [&](const GroupAddress& group) {
            const bool foreign = group.family == AF_INET ? socket.foreign_v4 != 0 : socket.foreign_v6 != 0;
            return foreign && socket.any_address && socket.port != 0 &&
                   (group.family == AF_INET || socket.family == AF_INET6) &&
                   !facts.is_member(socket.handle, group, 0);
        };
        std::vector<GroupAddress> told;
        const auto say = [&](const GroupAddress& group, const std::string& how) {
            if (std::find(told.begin(), told.end(), group) != told.end()) {
                return;
            }
            told.push_back(group);
            tell(facts, MulticastFault::FOREIGN_GROUP, {socket.handle},
                 socket_named(socket) + " gets group " + group.text() + ", which it has not joined: " + how +
                     "; CMulticastDoctor::SetForeignGroups(" + std::to_string(socket.handle) +
                     ", false) switches that off (IP_MULTICAST_ALL, IPV6_MULTICAST_ALL)");
        };
        for (const TrafficFacts& row : facts.traffic) {
            const bool joined = std::any_of(facts.groups.begin(), facts.groups.end(),
                                            [&](const GroupFacts& group) { return same_place(group, row); });
            if (row.port == socket.port && row.datagrams != 0 && joined && takes(row.address)) {
                say(row.address, datagrams(row.datagrams) + " came in on " + row.interface_name);
            }
        }
        for (const GroupFacts& group : facts.groups) {
            if (is_own(group) && group.port == socket.port && takes(group.address)) {
                say(group.address,
                    "socket " + std::to_string(group.handle) + " has joined it with that port");
            }
        }
    }
}

void judge_filters(DoctorFacts& facts) {
    const uint64_t filtered = facts.overview.filtered_since;
    for (const InterfaceFacts& one : facts.interfaces) {
        const bool has_ipv4 =
            std::any_of(facts.groups.begin(), facts.groups.end(), [&](const GroupFacts& group) {
                return is_own(group) && group.address.family == AF_INET && group.interface_index == one.index;
            });
        if (!has_ipv4 || one.rp_filter != 1 || (one.has_default_route && filtered == 0)) {
            continue;
        }
        const std::string name = one.name;
        const std::string seen = filtered == 0 ? ""
                                               : ", and " + std::to_string(filtered) +
                                                     " packets of this machine were dropped for that";
        tell(facts, MulticastFault::FILTERED, {-1, one.index},
             name + " takes only senders to which the routes lead through it (rp_filter is 1)" + seen +
                 "; set net.ipv4.conf." + name + ".rp_filter and net.ipv4.conf.all.rp_filter to 2 or 0, or " +
                 "add a route to the senders' network through " + name);
    }
}

void judge_full_sockets(DoctorFacts& facts) {
    const uint32_t most = facts.overview.groups_per_socket;
    for (const SocketFacts& socket : facts.sockets) {
        if (socket.memberships_v4 != 0 && socket.memberships_v4 >= most && most != 0) {
            tell(facts, MulticastFault::SOCKET_FULL, {socket.handle},
                 socket_named(socket) + " has joined " + std::to_string(socket.memberships_v4) +
                     " IPv4 groups, as many as one socket may: the next join fails with ENOBUFS; join on "
                     "another socket, or raise net.ipv4.igmp_max_memberships (" +
                     std::to_string(most) + ")");
        }
    }
}

std::string joins(uint64_t count) {
    return count == 1 ? "1 join by CSockDgram was" : std::to_string(count) + " joins by CSockDgram were";
}

void judge_refusals(DoctorFacts& facts) {
    const MulticastOverview& overview = facts.overview;
    if (overview.refused_room != 0) {
        tell(facts, MulticastFault::JOIN_REFUSED, {},
             joins(overview.refused_room) +
                 " refused with ENOBUFS: one socket may join net.ipv4.igmp_max_memberships IPv4 groups (" +
                 std::to_string(overview.groups_per_socket) + " now); raise that, or net.core.optmem_max");
    }
    if (overview.refused_device != 0) {
        tell(facts, MulticastFault::JOIN_REFUSED, {},
             joins(overview.refused_device) +
                 " refused with ENODEV: no route led to the group, or no interface had the address; "
                 "ip route add 224.0.0.0/4 dev INTERFACE, or ff00::/8");
    }
    if (overview.refused_other != 0) {
        tell(facts, MulticastFault::JOIN_REFUSED, {},
             joins(overview.refused_other) + " refused with another error: the log has it, at level 2");
    }
}

void judge_routes(DoctorFacts& facts) {
    const bool any_ipv4 = std::any_of(facts.groups.begin(), facts.groups.end(), [](const GroupFacts& group) {
        return is_own(group) && group.address.family == AF_INET;
    });
    if (facts.overview.routed == 0 && (any_ipv4 || facts.overview.refused_device != 0)) {
        tell(facts, MulticastFault::NO_ROUTE, {},
             "no route leads to IPv4 groups: a join that names no interface fails with ENODEV, and sending "
             "with ENETUNREACH; ip route add 224.0.0.0/4 dev INTERFACE");
    }
}

void judge_interfaces(DoctorFacts& facts) {
    for (const InterfaceFacts& one : facts.interfaces) {
        if (one.memberships == 0) {
            continue;
        }
        const std::string name = one.name;
        const std::string joined = "groups are joined on " + name + ", which ";
        if (one.up == 0) {
            tell(facts, MulticastFault::DOWN, {-1, one.index},
                 joined + "is switched off: nothing comes; ip link set " + name + " up");
        } else if (one.running == 0) {
            tell(facts, MulticastFault::NO_LINK, {-1, one.index},
                 joined + "has no link: nothing comes; look at its cable, or at the other end");
        }
        if (one.multicast == 0) {
            tell(facts, MulticastFault::NOT_MULTICAST, {-1, one.index},
                 joined + "does not carry multicast; ip link set " + name + " multicast on");
        }
    }
}

// Each socket of a port gets each datagram of a group that it has joined; one socket, those of each network.
void judge_doubles(DoctorFacts& facts) {
    const std::vector<GroupFacts>& groups = facts.groups;
    for (auto one = groups.begin(); one != groups.end(); ++one) {
        for (auto other = one + 1; is_own(*one) && other != groups.end(); ++other) {
            if (!is_own(*other) || one->address != other->address || one->port != other->port) {
                continue;
            }
            const std::string group = one->group;
            if (one->handle != other->handle && one->interface_index == other->interface_index) {
                tell(facts, MulticastFault::JOINED_TWICE, {other->handle, one->interface_index},
                     group + " is joined on " + one->interface_name + " by the sockets " +
                         std::to_string(one->handle) + " and " + std::to_string(other->handle) +
                         ", both with port " + std::to_string(one->port) +
                         ": each datagram comes to both; close one of them, if that is not wanted");
            } else if (one->handle == other->handle) {
                tell(facts, MulticastFault::JOINED_TWICE, {one->handle, other->interface_index},
                     "socket " + std::to_string(one->handle) + " has joined " + group + " on " +
                         one->interface_name + " and on " + other->interface_name +
                         ": what both networks carry comes twice; leave the group on one of them");
            }
        }
    }
}

void judge_traffic(DoctorFacts& facts) {
    for (const GroupFacts& group : facts.groups) {
        if (!is_own(group) || group.port == 0) {
            continue;
        }
        uint64_t here = 0;
        const TrafficFacts* elsewhere = nullptr;
        for (const TrafficFacts& row : facts.traffic) {
            if (row.address != group.address || row.port != group.port) {
                continue;
            }
            here += row.interface_index == group.interface_index ? row.datagrams + row.sent : 0;
            const bool joined_there = facts.is_member(group.handle, group.address, row.interface_index);
            elsewhere = row.datagrams != 0 && !joined_there ? &row : elsewhere;
        }
        const std::string name = std::string(group.group) + ", port " + std::to_string(group.port) + ", ";
        const About about{group.handle, group.interface_index};
        if (here == 0 && elsewhere != nullptr) {
            tell(facts, MulticastFault::OTHER_INTERFACE, about,
                 name + "comes in on " + elsewhere->interface_name + ", but socket " +
                     std::to_string(group.handle) + " has joined it on " + group.interface_name +
                     "; SetMulticastIF(address of " + elsewhere->interface_name +
                     ") moves it there, or lead the route of the group there");
        } else if (here == 0) {
            tell(facts, MulticastFault::SILENT, about,
                 name + "is joined on " + group.interface_name + " by socket " +
                     std::to_string(group.handle) + ", and nothing came in " +
                     std::to_string(facts.overview.listened_ms) +
                     " ms: nobody sends, or a switch does not pass it on (IGMP snooping needs a querier)");
        }
    }
}

}  // namespace

void Diagnosis::judge(DoctorFacts& facts) {
    facts.problems.clear();
    judge_losses(facts);
    judge_foreign_groups(facts);
    judge_filters(facts);
    judge_full_sockets(facts);
    judge_refusals(facts);
    judge_routes(facts);
    judge_interfaces(facts);
    judge_doubles(facts);
    if (facts.overview.listened_ms != 0) {
        judge_traffic(facts);
    }
    if (facts.overview.listen_error != 0) {
        tell(facts, MulticastFault::NOT_COUNTED, {},
             "datagrams could not be counted: " + GetSockErrorText(facts.overview.listen_error) +
                 "; that needs the capability CAP_NET_RAW (setcap cap_net_raw+ep PROGRAM, or root)");
    }
    std::stable_sort(facts.problems.begin(), facts.problems.end(),
                     [](const auto& a, const auto& b) { return a.fault < b.fault; });
}

std::string Diagnosis::explain_join(int handle, const GroupAddress& group, int error, uint32_t memberships,
                                    uint32_t groups_per_socket) {
    const std::string socket = "socket " + std::to_string(handle);
    const std::string name = group.text();
    switch (error) {
        case ENOBUFS:
        case ENOMEM:
            if (group.family == AF_INET && groups_per_socket != 0 && memberships >= groups_per_socket) {
                return socket + " has joined " + std::to_string(memberships) +
                       " IPv4 groups, as many as one socket may; join " + name +
                       " on another socket, or raise net.ipv4.igmp_max_memberships (" +
                       std::to_string(groups_per_socket) + ")";
            }
            return socket + " has no room for " + name +
                   " among its options; join on another socket, or raise net.core.optmem_max";
        case ENODEV:
            return "no route leads to " + name + ", or no interface has what was named; ip route add " +
                   name + (group.family == AF_INET ? "/32" : "/128") +
                   " dev INTERFACE, or name one that is up";
        case EADDRINUSE:
            return socket + " has joined " + name + " on that interface before; nothing is to be done";
        case EINVAL:
            return name + " cannot be joined: it is not the address of a group, or the interface does not " +
                   "carry multicast; groups are 224.0.0.0/4 and ff00::/8";
        case ENOPROTOOPT:
        case EAFNOSUPPORT:
            return socket + " is of the other family than " + name +
                   "; open it for an address of that family";
        default:
            return name + " could not be joined with " + socket + ": " + GetSockErrorText(error);
    }
}

}  // namespace Orvex::Reticor
