// SenderJudge beside all its readings: sums of the newest, how long nothing moved; and sentences of any
// figures.
#include "Tool/judge/SenderJudge.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <deque>
#include <string>
#include <vector>

#include "Tool/judge/VerdictText.h"
#include "support/SeededRandom.h"

namespace Orvex::Testing {

using namespace Reticor;

namespace {

constexpr uint64_t MODEL_WINDOW_US = 10000000;

class SenderJudgeModel : public ::testing::Test {
protected:
    // What may come after the last reading of the same connection.
    SenderReading next(SeededRandom& random) {
        SenderReading reading = readings.empty() ? SenderReading() : readings.back();
        reading.joined = true;
        reading.tcp.known = reading.tcp.limits_known = true;
        const auto time_us = random.between<uint64_t>(1, 2000000);
        const auto up_to = [&](uint64_t most) { return random.between<uint64_t>(0, most); };
        const bool rests = random.oneIn(4);
        reading.now_us += time_us;
        reading.produced += up_to(1000000);
        reading.written += rests ? 0 : up_to(1000000);
        reading.tcp.acked += rests ? 0 : up_to(1000000);
        reading.blocked_us += up_to(time_us);
        reading.tcp.busy_us += up_to(time_us);
        reading.tcp.closed_us += up_to(time_us);
        reading.tcp.segments += static_cast<uint32_t>(up_to(1000));
        reading.tcp.retransmitted += static_cast<uint32_t>(up_to(10));
        reading.backlog = rests ? up_to(1) : up_to(100000);
        reading.tcp.under_way = random.oneIn(3) ? 0 : up_to(100000);
        return reading;
    }
    void add(const SenderReading& reading) {
        if (!readings.empty() && (reading.tcp.acked != readings.back().tcp.acked ||
                                  reading.tcp.under_way + reading.tcp.unsent + reading.backlog == 0)) {
            moved_us = reading.now_us;
        }
        readings.push_back(reading);
        judge.add(reading, MODEL_WINDOW_US);
    }
    // Of the changes up to the newest, from the one before `changes` on.
    void expect_sums(size_t changes, const SenderJudge::Sums& sums) const {
        const SenderReading& last = readings.back();
        const SenderReading& first = readings[readings.size() - 1 - changes];
        ASSERT_EQ(last.now_us - first.now_us, sums.time_us);
        ASSERT_EQ(last.produced - first.produced, sums.produced);
        ASSERT_EQ(last.tcp.acked - first.tcp.acked, sums.taken);
        ASSERT_EQ(last.blocked_us - first.blocked_us, sums.blocked_us);
        ASSERT_EQ(last.tcp.busy_us - first.tcp.busy_us, sums.busy_us);
        ASSERT_EQ(last.tcp.closed_us - first.tcp.closed_us, sums.closed_us);
        ASSERT_EQ(last.tcp.segments - first.tcp.segments, sums.segments);
        ASSERT_EQ(last.tcp.retransmitted - first.tcp.retransmitted, sums.retransmitted);
    }
    void expect_newest(uint64_t least_us) const {
        const size_t kept = std::min(readings.size() - 1, SenderJudge::SLOTS);
        size_t changes = 0;
        uint64_t time_us = 0;
        while (changes < kept && time_us < least_us) {
            ++changes;
            time_us = readings.back().now_us - readings[readings.size() - 1 - changes].now_us;
        }
        expect_sums(changes, judge.newest(least_us));
    }

    SenderJudge judge;
    std::vector<SenderReading> readings;
    uint64_t moved_us = 0;
};

TEST_F(SenderJudgeModel, SumsAreThoseOfTheNewestChangesAndNeverOfMoreThanTen) {
    SeededRandom random;
    SenderReading first = next(random);
    moved_us = first.now_us;
    add(first);
    for (int i = 0; i < 400 && !HasFatalFailure(); ++i) {
        add(next(random));
        expect_newest(random.between<uint64_t>(0, 15000000));
        expect_newest(UINT64_MAX);
        const uint64_t now_us = readings.back().now_us + random.between<uint64_t>(0, 1000000);
        ASSERT_EQ(now_us - moved_us, judge.quiet_us(now_us));
        ASSERT_EQ(0U, judge.quiet_us(moved_us - 1)) << "before it moved it was not quiet";
        ASSERT_EQ(readings.back().now_us, judge.last().now_us);
        const uint64_t held_us = judge.held().time_us;
        ASSERT_LE(held_us, judge.newest(UINT64_MAX).time_us);
        ASSERT_EQ(now_us - readings.back().now_us >= MODEL_WINDOW_US / SenderJudge::SLOTS,
                  judge.is_due(now_us, MODEL_WINDOW_US));
    }
}

// A sum that falls is that of another connection, whichever it is.
TEST_F(SenderJudgeModel, AReadingThatDoesNotGoOnBeginsAnew) {
    SeededRandom random;
    using Change = void (*)(SenderReading&);
    const std::vector<Change> changes = {
        [](SenderReading& r) { r.now_us -= 1; },       [](SenderReading& r) { r.produced -= 1; },
        [](SenderReading& r) { r.written -= 1; },      [](SenderReading& r) { r.blocked_us -= 1; },
        [](SenderReading& r) { r.tcp.known = false; }, [](SenderReading& r) { r.tcp.acked -= 1; },
        [](SenderReading& r) { r.tcp.busy_us -= 1; },  [](SenderReading& r) { r.tcp.closed_us -= 1; },
        [](SenderReading& r) { r.tcp.segments -= 1; }, [](SenderReading& r) { r.tcp.retransmitted -= 1; },
    };
    for (size_t i = 0; i < changes.size(); ++i) {
        judge = SenderJudge();
        readings.clear();
        for (int k = 0; k < 6; ++k) {
            SenderReading reading = next(random);
            reading.written += 1;
            reading.blocked_us += 1;
            reading.tcp.retransmitted += 1;
            add(reading);
        }
        EXPECT_NE(0U, judge.newest(UINT64_MAX).time_us);
        SenderReading other = judge.last();
        other.now_us += i == 0 ? 0 : 1000;
        changes[i](other);
        judge.add(other, MODEL_WINDOW_US);
        EXPECT_EQ(0U, judge.newest(UINT64_MAX).time_us) << i;
        EXPECT_EQ(SenderVerdictKind::UNKNOWN, judge.kind()) << i;
        EXPECT_EQ(0U, judge.quiet_us(other.now_us)) << i;
        EXPECT_EQ(other.now_us, judge.last().now_us) << i;
    }
}

TEST_F(SenderJudgeModel, ATimeTooLongForItsSlotCountsAsTheLongest) {
    SenderReading reading;
    reading.now_us = 1000000;
    judge.add(reading, MODEL_WINDOW_US);
    reading.now_us += uint64_t{UINT32_MAX} + 5;
    reading.produced += uint64_t{1} << 40;
    judge.add(reading, MODEL_WINDOW_US);
    EXPECT_EQ(uint64_t{UINT32_MAX}, judge.newest(1).time_us);
    EXPECT_EQ(uint64_t{UINT32_MAX}, judge.newest(1).produced);
    EXPECT_EQ(0U, SenderJudge::Sums::rate(1000, 0)) << "of no time";
    EXPECT_EQ(4000U, SenderJudge::Sums::rate(1000, 250000));
}

SenderVerdict any_verdict(SeededRandom& random) {
    const auto any = [&]() { return random.between<uint64_t>(0, UINT64_MAX) >> random.between(0, 63); };
    SenderVerdict verdict;
    verdict.kind = static_cast<SenderVerdictKind>(random.between(0, 10));
    verdict.is_tcp = random.between(0U, 1U);
    verdict.listed = random.between(0U, 1U);
    verdict.sender = -random.between<int64_t>(1, 20);
    verdict.lag_us = random.between<uint64_t>(0, 3);
    verdict.stream_rate = any();
    verdict.taken_rate = any();
    verdict.quiet_us = any();
    verdict.left_us = random.oneIn(3) ? ~uint64_t{0} : random.oneIn(3) ? 0 : any();
    verdict.burst_bytes = any();
    verdict.burst_us = any();
    for (uint32_t* const number : {&verdict.closed_percent, &verdict.segments, &verdict.retransmitted,
                                   &verdict.unacked, &verdict.rtt_us}) {
        *number = static_cast<uint32_t>(any());
    }
    return verdict;
}

TEST(VerdictTextModel, ASentenceOfAnyFiguresEndsWithinItsRoom) {
    SeededRandom random;
    for (int i = 0; i < 20000; ++i) {
        SenderVerdict verdict = any_verdict(random);
        std::memset(verdict.sentence, 'x', sizeof verdict.sentence);
        VerdictText::write(verdict);
        const void* const end = std::memchr(verdict.sentence, 0, sizeof verdict.sentence);
        ASSERT_NE(nullptr, end);
        const std::string sentence = verdict.sentence;
        ASSERT_FALSE(sentence.empty());
        ASSERT_EQ(std::string::npos, sentence.find("%u")) << sentence;
        ASSERT_EQ(std::string::npos, sentence.find('-')) << "no figure is below zero: " << sentence;
    }
}

// They are sorted by it: an order that contradicts itself would be read beyond the end.
TEST(VerdictTextModel, TheOrderOfSufferingIsAnOrder) {
    SeededRandom random;
    for (int i = 0; i < 20000; ++i) {
        const SenderVerdict a = any_verdict(random);
        const SenderVerdict b = any_verdict(random);
        const SenderVerdict c = any_verdict(random);
        ASSERT_FALSE(VerdictText::suffers_more(a, a));
        ASSERT_FALSE(VerdictText::suffers_more(a, b) && VerdictText::suffers_more(b, a));
        if (VerdictText::suffers_more(a, b) && VerdictText::suffers_more(b, c)) {
            ASSERT_TRUE(VerdictText::suffers_more(a, c));
        }
        if (a.sender != b.sender) {
            ASSERT_TRUE(VerdictText::suffers_more(a, b) || VerdictText::suffers_more(b, a))
                << "no two share a place";
        }
    }
}

TEST(VerdictTextModel, EachKindHasAWordOfItsOwn) {
    const std::vector<std::string> words = {"unknown", "waiting", "keeps_up", "slow_reader", "network",
                                            "burst",   "both",    "stalled",  "silent"};
    for (size_t i = 0; i < words.size(); ++i) {
        EXPECT_EQ(words[i], VerdictText::name(static_cast<SenderVerdictKind>(i)));
    }
}

TEST(VerdictTextModel, FiguresAreRoundedToTheirDigitAndTakeTheUnitOfTheLarger) {
    const auto reads = [](uint64_t taken, uint64_t stream) {
        SenderVerdict verdict;
        verdict.kind = SenderVerdictKind::SLOW_READER;
        verdict.taken_rate = taken;
        verdict.stream_rate = stream;
        VerdictText::write(verdict);
        const std::string sentence = verdict.sentence;
        return sentence.substr(0, sentence.find(':'));
    };
    EXPECT_EQ("reads 0.0 of 0.0 kbit/s", reads(0, 0));
    EXPECT_EQ("reads 0.0 of 0.1 kbit/s", reads(49, 50));
    EXPECT_EQ("reads 999.9 of 999.9 kbit/s", reads(999949, 999949));
    EXPECT_EQ("reads 0.5 of 1.0 Mbit/s", reads(500000, 1000000));
    EXPECT_EQ("reads 1.0 of 0.9 Mbit/s", reads(1000000, 949999)) << "whichever is larger";
    EXPECT_EQ("reads 1.3 of 1.2 Mbit/s", reads(1250000, 1249999));
}

}  // namespace
}  // namespace Orvex::Testing
