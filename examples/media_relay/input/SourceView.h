// SourceView: how an input fares.
#pragma once

#include <cstdint>
#include <string>

namespace relay {

struct SourceView {
    std::string kind;
    std::string state;     // of a live input, as a sentence; empty if nothing is the matter
    double seconds = 0;    // of media time played
    uint64_t skipped = 0;  // bytes that belonged to no packet
    uint64_t damaged = 0;  // packets
    uint64_t lost = 0;     // packets that are missing, by their counters
    uint64_t jumps = 0;    // of the clock
    uint64_t rounds = 0;   // times that the input began again
};

}  // namespace relay
