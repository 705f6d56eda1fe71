// KernelLag: the rate out of times in which the socket was full, and the bound.
#include "Tool/step/KernelLag.h"

#include <gtest/gtest.h>

namespace Orvex::Testing {

using namespace Reticor;

namespace {

constexpr unsigned KERNEL_LAG_MS = 500;
constexpr uint64_t TURN_US = 40000;
constexpr uint64_t TURN_BYTES = 8000;  // 200000 bytes in a second

class KernelLagOfALink : public ::testing::Test {
protected:
    KernelLagOfALink() {
        lag.set_limit(KERNEL_LAG_MS);
        lag.note_full(now_us, 0, 0);
    }
    bool turn(uint64_t bytes) {
        const uint64_t before = sent;
        sent += bytes;
        now_us += TURN_US;
        return lag.note_full(now_us, before, sent);
    }

    KernelLag lag;
    uint64_t now_us = 1000000;
    uint64_t sent = 0;
};

TEST_F(KernelLagOfALink, TheBoundIsTheLeastUntilTheRateIsKnown) {
    EXPECT_EQ(KernelLag::LEAST_BYTES, lag.bound());
    EXPECT_FALSE(turn(TURN_BYTES));
    EXPECT_EQ(0U, lag.rate());
}

TEST_F(KernelLagOfALink, TheRateIsWhatAFullSocketTakes) {
    bool changed = false;
    for (uint64_t us = 0; us < KernelLag::WINDOW_US; us += TURN_US) {
        changed = turn(TURN_BYTES);
    }
    EXPECT_TRUE(changed);
    EXPECT_EQ(200000U, lag.rate());
    EXPECT_EQ(100000U, lag.bound());
    EXPECT_FALSE(turn(TURN_BYTES)) << "no other bound";
}

TEST_F(KernelLagOfALink, WhatASocketTakesThatWasNotFullDoesNotCount) {
    for (int i = 0; i < 20; ++i) {
        sent += 1000000;  // of turns that left room
        turn(TURN_BYTES);
    }
    EXPECT_EQ(0U, lag.rate());
}

TEST_F(KernelLagOfALink, ATimeInWhichNothingIsTakenCounts) {
    for (uint64_t us = 0; us < 2 * KernelLag::WINDOW_US; us += 2 * TURN_US) {
        turn(0);
        turn(TURN_BYTES);
    }
    EXPECT_GE(lag.rate(), 80000U);
    EXPECT_LE(lag.rate(), 120000U) << "half of what it is without such times";
}

TEST_F(KernelLagOfALink, AnotherSocketIsAnotherLink) {
    for (int i = 0; i < 20; ++i) {
        turn(TURN_BYTES);
    }
    lag.forget();
    EXPECT_EQ(0U, lag.rate());
    EXPECT_EQ(KernelLag::LEAST_BYTES, lag.bound());
}

TEST_F(KernelLagOfALink, SwitchedOffItIsTheSystemsBound) {
    lag.set_limit(0);
    EXPECT_FALSE(lag.on());
    EXPECT_EQ(0U, lag.bound());
}

}  // namespace

}  // namespace Orvex::Testing
