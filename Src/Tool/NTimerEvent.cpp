// CNTimerEvent: what is called on every tick of a CNTimer, and its states.
#include <Reticor/NTimer.h>

#include <cassert>

#include <Infra/Log.h>

#include "Tool/NTimerInternal.h"

namespace Orvex::Reticor {

CNTimerEvent::CNTimerEvent() : m_event(new NTimerEventInternal) {}

CNTimerEvent::~CNTimerEvent() {
    delete m_event;
}

void CNTimerEvent::Start() {
    Infra::CGuard guard(m_event->m_mutex);
    const int32_t state = m_event->m_state.load(std::memory_order_relaxed);
    if (state == EVENT_READY || state == EVENT_STOPPED) {
        m_event->m_state.store(EVENT_RUNNING, std::memory_order_release);
    } else if (state == EVENT_CREATED) {
        INFRA_LOG(2, "%s : this timer event not ready for start!\n", INFRA_FUNCTION);
    } else {
        INFRA_LOG(2, "%s : this timer event already started!\n", INFRA_FUNCTION);
        assert(false);
    }
}

void CNTimerEvent::Stop() {
    Infra::CGuard guard(m_event->m_mutex);
    if (m_event->m_state.load(std::memory_order_relaxed) == EVENT_RUNNING) {
        m_event->m_state.store(EVENT_STOPPED, std::memory_order_release);
    } else {
        INFRA_LOG(2, "%s : Can't stop a timer event not in running state!\n", INFRA_FUNCTION);
    }
}

// Once the state is EVENT_CLOSED a pass of the timer may close the event, and with that end it: nothing of it
// is touched afterwards, its mutex included. Hence the state in between, which no pass acts on.
void CNTimerEvent::Close() {
    bool pushed = false;
    {
        Infra::CGuard guard(m_event->m_mutex);
        pushed = m_event->m_state.load(std::memory_order_relaxed) != EVENT_CREATED;
        if (pushed) {
            m_event->m_state.store(EVENT_CLOSING, std::memory_order_release);
        }
    }
    if (pushed) {
        m_event->m_state.store(EVENT_CLOSED, std::memory_order_release);
    } else {
        CNetHandler::Close();
    }
}

int CNTimerEvent::handle_timer_event() {
    return -1;
}

long long CNTimerEvent::do_timer_event() {
    return handle_timer_event();
}

void CNTimerEvent::set_event_ready() {
    Infra::CGuard guard(m_event->m_mutex);
    if (m_event->m_state.load(std::memory_order_relaxed) == EVENT_CREATED) {
        m_event->m_state.store(EVENT_READY, std::memory_order_release);
    } else {
        INFRA_LOG(2, "%s : this timer event already started!\n", INFRA_FUNCTION);
        assert(false);
    }
}

void CNTimerEvent::__handle_timer_close() {
    CNetHandler::Close();
}

}  // namespace Orvex::Reticor
