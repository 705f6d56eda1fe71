// CNTimer: the tick and its list of events. The events themselves are in NTimerEvent.cpp.
#include <Reticor/NTimer.h>

#include <algorithm>
#include <cassert>
#include <cstddef>
#include <limits>
#include <new>

#include <Infra/Time.h>

#include "Tool/tick/NTimerInternal.h"

namespace Orvex::Reticor {

namespace {

constexpr int64_t SWEEP_US = 1000000;
constexpr int64_t SHORTEST_DELAY_US = 2000;
/// So many periods off, the grid is not worth catching up with.
constexpr int GRID_PERIODS = 20;

/// Holds a period times a number of ticks, whatever the period.
__extension__ using Wide = __int128;

}  // namespace

int64_t NTimerInternal::next_delay(uint64_t now) {
    const Wide limit = Wide{GRID_PERIODS} * m_period;
    Wide next = Wide{m_start} + Wide{m_period} * (Wide{m_ticks} + 1) - Wide{now};
    if (next + limit < 0 || next > limit) {
        m_start = now;
        m_ticks = 0;
        next = m_period;
    }
    constexpr Wide LONGEST = std::numeric_limits<int64_t>::max();
    return static_cast<int64_t>(std::clamp(next, Wide{SHORTEST_DELAY_US}, LONGEST));
}

// Handlers may start, stop and close any event meanwhile, and push others. Those stand behind the event that
// was the last when the pass began, and wait for the next one: else a handler that pushes one event per call
// would keep a tick going for ever.
void NTimerInternal::scan(bool fire) {
    close_leading();
    CNTimerEvent* last = m_tail;
    for (CNTimerEvent* ev = m_head; ev != nullptr; ev = ev->m_event->m_next) {
        last = close_behind(ev, last);
        if (fire && ev->m_event->m_state.load(std::memory_order_acquire) == EVENT_RUNNING) {
            ev->do_timer_event();  // the result has no effect: only Stop and Close end the calls
        }
        if (ev == last) {
            break;
        }
    }
}

void NTimerInternal::close_leading() {
    while (m_head != nullptr && m_head->m_event->m_state.load(std::memory_order_acquire) == EVENT_CLOSED) {
        CNTimerEvent* const closed = m_head;
        m_head = closed->m_event->m_next;
        closed->__handle_timer_close();
    }
    if (m_head == nullptr) {
        m_tail = nullptr;
    }
}

// The closed events right behind `ev`. The result is `last`, or `ev` if that one was among them.
CNTimerEvent* NTimerInternal::close_behind(CNTimerEvent* ev, CNTimerEvent* last) {
    CNTimerEvent*& next = ev->m_event->m_next;
    while (next != nullptr && next->m_event->m_state.load(std::memory_order_acquire) == EVENT_CLOSED) {
        CNTimerEvent* const closed = next;
        next = closed->m_event->m_next;
        if (closed == m_tail) {
            m_tail = ev;
        }
        if (closed == last) {
            last = ev;
        }
        closed->__handle_timer_close();
    }
    return last;
}

void NTimerInternal::close_all() {
    while (m_head != nullptr) {
        CNTimerEvent* const ev = m_head;
        m_head = ev->m_event->m_next;
        ev->__handle_timer_close();
    }
}

CNTimer* CNTimer::Create(long long period) {
    auto* internal = new (std::nothrow) NTimerInternal;
    if (internal == nullptr) {
        return nullptr;
    }
    auto* timer = new (std::nothrow) CNTimer(period, internal);
    if (timer == nullptr) {
        delete internal;
    }
    return timer;
}

// Both timers are armed under the mutex: a call that comes before both ids are stored waits in handle_timeout
// until it can tell which of them it is for.
CNTimer::CNTimer(long long period, NTimerInternal* internal) : m_timer(internal) {
    m_timer->m_period = period;
    m_timer->m_start = Infra::CTime::getCurrentMicroSecond();
    m_timer->m_ticks = 0;
    Infra::CGuard guard(m_timer->m_mutex);
    m_timer->m_tick_timer = SetTimer(period);
    m_timer->m_sweep_timer = SetTimer(SWEEP_US);
}

CNTimer::~CNTimer() {
    m_timer->close_all();
    {
        Infra::CGuard guard(m_timer->m_mutex);
        if (m_timer->m_tick_timer != 0) {
            DestroyTimer(m_timer->m_tick_timer);
        }
        DestroyTimer(m_timer->m_sweep_timer);
    }
    delete m_timer;
}

int CNTimer::PushTimerEvent(CNTimerEvent* ev) {
    Infra::CGuard guard(m_timer->m_mutex);
    ev->set_event_ready();
    CNTimerEvent*& m_head = m_timer->m_head;  // so named for the assertion's text
    if (m_timer->m_tail == nullptr) {
        assert(m_head == NULL);
        m_head = ev;
    } else {
        m_timer->m_tail->m_event->m_next = ev;
    }
    m_timer->m_tail = ev;
    return 0;
}

void CNTimer::Close() {
    CNetHandler::Close();
}

int CNTimer::handle_close(CNetHandler* self) {
    delete self;
    return 0;
}

int64_t CNTimer::handle_timeout(long id) {
    {
        Infra::CGuard guard(m_timer->m_mutex);
        if (id == m_timer->m_sweep_timer) {
            m_timer->scan(false);
            return 0;  // keeps its period
        }
        ++m_timer->m_ticks;
        m_timer->scan(true);
    }
    return m_timer->next_delay(Infra::CTime::getCurrentMicroSecond());
}

}  // namespace Orvex::Reticor
