// TraceClock: the time of events, as cheap as the machine has it.
#pragma once

#include <atomic>
#include <cstdint>

#if defined(__x86_64__)
#include <x86intrin.h>
#endif

#include "Core/count/Timing.h"

namespace Orvex::Reticor {

/// Counts cycles where the processor's counter runs at one pace and never stands still, otherwise
/// nanoseconds. What a tick is, two readings beside another clock tell.
///
/// Thread safety: any thread.
class TraceClock {
public:
    static uint64_t Ticks() {
#if defined(__x86_64__)
        if (sm_cycles.load(std::memory_order_relaxed)) {
            return __rdtsc();
        }
#endif
        return Timing::NowNs();
    }

    /// Ahead of the first reading: finds out which it is. The answer is the same each time.
    static void Choose();

private:
    static std::atomic<bool> sm_cycles;
};

}  // namespace Orvex::Reticor
