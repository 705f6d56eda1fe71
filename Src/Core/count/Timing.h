// Timing: how long records wait and calls run, while somebody wants to know.
#pragma once

#include <atomic>
#include <cstdint>

#include "Core/count/ThreadCounts.h"

namespace Orvex::Reticor {

/// Off at the start: then nobody reads a clock for it.
///
/// Thread safety: any thread.
class Timing {
public:
    static bool IsOn() { return sm_on.load(std::memory_order_relaxed); }
    static void Switch(bool on) { sm_on.store(on, std::memory_order_relaxed); }

    /// The stamp of a record that is pushed now: 0 while timing is off.
    static uint64_t Stamp() { return IsOn() ? NowNs() : 0; }

    /// The same for one of MESSAGES_EACH messages that the thread posts.
    static uint64_t StampMessage() { return IsOn() ? stamp_message() : 0; }

    /// A record with that stamp is taken by the calling thread. Result: when the call begins, 0 if the record
    /// has no stamp.
    static uint64_t Taken(uint64_t stamp_ns) { return stamp_ns != 0 ? taken(stamp_ns) : 0; }

    /// A call ends that is counted in `row` and began at `begin_ns`.
    static void Ran(uint64_t begin_ns, ClassTally& row);

    static uint64_t NowNs();

    /// A message takes so little that two looks at the clock would be a good part of it.
    static constexpr unsigned int MESSAGES_EACH = 16;

private:
    static uint64_t stamp_message();
    static uint64_t taken(uint64_t stamp_ns);

    static std::atomic<bool> sm_on;
};

}  // namespace Orvex::Reticor
