// ProcNet: reading the texts word by word.
#include "Socket/doctor/ProcNet.h"

#include <fcntl.h>
#include <unistd.h>

#include <charconv>

#include "Socket/socket/CloseCount.h"

namespace Orvex::Reticor {

namespace {

struct Opened {
    int handle;
    ~Opened() { close_counted(handle); }
};

std::string_view take_line(std::string_view& text) {
    const size_t end = text.find('\n');
    const std::string_view line = text.substr(0, end);
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    return line;
}

std::string_view take_word(std::string_view& line) {
    const size_t begin = line.find_first_not_of(" \t");
    if (begin == std::string_view::npos) {
        line = {};
        return {};
    }
    line.remove_prefix(begin);
    const size_t end = line.find_first_of(" \t");
    const std::string_view word = line.substr(0, end);
    line.remove_prefix(word.size());
    return word;
}

template <class Number>
std::optional<Number> number_of(std::string_view word, int base = 10) {
    Number value = 0;
    const auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), value, base);
    if (word.empty() || error != std::errc() || end != word.data() + word.size()) {
        return std::nullopt;
    }
    return value;
}

// The kernel prints an IPv4 address as the number that its four bytes are on this machine.
std::optional<GroupAddress> ipv4_of(std::string_view word) {
    const std::optional<uint32_t> bytes = number_of<uint32_t>(word, 16);
    if (word.size() != 8 || !bytes) {
        return std::nullopt;
    }
    return GroupAddress::of_ipv4(&*bytes);
}

std::optional<GroupAddress> ipv6_of(std::string_view word) {
    unsigned char bytes[16];
    if (word.size() != 2 * sizeof bytes) {
        return std::nullopt;
    }
    for (size_t i = 0; i < sizeof bytes; ++i) {
        const std::optional<uint8_t> byte = number_of<uint8_t>(word.substr(2 * i, 2), 16);
        if (!byte) {
            return std::nullopt;
        }
        bytes[i] = *byte;
    }
    return GroupAddress::of_ipv6(bytes);
}

}  // namespace

std::string ProcNet::read(const std::string& path) {
    constexpr size_t MOST = 4 << 20;
    std::string text;
    const int handle = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (handle == -1) {
        return text;
    }
    const Opened opened{handle};
    char piece[4096];
    ssize_t got = 0;
    while (text.size() < MOST && (got = ::read(handle, piece, sizeof piece)) > 0) {
        text.append(piece, static_cast<size_t>(got));
    }
    return text;
}

// A line of an interface begins with its index; those of its groups follow, and begin with a blank.
void ProcNet::parse_igmp(std::string_view text, std::vector<JoinedGroup>& groups) {
    int interface_index = 0;
    while (!text.empty()) {
        std::string_view line = take_line(text);
        const bool of_group = !line.empty() && (line[0] == '\t' || line[0] == ' ');
        const std::string_view first = take_word(line);
        if (!of_group) {
            interface_index = number_of<int>(first).value_or(0);
            continue;
        }
        const std::optional<GroupAddress> group = ipv4_of(first);
        const std::optional<uint32_t> members = number_of<uint32_t>(take_word(line));
        if (interface_index > 0 && group && members) {
            groups.push_back({interface_index, *group, *members});
        }
    }
}

void ProcNet::parse_igmp6(std::string_view text, std::vector<JoinedGroup>& groups) {
    while (!text.empty()) {
        std::string_view line = take_line(text);
        const std::optional<int> interface_index = number_of<int>(take_word(line));
        take_word(line);
        const std::optional<GroupAddress> group = ipv6_of(take_word(line));
        const std::optional<uint32_t> members = number_of<uint32_t>(take_word(line));
        if (interface_index && *interface_index > 0 && group && members) {
            groups.push_back({*interface_index, *group, *members});
        }
    }
}

std::vector<std::string> ProcNet::parse_default_routes(std::string_view text) {
    std::vector<std::string> names;
    take_line(text);
    while (!text.empty()) {
        std::string_view line = take_line(text);
        const std::string_view name = take_word(line);
        const std::string_view destination = take_word(line);
        for (int skipped = 0; skipped < 5; ++skipped) {
            take_word(line);
        }
        if (destination == "00000000" && take_word(line) == "00000000") {
            names.emplace_back(name);
        }
    }
    return names;
}

std::optional<uint64_t> ProcNet::parse_counter(std::string_view text, std::string_view prefix,
                                               std::string_view name) {
    while (!text.empty()) {
        std::string_view names = take_line(text);
        std::string_view values = take_line(text);
        if (take_word(names) != prefix || take_word(values) != prefix) {
            continue;
        }
        while (!names.empty() && !values.empty()) {
            const bool found = take_word(names) == name;
            const std::string_view value = take_word(values);
            if (found) {
                return number_of<uint64_t>(value);
            }
        }
    }
    return std::nullopt;
}

std::optional<int64_t> ProcNet::parse_number(std::string_view text) {
    std::string_view line = take_line(text);
    const std::string_view word = take_word(line);
    return text.empty() && take_word(line).empty() ? number_of<int64_t>(word) : std::nullopt;
}

}  // namespace Orvex::Reticor
