// shortages: an operation with each of its allocations failing.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "support/socket/Allocations.h"

namespace Orvex::Testing {

/// Calls `operation` with one allocation of the calling thread failing. Whether it came to that.
template <typename Operation>
bool withOneFailing(size_t number, Operation operation) {
    const size_t before = allocationCount();
    {
        const OneAllocationFails fails(number);
        operation();
    }
    return allocationCount() - before > number;
}

/// Calls `step(n)`, which gives whether allocation number n of an operation has failed, for n = 0, 1 and so
/// on until that is not so. Gives how many have.
template <typename Step>
size_t sweepShortages(Step step) {
    constexpr size_t MOST = 200;  // only stops a sweep without an end
    size_t number = 0;
    for (bool failed = true; failed && number < MOST && !testing::Test::HasFailure(); number += failed) {
        SCOPED_TRACE("allocation number " + std::to_string(number) + " fails");
        failed = step(number);
    }
    EXPECT_LT(number, MOST);
    return number;
}

}  // namespace Orvex::Testing
