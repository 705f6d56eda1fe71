// CountingAllocator. The linker puts it before the general allocator (--wrap in tests/CMakeLists.txt).
#include "support/core/CountingAllocator.h"

#include <atomic>
#include <cstdlib>
#include <utility>

namespace {

std::atomic<long> s_given{0};
std::atomic<long> s_freed{0};
std::atomic<std::size_t> s_last_size{0};
std::atomic<bool> s_no_memory{false};
std::atomic<long> s_grace{0};
std::atomic<long> s_until_step{-1};  // Allocations that pass before the step; below 0 there is none.
std::function<void()>* s_step = nullptr;

}  // namespace

extern "C" {

// Orvex::Reticor::general_allocate(unsigned long)
void* __wrap__ZN5Orvex7Reticor16general_allocateEm(std::size_t size) noexcept;
// Orvex::Reticor::general_free(void*)
void __wrap__ZN5Orvex7Reticor12general_freeEPv(void* p) noexcept;

void* __wrap__ZN5Orvex7Reticor16general_allocateEm(std::size_t size) noexcept {
    s_last_size = size;
    if (s_until_step >= 0 && s_until_step-- == 0) {
        (*s_step)();
    }
    if (s_no_memory && --s_grace < 0) {
        return nullptr;
    }
    ++s_given;
    return std::malloc(size);
}

void __wrap__ZN5Orvex7Reticor12general_freeEPv(void* p) noexcept {
    if (p != nullptr) {
        ++s_freed;
        std::free(p);
    }
}

}  // extern "C"

namespace Orvex::Testing {

long CountingAllocator::blocksInUse() {
    return s_given - s_freed;
}

long CountingAllocator::blocksFreed() {
    return s_freed;
}

std::size_t CountingAllocator::lastSize() {
    return s_last_size;
}

void CountingAllocator::runAtAllocation(long grace, std::function<void()> step) {
    delete s_step;
    s_step = new std::function<void()>(std::move(step));
    s_until_step = grace;
}

CountingAllocator::NoMemory::NoMemory(long grace) {
    s_grace = grace;
    s_no_memory = true;
}

CountingAllocator::NoMemory::~NoMemory() {
    s_no_memory = false;
}

}  // namespace Orvex::Testing
