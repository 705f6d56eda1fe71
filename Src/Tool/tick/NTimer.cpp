// CNTimer: the tick, and what is pushed on it. The list is in NTimerInternal, the events are in NTimerEvent.
#include <Reticor/NTimer.h>

#include <cassert>
#include <cstddef>
#include <new>

#include <Infra/Log.h>
#include <Infra/Time.h>

#include "Core/handle/HandlerInternal.h"
#include "Tool/tick/NTimerInternal.h"

namespace Orvex::Reticor {

namespace {

constexpr int64_t SWEEP_US = 1000000;

}  // namespace

CNTimer* CNTimer::Create(long long period) {
    auto* internal = new (std::nothrow) NTimerInternal;
    auto* timer = internal != nullptr ? new (std::nothrow) CNTimer(period, internal) : nullptr;
    if (timer == nullptr) {
        delete internal;
        INFRA_LOG_STATIC(2, "CNTimer::Create no memory!\n");
        return nullptr;
    }
    if (!internal->is_armed()) {
        HandlerInternal::Discard(timer);  // what was missing has told of itself
        return nullptr;
    }
    internal->m_roll.enter(timer->GetID());
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
    NTimerEventInternal* const event = ev->m_event;
    if (event == nullptr) {
        return -1;
    }
    event->set_ready();
    NTimerEventInternal*& m_head = m_timer->m_head;  // so named for the assertion's text
    if (m_timer->m_tail == nullptr) {
        assert(m_head == NULL);
        m_head = event;
    } else {
        m_timer->m_tail->m_next = event;
    }
    m_timer->m_tail = event;
    m_timer->count_event();
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
        m_timer->m_all_ticks.Increment();
        m_timer->scan(true);
    }
    return m_timer->next_delay(Infra::CTime::getCurrentMicroSecond());
}

}  // namespace Orvex::Reticor
