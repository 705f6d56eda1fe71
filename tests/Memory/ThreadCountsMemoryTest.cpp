// ThreadCounts while memory runs out: threads that are not workers go on without a block of their own.
#include "Core/count/ThreadCounts.h"

#include <gtest/gtest.h>

#include <thread>

#include "support/memory/MemoryFault.h"

namespace Orvex::Testing {
namespace {

using namespace Reticor;

size_t blocksOfThreads() {
    size_t count = 0;
    ThreadCounts::ForEach([&](const ThreadCounts&) { ++count; });
    return count;
}

uint64_t callsInRow(uint32_t row) {
    uint64_t calls = 0;
    ThreadCounts::ForEachTally(
        [&](uint32_t seen, const ClassTally& tally) { calls += seen == row ? tally.calls.Get() : 0; },
        [](int, const PoolTally&, uint64_t) {});
    return calls;
}

TEST(ThreadCountsMemory, WithoutAnyAThreadCountsAmongTheOthersUntilThereIsSome) {
    std::thread([] {
        MemoryFault fault(Whose::OWN, Extent::ALL);
        ThreadCounts::Attach(7);
        fault.end();
        EXPECT_TRUE(MemoryFault::hit());
        EXPECT_EQ(0u, blocksOfThreads());
        ThreadCounts::Mine().m_classes[3].calls.Increment();
        EXPECT_EQ(1u, callsInRow(3));
        ThreadCounts::Attach(7);
        EXPECT_EQ(1u, blocksOfThreads());
        EXPECT_EQ(1u, callsInRow(3)) << "once, and not again with the new block";
    }).join();
    EXPECT_EQ(1u, callsInRow(3));
}

TEST(ThreadCountsMemory, AThreadThatHasItsBlockAsksForNoMore) {
    std::thread([] {
        ThreadCounts::Attach(7);
        const size_t before = MemoryFault::own();
        ThreadCounts::Attach(7);
        EXPECT_EQ(before, MemoryFault::own());
    }).join();
}

}  // namespace
}  // namespace Orvex::Testing
