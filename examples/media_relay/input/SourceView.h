// SourceView: how an input fares.
#pragma once

#include <cstdint>
#include <string>

namespace relay {

struct SourceView {
    std::string kind;
    std::string state;           // of a live input, what is the matter, in words; empty: nothing
    double seconds = 0;          // of media time played
    uint64_t skipped = 0;        // bytes that belonged to no packet
    uint64_t damaged = 0;        // packets
    uint64_t lost = 0;           // packets that are missing, by their counters
    uint64_t jumps = 0;          // of the clock
    uint64_t rounds = 0;         // times that the input began again
    uint64_t lostDatagrams = 0;  // of RTP, by its numbers
    uint64_t lateDatagrams = 0;  // the same: they came too late, or twice
    uint64_t badDatagrams = 0;   // no RTP, or none that carries a transport stream
    uint64_t connections = 0;    // to a server, that brought something
};

}  // namespace relay
