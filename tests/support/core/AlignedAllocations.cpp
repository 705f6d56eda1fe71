// AlignedAllocations: the operators of this test program for over-aligned types.
#include "support/core/AlignedAllocations.h"

#include <cstdlib>
#include <new>

namespace Orvex::Testing {

namespace {

thread_local std::size_t t_aligned_count = 0;
thread_local bool t_aligned_fails = false;
thread_local std::size_t t_aligned_left = 0;

}  // namespace

// A multiple of the alignment, as aligned_alloc wants it.
void* allocateAligned(std::size_t size, std::align_val_t alignment) noexcept {
    ++t_aligned_count;
    if (t_aligned_fails && t_aligned_left == 0) {
        return nullptr;
    }
    t_aligned_left -= t_aligned_fails ? 1 : 0;
    const std::size_t unit = static_cast<std::size_t>(alignment);
    return std::aligned_alloc(unit, (size + unit - 1) / unit * unit);
}

std::size_t alignedAllocationCount() {
    return t_aligned_count;
}

NoAlignedMemory::NoAlignedMemory(std::size_t successes_before) {
    t_aligned_left = successes_before;
    t_aligned_fails = true;
}

NoAlignedMemory::~NoAlignedMemory() {
    t_aligned_fails = false;
}

}  // namespace Orvex::Testing

void* operator new(std::size_t size, std::align_val_t alignment, const std::nothrow_t&) noexcept {
    return Orvex::Testing::allocateAligned(size, alignment);
}

void* operator new(std::size_t size, std::align_val_t alignment) {
    void* const memory = Orvex::Testing::allocateAligned(size, alignment);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    return memory;
}

void operator delete(void* memory, std::align_val_t) noexcept {
    std::free(memory);
}

void operator delete(void* memory, std::size_t, std::align_val_t) noexcept {
    std::free(memory);
}
