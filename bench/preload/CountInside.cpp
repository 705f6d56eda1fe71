// Loaded into a server by LD_PRELOAD: counts heap allocations, the bytes of large copies, writes to sockets
// and those of them that found no room, from the first call on, in the file that the variable COUNT_INSIDE
// names, where others may look at any time. Four 64-bit numbers of the machine's order.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>

extern "C" {
// glibc's allocator under its own names, which nobody else defines.
void* __libc_malloc(std::size_t size);                           // NOLINT
void* __libc_calloc(std::size_t count, std::size_t size);        // NOLINT
void* __libc_realloc(void* old, std::size_t size);               // NOLINT
void* __libc_memalign(std::size_t alignment, std::size_t size);  // NOLINT
}

namespace {

struct Counts {
    std::atomic<std::uint64_t> allocations{0};
    std::atomic<std::uint64_t> copiedBytes{0};
    std::atomic<std::uint64_t> writes{0};
    std::atomic<std::uint64_t> full{0};
};

// Smaller copies are headers and the like, no payload.
constexpr std::size_t kLargeCopy = 512;

Counts early;
Counts* counts = &early;

__attribute__((constructor)) void openCounts() {
    const char* name = std::getenv("COUNT_INSIDE");
    const int fd = name != nullptr ? open(name, O_RDWR | O_CREAT | O_CLOEXEC, 0600) : -1;
    if (fd < 0 || ftruncate(fd, sizeof(Counts)) != 0) {
        _exit(127);
    }
    void* shared = mmap(nullptr, sizeof(Counts), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (shared == MAP_FAILED) {
        _exit(127);
    }
    close(fd);
    counts = static_cast<Counts*>(shared);
}

void noteAllocation() {
    counts->allocations.fetch_add(1, std::memory_order_relaxed);
}

ssize_t noteWrite(long result) {
    counts->writes.fetch_add(1, std::memory_order_relaxed);
    if (result < 0 && errno == EAGAIN) {
        counts->full.fetch_add(1, std::memory_order_relaxed);
    }
    return result;
}

// Volatile, or the compiler would make a call of memcpy out of it.
void copyForwards(void* to, const void* from, std::size_t size) {
    auto* out = static_cast<volatile char*>(to);
    const auto* in = static_cast<const volatile char*>(from);
    for (std::size_t i = 0; i < size; ++i) {
        out[i] = in[i];
    }
}

void* copy(void* to, const void* from, std::size_t size) {
    if (size >= kLargeCopy) {
        counts->copiedBytes.fetch_add(size, std::memory_order_relaxed);
    }
    if (static_cast<char*>(to) <= from || static_cast<const char*>(from) + size <= to) {
        copyForwards(to, from, size);
    } else {
        auto* out = static_cast<volatile char*>(to);
        const auto* in = static_cast<const volatile char*>(from);
        for (std::size_t i = size; i-- > 0;) {
            out[i] = in[i];
        }
    }
    return to;
}

}  // namespace

extern "C" {

void* malloc(std::size_t size) noexcept {
    noteAllocation();
    return __libc_malloc(size);
}

void* calloc(std::size_t count, std::size_t size) noexcept {
    noteAllocation();
    return __libc_calloc(count, size);
}

void* realloc(void* old, std::size_t size) noexcept {
    noteAllocation();
    return __libc_realloc(old, size);
}

void* memalign(std::size_t alignment, std::size_t size) noexcept {
    noteAllocation();
    return __libc_memalign(alignment, size);
}

void* aligned_alloc(std::size_t alignment, std::size_t size) noexcept {
    noteAllocation();
    return __libc_memalign(alignment, size);
}

int posix_memalign(void** result, std::size_t alignment, std::size_t size) noexcept {
    noteAllocation();
    *result = __libc_memalign(alignment, size);
    return *result == nullptr ? ENOMEM : 0;
}

void* memcpy(void* __restrict to, const void* __restrict from, std::size_t size) noexcept {
    return copy(to, from, size);
}

void* memmove(void* to, const void* from, std::size_t size) noexcept {
    return copy(to, from, size);
}

ssize_t writev(int fd, const iovec* pieces, int count) {
    return noteWrite(syscall(SYS_writev, fd, pieces, count));
}

ssize_t sendmsg(int fd, const msghdr* message, int flags) {
    return noteWrite(syscall(SYS_sendmsg, fd, message, flags));
}

ssize_t send(int fd, const void* bytes, std::size_t size, int flags) {
    return noteWrite(syscall(SYS_sendto, fd, bytes, size, flags, nullptr, 0));
}

// What a build with _FORTIFY_SOURCE calls instead.
void* __memcpy_chk(void* to, const void* from, std::size_t size, std::size_t) noexcept {  // NOLINT
    return copy(to, from, size);
}

void* __memmove_chk(void* to, const void* from, std::size_t size, std::size_t) noexcept {  // NOLINT
    return copy(to, from, size);
}
}
