// CNTimer: what a tick and a sweep do with the list of events.
#include <Reticor/NTimer.h>

#include <gtest/gtest.h>

#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include <Infra/Time.h>

#include "support/ObjectFigures.h"
#include "support/socket/Allocations.h"
#include "support/tick/NTimerStand.h"

namespace Orvex::Reticor {
namespace {

using Testing::LetterEvent;

class NTimer : public Testing::NTimerStand {};

TEST_F(NTimer, ATimerHasTheTimerOfItsTickAndOneOfASecond) {
    EXPECT_EQ(2, CNetTimer::heap().Count());
    const auto tick_timer = CNetTimer::heap().RemoveById(NTimerProbe::tickId(*timer));
    const auto sweep_timer = CNetTimer::heap().RemoveById(NTimerProbe::sweepId(*timer));
    ASSERT_TRUE(tick_timer && sweep_timer);
    EXPECT_EQ(static_cast<uint64_t>(MINUTE_US), tick_timer->delay);
    EXPECT_EQ(1000000U, sweep_timer->delay);
}

TEST_F(NTimer, TheTickIsArmedBeforeTheSweep) {
    // Ids of one pool count down.
    EXPECT_GT(NTimerProbe::tickId(*timer), NTimerProbe::sweepId(*timer));
}

TEST_F(NTimer, ANewTimerHasNoEventsNoTicksAndStartsNow) {
    const uint64_t before = Infra::CTime::getCurrentMicroSecond();
    CNTimer* other = CNTimer::Create(20000);
    const uint64_t after = Infra::CTime::getCurrentMicroSecond();
    NTimerInternal& inside = NTimerProbe::of(*other);
    EXPECT_GE(inside.m_start, before);
    EXPECT_LE(inside.m_start, after);
    EXPECT_EQ(0, inside.m_ticks);
    EXPECT_EQ(20000, inside.m_period);
    EXPECT_TRUE(NTimerProbe::events(*other).empty());
    EXPECT_EQ(nullptr, NTimerProbe::tail(*other));
    other->Close();
    gone();
}

TEST_F(NTimer, WithoutMemoryThereIsNoTimer) {
    for (size_t successes : {0U, 1U}) {
        const Testing::NoMemory none(successes);
        EXPECT_EQ(nullptr, CNTimer::Create(20000)) << successes;
    }
    EXPECT_EQ(2, CNetTimer::heap().Count());
}

TEST_F(NTimer, NobodyElseMakesOrDeletesATimer) {
    EXPECT_FALSE((std::is_constructible_v<CNTimer, long long>));
    EXPECT_FALSE(std::is_destructible_v<CNTimer>);
    EXPECT_TRUE(std::has_virtual_destructor_v<CNTimer>);
}

TEST_F(NTimer, EventsAreCalledInTheOrderInWhichTheyWerePushed) {
    running(4);
    EXPECT_EQ("abcd", callsOfATick());
    EXPECT_EQ("abcd", callsOfATick());
}

TEST_F(NTimer, PushingAlwaysGivesZero) {
    EXPECT_EQ(0, timer->PushTimerEvent(new LetterEvent(diary, 'a')));
    EXPECT_EQ(0, timer->PushTimerEvent(new LetterEvent(diary, 'b')));
}

TEST_F(NTimer, AnEventThatWasNeverStartedIsNotCalledAndThenFromTheNextTickOn) {
    auto* event = new LetterEvent(diary, 'a');
    timer->PushTimerEvent(event);
    EXPECT_EQ("", callsOfATick());
    event->Start();
    EXPECT_EQ("a", callsOfATick());
}

TEST_F(NTimer, AStoppedEventMissesItsTicksForGood) {
    auto events = running(2);
    events[0]->Stop();
    EXPECT_EQ("b", callsOfATick());
    EXPECT_EQ("b", callsOfATick());
    events[0]->Start();
    EXPECT_EQ("ab", callsOfATick());
}

TEST_F(NTimer, TheResultOfAnEventHasNoEffect) {
    auto events = running(3);
    for (int result : {-1, 0, 1, 5000000}) {
        for (LetterEvent* event : events) {
            event->on_event = [result] { return result; };
        }
        EXPECT_EQ("abc", callsOfATick()) << result;
        EXPECT_EQ(static_cast<int>(EVENT_RUNNING), events[0]->state());
    }
}

TEST_F(NTimer, TheSweepCallsNobodyAndLeavesTheGridAlone) {
    running(2);
    NTimerInternal& inside = NTimerProbe::of(*timer);
    inside.m_start = 17;
    inside.m_ticks = 5;
    EXPECT_EQ(0, sweep());
    EXPECT_EQ("", diary.calls);
    EXPECT_EQ(17U, inside.m_start);
    EXPECT_EQ(5, inside.m_ticks);
}

TEST_F(NTimer, EveryIdButTheSweepsIsTheTick) {
    running(1);
    for (long id : {0L, -1L, -102L, NTimerProbe::sweepId(*timer) + 1}) {
        call(id);
    }
    EXPECT_EQ("aaaa", diary.calls);
    EXPECT_EQ(4, NTimerProbe::of(*timer).m_ticks);
}

TEST_F(NTimer, AnEmptyTimerKeepsTickingOnItsGrid) {
    const uint64_t start = NTimerProbe::of(*timer).m_start;
    for (int ticks = 1; ticks <= 5; ++ticks) {
        EXPECT_GT(tick(), (ticks + 1) * MINUTE_US - MINUTE_US);
        EXPECT_EQ(ticks, NTimerProbe::of(*timer).m_ticks);
        EXPECT_EQ(start, NTimerProbe::of(*timer).m_start);
        EXPECT_EQ(nullptr, NTimerProbe::tail(*timer));
    }
}

// Closed events go with the next pass of either timer; what is left is linked as if they had never been
// there.

struct Reaping {
    const char* closed;
    const char* left;
};

class NTimerReaping : public NTimer, public testing::WithParamInterface<bool> {};

TEST_P(NTimerReaping, ClosedEventsAreUnlinkedWhereverTheyStand) {
    const Reaping cases[] = {{"a", "bcde"}, {"e", "abcd"}, {"c", "abde"}, {"ab", "cde"},
                             {"de", "abc"}, {"bcd", "ae"}, {"abcd", "e"}, {"bcde", "a"},
                             {"ace", "bd"}, {"bd", "ace"}, {"abcde", ""}, {"abde", "c"}};
    for (const Reaping& reaping : cases) {
        SCOPED_TRACE(reaping.closed);
        auto events = running(5);
        for (const char* letter = reaping.closed; *letter != '\0'; ++letter) {
            events[static_cast<size_t>(*letter - 'a')]->Close();
        }
        EXPECT_EQ(5U, NTimerProbe::events(*timer).size());
        diary.calls.clear();
        GetParam() ? tick() : sweep();
        EXPECT_EQ(GetParam() ? reaping.left : "", diary.calls);
        EXPECT_EQ(reaping.closed, gone());

        const std::string left = reaping.left;
        EXPECT_EQ(left.size(), NTimerProbe::events(*timer).size());
        EXPECT_EQ(left.empty() ? nullptr : events[static_cast<size_t>(left.back() - 'a')],
                  NTimerProbe::tail(*timer));
        auto* heir = new LetterEvent(diary, 'z');
        timer->PushTimerEvent(heir);
        heir->Start();
        EXPECT_EQ(left + "z", callsOfATick());
        EXPECT_EQ(heir, NTimerProbe::tail(*timer));

        closeTimer();
        SetUp();
    }
}

INSTANTIATE_TEST_SUITE_P(ByTickAndBySweep, NTimerReaping, testing::Bool());

TEST_F(NTimer, AClosedEventIsNotCalledAgain) {
    auto events = running(3);
    events[1]->Close();
    EXPECT_EQ("ac", callsOfATick());
}

TEST_F(NTimer, ClosingATimerClosesItsEventsInEveryStateWithoutACall) {
    auto events = running(4);
    events[1]->Stop();
    events[2]->Close();
    timer->PushTimerEvent(new LetterEvent(diary, 'e'));
    EXPECT_EQ("abcde", closeTimer());
    EXPECT_EQ("", diary.calls);
    EXPECT_EQ(0, CNetTimer::heap().Count()) << "both of its timers have ended";
}

TEST_F(NTimer, ATimerThatIsReferredToLivesOnAfterClose) {
    running(1);
    CNTimer* kept = timer;
    kept->AddRef();
    EXPECT_EQ("", closeTimer());
    auto* late = new LetterEvent(diary, 'b');
    EXPECT_EQ(0, kept->PushTimerEvent(late));
    kept->DecRef();
    EXPECT_EQ("ab", gone());
}

// What handlers do to the list while it is walked.

TEST_F(NTimer, AHandlerMayStopAndCloseItselfAndOthers) {
    auto events = running(6);
    events[1]->on_event = [&] {
        events[0]->Close();  // was called already, and goes with the next pass
        events[1]->Stop();
        events[2]->Close();  // stands where the pass goes on, and so goes with the next one
        events[3]->Close();  // goes with this pass
        events[4]->Stop();
        return 0;
    };
    EXPECT_EQ("abf", callsOfATick());
    EXPECT_EQ("d", gone());
    EXPECT_EQ("f", callsOfATick());
    EXPECT_EQ("ac", gone());
}

TEST_F(NTimer, AHandlerMayCloseTheLastEventWhichIsItself) {
    auto events = running(2);
    events[1]->on_event = [&] {
        events[1]->Close();
        return 0;
    };
    EXPECT_EQ("ab", callsOfATick());
    EXPECT_EQ("", gone());
    EXPECT_EQ("a", callsOfATick());
    EXPECT_EQ("b", gone());
    EXPECT_EQ(events[0], NTimerProbe::tail(*timer));
}

TEST_F(NTimer, AHandlerMayStartAnotherOne) {
    auto events = running(3);
    events[0]->Stop();
    events[2]->Stop();
    events[1]->on_event = [&] {
        if (events[0]->state() == EVENT_STOPPED) {
            events[0]->Start();
            events[2]->Start();
        }
        return 0;
    };
    EXPECT_EQ("bc", callsOfATick());
    EXPECT_EQ("abc", callsOfATick());
}

// Else one that pushes an event per call would never let the tick end.
TEST_F(NTimer, AnEventThatAHandlerPushesIsCalledFromTheNextTickOn) {
    auto events = running(2);
    char letter = 'c';
    const auto breed = [&] {
        auto* child = new LetterEvent(diary, letter++);
        timer->PushTimerEvent(child);
        child->Start();
        return 0;
    };
    events[1]->on_event = breed;
    EXPECT_EQ("ab", callsOfATick());
    EXPECT_EQ("abc", callsOfATick());
    events[0]->on_event = [&] {
        events[1]->Close();
        return breed();
    };
    EXPECT_EQ("acd", callsOfATick());
    events[0]->on_event = nullptr;
    EXPECT_EQ("acde", callsOfATick());
}

TEST_F(NTimer, TheLastEventOfAPassMayBeClosedWhileAnotherIsPushed) {
    auto events = running(2);
    events[0]->on_event = [&] {
        events[0]->on_event = nullptr;
        events[1]->Close();
        auto* child = new LetterEvent(diary, 'c');
        timer->PushTimerEvent(child);
        child->Start();
        return 0;
    };
    EXPECT_EQ("a", callsOfATick());
    EXPECT_EQ("ac", callsOfATick());
    EXPECT_EQ("b", gone());
}

// What stands after the last one is unlinked as well while the pass is under way.
TEST_F(NTimer, APassEndsAlsoIfItsLastEventIsUnlinkedOnTheWay) {
    auto events = running(3);
    events[0]->on_event = [&] {
        events[0]->on_event = nullptr;
        events[2]->Close();  // the last one, which goes when the pass is at its neighbour
        auto* child = new LetterEvent(diary, 'd');
        timer->PushTimerEvent(child);
        child->Start();
        return 0;
    };
    EXPECT_EQ("ab", callsOfATick());
    EXPECT_EQ("c", gone());
    EXPECT_EQ("abd", callsOfATick());
}

TEST_F(NTimer, AHandlerMayCloseItsTimer) {
    auto events = running(2);
    timer->AddRef();  // as a worker does for the time of the call
    events[0]->on_event = [&] {
        timer->Close();
        return 0;
    };
    EXPECT_EQ("ab", callsOfATick());
    EXPECT_EQ("", gone());
    std::exchange(timer, nullptr)->DecRef();
    EXPECT_EQ("ab", gone());
}

TEST_F(NTimer, ATickAllocatesNothing) {
    running(20);
    diary.calls.reserve(1000);
    tick();
    const size_t before = Testing::allocationCount();
    tick();
    EXPECT_EQ(before, Testing::allocationCount());
}

// ---- in snapshots ----------------------------------------------------------------------------------------

TEST_F(NTimer, TellsItsPeriodItsTicksAndWhatIsOnIt) {
    using Figures = std::map<std::string, uint64_t>;
    const long id = timer->GetID();
    EXPECT_EQ((Figures{{"period_us", MINUTE_US}, {"ticks", 0}, {"events", 0}}),
              Testing::figuresOf("tick", id));
    const std::vector<LetterEvent*> events = running(5);
    tick();
    EXPECT_EQ((Figures{{"period_us", MINUTE_US}, {"ticks", 1}, {"events", 5}}),
              Testing::figuresOf("tick", id));
    events[0]->Close();
    events[2]->Close();
    events[4]->Close();
    EXPECT_EQ(5U, Testing::figuresOf("tick", id)["events"]) << "until the next pass";
    sweep();
    EXPECT_EQ((Figures{{"period_us", MINUTE_US}, {"ticks", 1}, {"events", 2}}),
              Testing::figuresOf("tick", id));
    closeTimer();
    EXPECT_TRUE(Testing::figuresOf("tick", id).empty());
}

}  // namespace
}  // namespace Orvex::Reticor
