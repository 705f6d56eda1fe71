// UniqueFunction: what it holds, and when that goes.
#include <Reticor/kit/UniqueFunction.h>

#include <array>
#include <cstdint>
#include <memory>
#include <type_traits>
#include <vector>

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

TEST(UniqueFunction, LeavesWhatItCannotTakeWithoutMemory) {
    Live live;
    auto large = [token = live.token(), ballast = std::array<char, 100>()]() mutable {
        static_cast<void>(ballast);
        token.use();
    };
    {
        const NoMemory none;
        const UniqueFunction<void()> call = std::move(large);
        EXPECT_FALSE(call);
    }
    EXPECT_EQ(1, live.count());
    large();
    EXPECT_EQ(1, live.used());
}

namespace {

/// A callable of one byte more or less than there is room for, or that moves in another way.
template <size_t SIZE, bool NOTHROW>
struct Callable {
    Callable() = default;
    Callable(Callable&&) noexcept(NOTHROW) {}
    int operator()() const { return static_cast<int>(SIZE); }
    char ballast[SIZE] = {};
};

struct alignas(16) Aligned {
    int operator()() const { return reinterpret_cast<uintptr_t>(this) % 16 == 0 ? 1 : 0; }
};

template <typename F>
size_t allocations_to_hold(F callable, int expected) {
    const size_t before = allocationCount();
    UniqueFunction<int()> first = std::move(callable);
    UniqueFunction<int()> second;
    second = std::move(first);
    EXPECT_EQ(expected, second());
    return allocationCount() - before;
}

}  // namespace

TEST(UniqueFunction, HoldsInItselfWhatIsSmallAndMovesWithoutAnException) {
    EXPECT_EQ(0U, allocations_to_hold(Callable<48, true>(), 48));
    EXPECT_EQ(1U, allocations_to_hold(Callable<49, true>(), 49));
    EXPECT_EQ(1U, allocations_to_hold(Callable<8, false>(), 8));
}

TEST(UniqueFunction, KeepsTheAlignmentOfWhatItHolds) {
    std::vector<UniqueFunction<int()>> calls;
    for (int i = 0; i < 8; ++i) {
        calls.emplace_back(Aligned());
    }
    for (UniqueFunction<int()>& call : calls) {
        EXPECT_EQ(1, call());
    }
}

TEST(UniqueFunction, EmptyOnesAreFalseAndCanBeMoved) {
    UniqueFunction<void()> empty;
    UniqueFunction<void()> null = nullptr;
    EXPECT_FALSE(empty);
    EXPECT_FALSE(null);
    UniqueFunction<void()> moved = std::move(empty);
    EXPECT_FALSE(moved);
    Live live;
    UniqueFunction<void()> held = [token = live.token()] {};
    held = std::move(null);
    EXPECT_FALSE(held);
    EXPECT_EQ(0, live.count());
}

// Whatever its end looks at sees the new one in place.
TEST(UniqueFunction, WhatWasHeldBeforeIsDestroyedLast) {
    struct LooksAround {
        LooksAround(UniqueFunction<int()>& at, int& seen) : place(&at), result(seen) {}
        LooksAround(LooksAround&& other) noexcept
            : place(std::exchange(other.place, nullptr)), result(other.result) {}
        LooksAround& operator=(LooksAround&&) = delete;
        ~LooksAround() {
            if (place != nullptr && *place) {
                result = (*place)();
            }
        }
        UniqueFunction<int()>* place;
        int& result;
    };
    int seen = 0;
    UniqueFunction<int()> call;
    call = [last = LooksAround(call, seen)] { return 1; };
    call = [] { return 2; };
    EXPECT_EQ(2, seen);
}

TEST(UniqueFunction, AssignedToItselfKeepsWhatItHolds) {
    Live live;
    UniqueFunction<void()> call = [token = live.token()]() mutable { token.use(); };
    UniqueFunction<void()>& same = call;
    call = std::move(same);
    ASSERT_TRUE(call);
    call();
    EXPECT_EQ(1, live.used());
    EXPECT_EQ(1, live.count());
}

TEST(UniqueFunction, PassesReferencesAndThingsThatOnlyMove) {
    UniqueFunction<std::unique_ptr<int>(std::unique_ptr<int>, int&)> both = [](std::unique_ptr<int> in,
                                                                               int& sum) {
        sum += *in;
        return in;
    };
    int sum = 1;
    const std::unique_ptr<int> back = both(std::make_unique<int>(41), sum);
    EXPECT_EQ(42, sum);
    EXPECT_EQ(41, *back);
}

TEST(UniqueFunction, IsMadeOfNothingElseThanAFittingCall) {
    using Takes = UniqueFunction<void(int)>;
    const auto wrong = [](int*) {};
    EXPECT_FALSE((std::is_constructible_v<Takes, decltype(wrong)>));
    EXPECT_FALSE(std::is_copy_constructible_v<Takes>);
    EXPECT_FALSE(std::is_copy_assignable_v<Takes>);
    EXPECT_TRUE(std::is_nothrow_move_constructible_v<Takes>);
}
