// LockOrders: a mapped table of first sightings.
#include "LockOrders.h"

#if defined(RETICOR_HELD_LOCKS)

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include <Infra/LockClasses.h>

namespace Orvex::Infra {

namespace {

constexpr size_t FILE_SIZE = LockOrders::SIDE * LockOrders::SIDE * LockOrders::ENTRY_SIZE;

struct Entry {
    std::atomic<char> used;
    char text[LockOrders::ENTRY_SIZE - 1];
};
static_assert(sizeof(Entry) == LockOrders::ENTRY_SIZE);

std::atomic<bool> g_opened{false};
std::atomic<Entry*> g_table{nullptr};

constexpr size_t BITS = 64;
std::atomic<uint64_t> g_seen[LockOrders::SIDE][LockOrders::SIDE / BITS];

#define INFRA_LOCK_CLASS(name, lock, guards) \
    static_assert(static_cast<size_t>(LockClass::name) < LockOrders::SIDE);
INFRA_LOCK_CLASSES(INFRA_LOCK_CLASS)
#undef INFRA_LOCK_CLASS

Entry* map_file() noexcept {
    const char* const path = std::getenv(LockOrders::VARIABLE);
    if (path == nullptr) {
        return nullptr;
    }
    const int file = ::open(path, O_RDWR | O_CREAT | O_CLOEXEC, 0666);
    if (file == -1) {
        return nullptr;
    }
    void* const memory = ::ftruncate(file, FILE_SIZE) == 0
                             ? ::mmap(nullptr, FILE_SIZE, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0)
                             : MAP_FAILED;
    ::close(file);
    return memory != MAP_FAILED ? static_cast<Entry*>(memory) : nullptr;
}

// Opened by the process's first pair, which comes while it sets the library up; a descriptor that came and
// went later could meet a test that counts them.
Entry* table() noexcept {
    if (!g_opened.exchange(true, std::memory_order_relaxed)) {
        const int saved_errno = errno;
        g_table.store(map_file(), std::memory_order_release);
        errno = saved_errno;
    }
    return g_table.load(std::memory_order_acquire);
}

}  // namespace

void LockOrders::note(const HeldLocks::Held& held, LockClass wanted, LockPlace place) noexcept {
    const auto row = static_cast<size_t>(held.lock_class);
    const auto column = static_cast<size_t>(wanted);
    if (row == 0 || column == 0 || row == column || row >= SIDE || column >= SIDE) {
        return;
    }
    const uint64_t bit = uint64_t{1} << column % BITS;
    std::atomic<uint64_t>& seen = g_seen[row][column / BITS];
    if ((seen.load(std::memory_order_relaxed) & bit) != 0) {
        return;
    }
    Entry* const entries = table();
    if (entries == nullptr || (seen.fetch_or(bit, std::memory_order_relaxed) & bit) != 0) {
        return;
    }
    Entry& entry = entries[row * SIDE + column];
    char free = 0;
    if (entry.used.compare_exchange_strong(free, 1, std::memory_order_relaxed)) {
        std::snprintf(entry.text, sizeof(entry.text), "%s\t%s:%d\t%s\t%s:%d",
                      lock_class_word(held.lock_class), held.place.file, held.place.line,
                      lock_class_word(wanted), place.file, place.line);
    }
}

}  // namespace Orvex::Infra

#endif
