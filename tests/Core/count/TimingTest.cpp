// Timing: who looks at a clock, and where the times go.
#include "Core/count/Timing.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "support/HandClock.h"

namespace Orvex::Testing {
namespace {

using namespace Reticor;

struct PoolTimes {
    SpreadValues wait;
    SpreadValues run;
};

PoolTimes timesOf(int pool) {
    PoolTimes times;
    ThreadCounts::ForEachTally([](uint32_t, const ClassTally&) {},
                               [&](int seen, const PoolTally& tally, uint64_t) {
                                   if (seen == pool) {
                                       tally.wait.AddTo(times.wait);
                                       tally.run.AddTo(times.run);
                                   }
                               });
    return times;
}

uint64_t countIn(const SpreadValues& values) {
    uint64_t all = 0;
    for (const uint64_t count : values.count) {
        all += count;
    }
    return all;
}

// Timing is on, and the thread is a worker of pool 3, whose clock goes by hand.
class TimingOfAWorker : public ::testing::Test {
protected:
    void SetUp() override {
        ThreadCounts::Attach(3);
        Timing::Switch(true);
    }
    void TearDown() override { Timing::Switch(false); }

    HandClock clock;
};

TEST(Timing, IsOffAtTheStartAndStampsNothingThen) {
    EXPECT_FALSE(Timing::IsOn());
    EXPECT_EQ(0u, Timing::Stamp());
    for (unsigned int i = 0; i < 3 * Timing::MESSAGES_EACH; ++i) {
        EXPECT_EQ(0u, Timing::StampMessage());
    }
    Timing::Switch(true);
    EXPECT_TRUE(Timing::IsOn());
    EXPECT_NE(0u, Timing::Stamp());
    EXPECT_NE(0u, Timing::StampMessage()) << "no turn was used up while it was off";
    Timing::Switch(false);
    EXPECT_EQ(0u, Timing::Stamp());
}

TEST_F(TimingOfAWorker, NowIsTheMonotonicClockInNanoseconds) {
    clock.setUs(12345678901);
    EXPECT_EQ(12345678901000u, Timing::NowNs());
    EXPECT_EQ(12345678901000u, Timing::Stamp());
    clock.advanceUs(1);
    EXPECT_EQ(12345678902000u, Timing::Stamp());
}

TEST_F(TimingOfAWorker, OneOfSixteenMessagesOfEachThreadIsStamped) {
    const auto stamps = [] {
        std::vector<size_t> stamped;
        for (size_t i = 0; i < 50; ++i) {
            if (Timing::StampMessage() != 0) {
                stamped.push_back(i);
            }
        }
        return stamped;
    };
    EXPECT_EQ((std::vector<size_t>{0, 16, 32, 48}), stamps());
    std::thread([&] { EXPECT_EQ((std::vector<size_t>{0, 16, 32, 48}), stamps()); }).join();
    EXPECT_EQ((std::vector<size_t>{14, 30, 46}), stamps()) << "goes on where the thread was";
}

TEST_F(TimingOfAWorker, ARecordWaitsFromItsStampUntilItIsTaken) {
    const uint64_t stamp = Timing::Stamp();
    clock.advanceUs(250);
    EXPECT_EQ(stamp + 250000, Timing::Taken(stamp));
    const PoolTimes times = timesOf(3);
    EXPECT_EQ(1u, countIn(times.wait));
    EXPECT_EQ(250000u, times.wait.sum_ns);
    EXPECT_EQ(0u, countIn(times.run));
}

TEST_F(TimingOfAWorker, ARecordWithoutAStampIsNotTimed) {
    EXPECT_EQ(0u, Timing::Taken(0));
    EXPECT_EQ(0u, countIn(timesOf(3).wait));
}

TEST_F(TimingOfAWorker, AStampThatIsAheadOfTheTakersClockCountsAsNoWait) {
    const uint64_t now = Timing::NowNs();
    EXPECT_EQ(now, Timing::Taken(now + 5000));
    EXPECT_EQ(1u, countIn(timesOf(3).wait));
    EXPECT_EQ(0u, timesOf(3).wait.sum_ns);
}

TEST_F(TimingOfAWorker, ARecordThatWasStampedIsTimedThoughTimingEndedMeanwhile) {
    const uint64_t stamp = Timing::Stamp();
    Timing::Switch(false);
    clock.advanceUs(10);
    const uint64_t begin = Timing::Taken(stamp);
    EXPECT_EQ(stamp + 10000, begin);
    ClassTally row;
    Timing::Ran(begin, row);
    EXPECT_EQ(1u, row.timed.Get());
}

TEST_F(TimingOfAWorker, ACallIsCountedInItsRowAndInItsPool) {
    ClassTally row;
    const uint64_t begin = Timing::NowNs();
    clock.advanceUs(1500);
    Timing::Ran(begin, row);
    clock.advanceUs(500);
    Timing::Ran(begin, row);
    EXPECT_EQ(3500000u, row.time_ns.Get());
    EXPECT_EQ(2u, row.timed.Get());
    EXPECT_EQ(0u, row.calls.Get()) << "who calls counts that";
    const PoolTimes times = timesOf(3);
    EXPECT_EQ(2u, countIn(times.run));
    EXPECT_EQ(3500000u, times.run.sum_ns);
    EXPECT_EQ(2000000u, times.run.max_ns);
    EXPECT_EQ(0u, countIn(times.wait));
}

TEST_F(TimingOfAWorker, TimesStayWhenTheirThreadEnds) {
    std::thread([] {
        ThreadCounts::Attach(4);
        const HandClock own;
        Timing::Taken(Timing::Stamp());
        ClassTally row;
        Timing::Ran(Timing::NowNs(), row);
    }).join();
    EXPECT_EQ(1u, countIn(timesOf(4).wait));
    EXPECT_EQ(1u, countIn(timesOf(4).run));
    EXPECT_EQ(0u, countIn(timesOf(3).wait));
}

}  // namespace
}  // namespace Orvex::Testing
