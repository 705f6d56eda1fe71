// CNTimerEvent: its states, and what misuse says.
#include <Reticor/NTimer.h>

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdio>
#include <cstring>
#include <regex>
#include <string>
#include <type_traits>

#include <Infra/Thread.h>

#include "support/LogCapture.h"
#include "support/tick/NTimerStand.h"

namespace Orvex::Reticor {
namespace {

using Testing::LetterEvent;
using Testing::LogCapture;

const std::string CLASS = "Orvex::Reticor::CNTimerEvent::";
const std::string STARTED = " : this timer event already started!\n";
const std::string NOT_READY = " : this timer event not ready for start!\n";
const std::string NOT_RUNNING = " : Can't stop a timer event not in running state!\n";

class NTimerEvent : public Testing::NTimerStand {
protected:
    void SetUp() override {
        NTimerStand::SetUp();
        testing::FLAGS_gtest_death_test_style = "threadsafe";
        event = new LetterEvent(diary, 'a');
    }
    void TearDown() override {
        if (event != nullptr && event->state() == EVENT_CREATED) {
            event->Close();
        }
    }

    // Puts the event in that state, on the timer if it is one of those.
    void put(int32_t state) {
        if (state != EVENT_CREATED) {
            timer->PushTimerEvent(event);
            NTimerProbe::of(*event).m_state = state;
        }
    }

    // The operation changes nothing and writes one line at level 2.
    template <typename Operation>
    void expectOnlyALine(int32_t state, const std::string& text, Operation operation) {
        put(state);
        LogCapture log;
        operation();
        EXPECT_EQ(state, event->state());
        EXPECT_EQ(1U, log.lines().size()) << log.dump();
        EXPECT_EQ(1U, log.count(2, text)) << log.dump();
    }

    LetterEvent* event = nullptr;
};

TEST_F(NTimerEvent, ANewEventIsCreatedAndOnNoTimer) {
    EXPECT_EQ(1, event->state());
    EXPECT_EQ(nullptr, NTimerProbe::of(*event).m_next);
}

TEST_F(NTimerEvent, TheDefaultDoesNothingAndGivesMinusOne) {
    EXPECT_EQ(-1, event->CNTimerEvent::handle_timer_event());
}

TEST_F(NTimerEvent, TheStatesOfALife) {
    timer->PushTimerEvent(event);
    EXPECT_EQ(2, event->state());
    event->Start();
    EXPECT_EQ(3, event->state());
    event->Stop();
    EXPECT_EQ(4, event->state());
    event->Start();
    EXPECT_EQ(3, event->state());
    event->Close();
    EXPECT_EQ(0, event->state());
    EXPECT_EQ("", gone()) << "it stays on its timer until the next pass";
    sweep();
    EXPECT_EQ("a", gone());
    event = nullptr;
}

TEST_F(NTimerEvent, StartBeforeThePushIsOnlyLogged) {
    expectOnlyALine(EVENT_CREATED, CLASS + "Start" + NOT_READY, [&] { event->Start(); });
}

TEST_F(NTimerEvent, LinesSayWhereWhichEventAndWhichThread) {
    LogCapture log;
    event->Start();
    ASSERT_EQ(1U, log.lines().size());
    const Testing::CapturedLine line = log.lines()[0];
    char start[200];
    snprintf(start, sizeof start, "[%s:%d] this:%p tid:%d, ", line.file.c_str(), line.line,
             static_cast<void*>(event), Infra::CThread::getCurrentThreadID());
    EXPECT_EQ(start, line.start);
    EXPECT_TRUE(std::regex_match(line.file, std::regex(".*\\bSrc/Tool/NTimerEvent\\.cpp"))) << line.file;
}

TEST_F(NTimerEvent, StopOfAnEventThatDoesNotRunIsOnlyLogged) {
    for (int32_t state : {EVENT_CREATED, EVENT_READY, EVENT_STOPPED, EVENT_CLOSED}) {
        SCOPED_TRACE(state);
        expectOnlyALine(state, CLASS + "Stop" + NOT_RUNNING, [&] { event->Stop(); });
        if (state != EVENT_CREATED) {
            NTimerProbe::of(*event).m_state = EVENT_CLOSED;
            sweep();
            event = new LetterEvent(diary, 'a');
        } else {
            event->Close();
            event = new LetterEvent(diary, 'a');
        }
    }
}

class NTimerEventDeath : public NTimerEvent {
protected:
    // The line as the default sink writes it, and then the assertion.
    static std::string lineAndAssertion(const std::string& text) {
        return "Src/Tool/NTimerEvent.cpp:[0-9]+\\] this:0x[0-9a-f]+ tid:[0-9]+, " + CLASS + text +
               "(.|\n)*Assertion `false' failed";
    }
};

TEST_F(NTimerEventDeath, StartOfARunningOrClosedEventIsAnError) {
    timer->PushTimerEvent(event);
    for (int32_t state : {EVENT_RUNNING, EVENT_CLOSED}) {
        NTimerProbe::of(*event).m_state = state;
        EXPECT_DEATH(event->Start(), lineAndAssertion("Start" + STARTED)) << state;
    }
}

TEST_F(NTimerEventDeath, PushingAnEventAgainIsAnError) {
    timer->PushTimerEvent(event);
    for (int32_t state : {EVENT_READY, EVENT_RUNNING, EVENT_STOPPED, EVENT_CLOSED}) {
        NTimerProbe::of(*event).m_state = state;
        EXPECT_DEATH(timer->PushTimerEvent(event), lineAndAssertion("set_event_ready" + STARTED)) << state;
    }
}

TEST_F(NTimerEventDeath, AListWithAHeadAndNoTailIsAnError) {
    timer->PushTimerEvent(event);
    const auto lose_the_tail = [&] {
        {
            Infra::CGuard guard(NTimerProbe::of(*timer).m_mutex);
            NTimerProbe::of(*timer).m_tail = nullptr;
        }
        timer->PushTimerEvent(new LetterEvent(diary, 'b'));
    };
    EXPECT_DEATH(lose_the_tail(), "Assertion `m_head == NULL' failed");
}

TEST_F(NTimerEvent, AnEventThatWasNeverPushedClosesAtOnce) {
    event->AddRef();
    event->Close();
    EXPECT_EQ(1, event->state());
    EXPECT_EQ("", gone());
    event->DecRef();
    EXPECT_EQ("a", gone());
    event = nullptr;
}

TEST_F(NTimerEvent, CloseInEveryPushedStateLeavesTheRestToTheTimer) {
    for (int32_t state : {EVENT_READY, EVENT_RUNNING, EVENT_STOPPED, EVENT_CLOSED}) {
        SCOPED_TRACE(state);
        put(state);
        event->Close();
        EXPECT_EQ(0, event->state());
        EXPECT_EQ("", gone());
        tick();
        EXPECT_EQ("a", gone());
        EXPECT_EQ("", diary.calls);
        event = new LetterEvent(diary, 'a');
    }
}

TEST_F(NTimerEvent, CloseMayBeCalledAgainWhileTheEventIsReferredTo) {
    timer->PushTimerEvent(event);
    event->AddRef();
    event->Close();
    event->Close();
    sweep();
    EXPECT_EQ("", gone());
    event->Close();
    EXPECT_EQ(0, event->state());
    event->DecRef();
    EXPECT_EQ("a", gone());
    event = nullptr;
}

// A product's class is compiled against this order of virtual operations.

template <typename Member>
std::size_t slotOf(Member member) {
    // Of the entry in the virtual table, plus 1 where that tells it from a function.
    std::ptrdiff_t offset = 0;
    std::memcpy(&offset, &member, sizeof offset);
    return static_cast<std::size_t>(offset) / sizeof(void*);
}

TEST(NTimerSlots, StandInTheirOrder) {
    const std::size_t destructors = 2;  // one that deletes, one that does not
    EXPECT_EQ(destructors, slotOf(&CNetHandler::handle_input));
    EXPECT_EQ(destructors + 6, slotOf(&CNetHandler::handle_timeout));
    EXPECT_EQ(destructors + 7, slotOf(&CNetHandler::handle_close));
    EXPECT_EQ(destructors + 8, slotOf(&CNetHandler::handle_message));
    EXPECT_EQ(destructors + 9, slotOf(&CNTimer::Close));
    EXPECT_EQ(destructors + 9, slotOf(&CNTimerEvent::Close));
    EXPECT_EQ(destructors + 10, slotOf(&CNTimerEvent::handle_timer_event));
    EXPECT_TRUE(std::has_virtual_destructor_v<CNTimerEvent>);
}

}  // namespace
}  // namespace Orvex::Reticor
