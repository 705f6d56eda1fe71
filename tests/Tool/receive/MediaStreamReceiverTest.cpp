// CMediaStreamReceiver: states, callbacks and pace, tick by tick. Its threads are in ReceiverThreadTest.cpp.
#include <Reticor/MediaStreamReceiver.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>
#include <thread>

#include "R3/print/FuncBox.h"
#include "Tool/receive/ReceiverGroup.h"
#include "support/LogCapture.h"
#include "support/ObjectFigures.h"
#include "support/StuckNotes.h"
#include "support/core/Gate.h"
#include "support/debug/DaemonStandIn.h"
#include "support/media/ReceiverStand.h"

namespace Orvex::Testing {
namespace {

using namespace Reticor;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;

constexpr char EXCEPTION_LINE[] = "MediaStreamReceiver do_receive socket exception!\n";

class MediaStreamReceiver : public ReceiverStand {
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

// ---- Calls that do not come back -----------------------------------------------------------------------

TEST_F(MediaStreamReceiver, ACallThatHangsIsNamed) {
    struct Way {
        receiver_mode mode;
        const char* name;
    };
    for (const Way& way :
         {Way{receiver_active, "handle_stream_input"}, Way{receiver_write, "handle_stream_write"},
          Way{receiver_passive, "handle_passive_input"}}) {
        StuckNotes notes(20);
        Gate gate;
        TestReceiver* const receiver = start(way.mode);
        receiver->on_input = receiver->on_write = [&] { return gate.pass(), -1; };
        receiver->on_passive = [&] { return gate.pass(), -1LL; };
        std::thread ticking([this] { tick(); });
        EXPECT_TRUE(gate.awaitArrivals(1));
        EXPECT_EVENTUALLY((clock.advanceUs(1000), notes.calls().size() == 1));
        for (const StuckCall& call : notes.calls()) {
            EXPECT_STREQ(way.name, call.call);
            EXPECT_EQ(receiver->GetID(), call.handler);
        }
        gate.open();
        ticking.join();
        receiver->Close();
        tick();
    }
}

// ---- Modes and results ---------------------------------------------------------------------------------

TEST_F(MediaStreamReceiver, StartsCreatedAndActiveWithDefaultsThatFail) {
    struct Bare : CMediaStreamReceiver {
        int handle_close(CNetHandler* self) override {
            delete self;
            return 0;
        }
    };
    auto* const bare = new Bare;
    EXPECT_EQ(-1, bare->handle_stream_input());
    EXPECT_EQ(-1, bare->handle_passive_input());
    EXPECT_EQ(-1, bare->handle_stream_write());
    MediaReceiverState& state = ReceiverProbe::of(*bare);
    EXPECT_EQ(1, state.m_state);
    EXPECT_EQ(state.m_mode, receiver_active);
    EXPECT_EQ(0, state.m_exception_id);
    EXPECT_EQ(1, state.m_wait_ticks);
    {
        const Infra::CGuard guard(state.m_mutex);
        EXPECT_EQ(state.m_first_time, ~uint64_t{0});
        EXPECT_EQ(0u, state.m_start_time);
        EXPECT_EQ(0u, state.m_elapsed);
        EXPECT_EQ(0, state.m_start_offset);
        EXPECT_EQ(state.m_speed, 1.0F);
    }
    bare->Close();
    serveAll();
}

TEST_F(MediaStreamReceiver, EachModeHasItsCallback) {
    TestReceiver* const active = start(receiver_active);
    TestReceiver* const passive = start(receiver_passive);
    TestReceiver* const writer = start(receiver_write);
    TestReceiver* const other = start(static_cast<receiver_mode>(7));
    tick();
    tick();
    EXPECT_EQ(2, active->life->inputs);
    EXPECT_EQ(2, passive->life->passives);
    EXPECT_EQ(2, writer->life->writes);
    EXPECT_EQ(2, other->life->passives) << "any other number is passive";
    for (TestReceiver* receiver : {active, passive, writer, other}) {
        EXPECT_EQ(2, receiver->life->calls());
    }
}

TEST_F(MediaStreamReceiver, ModeThatChangesLaterChangesTheCallback) {
    TestReceiver* const receiver = start(receiver_active);
    tick();
    receiver->SetReceiveMode(receiver_write);
    tick();
    EXPECT_EQ(1, receiver->life->inputs);
    EXPECT_EQ(1, receiver->life->writes);
}

TEST_F(MediaStreamReceiver, NegativeResultIsToldOnEveryTickAndTheCallsGoOn) {
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
        EXPECT_EQ(2u, log.count(3, EXCEPTION_LINE));
        EXPECT_EQ(2, ReceiverProbe::state(*receiver)) << "the state does not change";
        receiver->WaitException(0);
        tick();
        EXPECT_THAT(messages(), IsEmpty());
        EXPECT_EQ(2u, log.count(3, EXCEPTION_LINE));
        receiver->Close();
        tick();
        messages();
    }
}

TEST_F(MediaStreamReceiver, LineOfANegativeResultNamesTheReceiverAndTheCallOfOneTick) {
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

TEST_F(MediaStreamReceiver, ResultsFromZeroOnAreNotTold) {
    TestReceiver* const receiver = start(receiver_active);
    receiver->on_input = [] { return 1; };
    tick();
    receiver->on_input = [] { return 0; };
    tick();
    EXPECT_THAT(messages(), IsEmpty());
}

// ---- Start, stop, close --------------------------------------------------------------------------------

TEST_F(MediaStreamReceiver, StoppedReceiverStaysOnItsThreadAndIsSkipped) {
    TestReceiver* const receiver = start(receiver_active);
    tick();
    receiver->StopReceive();
    EXPECT_EQ(3, ReceiverProbe::state(*receiver));
    EXPECT_TRUE(tick());
    EXPECT_EQ(1, receiver->life->inputs);
    EXPECT_EQ(1, thread.Number());
    receiver->StartReceive(0, 1.0F);
    tick();
    EXPECT_EQ(2, receiver->life->inputs);
}

TEST_F(MediaStreamReceiver, DoubleStartIsLoggedAndStillSetsTheClockAnew) {
    TestReceiver* const receiver = startPaced(20000);
    tick();
    const LogCapture log;
    EXPECT_EQ(-1, receiver->StartReceive(7000, 1.0F));
    EXPECT_EQ(
        1u, log.count(
                2, "Orvex::Reticor::CMediaStreamReceiver::StartReceive : this receiver already started!\n"));
    EXPECT_EQ(1u, log.lines().size());
    MediaReceiverState& state = ReceiverProbe::of(*receiver);
    const Infra::CGuard guard(state.m_mutex);
    EXPECT_EQ(7000, state.m_start_offset);
    EXPECT_EQ(MediaReceiverState::NOT_SEEN, state.m_first_time);
}

TEST_F(MediaStreamReceiver, StopOfOneThatDoesNotRunIsLogged) {
    TestReceiver* const receiver = start(receiver_active);
    receiver->StopReceive();
    auto* const fresh = new TestReceiver;
    const LogCapture log;
    receiver->StopReceive();
    fresh->StopReceive();
    EXPECT_EQ(2u,
              log.count(2,
                        "Orvex::Reticor::CMediaStreamReceiver::StopReceive : Can't stop a receiver not in "
                        "running state!\n"));
    EXPECT_EQ(1, ReceiverProbe::state(*fresh));
    fresh->Close();
}

TEST_F(MediaStreamReceiver, WhileTheLibraryIsDownNoThreadCanBeStarted) {
    auto* const receiver = new TestReceiver;
    const LogCapture log;
    EXPECT_EQ(-1, receiver->StartReceive(0, 1.0F));
    EXPECT_EQ(1u,
              log.count(2, "Orvex::Reticor::CMediaStreamReceiver::StartReceive : Thread start failed.\n"));
    EXPECT_EQ(1, ReceiverProbe::state(*receiver)) << "it can be started again";
    receiver->Close();
}

TEST_F(MediaStreamReceiver, CloseOfACreatedReceiverTellsTheEndFromTheCallingThread) {
    auto* const receiver = new TestReceiver;
    const auto life = receiver->life;
    const long id = receiver->GetID();
    receiver->WaitException(waiter->GetID());
    receiver->Close();
    EXPECT_THAT(messages(), ElementsAre(Sent(id, waiter->GetID(), 5)));
    EXPECT_EQ(1, life->closes);
}

TEST_F(MediaStreamReceiver, CloseWithoutAWaiterTellsNobody) {
    auto* const receiver = new TestReceiver;
    const auto life = receiver->life;
    receiver->Close();
    EXPECT_THAT(messages(), IsEmpty());
    EXPECT_EQ(1, life->closes);
}

TEST_F(MediaStreamReceiver, ClosedReceiversAreDroppedByTheNextTickWhereverTheyStand) {
    for (int which = 0; which < 3; ++which) {
        TestReceiver* const receivers[] = {start(receiver_active), start(receiver_active),
                                           start(receiver_active)};
        TestReceiver* const closed = receivers[which];
        const auto life = closed->life;
        const long id = closed->GetID();
        closed->Close();
        EXPECT_THAT(messages(), IsEmpty()) << "its thread says it";
        EXPECT_EQ(0, ReceiverProbe::state(*closed));
        tick();
        EXPECT_EQ(0, life->inputs);
        EXPECT_THAT(messages(), ElementsAre(Sent(id, waiter->GetID(), 5)));
        EXPECT_EQ(1, life->closes);
        EXPECT_EQ(2u, ReceiverThreadProbe::list(thread).size());
        for (TestReceiver* receiver : receivers) {
            if (receiver != closed) {
                EXPECT_EQ(1, receiver->life->inputs);
                receiver->Close();
            }
        }
        EXPECT_FALSE(tick()) << "a thread without receivers ends";
        messages();
        EXPECT_TRUE(ReceiverThreadProbe::list(thread).empty());
    }
}

TEST_F(MediaStreamReceiver, SeveralClosedReceiversInARowAreDroppedTogether) {
    std::vector<TestReceiver*> receivers;
    for (int i = 0; i < 6; ++i) {
        receivers.push_back(start(receiver_active));
    }
    for (const std::size_t i : {0u, 1u, 3u, 4u, 5u}) {
        receivers[i]->Close();
    }
    EXPECT_TRUE(tick());
    EXPECT_THAT(ReceiverThreadProbe::list(thread), ElementsAre(receivers[2]));
    EXPECT_EQ(5u, messages().size());
    EXPECT_EQ(1, receivers[2]->life->inputs);
}

TEST_F(MediaStreamReceiver, CallbackMayStopAndStartAndCloseItsOwnObject) {
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
    EXPECT_EQ(1, first->life->inputs);
    EXPECT_EQ(2, life->inputs);
    EXPECT_EQ(0, life->closes) << "not before the walk has left it";
    tick();
    messages();
    EXPECT_EQ(1, life->closes);
    EXPECT_EQ(2, life->inputs);
}

TEST_F(MediaStreamReceiver, CallbackMayCloseItsNeighbour) {
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
    EXPECT_EQ(0, life->inputs);
    first->on_input = nullptr;
    tick();
    messages();
    EXPECT_EQ(1, life->closes);
}

TEST_F(MediaStreamReceiver, SetFrameRateOnlyLogs) {
    TestReceiver* const receiver = start(receiver_active);
    const LogCapture log;
    receiver->SetFrameRate(25);
    receiver->SetFrameRate(50);
    EXPECT_EQ(2u, log.countMatching(
                      3, "this interface SetFrameRate is discarded!!.*Src/Tool/MediaStreamReceiver.cpp\n"))
        << log.dump();
    tick();
    EXPECT_EQ(1, receiver->life->inputs);
}

// ---- Pace ----------------------------------------------------------------------------------------------

TEST_F(MediaStreamReceiver, UnitsOfOnePeriodComeOnePerTick) {
    EXPECT_THAT(unitsPerTick(startPaced(20000), 6), ElementsAre(1, 1, 1, 1, 1, 1));
}

TEST_F(MediaStreamReceiver, LongUnitsSkipTicks) {
    EXPECT_THAT(unitsPerTick(startPaced(60000), 7), ElementsAre(1, 1, 0, 0, 1, 0, 0))
        << "the first unit sets the clock, and the second is due one period after it";
}

TEST_F(MediaStreamReceiver, ShortUnitsComeSeveralPerTick) {
    const std::vector<int> units = unitsPerTick(startPaced(5000), 5);
    EXPECT_EQ(1, units[0]) << "one period after the first unit is due with the next tick";
    EXPECT_THAT(std::vector<int>(units.begin() + 2, units.end()), ElementsAre(4, 4, 4));
}

TEST_F(MediaStreamReceiver, DoubleSpeedPlaysTwiceAsMuch) {
    const std::vector<int> units = unitsPerTick(startPaced(20000, 1, 0, 2.0F), 6);
    EXPECT_THAT(std::vector<int>(units.begin() + 2, units.end()), ElementsAre(2, 2, 2, 2));
    EXPECT_THAT(unitsPerTick(startPaced(20000, 1, 0, 0.5F), 6), ElementsAre(1, 1, 0, 1, 0, 1));
}

TEST_F(MediaStreamReceiver, StartOffsetRunsAheadOfTheClockAndThenWaits) {
    TestReceiver* const receiver = startPaced(20000, 1, 5000000);
    const std::vector<int> burst = unitsPerTick(receiver, 30);
    EXPECT_EQ(8, burst[0]) << "8 units a tick until it is ahead";
    EXPECT_EQ(8, burst[29]);
    unitsPerTick(receiver, 10);
    EXPECT_THAT(unitsPerTick(receiver, 5), ElementsAre(1, 1, 1, 1, 1));
    // 5 seconds are 250 units, beside those that went by in real time.
    const int ticks = 45;
    EXPECT_NEAR(receiver->life->passives, 250 + ticks, 2);
}

TEST_F(MediaStreamReceiver, StartOffsetCountsAtNormalSpeedAlone) {
    TestReceiver* const receiver = startPaced(20000, 1, 5000000, 2.0F);
    {
        MediaReceiverState& state = ReceiverProbe::of(*receiver);
        const Infra::CGuard guard(state.m_mutex);
        EXPECT_EQ(0, state.m_start_offset);
    }
    EXPECT_THAT(unitsPerTick(receiver, 2), ElementsAre(1, ::testing::Le(3)));
}

TEST_F(MediaStreamReceiver, LateReceiverDeliversEightUnitsPerTickUntilItHasCaughtUp) {
    TestReceiver* const receiver = startPaced(20000);
    unitsPerTick(receiver, 3);
    clock.advanceUs(1000000);
    const std::vector<int> units = unitsPerTick(receiver, 9);
    EXPECT_THAT(std::vector<int>(units.begin(), units.begin() + 7), ElementsAre(8, 8, 8, 8, 8, 8, 8));
    EXPECT_EQ(1, units[8]);
    EXPECT_EQ(3 + 50 + 9, receiver->life->passives);
}

TEST_F(MediaStreamReceiver, NothingToDeliverLeavesTheClockUnsetAndAsksEveryTick) {
    TestReceiver* const receiver = start(receiver_passive);
    receiver->on_passive = [] { return 0LL; };
    EXPECT_THAT(unitsPerTick(receiver, 4), ElementsAre(1, 1, 1, 1));
    {
        MediaReceiverState& state = ReceiverProbe::of(*receiver);
        const Infra::CGuard guard(state.m_mutex);
        EXPECT_EQ(MediaReceiverState::NOT_SEEN, state.m_first_time);
    }
    EXPECT_THAT(messages(), IsEmpty());
    receiver->on_passive = [next = 0LL]() mutable { return next += 60000; };
    EXPECT_THAT(unitsPerTick(receiver, 5), ElementsAre(1, 1, 0, 0, 1)) << "the first unit sets the clock";
}

TEST_F(MediaStreamReceiver, MediaTimeMayJumpAcrossAPause) {
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

TEST_F(MediaStreamReceiver, UnitDeliveredWhileItIsStoppedDoesNotSetTheClock) {
    TestReceiver* const receiver = start(receiver_passive);
    receiver->on_passive = [receiver] {
        receiver->StopReceive();
        return 20000LL;
    };
    tick();
    MediaReceiverState& state = ReceiverProbe::of(*receiver);
    const Infra::CGuard guard(state.m_mutex);
    EXPECT_EQ(MediaReceiverState::NOT_SEEN, state.m_first_time);
    EXPECT_EQ(1, receiver->life->passives);
}

TEST_F(MediaStreamReceiver, SpeedThatIsNoneMakesEveryUnitDueAtOnce) {
    for (const float speed : {0.0F, -0.0F, std::numeric_limits<float>::quiet_NaN()}) {
        TestReceiver* const receiver = startPaced(20000, 1, 0, speed);
        const std::vector<int> units = unitsPerTick(receiver, 4);
        EXPECT_EQ(1, units[0]);
        EXPECT_EQ(8, units[3]);
        receiver->Close();
        tick();
        messages();
    }
}

// A reference in the terms of the rule: due in (media played - wall time played + one period) / period ticks.
TEST_F(MediaStreamReceiver, AgreesWithAPlainReferenceOverManyRates) {
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
    EXPECT_EQ(1000000, scale_media_time(1000000, 1.0F));
    EXPECT_EQ(500000, scale_media_time(1000000, 2.0F));
    EXPECT_EQ(2, scale_media_time(5, 2.0F));
    EXPECT_EQ(-500000, scale_media_time(1000000, -2.0F));
    EXPECT_EQ(16777216, scale_media_time(16777217, 1.0F)) << "24 bits";
    EXPECT_EQ(3600000000LL, scale_media_time(3600000000LL + 100, 1.0F)) << "steps of 256 us after an hour";
    EXPECT_EQ(3600000000LL + 256, scale_media_time(3600000000LL + 200, 1.0F));
}

TEST(MediaReceiverState, WhatNoNumberHoldsGivesTheLeastOne) {
    const float infinity = std::numeric_limits<float>::infinity();
    for (const float speed : {0.0F, -0.0F, std::nanf(""), 1e-30F, -1e-30F}) {
        EXPECT_EQ(INT64_MIN, scale_media_time(1000000, speed)) << speed;
    }
    EXPECT_EQ(0, scale_media_time(1000000, infinity));
    EXPECT_EQ(INT64_MIN, scale_media_time(INT64_MAX, 1.0F)) << "rounded up to one too many";
    EXPECT_EQ(scale_media_time(INT64_MAX, 2.0F), INT64_C(1) << 62);
}

// ---- Trace ---------------------------------------------------------------------------------------------

TEST_F(MediaStreamReceiver, CommandSwitchesTheTraceOn) {
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
    EXPECT_EQ(2, receiver->life->passives);
}

// ---- in snapshots ----------------------------------------------------------------------------------------

TEST_F(MediaStreamReceiver, TellsHowOftenItWasCalledAndWhetherItRuns) {
    for (const receiver_mode mode : {receiver_active, receiver_write, receiver_passive}) {
        TestReceiver* const receiver = start(mode);
        const long id = receiver->GetID();
        tick();
        tick();
        EXPECT_EQ(static_cast<uint64_t>(receiver->life->calls()), figuresOf("receiver", id)["calls"]) << mode;
        EXPECT_NE(0U, figuresOf("receiver", id)["calls"]);
        EXPECT_EQ(1U, figuresOf("receiver", id)["running"]);
        receiver->StopReceive();
        tick();
        EXPECT_EQ(static_cast<uint64_t>(receiver->life->calls()), figuresOf("receiver", id)["calls"]) << mode;
        EXPECT_EQ(0U, figuresOf("receiver", id)["running"]);
        receiver->Close();
        tick();
        serveAll();
        EXPECT_TRUE(figuresOf("receiver", id).empty());
    }
}

}  // namespace
}  // namespace Orvex::Testing
