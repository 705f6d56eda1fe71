// CountedLine, Forever, ErrorText: small things that the library's failures and its static objects rest on.
#include <Infra/CountedLine.h>
#include <Infra/Forever.h>

#include <gtest/gtest.h>
#include <string.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "ErrorText.h"
#include "support/HandClock.h"
#include "support/SeededRandom.h"

namespace Orvex::Infra {
namespace {

using namespace Testing;

INFRA_CONSTINIT CountedLine g_counted_before_main;
const uint64_t g_first_count_before_main = g_counted_before_main.Count();

TEST(CountedLine, TheFirstOneIsToldAtOnce) {
    EXPECT_EQ(1u, g_first_count_before_main);
    CountedLine line;
    EXPECT_EQ(1u, line.Count());
}

TEST(CountedLine, ThoseOfTheNextSecondAreToldWithTheFirstAfterIt) {
    HandClock clock;
    CountedLine line;
    line.Count();
    EXPECT_EQ(0u, line.Count());
    clock.advanceUs(999999);
    EXPECT_EQ(0u, line.Count());
    clock.advanceUs(1);
    EXPECT_EQ(3u, line.Count());
    EXPECT_EQ(0u, line.Count());
    clock.advanceUs(5000000);
    EXPECT_EQ(2u, line.Count()) << "a long rest is one second like any other";
}

TEST(CountedLine, EachIsToldOnceAndNoSecondHasTwoLines) {
    SeededRandom random;
    HandClock clock;
    CountedLine line;
    uint64_t counted = 0;
    uint64_t told = 0;
    uint64_t last_told_us = 0;
    for (int i = 0; i < 5000; ++i) {
        clock.advanceUs(random.between<int64_t>(0, 100000));
        ++counted;
        if (const uint64_t since = line.Count()) {
            told += since;
            EXPECT_EQ(counted, told);
            EXPECT_GE(clock.nowUs() - last_told_us, 1000000u);
            last_told_us = clock.nowUs();
        } else {
            EXPECT_LT(clock.nowUs() - last_told_us, 1000000u);
        }
    }
}

// Those that come at the same time may be told by either of two threads, but by one of them.
TEST(CountedLine, ThreadsTogetherTellEachOnce) {
    constexpr int THREADS = 4;
    constexpr uint64_t EACH = 20000;
    CountedLine line;
    std::atomic<uint64_t> told{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < THREADS; ++i) {
        threads.emplace_back([&line, &told] {
            for (uint64_t count = 0; count < EACH; ++count) {
                told += line.Count();
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    // What is not told yet comes with the next line.
    HandClock clock;
    clock.advanceUs(1000000);
    EXPECT_EQ(THREADS * EACH + 1, told + line.Count());
}

struct Witness {
    explicit Witness(int* life, std::unique_ptr<int> gift) : m_life(life), m_gift(std::move(gift)) {
        *m_life += *m_gift;
    }
    ~Witness() { *m_life = -1; }
    int* m_life;
    std::unique_ptr<int> m_gift;
    alignas(64) char m_line[64] = {};
};

TEST(Forever, MakesItsObjectInItsOwnRoomAndNeverDestroysIt) {
    static int life = 0;
    std::unique_ptr<int> gift;
    {
        Forever<Witness> room;
        EXPECT_EQ(0, life);
        Witness& made = room.make(&life, std::make_unique<int>(7));
        EXPECT_EQ(7, life);
        EXPECT_EQ(room.place(), &made);
        EXPECT_EQ(static_cast<void*>(&room), static_cast<void*>(&made));
        EXPECT_EQ(0u, reinterpret_cast<uintptr_t>(&made) % 64);
        gift = std::move(made.m_gift);
    }
    EXPECT_EQ(7, life) << "its end is nobody's";
}

TEST(ErrorText, IsTheSystemsTextForEveryNumber) {
    for (int error = 0; error < 140; ++error) {
        EXPECT_STREQ(::strerror(error), Detail::ErrorText(error).text()) << error;
    }
    EXPECT_STREQ("Unknown error 123456", Detail::ErrorText(123456).text());
    EXPECT_STREQ("Unknown error -5", Detail::ErrorText(-5).text());
}

TEST(ErrorText, IsItsOwnWhoeverAsksMeanwhile) {
    const Detail::ErrorText first(700001);
    const Detail::ErrorText second(700002);
    std::thread([] { EXPECT_STREQ("Unknown error 700003", Detail::ErrorText(700003).text()); }).join();
    EXPECT_STREQ("Unknown error 700001", first.text());
    EXPECT_STREQ("Unknown error 700002", second.text());
}

}  // namespace
}  // namespace Orvex::Infra
