// VerdictText: the sentences.
#include "Tool/judge/VerdictText.h"

#include <string>

#include <gtest/gtest.h>

namespace Orvex::Testing {

using namespace Reticor;

namespace {

SenderVerdict verdictOfKind(SenderVerdictKind kind) {
    SenderVerdict verdict;
    verdict.kind = kind;
    verdict.is_tcp = 1;
    verdict.stream_rate = 4000000;
    verdict.taken_rate = 1240000;
    verdict.closed_percent = 71;
    verdict.segments = 200;
    verdict.retransmitted = 44;
    verdict.rtt_us = 180400;
    verdict.quiet_us = 3200000;
    verdict.left_us = 1800000;
    verdict.unacked = 34;
    verdict.burst_bytes = 2100000;
    verdict.burst_us = 39001;
    return verdict;
}

std::string sentenceOf(SenderVerdict verdict) {
    VerdictText::write(verdict);
    return verdict.sentence;
}

}  // namespace

TEST(VerdictText, TellsEachKindInASentence) {
    EXPECT_EQ("not known yet", sentenceOf(verdictOfKind(SenderVerdictKind::UNKNOWN)));
    EXPECT_EQ("waits for a frame to begin with", sentenceOf(verdictOfKind(SenderVerdictKind::WAITING)));
    EXPECT_EQ("keeps up", sentenceOf(verdictOfKind(SenderVerdictKind::KEEPS_UP)));
    EXPECT_EQ("reads 1.2 of 4.0 Mbit/s: its receive window was closed 71 % of the time",
              sentenceOf(verdictOfKind(SenderVerdictKind::SLOW_READER)));
    EXPECT_EQ("network: carries 1.2 of 4.0 Mbit/s, 22 % retransmitted, rtt 180 ms",
              sentenceOf(verdictOfKind(SenderVerdictKind::NETWORK)));
    EXPECT_EQ("the producer's burst of 2.1 MB in 40 ms", sentenceOf(verdictOfKind(SenderVerdictKind::BURST)));
    EXPECT_EQ(
        "takes 1.2 of 4.0 Mbit/s: its receive window was closed 71 % of the time, and the network is slow, "
        "rtt 180 ms",
        sentenceOf(verdictOfKind(SenderVerdictKind::BOTH)));
    EXPECT_EQ("stalled for 3.2 s: hung up on in 1.8 s",
              sentenceOf(verdictOfKind(SenderVerdictKind::STALLED)));
    EXPECT_EQ("silent for 3.2 s: nothing acknowledged, 34 segments under way",
              sentenceOf(verdictOfKind(SenderVerdictKind::SILENT)));
    EXPECT_STREQ("slow_reader", VerdictText::name(SenderVerdictKind::SLOW_READER));
    EXPECT_STREQ("unknown", VerdictText::name(static_cast<SenderVerdictKind>(99)));
}

TEST(VerdictText, LeavesOutWhatIsNotKnown) {
    SenderVerdict few = verdictOfKind(SenderVerdictKind::NETWORK);
    few.segments = 19;
    EXPECT_EQ("network: carries 1.2 of 4.0 Mbit/s, rtt 180 ms", sentenceOf(few));
    SenderVerdict endless = verdictOfKind(SenderVerdictKind::STALLED);
    endless.left_us = ~uint64_t{0};
    EXPECT_EQ("stalled for 3.2 s", sentenceOf(endless));
    SenderVerdict over = verdictOfKind(SenderVerdictKind::STALLED);
    over.left_us = 0;
    EXPECT_EQ("stalled for 3.2 s: hung up on", sentenceOf(over));
    over.listed = 1;
    EXPECT_EQ("stalled for 3.2 s: its time is over", sentenceOf(over));
    SenderVerdict other = verdictOfKind(SenderVerdictKind::BOTH);
    other.is_tcp = 0;
    EXPECT_EQ("takes 1.2 of 4.0 Mbit/s: its socket is full", sentenceOf(other));
}

TEST(VerdictText, ChoosesUnitsAndHasRoomForAllFigures) {
    SenderVerdict thin = verdictOfKind(SenderVerdictKind::SLOW_READER);
    thin.stream_rate = 96000;
    thin.taken_rate = 12049;
    EXPECT_EQ("reads 12.0 of 96.0 kbit/s: its receive window was closed 71 % of the time", sentenceOf(thin));
    SenderVerdict small = verdictOfKind(SenderVerdictKind::BURST);
    small.burst_bytes = 999940;
    EXPECT_EQ("the producer's burst of 999.9 KB in 40 ms", sentenceOf(small));
    SenderVerdict huge = verdictOfKind(SenderVerdictKind::BOTH);
    huge.stream_rate = huge.taken_rate = ~uint64_t{0} / 2;
    huge.rtt_us = ~uint32_t{0} - 1000;
    huge.closed_percent = 100;
    const std::string text = sentenceOf(huge);
    EXPECT_NE(std::string::npos, text.find("rtt 4294966 ms")) << text;
}

TEST(VerdictText, ThoseThatGetNothingSufferMostAndThenTheLatest) {
    SenderVerdict stalled = verdictOfKind(SenderVerdictKind::STALLED);
    SenderVerdict slow = verdictOfKind(SenderVerdictKind::SLOW_READER);
    SenderVerdict slower = verdictOfKind(SenderVerdictKind::NETWORK);
    const SenderVerdict fine = verdictOfKind(SenderVerdictKind::KEEPS_UP);
    stalled.lag_us = 1;
    slow.lag_us = 2;
    slower.lag_us = 3;
    EXPECT_TRUE(VerdictText::suffers_more(stalled, slower));
    EXPECT_TRUE(VerdictText::suffers_more(slower, slow));
    EXPECT_TRUE(VerdictText::suffers_more(slow, fine));
    EXPECT_FALSE(VerdictText::suffers_more(fine, slow));
    EXPECT_FALSE(VerdictText::suffers_more(slow, slow));
}

}  // namespace Orvex::Testing
