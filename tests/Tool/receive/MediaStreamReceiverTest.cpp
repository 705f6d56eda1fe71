// CMediaStreamReceiver: states, callbacks and pace, tick by tick. Its threads are in ReceiverThreadTest.cpp.
#include <Reticor/MediaStreamReceiver.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>

#include "R3/print/FuncBox.h"
#include "Tool/receive/ReceiverGroup.h"
#include "support/LogCapture.h"
#include "support/debug/DaemonStandIn.h"
#include "support/media/ReceiverStand.h"

namespace Orvex::Testing {
namespace {

using namespace Reticor;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;

constexpr char EXCEPTION_LINE[] = "MediaStreamReceiver do_receive socket exception!\n";

class MediaStreamReceiverTest : public ReceiverStand {
protected:
    // A paced receiver whose units are `unit_us` of media each, the first one at `first_us`.
    TestReceiver* startPaced(long long unit_us, long long first_us = 1, long long offset = 0,
                             float speed = 1.0F) {
        TestReceiver* const receiver = start(receiver_passive, offset, speed);
        receiver->on_passive = [=, next = first_us]() mutable {
            next += unit_us;
            return next - unit_us;
        };
        return receiver;
    }

    // Units that the receiver delivered in each of the next ticks.
    std::vector<int> unitsPerTick(TestReceiver* receiver, int ticks) {
        std::vector<int> units;
        for (int i = 0; i < ticks; ++i) {
            const int before = receiver->life->passives;
            tick();
            units.push_back(receiver->life->passives - before);
        }
        return units;
    }
};

// ---- Modes and results ---------------------------------------------------------------------------------

TEST_F(MediaStreamReceiverTest, StartsCreatedAndActiveWithDefaultsThatFail) {
    struct Bare : CMediaStreamReceiver {
        int handle_close(CNetHandler* self) override {
            delete self;
            return 0;
        }
    };
    auto* const bare = new Bare;
    EXPECT_EQ(bare->handle_stream_input(), -1);
    EXPECT_EQ(bare->handle_passive_input(), -1);
    EXPECT_EQ(bare->handle_stream_write(), -1);
    MediaReceiverState& state = ReceiverProbe::of(*bare);
    EXPECT_EQ(state.m_state, 1);
    EXPECT_EQ(state.m_mode, receiver_active);
    EXPECT_EQ(state.m_exception_id, 0);
    EXPECT_EQ(state.m_wait_ticks, 1);
    {
        const Infra::CGuard guard(state.m_mutex);
        EXPECT_EQ(state.m_first_time, ~uint64_t{0});
        EXPECT_EQ(state.m_start_time, 0u);
        EXPECT_EQ(state.m_elapsed, 0u);
        EXPECT_EQ(state.m_start_offset, 0);
        EXPECT_EQ(state.m_speed, 1.0F);
    }
    bare->Close();
    serveAll();
}

TEST_F(MediaStreamReceiverTest, EachModeHasItsCallback) {
    TestReceiver* const active = start(receiver_active);
    TestReceiver* const passive = start(receiver_passive);
    TestReceiver* const writer = start(receiver_write);
    TestReceiver* const other = start(static_cast<receiver_mode>(7));
    tick();
    tick();
    EXPECT_EQ(active->life->inputs, 2);
    EXPECT_EQ(passive->life->passives, 2);
    EXPECT_EQ(writer->life->writes, 2);
    EXPECT_EQ(other->life->passives, 2) << "any other number is passive";
    for (TestReceiver* receiver : {active, passive, writer, other}) {
        EXPECT_EQ(receiver->life->calls(), 2);
    }
}

TEST_F(MediaStreamReceiverTest, ModeThatChangesLaterChangesTheCallback) {
    TestReceiver* const receiver = start(receiver_active);
    tick();
    receiver->SetReceiveMode(receiver_write);
    tick();
    EXPECT_EQ(receiver->life->inputs, 1);
    EXPECT_EQ(receiver->life->writes, 1);
}

TEST_F(MediaStreamReceiverTest, NegativeResultIsToldOnEveryTickAndTheCallsGoOn) {
    for (const receiver_mode mode : {receiver_active, receiver_passive, receiver_write}) {
        TestReceiver* const receiver = start(mode);
        receiver->on_input = [] { return -1; };
        receiver->on_passive = [] { return -5LL; };
        receiver->on_write = [] { return -2147483647; };
        const LogCapture log;
        tick();
        tick();
        const Sent told(receiver->GetID(), waiter->GetID(), 2);
        EXPECT_THAT(messages(), ElementsAre(told, told)) << mode;
        EXPECT_EQ(log.count(3, EXCEPTION_LINE), 2u);
        EXPECT_EQ(ReceiverProbe::state(*receiver), 2) << "the state does not change";
        receiver->WaitException(0);
        tick();
        EXPECT_THAT(messages(), IsEmpty());
        EXPECT_EQ(log.count(3, EXCEPTION_LINE), 2u);
        receiver->Close();
        tick();
        messages();
    }
}

TEST_F(MediaStreamReceiverTest, LineOfANegativeResultNamesTheReceiverAndTheCallOfOneTick) {
    TestReceiver* const receiver = start(receiver_active);
    receiver->on_input = [] { return -1; };
    const LogCapture log;
    tick();
    ASSERT_EQ(1u, log.lines().size());
    const CapturedLine line = log.lines()[0];
    char start_of_line[128];
    std::snprintf(start_of_line, sizeof start_of_line,
                  "[Src/Tool/MediaStreamReceiver.cpp:%d] this:%p tid:", line.line,
                  static_cast<void*>(receiver));
    EXPECT_EQ(start_of_line, line.start.substr(0, std::strlen(start_of_line)));
    EXPECT_EQ("Orvex::Reticor::CMediaStreamReceiver::do_receive", line.function);
    EXPECT_EQ("Src/Tool/MediaStreamReceiver.cpp", line.file);
}

TEST_F(MediaStreamReceiverTest, ResultsFromZeroOnAreNotTold) {
    TestReceiver* const receiver = start(receiver_active);
    receiver->on_input = [] { return 1; };
    tick();
    receiver->on_input = [] { return 0; };
    tick();
    EXPECT_THAT(messages(), IsEmpty());
}

// ---- Start, stop, close --------------------------------------------------------------------------------

TEST_F(MediaStreamReceiverTest, StoppedReceiverStaysOnItsThreadAndIsSkipped) {
    TestReceiver* const receiver = start(receiver_active);
    tick();
    receiver->StopReceive();
    EXPECT_EQ(ReceiverProbe::state(*receiver), 3);
    EXPECT_TRUE(tick());
    EXPECT_EQ(receiver->life->inputs, 1);
    EXPECT_EQ(thread.Number(), 1);
    receiver->StartReceive(0, 1.0F);
    tick();
    EXPECT_EQ(receiver->life->inputs, 2);
}

TEST_F(MediaStreamReceiverTest, DoubleStartIsLoggedAndStillSetsTheClockAnew) {
    TestReceiver* const receiver = startPaced(20000);
    tick();
    const LogCapture log;
    receiver->StartReceive(7000, 1.0F);
    EXPECT_EQ(
        log.count(2, "Orvex::Reticor::CMediaStreamReceiver::StartReceive : this receiver already started!\n"),
        1u);
    EXPECT_EQ(log.lines().size(), 1u);
    MediaReceiverState& state = ReceiverProbe::of(*receiver);
    const Infra::CGuard guard(state.m_mutex);
    EXPECT_EQ(state.m_start_offset, 7000);
    EXPECT_EQ(state.m_first_time, MediaReceiverState::NOT_SEEN);
}

TEST_F(MediaStreamReceiverTest, StopOfOneThatDoesNotRunIsLogged) {
    TestReceiver* const receiver = start(receiver_active);
    receiver->StopReceive();
    auto* const fresh = new TestReceiver;
    const LogCapture log;
    receiver->StopReceive();
    fresh->StopReceive();
    EXPECT_EQ(log.count(2,
                        "Orvex::Reticor::CMediaStreamReceiver::StopReceive : Can't stop a receiver not in "
                        "running state!\n"),
              2u);
    EXPECT_EQ(ReceiverProbe::state(*fresh), 1);
    fresh->Close();
}

TEST_F(MediaStreamReceiverTest, WhileTheLibraryIsDownNoThreadCanBeStarted) {
    auto* const receiver = new TestReceiver;
    const LogCapture log;
    receiver->StartReceive(0, 1.0F);
    EXPECT_EQ(log.count(2, "Orvex::Reticor::CMediaStreamReceiver::StartReceive : Thread start failed.\n"),
              1u);
    EXPECT_EQ(ReceiverProbe::state(*receiver), 1) << "it can be started again";
    receiver->Close();
}

TEST_F(MediaStreamReceiverTest, CloseOfACreatedReceiverTellsTheEndFromTheCallingThread) {
    auto* const receiver = new TestReceiver;
    const auto life = receiver->life;
    const long id = receiver->GetID();
    receiver->WaitException(waiter->GetID());
    receiver->Close();
    EXPECT_THAT(messages(), ElementsAre(Sent(id, waiter->GetID(), 5)));
    EXPECT_EQ(life->closes, 1);
}

TEST_F(MediaStreamReceiverTest, CloseWithoutAWaiterTellsNobody) {
    auto* const receiver = new TestReceiver;
    const auto life = receiver->life;
    receiver->Close();
    EXPECT_THAT(messages(), IsEmpty());
    EXPECT_EQ(life->closes, 1);
}

TEST_F(MediaStreamReceiverTest, ClosedReceiversAreDroppedByTheNextTickWhereverTheyStand) {
    for (int which = 0; which < 3; ++which) {
        TestReceiver* const receivers[] = {start(receiver_active), start(receiver_active),
                                           start(receiver_active)};
        TestReceiver* const closed = receivers[which];
        const auto life = closed->life;
        const long id = closed->GetID();
        closed->Close();
        EXPECT_THAT(messages(), IsEmpty()) << "its thread says it";
        EXPECT_EQ(ReceiverProbe::state(*closed), 0);
        tick();
        EXPECT_EQ(life->inputs, 0);
        EXPECT_THAT(messages(), ElementsAre(Sent(id, waiter->GetID(), 5)));
        EXPECT_EQ(life->closes, 1);
        EXPECT_EQ(ReceiverThreadProbe::list(thread).size(), 2u);
        for (TestReceiver* receiver : receivers) {
            if (receiver != closed) {
                EXPECT_EQ(receiver->life->inputs, 1);
                receiver->Close();
            }
        }
        EXPECT_FALSE(tick()) << "a thread without receivers ends";
        messages();
        EXPECT_TRUE(ReceiverThreadProbe::list(thread).empty());
    }
}

TEST_F(MediaStreamReceiverTest, SeveralClosedReceiversInARowAreDroppedTogether) {
    std::vector<TestReceiver*> receivers;
    for (int i = 0; i < 6; ++i) {
        receivers.push_back(start(receiver_active));
    }
    for (const std::size_t i : {0u, 1u, 3u, 4u, 5u}) {
        receivers[i]->Close();
    }
    EXPECT_TRUE(tick());
    EXPECT_THAT(ReceiverThreadProbe::list(thread), ElementsAre(receivers[2]));
    EXPECT_EQ(messages().size(), 5u);
    EXPECT_EQ(receivers[2]->life->inputs, 1);
}

TEST_F(MediaStreamReceiverTest, CallbackMayStopAndStartAndCloseItsOwnObject) {
    TestReceiver* const first = start(receiver_active);
    TestReceiver* const second = start(receiver_active);
    first->on_input = [first] {
        first->StopReceive();
        return 0;
    };
    second->on_input = [second] {
        second->StopReceive();
        second->StartReceive(0, 1.0F);
        if (second->life->inputs == 1) {
            second->Close();
        }
        return 0;
    };
    const auto life = second->life;
    tick();
    tick();
    EXPECT_EQ(first->life->inputs, 1);
    EXPECT_EQ(life->inputs, 2);
    EXPECT_EQ(life->closes, 0) << "not before the walk has left it";
    tick();
    messages();
    EXPECT_EQ(life->closes, 1);
    EXPECT_EQ(life->inputs, 2);
}

TEST_F(MediaStreamReceiverTest, CallbackMayCloseItsNeighbour) {
    TestReceiver* const first = start(receiver_active);
    TestReceiver* const second = start(receiver_active);
    const auto life = second->life;
    first->on_input = [&, second] {
        if (life->closes == 0) {
            second->Close();
        }
        return 0;
    };
    tick();
    EXPECT_EQ(life->inputs, 0);
    first->on_input = nullptr;
    tick();
    messages();
    EXPECT_EQ(life->closes, 1);
}

TEST_F(MediaStreamReceiverTest, SetFrameRateOnlyLogs) {
    TestReceiver* const receiver = start(receiver_active);
    const LogCapture log;
    receiver->SetFrameRate(25);
    receiver->SetFrameRate(50);
    EXPECT_EQ(log.countMatching(
                  3, "this interface SetFrameRate is discarded!!.*Src/Tool/MediaStreamReceiver.cpp\n"),
              2u)
        << log.dump();
    tick();
    EXPECT_EQ(receiver->life->inputs, 1);
}

// ---- Pace ----------------------------------------------------------------------------------------------

TEST_F(MediaStreamReceiverTest, UnitsOfOnePeriodComeOnePerTick) {
    EXPECT_THAT(unitsPerTick(startPaced(20000), 6), ElementsAre(1, 1, 1, 1, 1, 1));
}

TEST_F(MediaStreamReceiverTest, LongUnitsSkipTicks) {
    EXPECT_THAT(unitsPerTick(startPaced(60000), 7), ElementsAre(1, 1, 0, 0, 1, 0, 0))
        << "the first unit sets the clock, and the second is due one period behind it";
}

TEST_F(MediaStreamReceiverTest, ShortUnitsComeSeveralPerTick) {
    const std::vector<int> units = unitsPerTick(startPaced(5000), 5);
    EXPECT_EQ(units[0], 1) << "one period after the first unit is due with the next tick";
    EXPECT_THAT(std::vector<int>(units.begin() + 2, units.end()), ElementsAre(4, 4, 4));
}

TEST_F(MediaStreamReceiverTest, DoubleSpeedPlaysTwiceAsMuch) {
    const std::vector<int> units = unitsPerTick(startPaced(20000, 1, 0, 2.0F), 6);
    EXPECT_THAT(std::vector<int>(units.begin() + 2, units.end()), ElementsAre(2, 2, 2, 2));
    EXPECT_THAT(unitsPerTick(startPaced(20000, 1, 0, 0.5F), 6), ElementsAre(1, 1, 0, 1, 0, 1));
}

TEST_F(MediaStreamReceiverTest, StartOffsetRunsAheadOfTheClockAndThenWaits) {
    TestReceiver* const receiver = startPaced(20000, 1, 5000000);
    const std::vector<int> burst = unitsPerTick(receiver, 30);
    EXPECT_EQ(burst[0], 8) << "8 units a tick until it is ahead";
    EXPECT_EQ(burst[29], 8);
    unitsPerTick(receiver, 10);
    EXPECT_THAT(unitsPerTick(receiver, 5), ElementsAre(1, 1, 1, 1, 1));
    // 5 seconds are 250 units, beside those that went by in real time.
    const int ticks = 45;
    EXPECT_NEAR(receiver->life->passives, 250 + ticks, 2);
}

TEST_F(MediaStreamReceiverTest, StartOffsetCountsAtNormalSpeedAlone) {
    TestReceiver* const receiver = startPaced(20000, 1, 5000000, 2.0F);
    {
        MediaReceiverState& state = ReceiverProbe::of(*receiver);
        const Infra::CGuard guard(state.m_mutex);
        EXPECT_EQ(state.m_start_offset, 0);
    }
    EXPECT_THAT(unitsPerTick(receiver, 2), ElementsAre(1, ::testing::Le(3)));
}

TEST_F(MediaStreamReceiverTest, LateReceiverDeliversEightUnitsPerTickUntilItHasCaughtUp) {
    TestReceiver* const receiver = startPaced(20000);
    unitsPerTick(receiver, 3);
    clock.advanceUs(1000000);
    const std::vector<int> units = unitsPerTick(receiver, 9);
    EXPECT_THAT(std::vector<int>(units.begin(), units.begin() + 7), ElementsAre(8, 8, 8, 8, 8, 8, 8));
    EXPECT_EQ(units[8], 1);
    EXPECT_EQ(receiver->life->passives, 3 + 50 + 9);
}

TEST_F(MediaStreamReceiverTest, NothingToDeliverLeavesTheClockUnsetAndAsksEveryTick) {
    TestReceiver* const receiver = start(receiver_passive);
    receiver->on_passive = [] { return 0LL; };
    EXPECT_THAT(unitsPerTick(receiver, 4), ElementsAre(1, 1, 1, 1));
    {
        MediaReceiverState& state = ReceiverProbe::of(*receiver);
        const Infra::CGuard guard(state.m_mutex);
        EXPECT_EQ(state.m_first_time, MediaReceiverState::NOT_SEEN);
    }
    EXPECT_THAT(messages(), IsEmpty());
    receiver->on_passive = [next = 0LL]() mutable { return next += 60000; };
    EXPECT_THAT(unitsPerTick(receiver, 5), ElementsAre(1, 1, 0, 0, 1)) << "the first unit sets the clock";
}

TEST_F(MediaStreamReceiverTest, MediaTimeMayJumpAcrossAPause) {
    TestReceiver* const receiver = start(receiver_passive);
    long long next = 0;
    receiver->on_passive = [&next] { return next += 20000; };
    unitsPerTick(receiver, 3);
    receiver->StopReceive();
    clock.advanceUs(60000000);
    for (const long long jump : {-20000LL, 900000000LL}) {
        next += jump;
        receiver->StartReceive(0, 1.0F);
        EXPECT_THAT(unitsPerTick(receiver, 3), ElementsAre(1, 1, ::testing::Le(2))) << "no burst";
        receiver->StopReceive();
    }
}

TEST_F(MediaStreamReceiverTest, UnitDeliveredWhileItIsStoppedDoesNotSetTheClock) {
    TestReceiver* const receiver = start(receiver_passive);
    receiver->on_passive = [receiver] {
        receiver->StopReceive();
        return 20000LL;
    };
    tick();
    MediaReceiverState& state = ReceiverProbe::of(*receiver);
    const Infra::CGuard guard(state.m_mutex);
    EXPECT_EQ(state.m_first_time, MediaReceiverState::NOT_SEEN);
    EXPECT_EQ(receiver->life->passives, 1);
}

TEST_F(MediaStreamReceiverTest, SpeedThatIsNoneMakesEveryUnitDueAtOnce) {
    for (const float speed : {0.0F, -0.0F, std::numeric_limits<float>::quiet_NaN()}) {
        TestReceiver* const receiver = startPaced(20000, 1, 0, speed);
        const std::vector<int> units = unitsPerTick(receiver, 4);
        EXPECT_EQ(units[0], 1);
        EXPECT_EQ(units[3], 8);
        receiver->Close();
        tick();
        messages();
    }
}

// A reference in the terms of the rule: due in (media played - wall time played + one period) / period ticks.
TEST_F(MediaStreamReceiverTest, AgreesWithAPlainReferenceOverManyRates) {
    for (const long long unit : {1000LL, 7000LL, 33367LL, 40000LL, 123456LL}) {
        TestReceiver* const receiver = startPaced(unit, 1);
        const uint64_t begin = clock.nowUs();
        long long media = 1;
        int64_t wait = 1;
        for (int i = 0; i < 60; ++i) {
            const int before = receiver->life->passives;
            int expected = 0;
            while (--wait <= 0 && expected < 8) {
                ++expected;
                const auto played = static_cast<int64_t>(static_cast<float>(media)) - 1;
                wait = (played + PERIOD_US - static_cast<int64_t>(clock.nowUs() - begin)) / PERIOD_US;
                media += unit;
                if (wait > 0) {
                    break;
                }
            }
            tick();
            ASSERT_EQ(receiver->life->passives - before, expected) << unit << " in tick " << i;
        }
        receiver->Close();
        tick();
        messages();
    }
}

TEST(MediaReceiverState, MediaTimesAreScaledInSinglePrecision) {
    EXPECT_EQ(scale_media_time(1000000, 1.0F), 1000000);
    EXPECT_EQ(scale_media_time(1000000, 2.0F), 500000);
    EXPECT_EQ(scale_media_time(5, 2.0F), 2);
    EXPECT_EQ(scale_media_time(1000000, -2.0F), -500000);
    EXPECT_EQ(scale_media_time(16777217, 1.0F), 16777216) << "24 bits";
    EXPECT_EQ(scale_media_time(3600000000LL + 100, 1.0F), 3600000000LL) << "steps of 256 us after an hour";
    EXPECT_EQ(scale_media_time(3600000000LL + 200, 1.0F), 3600000000LL + 256);
}

TEST(MediaReceiverState, WhatNoNumberHoldsGivesTheLeastOne) {
    const float infinity = std::numeric_limits<float>::infinity();
    for (const float speed : {0.0F, -0.0F, std::nanf(""), 1e-30F, -1e-30F}) {
        EXPECT_EQ(scale_media_time(1000000, speed), INT64_MIN) << speed;
    }
    EXPECT_EQ(scale_media_time(1000000, infinity), 0);
    EXPECT_EQ(scale_media_time(INT64_MAX, 1.0F), INT64_MIN) << "rounded up to one too many";
    EXPECT_EQ(scale_media_time(INT64_MAX, 2.0F), INT64_C(1) << 62);
}

// ---- Trace ---------------------------------------------------------------------------------------------

TEST_F(MediaStreamReceiverTest, CommandSwitchesTheTraceOn) {
    DaemonStandIn daemon;
    TestReceiver* const receiver = startPaced(60000);
    tick();
    const auto command = g_r3_funcbox->Find("mediastreamreceiver")->func;
    command(1, 0, 0, 0, 0, 0, 0, 0, 0, 0);
    tick();
    tick();
    command(0, 0, 0, 0, 0, 0, 0, 0, 0, 0);
    tick();
    const std::string start =
        "Orvex::Reticor::CMediaStreamReceiver::do_receive, object:0x[0-9a-f]+, "
        "class:Orvex::Testing::TestReceiver "
        "handle_stream_input ";
    EXPECT_THAT(daemon.texts(), ElementsAre(MatchesRegex(start + "begin at [0-9]+ us\n"),
                                            MatchesRegex(start + "end at [0-9]+ us\n"),
                                            MatchesRegex(start + "begin at [0-9]+ us\n")))
        << "a tick that is skipped has no end line";
    EXPECT_EQ(receiver->life->passives, 2);
}

}  // namespace
}  // namespace Orvex::Testing
