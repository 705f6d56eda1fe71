// UniqueFunction: what it holds, and when that goes.
#include <Reticor/kit/UniqueFunction.h>

#include <array>
#include <memory>

#include <gtest/gtest.h>

#include "support/kit/Live.h"
#include "support/socket/Allocations.h"

using namespace Orvex::Testing;
using Orvex::Reticor::Kit::UniqueFunction;

TEST(UniqueFunction, AllocatesNothingForFortyEightBytes) {
    std::array<char, 48> ballast{};
    ballast[47] = 7;
    const size_t before = allocationCount();
    UniqueFunction<int()> first = [ballast] { return ballast[47]; };
    UniqueFunction<int()> second = std::move(first);
    EXPECT_EQ(7, second());
    EXPECT_EQ(before, allocationCount());
    EXPECT_FALSE(first);
}

TEST(UniqueFunction, HoldsMoreThanThatOnTheHeap) {
    std::array<char, 49> ballast{};
    ballast[48] = 8;
    UniqueFunction<int()> first = [ballast] { return ballast[48]; };
    UniqueFunction<int()> second = std::move(first);
    EXPECT_EQ(8, second());
    const NoMemory none;
    UniqueFunction<int()> third = [ballast] { return ballast[48]; };
    EXPECT_FALSE(third);
}

TEST(UniqueFunction, TakesWhatCannotBeCopied) {
    UniqueFunction<int(int)> add = [two = std::make_unique<int>(2)](int n) { return *two + n; };
    EXPECT_EQ(5, add(3));
}

TEST(UniqueFunction, DestroysWhatItHoldsOnce) {
    Live live;
    {
        UniqueFunction<void()> first = [token = live.token()]() mutable { token.use(); };
        EXPECT_EQ(1, live.count());
        UniqueFunction<void()> second = std::move(first);
        EXPECT_EQ(1, live.count());
        second = [token = live.token()]() mutable { token.use(); };
        EXPECT_EQ(1, live.count());
        second();
        second = nullptr;
        EXPECT_EQ(0, live.count());
        first = [token = live.token(), ballast = std::array<char, 100>()] { static_cast<void>(ballast); };
        EXPECT_EQ(1, live.count());
    }
    EXPECT_EQ(0, live.count());
    EXPECT_EQ(1, live.used());
}
