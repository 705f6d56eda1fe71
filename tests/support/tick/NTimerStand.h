// NTimerStand: a CNTimer on a pool without workers, whose ticks and sweeps the test makes itself; and events
// that write down when they are called.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include <Reticor/NTimer.h>

#include "Core/service/NetTimer.h"
#include "Tool/tick/NTimerInternal.h"
#include "support/core/Probes.h"
#include "support/core/StillPool.h"

namespace Orvex::Reticor {

namespace ProbeDetail {

struct TimerState {
    using Type = NTimerInternal* CNTimer::*;
    friend Type stateOf(TimerState);
};
struct TimerEventState {
    using Type = NTimerEventInternal* CNTimerEvent::*;
    friend Type stateOf(TimerEventState);
};
template struct Named<TimerState, &CNTimer::m_timer>;
template struct Named<TimerEventState, &CNTimerEvent::m_event>;

}  // namespace ProbeDetail

struct NTimerProbe {
    static NTimerInternal& of(CNTimer& timer) { return *(timer.*stateOf(ProbeDetail::TimerState{})); }
    static NTimerEventInternal& of(CNTimerEvent& ev) {
        return *(ev.*stateOf(ProbeDetail::TimerEventState{}));
    }
    static int state(CNTimerEvent& ev) { return of(ev).m_state.load(); }

    static std::vector<CNTimerEvent*> events(CNTimer& timer) {
        Infra::CGuard guard(of(timer).m_mutex);
        std::vector<CNTimerEvent*> found;
        for (NTimerEventInternal* ev = of(timer).m_head; ev != nullptr; ev = ev->m_next) {
            found.push_back(&ev->m_owner);
        }
        return found;
    }
    static CNTimerEvent* tail(CNTimer& timer) {
        Infra::CGuard guard(of(timer).m_mutex);
        NTimerEventInternal* const last = of(timer).m_tail;
        return last != nullptr ? &last->m_owner : nullptr;
    }
    static long tickId(CNTimer& timer) {
        Infra::CGuard guard(of(timer).m_mutex);
        return of(timer).m_tick_timer;
    }
    static long sweepId(CNTimer& timer) {
        Infra::CGuard guard(of(timer).m_mutex);
        return of(timer).m_sweep_timer;
    }
};

}  // namespace Orvex::Reticor

namespace Orvex::Testing {

// What the events of one test have done; outlives them.
struct NTimerDiary {
    std::string calls;  // the letters of the events, in the order of their calls
    std::string gone;   // the letters of those that were deleted
};

// An event that is known by a letter. Calls come from one thread at a time.
class LetterEvent : public Reticor::CNTimerEvent {
public:
    LetterEvent(NTimerDiary& diary, char letter) : m_diary(diary), m_letter(letter) {}
    ~LetterEvent() override { m_diary.gone += m_letter; }

    std::function<int()> on_event;

    int handle_timer_event() override {
        m_diary.calls += m_letter;
        return on_event ? on_event() : CNTimerEvent::handle_timer_event();
    }
    int handle_close(CNetHandler* self) override {
        delete self;
        return 0;
    }

    int state() { return Reticor::NTimerProbe::state(*this); }

private:
    NTimerDiary& m_diary;
    const char m_letter;
};

class NTimerStand : public ::testing::Test {
protected:
    static constexpr long long MINUTE_US = 60000000;

    ~NTimerStand() override {
        if (timer != nullptr) {
            closeTimer();
        }
    }

    void SetUp() override { timer = Reticor::CNTimer::Create(MINUTE_US); }

    // What a worker does when one of the two timers has expired. The result is the next delay.
    int64_t call(long id) { return static_cast<Reticor::CNetHandler*>(timer)->handle_timeout(id); }
    int64_t tick() { return call(Reticor::NTimerProbe::tickId(*timer)); }
    int64_t sweep() { return call(Reticor::NTimerProbe::sweepId(*timer)); }

    // The letters of the events that a tick calls.
    std::string callsOfATick() {
        diary.calls.clear();
        tick();
        return diary.calls;
    }

    // Events a, b, c and so on, pushed and started.
    std::vector<LetterEvent*> running(int count) {
        std::vector<LetterEvent*> events;
        for (int i = 0; i < count; ++i) {
            events.push_back(new LetterEvent(diary, static_cast<char>('a' + i)));
            timer->PushTimerEvent(events.back());
            events.back()->Start();
        }
        return events;
    }

    // Lets closed handlers go, as the workers would, and says which events have gone since the last time, by
    // the alphabet.
    std::string gone() {
        for (auto records = still.takeQueue(); !records.empty(); records = still.takeQueue()) {
            for (Reticor::CEvent* ev : records) {
                still.serve(ev);
            }
        }
        std::sort(diary.gone.begin(), diary.gone.end());
        return std::exchange(diary.gone, "");
    }

    std::string closeTimer() {
        std::exchange(timer, nullptr)->Close();
        return gone();
    }

    StillPool still{0};
    NTimerDiary diary;
    Reticor::CNTimer* timer = nullptr;
};

}  // namespace Orvex::Testing
