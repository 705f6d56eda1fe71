// BurstBook: what comes at once, and for how long that is known.
#include "Tool/judge/BurstBook.h"

#include <gtest/gtest.h>

namespace Orvex::Testing {

using namespace Reticor;

namespace {

constexpr uint64_t BOOK_US = 1000000000;

}  // namespace

TEST(BurstBook, KnowsTheMostThatCameAtOnce) {
    BurstBook book;
    EXPECT_FALSE(book.on());
    book.watch(BOOK_US);
    for (uint64_t i = 0; i < 20; ++i) {
        book.note(BOOK_US + i * 100000, 1000);
    }
    EXPECT_EQ(1000U, book.largest().bytes);
    const uint64_t burst_us = BOOK_US + 3000000;
    for (uint64_t i = 0; i <= 4; ++i) {
        book.note(burst_us + i * 5000, 420000);
    }
    book.note(burst_us + BurstBook::BURST_US, 1000);
    EXPECT_EQ(2100000U, book.largest().bytes);
    EXPECT_EQ(20000U, book.largest().took_us);
}

TEST(BurstBook, DoesNotCutWhatCameWithinAMoment) {
    for (uint64_t begin_us = 0; begin_us < BurstBook::BURST_US; begin_us += 500) {
        BurstBook book;
        book.watch(BOOK_US);
        book.note(BOOK_US + begin_us, 1000);
        book.note(BOOK_US + begin_us + BurstBook::BURST_US / 2, 1000);
        EXPECT_EQ(2000U, book.largest().bytes) << begin_us;
    }
}

TEST(BurstBook, ForgetsItAfterTwoPeriods) {
    BurstBook book;
    book.watch(BOOK_US);
    book.note(BOOK_US, 5000);
    book.note(BOOK_US + BurstBook::PERIOD_US, 10);
    EXPECT_EQ(5000U, book.largest().bytes);
    book.note(BOOK_US + 2 * BurstBook::PERIOD_US, 20);
    EXPECT_EQ(20U, book.largest().bytes);
    book.note(BOOK_US + 5 * BurstBook::PERIOD_US, 5);
    EXPECT_EQ(5U, book.largest().bytes);
}

TEST(BurstBook, EndsWhenNobodyLooksAnyMore) {
    BurstBook book;
    book.watch(BOOK_US);
    book.note(BOOK_US, 5000);
    book.watch(BOOK_US + 1);
    EXPECT_EQ(5000U, book.largest().bytes) << "another look changes nothing";
    book.note(BOOK_US + BurstBook::STAYS_US, 10);
    EXPECT_TRUE(book.on());
    book.note(BOOK_US + 1 + BurstBook::STAYS_US, 10);
    EXPECT_FALSE(book.on());
    book.watch(BOOK_US + 100000000);
    EXPECT_EQ(0U, book.largest().bytes);
}

}  // namespace Orvex::Testing
