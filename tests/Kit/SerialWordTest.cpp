// SerialWord: who holds it, and that no bit is lost.
#include "Kit/call/SerialWord.h"

#include <atomic>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace Orvex::Testing {
namespace {

using Reticor::Kit::SerialWord;

constexpr uint32_t ONE = SerialWord::FIRST_BIT;
constexpr uint32_t TWO = ONE << 1;

TEST(SerialWord, IsHeldByOneAtATime) {
    SerialWord word(false);
    EXPECT_TRUE(word.enter_free());
    EXPECT_FALSE(word.enter_free());
    EXPECT_FALSE(word.enter(0));
    EXPECT_EQ(0U, word.leave());
    EXPECT_TRUE(word.enter(0));
    EXPECT_EQ(0U, word.leave());
}

TEST(SerialWord, MayBeHeldFromTheStart) {
    SerialWord word(true);
    EXPECT_FALSE(word.enter(0));
    EXPECT_EQ(0U, word.leave());
    EXPECT_TRUE(word.enter_free());
}

TEST(SerialWord, HolderGetsTheBitsOfThoseWhoFoundItHeldAndHoldsOn) {
    SerialWord word(false);
    ASSERT_TRUE(word.enter_free());
    EXPECT_FALSE(word.enter(ONE));
    EXPECT_FALSE(word.enter(TWO));
    EXPECT_EQ(ONE | TWO, word.leave());
    EXPECT_FALSE(word.enter(0)) << "it is still held";
    EXPECT_EQ(0U, word.leave());
}

TEST(SerialWord, WhoeverEntersWithBitsServesThemItself) {
    SerialWord word(false);
    EXPECT_TRUE(word.enter(TWO));
    EXPECT_EQ(TWO, word.leave());
    EXPECT_EQ(0U, word.leave());
}

TEST(SerialWord, IsNotTakenLightlyWhileBitsAreSet) {
    SerialWord word(false);
    EXPECT_TRUE(word.signal(ONE));
    EXPECT_FALSE(word.enter_free()) << "it would pass over the bit";
    EXPECT_TRUE(word.enter(0));
    EXPECT_EQ(ONE | SerialWord::RUNG, word.leave());
    EXPECT_EQ(0U, word.leave());
    EXPECT_TRUE(word.enter_free());
}

TEST(SerialWord, RingsOnceUntilTheBellIsAnswered) {
    SerialWord word(false);
    EXPECT_TRUE(word.signal(ONE));
    EXPECT_FALSE(word.signal(TWO)) << "the bell has been rung";
    EXPECT_TRUE(word.enter(0));
    EXPECT_EQ(ONE | TWO | SerialWord::RUNG, word.leave());
    EXPECT_EQ(0U, word.leave());
    EXPECT_TRUE(word.signal(ONE)) << "it is to be rung anew";
}

TEST(SerialWord, DoesNotRingForAHolder) {
    SerialWord word(true);
    EXPECT_FALSE(word.signal(ONE));
    EXPECT_EQ(ONE | SerialWord::RUNG, word.leave());
    EXPECT_EQ(0U, word.leave());
    EXPECT_TRUE(word.signal(ONE));
}

TEST(SerialWord, OfAThreadThatEndedKeepsItsBitsForTheNext) {
    SerialWord word(true);
    EXPECT_FALSE(word.signal(ONE));
    word.abandon();
    EXPECT_TRUE(word.signal(TWO)) << "nobody else would serve them";
    EXPECT_TRUE(word.enter(0));
    EXPECT_EQ(ONE | TWO | SerialWord::RUNG, word.leave());
}

// Each thread leaves a bit of its own; whoever holds the word counts it. A bell is answered by the same
// thread later, as a message would.
TEST(SerialWord, LosesNothingBetweenThreadsAndKeepsHoldersApart) {
    constexpr int THREADS = 4;
    constexpr int ROUNDS = 20000;
    SerialWord word(false);
    int inside = 0;  // no atomic: that is the point
    int overlaps = 0;
    std::vector<std::atomic<int>> owed(THREADS);
    std::atomic<int> served{0};
    const auto serve_all = [&] {
        for (;;) {
            overlaps += ++inside != 1 ? 1 : 0;
            for (std::atomic<int>& each : owed) {
                served += each.exchange(0);
            }
            --inside;
            if (word.leave() == 0) {
                return;
            }
        }
    };
    std::vector<std::thread> threads;
    for (int i = 0; i < THREADS; ++i) {
        threads.emplace_back([&, i] {
            for (int round = 0; round < ROUNDS; ++round) {
                ++owed[static_cast<size_t>(i)];
                const uint32_t bit = ONE << i;
                if (round % 2 == 0 ? word.enter(bit) : word.signal(bit) && word.enter(0)) {
                    serve_all();
                }
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(THREADS * ROUNDS, served);
    EXPECT_EQ(0, overlaps);
    EXPECT_TRUE(word.enter_free()) << "nothing is left in it";
}

}  // namespace
}  // namespace Orvex::Testing
