// Futex: the few futex(2) calls that the locks, the semaphore and the threads sleep on. None of them changes
// errno.
#pragma once

#include <linux/futex.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdint>

#include "Clock.h"

namespace Orvex::Infra::Detail {

/// The kernel is given the address of the atomic, so it must be the bare word.
static_assert(sizeof(std::atomic<uint32_t>) == sizeof(uint32_t) &&
              std::atomic<uint32_t>::is_always_lock_free);

/// Sleeps while `word` holds `expected`, until a wake-up or until `deadline`, an absolute time of
/// CLOCK_MONOTONIC (null for none). Returns false if the deadline has passed; true says nothing but "look
/// again": a wake-up, a changed word or a signal.
inline bool futex_wait(std::atomic<uint32_t>& word, uint32_t expected,
                       const timespec* deadline = nullptr) noexcept {
    const int saved_errno = errno;
    const long result = ::syscall(SYS_futex, &word, FUTEX_WAIT_BITSET_PRIVATE, expected, deadline, nullptr,
                                  FUTEX_BITSET_MATCH_ANY);
    const bool timed_out = result == -1 && errno == ETIMEDOUT;
    errno = saved_errno;
    return !timed_out;
}

/// Wakes up to `count` threads that sleep on `word`, which need not exist any more. Returns their number.
inline int futex_wake(std::atomic<uint32_t>& word, int count = INT_MAX) noexcept {
    const int saved_errno = errno;
    const long woken = ::syscall(SYS_futex, &word, FUTEX_WAKE_PRIVATE, count, nullptr, nullptr, 0);
    errno = saved_errno;
    return woken > 0 ? static_cast<int>(woken) : 0;
}

/// The point of CLOCK_MONOTONIC that lies `us` microseconds ahead. False if it lies beyond what a timespec
/// can say in practice; such a wait needs no deadline.
inline bool deadline_after(uint64_t us, timespec& deadline) noexcept {
    constexpr uint64_t US_PER_SECOND = 1000000;
    constexpr uint64_t TOO_FAR_SECONDS = uint64_t{1} << 31;
    if (us / US_PER_SECOND >= TOO_FAR_SECONDS) {
        return false;
    }
    deadline = read_clock();
    deadline.tv_sec += static_cast<time_t>(us / US_PER_SECOND);
    deadline.tv_nsec += static_cast<long>(us % US_PER_SECOND) * 1000;
    if (deadline.tv_nsec >= 1000000000) {
        deadline.tv_nsec -= 1000000000;
        ++deadline.tv_sec;
    }
    return true;
}

/// How many pauses are worth spending before a sleep: spinning waits for a holder that runs on another
/// processor, and with one processor there is none.
int spin_limit() noexcept;

/// Tells the processor that this is a loop that waits for another processor.
inline void spin_pause() noexcept {
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#elif defined(__aarch64__)
    __asm__ __volatile__("yield");
#else
    __asm__ __volatile__("" ::: "memory");
#endif
}

}  // namespace Orvex::Infra::Detail
