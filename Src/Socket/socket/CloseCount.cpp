// The close counters.
#include "Socket/socket/CloseCount.h"

#include <unistd.h>

#include <atomic>
#include <cstddef>

namespace Orvex::Reticor {

namespace {

constexpr size_t COUNTER_COUNT = 4096;

// Constant-initialised and without a destructor: sockets are closed before main and after exit too.
std::atomic<uint32_t> g_counters[COUNTER_COUNT]{};

std::atomic<uint32_t>& counter_of(int fd) {
    return g_counters[static_cast<unsigned>(fd) % COUNTER_COUNT];
}

}  // namespace

uint32_t close_count(int fd) {
    return counter_of(fd).load(std::memory_order_relaxed);
}

int close_counted(int fd) {
    counter_of(fd).fetch_add(1, std::memory_order_relaxed);
    return ::close(fd);
}

}  // namespace Orvex::Reticor
