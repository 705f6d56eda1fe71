// AlarmSpan: beginnings, ends, and what is too short to be an end.
#include "Core/count/AlarmSpan.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

namespace Orvex::Testing {
namespace {

using Reticor::AlarmSpan;

constexpr uint64_t HOLD = AlarmSpan::HOLD_US;

void expectSpan(const AlarmSpan& span, bool lasts, uint64_t since_us, uint64_t ended_us, uint64_t times) {
    const AlarmSpan::Facts facts = span.Read();
    EXPECT_EQ(lasts, facts.lasts);
    EXPECT_EQ(since_us, facts.since_us);
    EXPECT_EQ(ended_us, facts.ended_us);
    EXPECT_EQ(times, facts.times);
}

TEST(AlarmSpan, NeverWasAnythingAtTheStart) {
    AlarmSpan span;
    expectSpan(span, false, 0, 0, 0);
    EXPECT_FALSE(span.Note(false, 5000));
    expectSpan(span, false, 0, 0, 0);
}

TEST(AlarmSpan, BeginsOnceAndEndsOnce) {
    AlarmSpan span;
    EXPECT_TRUE(span.Note(true, 5000, 3000));
    EXPECT_FALSE(span.Note(true, 6000, 1000));
    expectSpan(span, true, 3000, 0, 1);
    EXPECT_FALSE(span.Note(false, 7000));
    EXPECT_FALSE(span.Note(false, 8000));
    expectSpan(span, false, 3000, 7000, 1);
}

TEST(AlarmSpan, WhatComesBackSoonHasNotEnded) {
    AlarmSpan span;
    span.Note(true, 5000);
    span.Note(false, 7000);
    EXPECT_FALSE(span.Note(true, 7000 + HOLD - 1));
    expectSpan(span, true, 5000, 0, 1);
    span.Note(false, 9000 + HOLD);
    expectSpan(span, false, 5000, 9000 + HOLD, 1);
}

// Two threads that have read the clock can note in the other order.
TEST(AlarmSpan, WhatComesBackBeforeItsEndHasNotEnded) {
    AlarmSpan span;
    span.Note(true, 5000);
    span.Note(false, 7000);
    EXPECT_FALSE(span.Note(true, 6999));
    expectSpan(span, true, 5000, 0, 1);
}

TEST(AlarmSpan, WhatComesBackLaterIsAnotherTime) {
    AlarmSpan span;
    span.Note(true, 5000);
    span.Note(false, 7000);
    EXPECT_TRUE(span.Note(true, 7000 + HOLD));
    expectSpan(span, true, 7000 + HOLD, 0, 2);
}

TEST(AlarmSpan, ManyThatNoteTheSameBeginItOnce) {
    AlarmSpan span;
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&] {
            for (int round = 0; round < 1000; ++round) {
                span.Note(true, 5000);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    expectSpan(span, true, 5000, 0, 1);
}

}  // namespace
}  // namespace Orvex::Testing
