// Dump: a dump of the flight recorder, read from a file that may be anything.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "Core/count/DumpFormat.h"

namespace trace {

/// Orvex::Reticor::CallKind counts 1 to 8; what else a file says is not a call.
constexpr int CALL_KINDS = 8;

struct Event {
    double us;  ///< Since the beginning of the recording.
    uint8_t what;
    uint64_t object;
};

struct Thread {
    uint32_t id = 0;
    int32_t pool = -1;
    bool live = false;
    std::string name;
    std::vector<Event> events;  ///< In the order of the thread.
};

/// What is good of a dump.
struct Dump {
    uint32_t pid = 0;
    uint64_t wall_ns = 0;
    double end_us = 0;  ///< When it was dumped.
    std::map<uint32_t, std::string> classes;
    std::vector<Thread> threads;
    bool whole = false;  ///< Its end is there.
};

/// Takes nothing for granted: sizes are those of `bytes`, and what does not fit is left out. Nothing, with a
/// sentence in `why`, if it is no dump at all.
std::optional<Dump> read_dump(const std::string& bytes, std::string& why);

}  // namespace trace
