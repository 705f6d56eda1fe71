// AlignedAllocations: what the calling thread takes from operator new with an alignment of its own, which
// Allocations leaves alone; counts it, or makes it fail.
#pragma once

#include <cstddef>

namespace Orvex::Testing {

// How often the calling thread has called such an operator so far.
std::size_t alignedAllocationCount();

// While it lives, such an operator fails on the calling thread after that number of successes: the nothrow
// form gives null, the other one throws.
class NoAlignedMemory {
public:
    explicit NoAlignedMemory(std::size_t successes_before = 0);
    ~NoAlignedMemory();
    NoAlignedMemory(const NoAlignedMemory&) = delete;
    NoAlignedMemory& operator=(const NoAlignedMemory&) = delete;
};

}  // namespace Orvex::Testing
