// CSemaphore, on one word and a futex.
#include <Infra/Semaphore.h>

#include <algorithm>
#include <cassert>
#include <limits>

#include "Futex.h"

#if defined(RETICOR_HELD_LOCKS)
#include <Infra/Seam.h>
#endif

namespace Orvex::Infra {

namespace {

constexpr uint64_t ONE_WAITER = uint64_t{1} << 32;

uint32_t count_of(uint64_t word) {
    return static_cast<uint32_t>(word);
}

uint32_t waiters_of(uint64_t word) {
    return static_cast<uint32_t>(word >> 32);
}

// The half of the word that futex(2) sleeps on.
std::atomic<uint32_t>& count_word(std::atomic<uint64_t>& word) noexcept {
    static_assert(sizeof(word) == 2 * sizeof(uint32_t) && std::atomic<uint64_t>::is_always_lock_free);
    constexpr int LOW_HALF = __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__ ? 0 : 1;
    return reinterpret_cast<std::atomic<uint32_t>*>(&word)[LOW_HALF];
}

// Takes one if there is one, and together with it takes `waiter` (ONE_WAITER or 0) off the number of waiters.
bool try_take(std::atomic<uint64_t>& word, uint64_t waiter) noexcept {
    uint64_t seen = word.load(std::memory_order_relaxed);
    while (count_of(seen) > 0) {
        if (word.compare_exchange_weak(seen, seen - 1 - waiter, std::memory_order_acquire,
                                       std::memory_order_relaxed)) {
            return true;
        }
    }
    return false;
}

// The deadline of a waiter has passed. A count that arrives in this moment is taken; its poster may have
// relied on this waiter.
bool give_up(std::atomic<uint64_t>& word) noexcept {
    uint64_t seen = word.load(std::memory_order_relaxed);
    for (;;) {
        const bool take = count_of(seen) > 0;
        if (word.compare_exchange_weak(seen, seen - ONE_WAITER - (take ? 1 : 0), std::memory_order_acquire,
                                       std::memory_order_relaxed)) {
            return take;
        }
    }
}

// There is no spinning before the sleep: a worker that has nothing to do must cost nothing, and a wake-up
// that comes within a microsecond is rare beside one that comes later.
bool wait(std::atomic<uint64_t>& word, const timespec* deadline) noexcept {
    word.fetch_add(ONE_WAITER, std::memory_order_seq_cst);
    while (!try_take(word, ONE_WAITER)) {
        if (!Detail::futex_wait(count_word(word), 0, deadline)) {
            return give_up(word);
        }
    }
    return true;
}

// As wait(), with whoever watches told.
bool wait_watched(std::atomic<uint64_t>& word, const timespec* deadline) noexcept {
#if defined(RETICOR_HELD_LOCKS)
    Seam::enter_wait(&word);
    const bool taken = wait(word, deadline);
    Seam::leave_wait(&word);
    return taken;
#else
    return wait(word, deadline);
#endif
}

}  // namespace

int CSemaphore::post(int count, int wake) noexcept {
    if (count <= 0) {
        return 0;
    }
#if defined(RETICOR_HELD_LOCKS)
    Seam::posted(this);
#endif
    const uint64_t before = m_word.fetch_add(static_cast<uint64_t>(count), std::memory_order_release);
    assert(count_of(before) <= static_cast<uint32_t>(std::numeric_limits<int>::max() - count));
    // From here on the object may be gone, if a thread took the count and destroyed it: only its address is
    // used.
    const uint32_t waiters = waiters_of(before);
    if (waiters > 0 && wake > 0) {
        Detail::futex_wake(count_word(m_word),
                           static_cast<int>(std::min(waiters, static_cast<uint32_t>(wake))));
    }
    return 0;
}

int CSemaphore::wakeOne() noexcept {
    if (waiters_of(m_word.load(std::memory_order_seq_cst)) == 0) {
        return 0;
    }
    return Detail::futex_wake(count_word(m_word), 1);
}

int CSemaphore::pend() noexcept {
    if (!try_take(m_word, 0)) {
        wait_watched(m_word, nullptr);
    }
    return 0;
}

int CSemaphore::pend(unsigned int ms) noexcept {
    return pendFor(uint64_t{ms} * 1000) ? 0 : -1;
}

bool CSemaphore::pendFor(uint64_t us) noexcept {
    if (try_take(m_word, 0)) {
        return true;
    }
    if (us == 0) {
        return false;
    }
    timespec deadline;
    return wait_watched(m_word, Detail::deadline_after(us, deadline) ? &deadline : nullptr);
}

}  // namespace Orvex::Infra
