// Tally: a counter with one writer and any number of readers.
#include "Core/count/Tally.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "support/SeededRandom.h"

namespace Orvex::Testing {
namespace {

using Reticor::Tally;

constexpr uint64_t TALLY_MOST = ~uint64_t{0};

TEST(Tally, BeginsAtZeroAndCountsOneByOne) {
    Tally tally;
    EXPECT_EQ(0u, tally.Get());
    tally.Increment();
    EXPECT_EQ(1u, tally.Get());
    tally.Add(0);
    EXPECT_EQ(1u, tally.Get());
    tally.Add(41);
    EXPECT_EQ(42u, tally.Get());
}

TEST(Tally, CarriesBeyond32Bits) {
    Tally tally;
    tally.Add(0xFFFFFFFFu);
    tally.Increment();
    EXPECT_EQ(uint64_t{1} << 32, tally.Get());
}

TEST(Tally, StartsAgainAfterItsLastValueHoweverItIsReached) {
    Tally by_one;
    by_one.Add(TALLY_MOST);
    EXPECT_EQ(TALLY_MOST, by_one.Get());
    by_one.Increment();
    EXPECT_EQ(0u, by_one.Get());
    Tally by_more;
    by_more.Add(TALLY_MOST - 2);
    by_more.Add(10);
    EXPECT_EQ(7u, by_more.Get()) << "differences of two looks stay right";
}

TEST(Tally, RaiseToNeverLowers) {
    Tally tally;
    tally.RaiseTo(0);
    EXPECT_EQ(0u, tally.Get());
    tally.RaiseTo(TALLY_MOST >> 1);
    EXPECT_EQ(TALLY_MOST >> 1, tally.Get());
    tally.RaiseTo(5);
    EXPECT_EQ(TALLY_MOST >> 1, tally.Get());
    tally.RaiseTo(TALLY_MOST);
    EXPECT_EQ(TALLY_MOST, tally.Get()) << "the highest bit is a value as any other, not a sign";
}

TEST(Tally, AnyMixOfCallsIsThatOfAPlainNumber) {
    SeededRandom random;
    Tally tally;
    uint64_t plain = 0;
    for (int i = 0; i < 20000; ++i) {
        switch (random.between(0, 3)) {
            case 0:
                tally.Increment();
                ++plain;
                break;
            case 1: {
                const uint64_t more = random.between<uint64_t>(0, TALLY_MOST) >> random.between(0, 63);
                tally.Add(more);
                plain += more;
                break;
            }
            default: {
                const uint64_t to = random.between<uint64_t>(0, TALLY_MOST) >> random.between(0, 63);
                tally.RaiseTo(to);
                plain = to > plain ? to : plain;
            }
        }
        ASSERT_EQ(plain, tally.Get()) << "after call " << i;
    }
}

// Two words that follow each other: a reader that met half a value would see the second one ahead.
TEST(Tally, ReadersSeeWholeValuesThatRiseWhileItIsWritten) {
    constexpr uint64_t STEP = (uint64_t{1} << 32) + 1;  // both halves of the word change with each one
    constexpr uint64_t STEPS = 200000;
    Tally tally;
    std::atomic<bool> wrong{false};
    std::vector<std::thread> readers;
    for (int i = 0; i < 2; ++i) {
        readers.emplace_back([&] {
            for (uint64_t before = 0, now = 0; now < STEPS * STEP; before = now) {
                now = tally.Get();
                wrong = wrong || now < before || now % STEP != 0;
                std::this_thread::yield();
            }
        });
    }
    for (uint64_t i = 0; i < STEPS; ++i) {
        tally.Add(STEP);
    }
    for (std::thread& reader : readers) {
        reader.join();
    }
    EXPECT_FALSE(wrong);
    EXPECT_EQ(STEPS * STEP, tally.Get());
}

TEST(Tally, IncrementIsSeenByOtherThreadsAsItIsCounted) {
    constexpr uint64_t TIMES = 200000;
    Tally tally;
    std::thread writer([&] {
        for (uint64_t i = 0; i < TIMES; ++i) {
            tally.Increment();
        }
    });
    bool fell = false;
    for (uint64_t before = 0, now = 0; now < TIMES; before = now) {
        now = tally.Get();
        fell = fell || now < before;
        std::this_thread::yield();
    }
    writer.join();
    EXPECT_FALSE(fell);
}

}  // namespace
}  // namespace Orvex::Testing
