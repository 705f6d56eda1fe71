// ThreadCounts: what threads count for themselves, and what of it is left when they end.
#include "Core/count/ThreadCounts.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <Infra/Semaphore.h>

#include "support/KernelThread.h"
#include "support/SeededRandom.h"
namespace Orvex::Testing {
namespace {

using namespace Reticor;

struct Sums {
    uint64_t calls = 0;   // of the row that is asked for
    uint64_t served = 0;  // messages of pool 7
    uint64_t pool_calls = 0;
    uint64_t waits = 0;
};

Sums sums(uint32_t row) {
    Sums found;
    ThreadCounts::ForEachTally(
        [&](uint32_t seen, const ClassTally& tally) { found.calls += seen == row ? tally.calls.Get() : 0; },
        [&](int pool, const PoolTally& tally, uint64_t calls) {
            if (pool == 7) {
                found.served += tally.served[static_cast<size_t>(Served::MESSAGE)].Get();
                found.pool_calls += tally.calls.Get() + calls;
                SpreadValues values;
                tally.wait.AddTo(values);
                found.waits += values.sum_ns;
            }
        });
    return found;
}

void countOnce(uint32_t row) {
    ThreadCounts& mine = ThreadCounts::Mine();
    mine.at_offset(ThreadCounts::offset_of(row)).calls.Increment();
    mine.m_pool_tally.served[static_cast<size_t>(Served::MESSAGE)].Increment();
    mine.m_pool_tally.wait.Add(100);
}

size_t blocks() {
    size_t count = 0;
    ThreadCounts::ForEach([&](const ThreadCounts&) { ++count; });
    return count;
}

TEST(ThreadCounts, WhatAThreadCountedStaysWhenItEnds) {
    for (uint64_t round = 1; round <= 3; ++round) {
        std::thread([] {
            ThreadCounts::Attach(7);
            countOnce(3);
            EXPECT_EQ(1u, blocks());
        }).join();
        EXPECT_EQ(0u, blocks());
        EXPECT_EQ(round, sums(3).calls);
        EXPECT_EQ(round, sums(3).served);
        EXPECT_EQ(round, sums(3).pool_calls);
        EXPECT_EQ(round * 100, sums(3).waits);
    }
}

TEST(ThreadCounts, AThreadWithoutABlockCountsAmongTheOthers) {
    std::thread([] { ThreadCounts::Mine().at_offset(ThreadCounts::offset_of(5)).calls.Increment(); }).join();
    EXPECT_EQ(0u, blocks());
    EXPECT_EQ(1u, sums(5).calls);
}

// Read while threads come, count and go: nothing is ever missing for a moment.
TEST(ThreadCounts, SumsNeverFall) {
    std::atomic<bool> stop{false};
    std::vector<std::thread> makers;
    for (int i = 0; i < 2; ++i) {
        makers.emplace_back([&] {
            while (!stop) {
                std::thread([] {
                    ThreadCounts::Attach(7);
                    for (int n = 0; n < 50; ++n) {
                        countOnce(3);
                    }
                }).join();
            }
        });
    }
    uint64_t before = 0;
    for (int i = 0; i < 500; ++i) {
        const Sums now = sums(3);
        EXPECT_GE(now.calls, before);
        before = now.calls;
    }
    stop = true;
    for (std::thread& maker : makers) {
        maker.join();
    }
    EXPECT_EQ(sums(3).calls, sums(3).served);
}

TEST(ThreadCounts, TheWordOfACallGivesBackIdAndKind) {
    for (const int64_t id : {int64_t{-6553600}, int64_t{-6619136} + 63 * 256 + 255, int64_t{-100} * 65536}) {
        for (uint8_t kind = 1; kind < static_cast<uint8_t>(CallKind::COUNT); ++kind) {
            const uint64_t word = ThreadCounts::call_word(id, static_cast<CallKind>(kind));
            EXPECT_EQ(id, ThreadCounts::id_in(word));
            EXPECT_EQ(static_cast<CallKind>(kind), ThreadCounts::kind_in(word));
            EXPECT_NE(std::string(), call_name(ThreadCounts::kind_in(word)));
        }
    }
    EXPECT_EQ(CallKind::NONE, ThreadCounts::kind_in(0));
}

TEST(ThreadCounts, AKindThatIsNoneHasNoName) {
    EXPECT_STREQ("", call_name(CallKind::NONE));
    EXPECT_STREQ("", call_name(CallKind::COUNT));
    EXPECT_STREQ("", call_name(static_cast<CallKind>(200)));
    EXPECT_STREQ("handle_input", call_name(CallKind::INPUT));
    EXPECT_STREQ("handle_close", call_name(CallKind::CLOSE));
}

TEST(ThreadCounts, TheOffsetOfARowLeadsToItAndBack) {
    auto block = std::make_unique<ThreadCounts>();
    for (uint32_t row = 0; row < ClassRows::COUNT; ++row) {
        EXPECT_EQ(&block->m_classes[row], &block->at_offset(ThreadCounts::offset_of(row)));
        EXPECT_EQ(row, ThreadCounts::row_at(ThreadCounts::offset_of(row)));
    }
}

TEST(ThreadCounts, CallsAreThoseOfAllRows) {
    auto block = std::make_unique<ThreadCounts>();
    EXPECT_EQ(0u, block->Calls());
    uint64_t all = 0;
    for (uint32_t row = 0; row < ClassRows::COUNT; ++row) {
        block->m_classes[row].calls.Add(row + 1);
        block->m_classes[row].closed.Add(1000);
        all += row + 1;
    }
    EXPECT_EQ(all, block->Calls());
}

TEST(ThreadCounts, ABlockSaysWhoseItIs) {
    std::thread([] {
        ThreadCounts::Attach(5);
        ThreadCounts::ForEach([](const ThreadCounts& block) {
            EXPECT_EQ(&ThreadCounts::Mine(), &block);
            EXPECT_EQ(5, block.m_pool);
            EXPECT_EQ(kernelThreadId(), block.m_thread_id);
            EXPECT_NE(0, ::pthread_equal(::pthread_self(), block.m_thread));
        });
    }).join();
}

TEST(ThreadCounts, TheFirstBlockOfAThreadStaysItsOwn) {
    std::thread([] {
        ThreadCounts::Attach(5);
        const ThreadCounts* const first = &ThreadCounts::Mine();
        ThreadCounts::Attach(6);
        ThreadCounts::Attach(7, std::make_unique<ThreadCounts>());
        EXPECT_EQ(first, &ThreadCounts::Mine());
        EXPECT_EQ(5, first->m_pool);
        EXPECT_EQ(1u, blocks());
    }).join();
}

TEST(ThreadCounts, ABlockMadeAheadIsTakenAsItIs) {
    auto block = std::make_unique<ThreadCounts>();
    const ThreadCounts* const made = block.get();
    std::thread([&] {
        ThreadCounts::Attach(7, std::move(block));
        EXPECT_EQ(made, &ThreadCounts::Mine());
        EXPECT_EQ(7, made->m_pool);
        countOnce(3);
    }).join();
    EXPECT_EQ(0u, blocks()) << "and goes with its thread";
    EXPECT_EQ(1u, sums(3).pool_calls);
    std::thread([] {
        ThreadCounts::Attach(7, nullptr);
        EXPECT_EQ(0u, blocks());
    }).join();
}

// The rows are of the process. A pool of a number that there is not has no sum of its own.
TEST(ThreadCounts, OfAThreadThatIsNoWorkerOnlyTheRowsStay) {
    for (const int pool : {-1, 64, 1000}) {
        std::thread([pool] {
            ThreadCounts::Attach(pool);
            countOnce(4);
        }).join();
    }
    EXPECT_EQ(3u, sums(4).calls);
    uint64_t served = 0;
    ThreadCounts::ForEachTally([](uint32_t, const ClassTally&) {},
                               [&](int, const PoolTally& tally, uint64_t) {
                                   served += tally.served[static_cast<size_t>(Served::MESSAGE)].Get();
                               });
    EXPECT_EQ(0u, served);
}

TEST(ThreadCounts, AllThatARowCountsStays) {
    std::thread([] {
        ThreadCounts::Attach(63);
        ClassTally& row = ThreadCounts::Mine().m_classes[9];
        row.calls.Add(1);
        row.closed.Add(2);
        row.time_ns.Add(3);
        row.timed.Add(4);
        ThreadCounts::Mine().m_pool_tally.run.Add(77);
        for (Tally& kind : ThreadCounts::Mine().m_pool_tally.served) {
            kind.Increment();
        }
    }).join();
    std::vector<uint64_t> seen(4);
    SpreadValues run;
    uint64_t served = 0;
    ThreadCounts::ForEachTally(
        [&](uint32_t row, const ClassTally& tally) {
            if (row == 9) {
                seen[0] += tally.calls.Get();
                seen[1] += tally.closed.Get();
                seen[2] += tally.time_ns.Get();
                seen[3] += tally.timed.Get();
            }
        },
        [&](int pool, const PoolTally& tally, uint64_t) {
            for (const Tally& kind : tally.served) {
                served += pool == 63 ? kind.Get() : 0;
            }
            tally.run.AddTo(run);
        });
    EXPECT_EQ((std::vector<uint64_t>{1, 2, 3, 4}), seen);
    EXPECT_EQ(77u, run.sum_ns);
    EXPECT_EQ(SERVED_COUNT, served);
}

// What an object of the thread's own does in its destructor, after the block has gone.
struct LateCounter {
    bool used = false;
    ~LateCounter() {
        if (used) {
            ThreadCounts::Attach(7);
            countOnce(3);
            ThreadCounts::Attach(7, std::make_unique<ThreadCounts>());
        }
    }
};
thread_local LateCounter t_late_counter;

TEST(ThreadCounts, AThreadAtItsVeryEndCountsAmongTheOthersAndGetsNoBlockAnyMore) {
    std::thread([] {
        t_late_counter.used = true;  // made first, so it goes last
        ThreadCounts::Attach(7);
        countOnce(3);
    }).join();
    EXPECT_EQ(0u, blocks());
    EXPECT_EQ(2u, sums(3).calls);
    EXPECT_EQ(1u, sums(3).pool_calls);
}

// A thread that counts until it is told to go.
class CountingThread {
public:
    CountingThread(int pool, uint32_t row)
        : m_thread([this, pool, row] {
              ThreadCounts::Attach(pool);
              countOnce(row);
              m_counted.post();
              m_may_go.pend();
          }) {
        m_counted.pend();
    }
    ~CountingThread() {
        m_may_go.post();
        m_thread.join();
    }

private:
    Infra::CSemaphore m_counted{0};
    Infra::CSemaphore m_may_go{0};
    std::thread m_thread;
};

// From the front, the middle and the end of the list of blocks.
TEST(ThreadCounts, ThreadsThatEndInAnyOrderMatchAModel) {
    SeededRandom random;
    std::vector<std::unique_ptr<CountingThread>> living;
    std::vector<uint64_t> expected(4);
    for (int i = 0; i < 200; ++i) {
        if (living.size() < 8 && (living.empty() || random.oneIn(2))) {
            const uint32_t row = random.between(0u, 3u);
            living.push_back(std::make_unique<CountingThread>(7, row));
            ++expected[row];
        } else {
            std::swap(living[random.between(size_t{0}, living.size() - 1)], living.back());
            living.pop_back();
        }
        ASSERT_EQ(living.size(), blocks());
        const uint32_t row = static_cast<uint32_t>(i % 4);
        ASSERT_EQ(expected[row], sums(row).calls);
        ASSERT_EQ(expected[0] + expected[1] + expected[2] + expected[3], sums(row).pool_calls);
    }
}

}  // namespace
}  // namespace Orvex::Testing
