// Allocations: counts what the calling thread allocates with operator new, or makes all of it fail.
#pragma once

#include <cstddef>

namespace Orvex::Testing {

// How often the calling thread called operator new so far, in any form but the over-aligned.
std::size_t allocationCount();

// While it lives, operator new fails on the calling thread after that number of successes: the nothrow
// forms give null, the others throw.
class NoMemory {
public:
    explicit NoMemory(std::size_t successes_before = 0);
    ~NoMemory();
    NoMemory(const NoMemory&) = delete;
    NoMemory& operator=(const NoMemory&) = delete;
};

// While it lives, one allocation fails on the calling thread after so many successes, and the next succeed.
class OneAllocationFails : public NoMemory {
public:
    explicit OneAllocationFails(std::size_t successes_before);
    ~OneAllocationFails();
};

}  // namespace Orvex::Testing
