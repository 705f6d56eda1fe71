// CountingAllocator, in the place of the general allocator.
#include "Core/CountingAllocator.h"

#include <atomic>
#include <cstdlib>

#include "Core/GeneralAllocator.h"

namespace {

std::atomic<long> s_given{0};
std::atomic<long> s_freed{0};
std::atomic<std::size_t> s_last_size{0};
std::atomic<bool> s_no_memory{false};
std::atomic<long> s_grace{0};

}  // namespace

namespace Orvex::Reticor {

void* generalAllocate(std::size_t size) noexcept {
    s_last_size = size;
    if (s_no_memory && --s_grace < 0) {
        return nullptr;
    }
    ++s_given;
    return std::malloc(size);
}

void generalFree(void* p) noexcept {
    if (p != nullptr) {
        ++s_freed;
        std::free(p);
    }
}

}  // namespace Orvex::Reticor

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

CountingAllocator::NoMemory::NoMemory(long grace) {
    s_grace = grace;
    s_no_memory = true;
}

CountingAllocator::NoMemory::~NoMemory() {
    s_no_memory = false;
}

}  // namespace Orvex::Testing
