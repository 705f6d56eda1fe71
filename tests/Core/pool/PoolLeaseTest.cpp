// PoolLease: whoever works in a pool keeps it in its slot.
#include "Core/pool/PoolLease.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "support/core/StillPool.h"

namespace Orvex::Reticor {
namespace {

using Testing::StillPool;

TEST(PoolLease, IsEmptyForAnEmptySlotAndForAnIndexOutOfRange) {
    for (int index : {0, 63, 64, 255, -1}) {
        EXPECT_FALSE(PoolLease(index)) << index;
    }
    StillPool rig;
    EXPECT_TRUE(PoolLease(StillPool::INDEX));
}

TEST(PoolLease, TheEndOfAPoolWaitsForItsLeasesAndNobodyElseFindsItMeanwhile) {
    StillPool rig;
    std::atomic<bool> cleared{false};
    PoolLease outer(StillPool::INDEX);
    PoolLease inner(StillPool::INDEX);
    std::thread end([&] {
        PoolTable::Set(StillPool::INDEX, nullptr);
        cleared = true;
    });
    EXPECT_EVENTUALLY(PoolTable::Get(StillPool::INDEX) == nullptr);
    EXPECT_FALSE(PoolLease(StillPool::INDEX));
    inner.End();
    EXPECT_FALSE(PoolLease(StillPool::INDEX));
    EXPECT_FALSE(cleared);
    outer.End();
    end.join();
    PoolTable::Set(StillPool::INDEX, &rig.pool());
}

TEST(PoolLease, TwoThousandEndsMeetLeasesOnOtherThreads) {
    StillPool rig;
    std::atomic<bool> stop{false};
    std::atomic<int> inside{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 3; ++i) {
        threads.emplace_back([&] {
            while (!stop) {
                if (const PoolLease lease{StillPool::INDEX}) {
                    ++inside;
                    --inside;
                }
            }
        });
    }
    for (int i = 0; i < 2000; ++i) {
        PoolTable::Set(StillPool::INDEX, nullptr);
        ASSERT_EQ(0, inside) << "somebody is in a pool that has gone";
        PoolTable::Set(StillPool::INDEX, &rig.pool());
    }
    stop = true;
    for (std::thread& thread : threads) {
        thread.join();
    }
}

}  // namespace
}  // namespace Orvex::Reticor
