// DoctorText: tables with aligned columns, and the sentences at the end.
#include "Socket/doctor/DoctorText.h"

#include <algorithm>
#include <initializer_list>

#include "Socket/address/SockError.h"

namespace Orvex::Reticor {

namespace {

using Row = std::vector<std::string>;

// The first row is the head. The last column is not filled up.
void add_table(const std::vector<Row>& rows, std::string& text) {
    if (rows.size() < 2) {
        return;
    }
    std::vector<size_t> widths(rows[0].size());
    for (const Row& row : rows) {
        for (size_t i = 0; i < row.size(); ++i) {
            widths[i] = std::max(widths[i], row[i].size());
        }
    }
    for (const Row& row : rows) {
        for (size_t i = 0; i < row.size(); ++i) {
            text += row[i];
            text.append(i + 1 < row.size() ? widths[i] - row[i].size() + 2 : 0, ' ');
        }
        text.erase(text.find_last_not_of(' ') + 1);
        text += '\n';
    }
    text += '\n';
}

std::string state_of(const MulticastInterface& one) {
    return one.up == 0 ? "down" : one.running == 0 ? "no link" : "up";
}

std::string foreign_of(const MulticastSocket& socket) {
    return socket.foreign_v4 != 0 && socket.foreign_v6 != 0 ? "both"
           : socket.foreign_v4 != 0                         ? "IPv4"
           : socket.foreign_v6 != 0                         ? "IPv6"
                                                            : "no";
}

}  // namespace

std::string text_of(const DoctorFacts& facts) {
    std::string text;
    std::vector<Row> rows{{"interface", "index", "state", "multicast", "rp_filter", "joined", "addresses"}};
    for (const InterfaceFacts& one : facts.interfaces) {
        rows.push_back({one.name, std::to_string(one.index), state_of(one), one.multicast != 0 ? "yes" : "no",
                        std::to_string(one.rp_filter), std::to_string(one.memberships), one.addresses});
    }
    add_table(rows, text);
    rows = {{"socket", "port", "groups", "foreign", "waiting", "room", "lost", "address"}};
    for (const SocketFacts& one : facts.sockets) {
        rows.push_back({std::to_string(one.handle), std::to_string(one.port),
                        std::to_string(one.memberships_v4 + one.memberships_v6), foreign_of(one),
                        std::to_string(one.waiting), std::to_string(one.room), std::to_string(one.lost),
                        one.address});
    }
    add_table(rows, text);
    rows = {{"group", "interface", "socket", "port", "members"}};
    for (const GroupFacts& one : facts.groups) {
        const bool own = one.handle != -1;
        rows.push_back({one.group, one.interface_name, own ? std::to_string(one.handle) : "-",
                        own ? std::to_string(one.port) : "-", std::to_string(one.members)});
    }
    add_table(rows, text);
    rows = {{"datagrams to", "port", "interface", "came in", "bytes", "sent", "members", "from"}};
    for (const TrafficFacts& one : facts.traffic) {
        rows.push_back({one.group, std::to_string(one.port), one.interface_name,
                        std::to_string(one.datagrams), std::to_string(one.bytes), std::to_string(one.sent),
                        std::to_string(one.members), one.source});
    }
    add_table(rows, text);
    if (facts.overview.listened_ms != 0) {
        text += "counted for " + std::to_string(facts.overview.listened_ms) + " ms, " +
                std::to_string(facts.overview.uncounted) + " datagrams were too many\n";
    }
    text += "one socket may join " + std::to_string(facts.overview.groups_per_socket) +
            " IPv4 groups; rp_filter has " + "dropped " + std::to_string(facts.overview.filtered) +
            " packets of this machine\n";
    if (facts.problems.empty()) {
        text += "nothing is wrong\n";
    }
    for (const MulticastProblem& problem : facts.problems) {
        text += std::string(name_of_fault(problem.fault)) + ": " + problem.sentence + "\n";
    }
    return text;
}

const char* name_of_fault(MulticastFault fault) {
    switch (fault) {
        case MulticastFault::LOSS:
            return "loss";
        case MulticastFault::FOREIGN_GROUP:
            return "foreign_group";
        case MulticastFault::FILTERED:
            return "filtered";
        case MulticastFault::SOCKET_FULL:
            return "socket_full";
        case MulticastFault::JOIN_REFUSED:
            return "join_refused";
        case MulticastFault::NO_ROUTE:
            return "no_route";
        case MulticastFault::DOWN:
            return "down";
        case MulticastFault::NO_LINK:
            return "no_link";
        case MulticastFault::NOT_MULTICAST:
            return "not_multicast";
        case MulticastFault::JOINED_TWICE:
            return "joined_twice";
        case MulticastFault::OTHER_INTERFACE:
            return "other_interface";
        case MulticastFault::SILENT:
            return "silent";
        case MulticastFault::NOT_COUNTED:
            return "not_counted";
    }
    return "unknown";
}

}  // namespace Orvex::Reticor
