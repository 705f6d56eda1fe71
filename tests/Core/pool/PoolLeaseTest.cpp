// PoolLease: whoever works in a pool keeps it in its slot.
#include "Core/pool/PoolLease.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

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

TEST(PoolLease, IsOfThePoolThatAnIdNames) {
    StillPool first(StillPool::INDEX);
    StillPool second(StillPool::INDEX + 1);
    const PoolLease one = PoolLease::OfId(first.pool().m_ids.Alloc());
    const PoolLease other = PoolLease::OfId(second.pool().m_ids.Alloc());
    EXPECT_EQ(&first.pool(), &*one);
    EXPECT_EQ(&second.pool(), &*other);
    EXPECT_FALSE(PoolLease::OfId((-500 * 256 + 64) * 256)) << "an id of a pool that cannot be";
    EXPECT_FALSE(PoolLease::OfId(-1));
}

TEST(PoolLease, ALeaseThatHasEndedIsEmptyAndEndsOnce) {
    StillPool rig;
    PoolLease lease(StillPool::INDEX);
    EXPECT_EQ(&rig.pool(), &*lease);
    lease.End();
    EXPECT_FALSE(lease);
    lease.End();
    PoolLease empty(StillPool::INDEX + 1);
    empty.End();
    PoolTable::Set(StillPool::INDEX, nullptr);  // would wait for a count that was left twice, or never
    PoolTable::Set(StillPool::INDEX, &rig.pool());
}

// A worker is joined before its pool's slot is cleared, so it needs no count; and it finds its pool until it
// ends, since a handler on its way does.
TEST(PoolLease, AWorkerFindsItsOwnPoolWithoutACountAndOthersWithOne) {
    StillPool rig;
    StillPool elsewhere(StillPool::INDEX + 1);
    const int64_t id = rig.pool().m_ids.Alloc();
    const int64_t foreign = elsewhere.pool().m_ids.Alloc();
    EXPECT_EQ(nullptr, PoolLease::Own(id)) << "this thread is nobody's worker";
    std::atomic<bool> ready{false};
    std::atomic<bool> go{false};
    std::thread worker([&] {
        PoolLease::EnterWorker(StillPool::INDEX, &rig.pool());
        EXPECT_EQ(&rig.pool(), PoolLease::Own(id));
        EXPECT_EQ(nullptr, PoolLease::Own(foreign));
        EXPECT_EQ(&elsewhere.pool(), &*PoolLease::OfId(foreign));
        const PoolLease own(StillPool::INDEX);
        EXPECT_EQ(&rig.pool(), &*own);
        ready = true;
        EXPECT_EVENTUALLY(go);
        EXPECT_EQ(&rig.pool(), &*PoolLease(StillPool::INDEX)) << "also once the slot is cleared";
    });
    EXPECT_EVENTUALLY(ready);
    PoolTable::Set(StillPool::INDEX, nullptr);  // does not wait for the worker's lease
    EXPECT_FALSE(PoolLease(StillPool::INDEX)) << "nobody else finds it";
    go = true;
    worker.join();
    PoolTable::Set(StillPool::INDEX, &rig.pool());
}

}  // namespace
}  // namespace Orvex::Reticor
