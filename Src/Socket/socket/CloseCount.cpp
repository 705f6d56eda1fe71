// The close counters.
#include "Socket/socket/CloseCount.h"

#include <unistd.h>

#include <atomic>
#include <cstddef>

namespace Orvex::Reticor {

namespace {

constexpr std::size_t counter_count = 4096;

// Constant-initialised and without a destructor: sockets are closed before main and after exit too.
std::atomic<std::uint32_t> counters[counter_count]{};

std::atomic<std::uint32_t>& counterOf(int fd) {
    return counters[static_cast<unsigned>(fd) % counter_count];
}

}  // namespace

std::uint32_t closeCount(int fd) {
    return counterOf(fd).load(std::memory_order_relaxed);
}

int closeCounted(int fd) {
    counterOf(fd).fetch_add(1, std::memory_order_relaxed);
    return ::close(fd);
}

}  // namespace Orvex::Reticor
