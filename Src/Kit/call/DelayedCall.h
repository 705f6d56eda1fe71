// Times of the kit's timers, which may be longer than those of a pool.
#pragma once

#include <cstdint>

namespace Orvex::Reticor::Kit {
inline namespace v1 {

constexpr int64_t LEAST_DELAY_US = 3000;  ///< Of a pool's timer; it comes up to that much early.
constexpr int64_t MOST_DELAY_US = 23LL * 3600 * 1000000;

/// What `SetTimer` is told for a delay that is to be waited for.
constexpr int64_t clamp_delay(int64_t us) {
    return us < LEAST_DELAY_US ? LEAST_DELAY_US : us > MOST_DELAY_US ? MOST_DELAY_US : us;
}

/// Whether something is due, as near as a pool's timer can hit it.
constexpr bool is_due(uint64_t due_us, uint64_t now_us) {
    return now_us + static_cast<uint64_t>(LEAST_DELAY_US) >= due_us;
}

}  // namespace v1
}  // namespace Orvex::Reticor::Kit
