// CSemaphore, on one word and a futex.
#include <Infra/Semaphore.h>

#include <algorithm>
#include <cassert>
#include <limits>

#include "Futex.h"

namespace Orvex::Infra {

namespace {

constexpr uint64_t ONE_WAITER = uint64_t{1} << 32;

uint32_t count_of(uint64_t word) {
    return static_cast<uint32_t>(word);
}

uint32_t waiters_of(uint64_t word) {
    return static_cast<uint32_t>(word >> 32);
}

}  // namespace

std::atomic<uint32_t>* CSemaphore::count_word() noexcept {
    static_assert(sizeof(m_word) == 2 * sizeof(uint32_t) && std::atomic<uint64_t>::is_always_lock_free);
    constexpr int LOW_HALF = __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__ ? 0 : 1;
    return reinterpret_cast<std::atomic<uint32_t>*>(&m_word) + LOW_HALF;
}

int CSemaphore::post(int count, int wake) noexcept {
    if (count <= 0) {
        return 0;
    }
    const uint64_t before = m_word.fetch_add(static_cast<uint64_t>(count), std::memory_order_release);
    assert(count_of(before) <= static_cast<uint32_t>(std::numeric_limits<int>::max() - count));
    // From here on the object may be gone, if a thread took the count and destroyed it: only its address is
    // used.
    const uint32_t waiters = waiters_of(before);
    if (waiters > 0 && wake > 0) {
        Detail::futexWake(*count_word(), static_cast<int>(std::min(waiters, static_cast<uint32_t>(wake))));
    }
    return 0;
}

int CSemaphore::wakeOne() noexcept {
    if (waiters_of(m_word.load(std::memory_order_seq_cst)) == 0) {
        return 0;
    }
    return Detail::futexWake(*count_word(), 1);
}

// Takes one if there is one, and together with it takes `waiter` (ONE_WAITER or 0) off the number of waiters.
bool CSemaphore::try_take(uint64_t waiter) noexcept {
    uint64_t word = m_word.load(std::memory_order_relaxed);
    while (count_of(word) > 0) {
        if (m_word.compare_exchange_weak(word, word - 1 - waiter, std::memory_order_acquire,
                                         std::memory_order_relaxed)) {
            return true;
        }
    }
    return false;
}

// There is no spinning before the sleep: a worker that has nothing to do must cost nothing, and a wake-up
// that comes within a microsecond is rare beside one that comes later.
bool CSemaphore::wait(const timespec* deadline) noexcept {
    m_word.fetch_add(ONE_WAITER, std::memory_order_seq_cst);
    while (!try_take(ONE_WAITER)) {
        if (Detail::futexWait(*count_word(), 0, deadline)) {
            continue;
        }
        // The deadline has passed. A count that arrives in this moment is taken; its poster may have relied
        // on this waiter.
        uint64_t word = m_word.load(std::memory_order_relaxed);
        for (;;) {
            const bool take = count_of(word) > 0;
            if (m_word.compare_exchange_weak(word, word - ONE_WAITER - (take ? 1 : 0),
                                             std::memory_order_acquire, std::memory_order_relaxed)) {
                return take;
            }
        }
    }
    return true;
}

int CSemaphore::pend() noexcept {
    if (!try_take(0)) {
        wait(nullptr);
    }
    return 0;
}

int CSemaphore::pend(unsigned int ms) noexcept {
    return pendFor(uint64_t{ms} * 1000) ? 0 : -1;
}

bool CSemaphore::pendFor(uint64_t us) noexcept {
    if (try_take(0)) {
        return true;
    }
    if (us == 0) {
        return false;
    }
    timespec deadline;
    return wait(Detail::deadlineAfter(us, deadline) ? &deadline : nullptr);
}

}  // namespace Orvex::Infra
