// TraceClock: which clock it is.
#include "Core/count/TraceClock.h"

#if defined(__x86_64__)
#include <cpuid.h>
#endif

namespace Orvex::Reticor {

std::atomic<bool> TraceClock::sm_cycles{false};

void TraceClock::Choose() {
#if defined(__x86_64__)
    constexpr unsigned int POWER_LEAF = 0x80000007;
    constexpr unsigned int INVARIANT = 1U << 8;  // constant and nonstop
    unsigned int a = 0;
    unsigned int b = 0;
    unsigned int c = 0;
    unsigned int d = 0;
    if (__get_cpuid(POWER_LEAF, &a, &b, &c, &d) != 0 && (d & INVARIANT) != 0) {
        sm_cycles.store(true, std::memory_order_relaxed);
    }
#endif
}

}  // namespace Orvex::Reticor
