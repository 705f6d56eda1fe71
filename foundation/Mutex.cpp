// CMutex, on a futex.
#include <Infra/Mutex.h>

#include <cassert>

#include "Futex.h"

namespace Orvex::Infra {

// Out of line: an entry of several, or a mistake.
void CMutex::leave_once() noexcept {
    assert(heldByThisThread() && "CMutex::leave on a thread that does not hold the lock");
    --m_depth;
}

void CMutex::wake_sleeper() noexcept {
    Detail::futex_wake(m_state, 1);
}

void CMutex::enter_contended() noexcept {
    const int limit = Detail::spin_limit();
    // Ever longer pauses: each look takes the cache line from the holder, which could else do its work, and
    // often that of its next entries, in the meantime.
    for (int pauses = 1, spent = 0; spent < limit; pauses *= 2) {
        uint32_t state = m_state.load(std::memory_order_relaxed);
        if (state == HELD_WITH_SLEEPERS) {
            break;  // Others have given up spinning already.
        }
        if (state == FREE && m_state.compare_exchange_weak(state, HELD, std::memory_order_acquire,
                                                           std::memory_order_relaxed)) {
            return;
        }
        for (int i = 0; i < pauses; ++i, ++spent) {
            Detail::spin_pause();
        }
    }
    // A thread that has slept cannot know whether others still sleep, so it takes the lock in the state that
    // makes it wake one when it leaves.
    while (m_state.exchange(HELD_WITH_SLEEPERS, std::memory_order_acquire) != FREE) {
        Detail::futex_wait(m_state, HELD_WITH_SLEEPERS);
    }
}

}  // namespace Orvex::Infra
