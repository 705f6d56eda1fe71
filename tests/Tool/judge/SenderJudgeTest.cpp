// SenderJudge: each rule at its bounds, and when a verdict changes.
#include "Tool/judge/SenderJudge.h"

#include <gtest/gtest.h>

namespace Orvex::Testing {

using namespace Reticor;

namespace {

constexpr uint64_t JUDGED_SECOND_US = 1000000;
constexpr uint64_t JUDGED_WINDOW_US = 10 * JUDGED_SECOND_US;
constexpr uint64_t STREAM_RATE = 500000;  // bytes in a second: 4 Mbit/s

/// What happens in a second, and how it stands after it.
struct JudgedSecond {
    uint64_t produced = STREAM_RATE;
    uint64_t taken = STREAM_RATE;
    uint64_t blocked_us = 0;
    uint64_t busy_us = 0;
    uint64_t closed_us = 0;
    uint32_t segments = 100;
    uint32_t retransmitted = 0;
    uint32_t unacked = 0;
    uint64_t in_kernel = 0;
    uint32_t window = 65536;
    uint64_t backlog = 0;
};

class SenderJudgeOfASender : public ::testing::Test {
protected:
    SenderJudgeOfASender() {
        reading.now_us = JUDGED_SECOND_US;
        reading.joined = true;
        reading.tcp.known = reading.tcp.limits_known = reading.tcp.window_known = true;
        judge.add(reading, JUDGED_WINDOW_US);
    }

    void pass(const JudgedSecond& second, int times = 1) {
        for (int i = 0; i < times; ++i) {
            reading.now_us += JUDGED_SECOND_US;
            reading.produced += second.produced;
            reading.written += second.taken;
            reading.blocked_us += second.blocked_us;
            reading.backlog = second.backlog;
            reading.tcp.acked += reading.tcp.known ? second.taken : 0;
            reading.tcp.busy_us += second.busy_us;
            reading.tcp.closed_us += second.closed_us;
            reading.tcp.segments += second.segments;
            reading.tcp.retransmitted += second.retransmitted;
            reading.tcp.unacked = second.unacked;
            reading.tcp.under_way = second.unacked != 0 ? second.in_kernel / 2 : 0;
            reading.tcp.unsent = static_cast<uint32_t>(second.in_kernel - reading.tcp.under_way);
            reading.tcp.window = second.window;
            judge.add(reading, JUDGED_WINDOW_US);
        }
    }
    SenderVerdictKind after(const JudgedSecond& second) {
        pass(second, 3);
        return judge.kind();
    }

    SenderJudge judge;
    SenderReading reading;
};

// One that does not keep up, and neither stalls nor bursts.
JudgedSecond slowSecond() {
    JudgedSecond second;
    second.taken = 150000;
    second.blocked_us = JUDGED_SECOND_US;
    second.busy_us = JUDGED_SECOND_US;
    second.in_kernel = 400000;
    second.unacked = 10;
    return second;
}

}  // namespace

TEST_F(SenderJudgeOfASender, WhoeverIsSeldomBlockedAndHasLittleInTheKernelKeepsUp) {
    JudgedSecond second = slowSecond();
    second.blocked_us = JUDGED_SECOND_US / 20 - 1;
    second.in_kernel = STREAM_RATE / 4;
    second.retransmitted = 3;
    EXPECT_EQ(SenderVerdictKind::KEEPS_UP, after(second));
    second.in_kernel = STREAM_RATE / 4 + 1;
    EXPECT_EQ(SenderVerdictKind::NETWORK, after(second));
    second.in_kernel = 0;
    EXPECT_EQ(SenderVerdictKind::KEEPS_UP, after(second));
    second.blocked_us = JUDGED_SECOND_US / 20;
    EXPECT_EQ(SenderVerdictKind::NETWORK, after(second));
}

TEST_F(SenderJudgeOfASender, AThinStreamMayHaveMoreInTheKernel) {
    JudgedSecond second = slowSecond();
    second.produced = second.taken = 1000;
    second.blocked_us = 0;
    second.in_kernel = SenderJudge::ALWAYS_FINE;
    EXPECT_EQ(SenderVerdictKind::KEEPS_UP, after(second));
    second.in_kernel = SenderJudge::ALWAYS_FINE + 1;
    EXPECT_NE(SenderVerdictKind::KEEPS_UP, after(second));
}

TEST_F(SenderJudgeOfASender, WhoeverTakesNothingAndHasNoRoomHasStalled) {
    JudgedSecond second = slowSecond();
    second.taken = 0;
    second.closed_us = JUDGED_SECOND_US;
    second.unacked = 0;
    second.window = 0;
    EXPECT_EQ(SenderVerdictKind::STALLED, after(second));
    EXPECT_EQ(3 * JUDGED_SECOND_US, judge.quiet_us(reading.now_us));
    second.unacked = 1;  // a probe of a closed window
    EXPECT_EQ(SenderVerdictKind::STALLED, after(second));
    second.taken = 1;
    EXPECT_EQ(SenderVerdictKind::SLOW_READER, after(second));
}

TEST_F(SenderJudgeOfASender, WhoeverAcknowledgesNothingOfWhatIsUnderWayIsSilent) {
    JudgedSecond second = slowSecond();
    second.taken = 0;
    second.unacked = 34;
    EXPECT_EQ(SenderVerdictKind::SILENT, after(second));
    EXPECT_EQ(3 * JUDGED_SECOND_US + 5, judge.quiet_us(reading.now_us + 5));
    second.taken = 1;
    EXPECT_EQ(SenderVerdictKind::NETWORK, after(second));
    EXPECT_EQ(0U, judge.quiet_us(reading.now_us));
}

TEST_F(SenderJudgeOfASender, WhoeverReadsWithPausesHasStalledWhenOneIsLongerThanBefore) {
    JudgedSecond reads = slowSecond();
    reads.closed_us = JUDGED_SECOND_US;
    JudgedSecond pauses = reads;
    pauses.taken = 0;
    pauses.window = 0;
    pass(reads, 3);
    pass(pauses, 3);
    EXPECT_EQ(SenderVerdictKind::STALLED, judge.kind()) << "for all that is known";
    pass(reads);
    EXPECT_EQ(SenderVerdictKind::SLOW_READER, judge.kind()) << "at once";
    pass(pauses, 3);
    EXPECT_EQ(SenderVerdictKind::SLOW_READER, judge.kind());
    pass(pauses, 2);
    EXPECT_EQ(SenderVerdictKind::STALLED, judge.kind());
}

TEST_F(SenderJudgeOfASender, AProducerThatRestsHasNoSilentClients) {
    JudgedSecond second;
    second.produced = second.taken = 0;
    EXPECT_EQ(SenderVerdictKind::KEEPS_UP, after(second));
    EXPECT_EQ(0U, judge.quiet_us(reading.now_us));
}

TEST_F(SenderJudgeOfASender, AClosedWindowForHalfOfABusyTimeIsASlowReader) {
    JudgedSecond second = slowSecond();
    second.busy_us = JUDGED_SECOND_US / 2;
    second.closed_us = JUDGED_SECOND_US / 4;
    EXPECT_EQ(SenderVerdictKind::SLOW_READER, after(second));
    second.closed_us = JUDGED_SECOND_US / 4 - 1;
    EXPECT_EQ(SenderVerdictKind::BOTH, after(second));
    second.busy_us = second.closed_us = JUDGED_SECOND_US / 2 - 1;
    EXPECT_EQ(SenderVerdictKind::BOTH, after(second));
}

TEST_F(SenderJudgeOfASender, AnOpenWindowIsTheNetwork) {
    JudgedSecond second = slowSecond();
    second.closed_us = JUDGED_SECOND_US / 10;
    EXPECT_EQ(SenderVerdictKind::NETWORK, after(second));
    ++second.closed_us;
    EXPECT_EQ(SenderVerdictKind::BOTH, after(second));
}

TEST_F(SenderJudgeOfASender, MoreThanTwiceOfWhatIsUsualIsABurst) {
    pass(JudgedSecond(), 6);
    JudgedSecond second = slowSecond();
    second.taken = STREAM_RATE;
    second.produced = 2 * STREAM_RATE + 1;
    pass(second);
    second.produced = STREAM_RATE;
    pass(second);
    EXPECT_EQ(SenderVerdictKind::BURST, judge.kind());
    pass(second, 4);
    EXPECT_EQ(SenderVerdictKind::BURST, judge.kind()) << "for as long as it drains";
    pass(second, 6);
    EXPECT_EQ(SenderVerdictKind::NETWORK, judge.kind()) << "but not for ever";
}

TEST_F(SenderJudgeOfASender, TwiceOfWhatIsUsualIsNotABurst) {
    pass(JudgedSecond(), 6);
    JudgedSecond second = slowSecond();
    second.taken = STREAM_RATE;
    second.produced = 2 * STREAM_RATE;
    pass(second);
    second.produced = STREAM_RATE;
    pass(second);
    EXPECT_EQ(SenderVerdictKind::NETWORK, judge.kind());
}

TEST_F(SenderJudgeOfASender, ABurstIsNotToBlameForOneThatDoesNotKeepUpWithoutIt) {
    pass(JudgedSecond(), 6);
    JudgedSecond second = slowSecond();
    second.taken = STREAM_RATE - 1;
    second.produced = 3 * STREAM_RATE;
    pass(second);
    second.produced = STREAM_RATE;
    pass(second);
    EXPECT_EQ(SenderVerdictKind::NETWORK, judge.kind());
}

TEST_F(SenderJudgeOfASender, AnotherVerdictTakesTwoEqualAnswers) {
    EXPECT_EQ(SenderVerdictKind::UNKNOWN, judge.kind());
    pass(JudgedSecond());
    EXPECT_EQ(SenderVerdictKind::UNKNOWN, judge.kind());
    pass(JudgedSecond());
    EXPECT_EQ(SenderVerdictKind::KEEPS_UP, judge.kind());
    pass(slowSecond());
    EXPECT_EQ(SenderVerdictKind::KEEPS_UP, judge.kind());
    JudgedSecond closed = slowSecond();
    closed.closed_us = JUDGED_SECOND_US;
    pass(closed);
    EXPECT_EQ(SenderVerdictKind::KEEPS_UP, judge.kind()) << "two answers, but not the same";
    pass(closed);
    EXPECT_EQ(SenderVerdictKind::SLOW_READER, judge.kind());
}

TEST_F(SenderJudgeOfASender, RatesAreOfTheTimeForWhichTheVerdictHasHeld) {
    pass(JudgedSecond(), 8);
    pass(slowSecond(), 2);
    EXPECT_EQ(2 * JUDGED_SECOND_US, judge.held().time_us);
    EXPECT_EQ(300000U, judge.held().taken);
    EXPECT_EQ(2 * JUDGED_SECOND_US, judge.newest(JUDGED_WINDOW_US).blocked_us);
    pass(slowSecond(), 20);
    EXPECT_EQ(JUDGED_WINDOW_US, judge.held().time_us) << "and not of more than the window";
    EXPECT_EQ(150000U, SenderJudge::Sums::rate(judge.held().taken, judge.held().time_us));
}

TEST_F(SenderJudgeOfASender, AnotherConnectionIsJudgedAnew) {
    pass(slowSecond(), 4);
    reading.tcp.acked = 0;
    pass(JudgedSecond());
    EXPECT_EQ(SenderVerdictKind::UNKNOWN, judge.kind());
}

TEST_F(SenderJudgeOfASender, WithoutAPlaceItWaits) {
    reading.joined = false;
    EXPECT_EQ(SenderVerdictKind::WAITING, after(JudgedSecond()));
}

TEST_F(SenderJudgeOfASender, OfAnotherSocketItKnowsWhatWasWritten) {
    reading = SenderReading();
    reading.now_us = 100 * JUDGED_SECOND_US;
    reading.joined = true;
    JudgedSecond second = slowSecond();
    EXPECT_EQ(SenderVerdictKind::BOTH, after(second));
    EXPECT_EQ(150000U, SenderJudge::Sums::rate(judge.held().taken, judge.held().time_us));
    second.taken = 0;
    second.backlog = 1;
    EXPECT_EQ(SenderVerdictKind::STALLED, after(second));
    EXPECT_EQ(SenderVerdictKind::KEEPS_UP, after(JudgedSecond()));
}

TEST_F(SenderJudgeOfASender, ItIsTimeForALookInEachTenthOfTheWindow) {
    EXPECT_TRUE(SenderJudge().is_due(1, JUDGED_WINDOW_US));
    EXPECT_FALSE(judge.is_due(reading.now_us + JUDGED_SECOND_US - 1, JUDGED_WINDOW_US));
    EXPECT_TRUE(judge.is_due(reading.now_us + JUDGED_SECOND_US, JUDGED_WINDOW_US));
}

}  // namespace Orvex::Testing
