// CSemaphore: a counting semaphore that costs no system call while nobody waits.
#pragma once

#include <atomic>
#include <cstdint>
#include <type_traits>

#include <Infra/Export.h>

namespace Orvex::Infra {

/// Any thread may post and pend. Like the locks it can be a static object: constant-initialised, trivially
/// destroyed. It allocates nothing and does not change errno. Never destroy it while a thread waits in it;
/// but the thread that took the last count may destroy it at once, even if the thread that posted it has not
/// yet returned from post().
class INFRA_API CSemaphore {
public:
    /// A negative initial count is taken as 0.
    constexpr explicit CSemaphore(int initial) noexcept
        : m_word(initial > 0 ? static_cast<uint64_t>(static_cast<unsigned>(initial)) : 0) {}
    CSemaphore(const CSemaphore&) = delete;
    CSemaphore& operator=(const CSemaphore&) = delete;

    /// Adds one to the count and wakes one waiter, if there is one. Always 0. The count must stay below 2^31,
    /// and an assertion watches over that.
    int post() noexcept { return post(1, 1); }

    /// Adds `count` (nothing if it is not above 0) and wakes at most `wake` waiters. With `wake` smaller than
    /// `count` the caller takes it on itself that the counts beyond it are taken: by threads that are awake,
    /// or after wakeOne(). A waiter that nobody wakes goes on sleeping beside a positive count. Always 0.
    int post(int count, int wake) noexcept;

    /// Waits without limit until the count is above 0 and takes one. Always 0: an interruption by a signal or
    /// a wake-up with nothing to take goes back to waiting.
    int pend() noexcept;

    /// As pend(), but gives up after `ms` milliseconds of the monotonic clock: 0 if one was taken, else -1.
    /// With 0 it only tries.
    int pend(unsigned int ms) noexcept;

    /// As pend(), but gives up after `us` microseconds of the monotonic clock: true if one was taken. With 0
    /// it only tries.
    bool pendFor(uint64_t us) noexcept;

    /// Wakes one waiter without adding to the count; it takes a count if there is one and else sleeps on.
    /// Returns the number of threads woken, 0 or 1, and makes no system call while nobody waits.
    int wakeOne() noexcept;

private:
    // Count in the low half, on which waiters sleep; number of waiters in the high half. One word, so that a
    // post sees every waiter that did not see its count.
    std::atomic<uint64_t> m_word;
};

static_assert(std::is_trivially_destructible_v<CSemaphore>, "a static semaphore must survive exit()");

}  // namespace Orvex::Infra
