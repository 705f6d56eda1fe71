// PoolSlot: whoever is inside keeps the pool there, and whoever clears the slot waits for that.
#include "Core/pool/PoolSlot.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <set>
#include <thread>
#include <vector>

#include "support/Eventually.h"
#include "support/KernelThread.h"
#include "support/core/Gate.h"

namespace Orvex::Reticor {
namespace {

using Testing::Gate;

// No slot looks into its pool.
CThreadPool* const SOME_POOL = reinterpret_cast<CThreadPool*>(0x1000);
CThreadPool* const OTHER_POOL = reinterpret_cast<CThreadPool*>(0x2000);

// Clears a slot on a thread of its own.
class Clearing {
public:
    explicit Clearing(PoolSlot& slot)
        : m_thread([this, &slot] {
              m_id = Testing::kernelThreadId();
              slot.Clear();
              m_over = true;
          }) {}
    ~Clearing() { m_thread.join(); }
    bool over() const { return m_over; }
    // Whether it sleeps until somebody leaves.
    bool waits() const { return m_id != 0 && Testing::sleepsInFutex(m_id); }

private:
    std::atomic<int> m_id{0};
    std::atomic<bool> m_over{false};
    std::thread m_thread;
};

TEST(PoolSlot, IndicesGoFrom0To63) {
    for (int index : {0, 1, 63}) {
        EXPECT_TRUE(PoolSlot::InRange(index)) << index;
    }
    for (int index : {-1, 64, 255, 256, INT32_MAX, INT32_MIN}) {
        EXPECT_FALSE(PoolSlot::InRange(index)) << index;
    }
    std::set<const PoolSlot*> slots;
    for (int index = 0; index < PoolSlot::LIMIT; ++index) {
        slots.insert(&PoolSlot::At(index));
        EXPECT_EQ(nullptr, PoolSlot::At(index).Get());
    }
    EXPECT_EQ(64u, slots.size());
}

TEST(PoolSlot, AnEmptySlotLetsNobodyInAndNobodyHasToLeaveIt) {
    PoolSlot slot;
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(nullptr, slot.Enter());
    }
    slot.Clear();  // would wait for those three
    slot.Fill(SOME_POOL);
    EXPECT_EQ(SOME_POOL, slot.Get());
    EXPECT_EQ(SOME_POOL, slot.Enter());
    slot.Leave();
    slot.Clear();
    EXPECT_EQ(nullptr, slot.Get());
}

TEST(PoolSlot, TheNextPoolIsFoundOnceTheFirstIsCleared) {
    PoolSlot slot;
    slot.Fill(SOME_POOL);
    EXPECT_EQ(SOME_POOL, slot.Enter());
    slot.Leave();
    slot.Clear();
    slot.Fill(OTHER_POOL);
    EXPECT_EQ(OTHER_POOL, slot.Enter());
    slot.Leave();
}

TEST(PoolSlot, ClearingWaitsAsleepUntilTheLastOneLeaves) {
    PoolSlot slot;
    slot.Fill(SOME_POOL);
    constexpr int INSIDE = 3;
    for (int i = 0; i < INSIDE; ++i) {
        ASSERT_EQ(SOME_POOL, slot.Enter());
    }
    const Clearing clearing(slot);
    for (int i = 0; i < INSIDE; ++i) {
        EXPECT_EVENTUALLY(clearing.waits());
        EXPECT_FALSE(clearing.over());
        EXPECT_EQ(nullptr, slot.Enter()) << "nobody gets in any more";
        slot.Leave();
    }
    EXPECT_EVENTUALLY(clearing.over());
}

// More threads than there are counts to spread them over, each of which is looked at.
TEST(PoolSlot, EveryThreadThatIsInsideIsWaitedFor) {
    constexpr int THREADS = 20;
    PoolSlot slot;
    slot.Fill(SOME_POOL);
    std::vector<std::unique_ptr<Gate>> gates;
    std::vector<std::thread> threads;
    for (int i = 0; i < THREADS; ++i) {
        gates.push_back(std::make_unique<Gate>());
        threads.emplace_back([&slot, gate = gates.back().get()] {
            EXPECT_EQ(SOME_POOL, slot.Enter());
            gate->pass();
            slot.Leave();
        });
        ASSERT_TRUE(gates.back()->awaitArrivals(1));
    }
    {
        const Clearing clearing(slot);
        for (int i = 0; i < THREADS; ++i) {
            EXPECT_EVENTUALLY(clearing.waits());
            EXPECT_FALSE(clearing.over()) << i;
            gates[static_cast<size_t>(i * 7 % THREADS)]->open();
            threads[static_cast<size_t>(i * 7 % THREADS)].join();
        }
        EXPECT_EVENTUALLY(clearing.over());
    }
}

// Posts of those who left while a former clearing waited must not let a later one through.
TEST(PoolSlot, ALaterClearingWaitsHoweverManyHaveLeftDuringTheFormerOne) {
    PoolSlot slot;
    slot.Fill(SOME_POOL);
    for (int i = 0; i < 10; ++i) {
        ASSERT_EQ(SOME_POOL, slot.Enter());
    }
    {
        const Clearing clearing(slot);
        EXPECT_EVENTUALLY(clearing.waits());
        for (int i = 0; i < 10; ++i) {
            slot.Leave();
        }
    }
    slot.Fill(OTHER_POOL);
    ASSERT_EQ(OTHER_POOL, slot.Enter());
    const Clearing clearing(slot);
    EXPECT_EVENTUALLY(clearing.waits());
    EXPECT_FALSE(clearing.over());
    slot.Leave();
    EXPECT_EVENTUALLY(clearing.over());
}

// The object behind the slot is ended as a pool is: after the slot was cleared nobody is in it. A thread that
// was still inside would read what has been written after it, which a race detector sees as well.
TEST(PoolSlot, WhatIsInASlotMayGoOnceItIsCleared) {
    PoolSlot slot;
    int pool = 1;
    std::atomic<bool> stop{false};
    std::atomic<int> entered{0};
    std::vector<std::thread> threads;
    for (int n = 0; n < 3; ++n) {
        threads.emplace_back([&] {
            while (!stop) {
                if (const auto* const found = reinterpret_cast<const int*>(slot.Enter())) {
                    EXPECT_EQ(1, *found);
                    ++entered;
                    slot.Leave();
                } else {
                    std::this_thread::yield();
                }
            }
        });
    }
    for (int life = 0; life < 100; ++life) {
        pool = 1;
        slot.Fill(reinterpret_cast<CThreadPool*>(&pool));
        const int before = entered;
        EXPECT_EVENTUALLY(entered > before);
        slot.Clear();
        pool = 0;  // freed
    }
    stop = true;
    for (std::thread& thread : threads) {
        thread.join();
    }
}

}  // namespace
}  // namespace Orvex::Reticor
