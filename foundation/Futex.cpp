// Futex: how long to spin before a sleep.
#include "Futex.h"

#include <unistd.h>

#include <cerrno>

namespace Orvex::Infra::Detail {

namespace {

// How often a lock looks again before it sleeps: about two microseconds, less than a sleep and a wake-up
// cost, and longer than the short stretches for which the library holds its locks.
constexpr int SPINS = 60;

int count_processors() noexcept {
    const int saved_errno = errno;
    const long count = ::sysconf(_SC_NPROCESSORS_ONLN);
    errno = saved_errno;
    return count > 1 ? static_cast<int>(count) : 1;
}

}  // namespace

int spin_limit() noexcept {
    static std::atomic<int> sm_limit{-1};
    int value = sm_limit.load(std::memory_order_relaxed);
    if (value < 0) {
        value = count_processors() > 1 ? SPINS : 0;
        sm_limit.store(value, std::memory_order_relaxed);
    }
    return value;
}

}  // namespace Orvex::Infra::Detail
