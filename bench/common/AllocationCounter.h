// Counts the program's heap allocations while it is asked to. It replaces malloc and its kin, so exactly one
// source file of a program includes it, and only programs that count do. Other libraries in the program are
// counted too, unless they bring an allocator of their own. In reticor-bench, which has many programs in it,
// nothing is replaced, and there is no such figure.
#pragma once

#include <malloc.h>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#ifdef RETICOR_BENCH_ONE_PROGRAM

namespace Bench {

inline std::uint64_t countAllocations(bool) {
    return 0;
}

}  // namespace Bench

#else

extern "C" {
// glibc's allocator under its own names, which nobody else defines.
void* __libc_malloc(std::size_t size);                           // NOLINT
void* __libc_calloc(std::size_t count, std::size_t size);        // NOLINT
void* __libc_realloc(void* old, std::size_t size);               // NOLINT
void* __libc_memalign(std::size_t alignment, std::size_t size);  // NOLINT
}

namespace Bench {

inline std::atomic<bool> countingAllocations{false};
inline std::atomic<std::uint64_t> countedAllocations{0};

// With counting off an allocation costs one load more than without this header.
inline void noteAllocation() {
    if (countingAllocations.load(std::memory_order_relaxed)) {
        countedAllocations.fetch_add(1, std::memory_order_relaxed);
    }
}

// Starts counting from 0 with true; ends it with false. The result is the count so far.
inline std::uint64_t countAllocations(bool on) {
    std::uint64_t count = on ? countedAllocations.exchange(0) : countedAllocations.load();
    countingAllocations = on;
    return count;
}

}  // namespace Bench

extern "C" {

void* malloc(std::size_t size) noexcept {
    Bench::noteAllocation();
    return __libc_malloc(size);
}

void* calloc(std::size_t count, std::size_t size) noexcept {
    Bench::noteAllocation();
    return __libc_calloc(count, size);
}

void* realloc(void* old, std::size_t size) noexcept {
    Bench::noteAllocation();
    return __libc_realloc(old, size);
}

void* memalign(std::size_t alignment, std::size_t size) noexcept {
    Bench::noteAllocation();
    return __libc_memalign(alignment, size);
}

void* aligned_alloc(std::size_t alignment, std::size_t size) noexcept {
    Bench::noteAllocation();
    return __libc_memalign(alignment, size);
}

int posix_memalign(void** result, std::size_t alignment, std::size_t size) noexcept {
    Bench::noteAllocation();
    *result = __libc_memalign(alignment, size);
    return *result == nullptr ? ENOMEM : 0;
}
}

#endif
