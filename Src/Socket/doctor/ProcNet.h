// ProcNet: what the kernel writes of the network below /proc, see proc(5). The texts are taken as foreign
// ones: a line that is not as it should be is left out.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Socket/doctor/GroupAddress.h"

namespace Orvex::Reticor {

/// A group that somebody has joined on an interface.
struct JoinedGroup {
    int interface_index = 0;
    GroupAddress group;
    uint32_t members = 0;
};

class ProcNet {
public:
    /// What is in `path`; empty if it cannot be read. Of a longer text the first 4 MiB.
    static std::string read(const std::string& path);

    /// /proc/net/igmp
    static void parse_igmp(std::string_view text, std::vector<JoinedGroup>& groups);
    /// /proc/net/igmp6
    static void parse_igmp6(std::string_view text, std::vector<JoinedGroup>& groups);
    /// /proc/net/route: the names of the interfaces through which a default route leads.
    static std::vector<std::string> parse_default_routes(std::string_view text);
    /// /proc/net/netstat: the counter `name` of the lines that begin with `prefix`.
    static std::optional<uint64_t> parse_counter(std::string_view text, std::string_view prefix,
                                                 std::string_view name);
    /// One decimal number, and nothing else but the end of the line.
    static std::optional<int64_t> parse_number(std::string_view text);
};

}  // namespace Orvex::Reticor
