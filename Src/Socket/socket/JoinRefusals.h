// JoinRefusals: how many joins the kernel has refused, for whoever asks why nothing comes.
#pragma once

#include <atomic>
#include <cerrno>
#include <cstdint>

namespace Orvex::Reticor {

/// Thread safety: any thread. Counters only; nothing is written where a join succeeds.
struct JoinRefusals {
    /// Counts the refusal that errno tells of. errno is left alone.
    static void count() {
        std::atomic<uint64_t>& counter = errno == ENOBUFS ? sm_room : errno == ENODEV ? sm_device : sm_other;
        counter.fetch_add(1, std::memory_order_relaxed);
    }

    static inline std::atomic<uint64_t> sm_room{0};    ///< ENOBUFS
    static inline std::atomic<uint64_t> sm_device{0};  ///< ENODEV
    static inline std::atomic<uint64_t> sm_other{0};
};

}  // namespace Orvex::Reticor
