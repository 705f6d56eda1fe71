// ThreadCounts and ClassRows: what threads count for themselves, and what of it is left when they end.
#include "Core/count/ThreadCounts.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

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

TEST(SpreadTally, CountsByPowersOfTwo) {
    SpreadTally tally;
    for (const uint64_t ns : {uint64_t{0}, uint64_t{1}, uint64_t{1023}, uint64_t{1024}, ~uint64_t{0} >> 4}) {
        tally.Add(ns);
    }
    SpreadValues values;
    tally.AddTo(values);
    EXPECT_EQ(1u, values.count[0]);
    EXPECT_EQ(1u, values.count[1]);
    EXPECT_EQ(1u, values.count[10]);
    EXPECT_EQ(1u, values.count[11]);
    EXPECT_EQ(1u, values.count[SPREAD_PLACES - 1]);
    EXPECT_EQ(~uint64_t{0} >> 4, values.max_ns);
}

// ---- classes -------------------------------------------------------------------------------------------

const void* place(size_t number) {
    return reinterpret_cast<const void*>(0x100000 + number * 8);
}

TEST(ClassRows, ClassesOfOneNameShareARow) {
    EXPECT_EQ(ClassRows::NOT_CALLED, ClassRows::Find(place(1)));
    const uint32_t row = ClassRows::Enter(place(1), "A");
    EXPECT_EQ(row, ClassRows::Enter(place(2), "A"));
    EXPECT_NE(row, ClassRows::Enter(place(3), "B"));
    EXPECT_EQ(row, ClassRows::Find(place(2)));
    EXPECT_STREQ("A", ClassRows::Name(row));
    EXPECT_STREQ("not called yet", ClassRows::Name(ClassRows::NOT_CALLED));
}

TEST(ClassRows, NamesAreCopied) {
    std::string name = "Plugin";
    const uint32_t row = ClassRows::Enter(place(1), name.c_str());
    name.assign("xxxxxx");
    EXPECT_STREQ("Plugin", ClassRows::Name(row));
}

TEST(ClassRows, TheClassesForWhichThereIsNoRowShareTheLastOne) {
    for (size_t i = 1; i < ClassRows::OTHERS; ++i) {
        EXPECT_EQ(i, ClassRows::Enter(place(i), std::to_string(i).c_str()));
    }
    for (size_t i = ClassRows::OTHERS; i < 5000; ++i) {
        ASSERT_EQ(ClassRows::OTHERS, ClassRows::Enter(place(i), std::to_string(i).c_str()));
    }
    EXPECT_EQ(200u, ClassRows::Find(place(200))) << "and those before them are found";
    EXPECT_STREQ("other classes", ClassRows::Name(ClassRows::OTHERS));
}

}  // namespace
}  // namespace Orvex::Testing
