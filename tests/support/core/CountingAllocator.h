// CountingAllocator: takes the place of the core's general allocator in these tests, counts what it gives and
// gets back, and fails on demand.
#pragma once

#include <cstddef>
#include <functional>

namespace Orvex::Testing {

struct CountingAllocator {
    /// Blocks that were given and have not come back.
    static long blocksInUse();

    /// Blocks that have come back since the program began.
    static long blocksFreed();

    /// The size that was asked for last.
    static std::size_t lastSize();

    /// Lets every allocation of the process fail while it lives, after the first `grace` ones.
    struct NoMemory {
        explicit NoMemory(long grace = 0);
        ~NoMemory();
        NoMemory(const NoMemory&) = delete;
        NoMemory& operator=(const NoMemory&) = delete;
    };

    /// Runs `step` once inside one of the next allocations, after `grace` others have passed.
    static void runAtAllocation(long grace, std::function<void()> step);
};

}  // namespace Orvex::Testing
