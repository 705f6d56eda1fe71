#include "Core/CountingAllocator.h"

#include <atomic>
#include <cstdlib>

#include "Core/GeneralAllocator.h"

namespace {

std::atomic<long> s_given{0};
std::atomic<long> s_freed{0};
std::atomic<std::size_t> s_last_size{0};
std::atomic<bool> s_no_memory{false};

}  // namespace

namespace Orvex::Reticor {

void* generalAllocate(std::size_t size) noexcept {
    s_last_size = size;
    if (s_no_memory) {
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

CountingAllocator::NoMemory::NoMemory() {
    s_no_memory = true;
}

CountingAllocator::NoMemory::~NoMemory() {
    s_no_memory = false;
}

}  // namespace Orvex::Testing
