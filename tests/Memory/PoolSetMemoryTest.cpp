// CPoolSet while memory runs out: its pools are made, or none is left; a place takes no memory.
#include <Reticor/PoolSet.h>

#include <gtest/gtest.h>

#include <utility>

#include <Reticor/NetHandler.h>

#include "support/Eventually.h"
#include "support/KernelThread.h"
#include "support/memory/MemorySweep.h"

namespace Orvex::Testing {
namespace {

using Reticor::CPoolSet;

TEST(PoolSetMemory, ASetIsMadeOrUndone) {
    const int threads_before = threadsAtRest();
    sweep([&](size_t successes, Extent extent) {
        CPoolSet set;
        int result = 1;
        const Swept swept = withFault(successes, extent, [&] { result = set.Create(2, 2); });
        if (result == 0) {
            EXPECT_EQ(2 * CPoolSet::PLACES, set.GetRoom(Reticor::SOCK_READ));
            EXPECT_EQ(0, set.Destroy());
        } else {
            EXPECT_EQ(-1, result);
            EXPECT_GE(swept.lines, 1u);
            EXPECT_EQ(-1, set.Destroy());
        }
        EXPECT_EVENTUALLY(threads_before == kernelThreadCount());
        return swept.hit;
    });
}

TEST(PoolSetMemory, PlacesAreReservedAndGivenBackWithoutMemory) {
    CPoolSet set;
    ASSERT_EQ(0, set.Create(2, 2));
    int results[2] = {1, 1};
    const Swept swept = withFault(0, Extent::ALL, [&] {
        CPoolSet::Place place;
        results[0] = set.Next(Reticor::SOCK_READ, place);
        CPoolSet::Place other;
        results[1] = set.Next(Reticor::SOCK_READ, other);
        place = std::move(other);
    });
    EXPECT_EQ(0, results[0]);
    EXPECT_EQ(0, results[1]);
    EXPECT_FALSE(swept.hit);
    EXPECT_EQ(2 * CPoolSet::PLACES, set.GetRoom(Reticor::SOCK_READ));
}

}  // namespace
}  // namespace Orvex::Testing
