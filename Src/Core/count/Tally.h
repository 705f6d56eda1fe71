// Tally: a counter that one thread writes and any thread may read.
#pragma once

#include <cstdint>

#include <Infra/Atomic.h>

// One instruction instead of three; the race detector has to see what is read and written.
#if defined(__x86_64__) && !defined(__SANITIZE_THREAD__)
#define RETICOR_TALLY_IN_PLACE 1
#if defined(__has_feature)
#if __has_feature(thread_sanitizer)
#undef RETICOR_TALLY_IN_PLACE
#endif
#endif
#endif

namespace Orvex::Reticor {

/// Only rises, until 2^64. There is no locked instruction in it: of two writers one may lose what it adds,
/// which is allowed where a comment says so.
class Tally {
public:
    constexpr Tally() = default;
    Tally(const Tally&) = delete;
    Tally& operator=(const Tally&) = delete;

    void Increment() {
#if defined(RETICOR_TALLY_IN_PLACE)
        asm("incq %0" : "+m"(m_value) : : "cc");
#else
        Add(1);
#endif
    }
    void Add(uint64_t more) {
        Infra::relaxedStore(m_value, Infra::relaxedLoad(m_value) + more);
    }
    void RaiseTo(uint64_t value) {
        if (value > Infra::relaxedLoad(m_value)) {
            Infra::relaxedStore(m_value, value);
        }
    }
    uint64_t Get() const {
        return Infra::relaxedLoad(m_value);
    }

private:
    uint64_t m_value = 0;
};

}  // namespace Orvex::Reticor
