// PassTurn: one pass at a time, and what is left to it.
#include "Tool/file/PassTurn.h"

#include <gtest/gtest.h>

namespace Orvex::Reticor {
namespace {

using Begin = PassTurn::Begin;
using Next = PassTurn::Next;

class PassTurns : public ::testing::Test {
protected:
    PassTurn turn;
    PassTurn::Wanted wanted;
};

TEST_F(PassTurns, ASecondPassIsRefusedUntilTheFirstIsOver) {
    EXPECT_EQ(Begin::uncounted, turn.begin_write(0));
    EXPECT_EQ(Begin::refused, turn.begin_write(1));
    EXPECT_FALSE(turn.begin_read());
    EXPECT_EQ(Next::round, turn.next_round(wanted, 0)) << "it loads for the one that was refused";
    EXPECT_TRUE(wanted.load);
    EXPECT_FALSE(wanted.flush);
    EXPECT_EQ(Next::over, turn.next_round(wanted, 1));
    EXPECT_TRUE(turn.begin_read());
}

TEST_F(PassTurns, ATaskThatWillNotComeAgainMakesTheRunningPassLookOnceMore) {
    EXPECT_TRUE(turn.want_write()) << "nobody is at it";
    EXPECT_EQ(Begin::uncounted, turn.begin_write(0));
    EXPECT_FALSE(turn.want_write());
    EXPECT_EQ(Next::round, turn.next_round(wanted, 0));
    EXPECT_FALSE(wanted.load || wanted.flush);
    EXPECT_EQ(Begin::refused, turn.begin_write(1)) << "this one comes again";
    EXPECT_EQ(Next::over, turn.next_round(wanted, 1));
}

TEST_F(PassTurns, WhatIsToBeReadAheadNeedsATaskUnlessAPassRuns) {
    EXPECT_TRUE(turn.want_load());
    EXPECT_TRUE(turn.begin_read());
    EXPECT_EQ(Next::round, turn.next_round(wanted, 0));
    EXPECT_FALSE(turn.want_load());
    EXPECT_EQ(Next::round, turn.next_round(wanted, 1)) << "the pass does it";
    EXPECT_TRUE(wanted.load);
    EXPECT_EQ(Next::over, turn.next_round(wanted, 2));
    EXPECT_TRUE(turn.want_load());
    EXPECT_EQ(Begin::uncounted, turn.begin_write(0));
    EXPECT_EQ(Next::over, turn.next_round(wanted, 0)) << "its own task does it";
}

TEST_F(PassTurns, OneFlushTaskIsEnough) {
    EXPECT_TRUE(turn.want_flush());
    EXPECT_FALSE(turn.want_flush());
    EXPECT_EQ(Begin::counted, turn.begin_write(1));
    EXPECT_FALSE(turn.want_flush()) << "the pass does it";
    EXPECT_EQ(Next::round, turn.next_round(wanted, 0));
    EXPECT_TRUE(wanted.flush);
    EXPECT_EQ(Next::over, turn.next_round(wanted, 1));
    EXPECT_TRUE(turn.want_flush());
}

TEST_F(PassTurns, AFlushTaskThatFailedCountsAgain) {
    EXPECT_TRUE(turn.want_flush());
    const Begin begun = turn.begin_write(1);
    turn.count_again(begun);
    EXPECT_FALSE(turn.end({}));
    EXPECT_FALSE(turn.want_flush());
    EXPECT_EQ(Begin::counted, turn.begin_write(1));
}

TEST_F(PassTurns, APassThatDidNotEndTellsWhetherSomebodyWaits) {
    EXPECT_TRUE(turn.begin_read());
    EXPECT_EQ(Next::round, turn.next_round(wanted, 0));
    EXPECT_TRUE(turn.end(wanted)) << "the load is not made";
    EXPECT_EQ(Begin::uncounted, turn.begin_write(0));
    EXPECT_EQ(Next::round, turn.next_round(wanted, 0));
    EXPECT_TRUE(wanted.load) << "the next pass makes it";
    EXPECT_FALSE(turn.end({}));
    turn.begin_read();
    turn.forget_load();
    EXPECT_FALSE(turn.end({}));
}

TEST_F(PassTurns, AfterSixteenRoundsATaskGoesOn) {
    EXPECT_EQ(Begin::uncounted, turn.begin_write(0));
    for (int round = 0; round < 16; ++round) {
        turn.want_write();
        EXPECT_EQ(Next::round, turn.next_round(wanted, round));
    }
    EXPECT_FALSE(turn.begin_read());
    EXPECT_EQ(Next::task, turn.next_round(wanted, 16));
    EXPECT_TRUE(turn.begin_read());
}

}  // namespace
}  // namespace Orvex::Reticor
