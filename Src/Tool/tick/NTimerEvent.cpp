// CNTimerEvent: what is called on every tick of a CNTimer, and its states.
#include <Reticor/NTimer.h>

#include <cassert>
#include <new>

#include <Infra/Log.h>

#include "Tool/tick/NTimerInternal.h"

namespace Orvex::Reticor {

/// An event on its timer's list.
class CNTimerEvent::Turn final : public NTimerEventInternal {
public:
    using NTimerEventInternal::NTimerEventInternal;

    void set_ready() override;
    void turn() override { m_owner.handle_timer_event(); }  // its result has no effect
    void close() override { m_owner.CNetHandler::Close(); }
};

// Line and assertion tell of the operation by the name that users know it by.
void CNTimerEvent::Turn::set_ready() {
    constexpr char NAME[] = "Orvex::Reticor::CNTimerEvent::set_event_ready";
    int32_t state = EVENT_CREATED;
    if (!change(state, EVENT_READY)) {
        if (Infra::logEnabled(2)) {
            Infra::Detail::logMember(2, __FILE__, NAME, __LINE__, &m_owner,
                                     "%s : this timer event already started!\n", NAME);
        }
        __assert_fail("false", __FILE__, __LINE__, "void Orvex::Reticor::CNTimerEvent::set_event_ready()");
    }
}

// Without memory for either part it is a handler that cannot be pushed.
CNTimerEvent::CNTimerEvent() : m_event(GetID() != 0 ? new (std::nothrow) Turn(*this) : nullptr) {
    if (m_event == nullptr && GetID() != 0) {
        INFRA_LOG(2, "%s : no memory, it cannot be pushed!\n", INFRA_FUNCTION);
    }
}

CNTimerEvent::~CNTimerEvent() {
    delete m_event;
}

// The transitions are exchanges of one atomic word, and the last touch of the object where a pass of the
// timer may act on the new state: a pass runs a started event, which may then end itself, and ends a closed
// one.

void CNTimerEvent::Start() {
    int32_t state = m_event != nullptr ? m_event->m_state.load(std::memory_order_relaxed) : EVENT_CREATED;
    while (state == EVENT_READY || state == EVENT_STOPPED) {
        if (m_event->change(state, EVENT_RUNNING)) {
            return;
        }
    }
    if (state == EVENT_CREATED) {
        INFRA_LOG(2, "%s : this timer event not ready for start!\n", INFRA_FUNCTION);
    } else {
        INFRA_LOG(2, "%s : this timer event already started!\n", INFRA_FUNCTION);
        assert(false);
    }
}

void CNTimerEvent::Stop() {
    int32_t state = EVENT_RUNNING;
    if (m_event == nullptr || !m_event->change(state, EVENT_STOPPED)) {
        INFRA_LOG(2, "%s : Can't stop a timer event not in running state!\n", INFRA_FUNCTION);
    }
}

void CNTimerEvent::Close() {
    int32_t state = m_event != nullptr ? m_event->m_state.load(std::memory_order_relaxed) : EVENT_CREATED;
    while (state != EVENT_CREATED) {
        if (m_event->change(state, EVENT_CLOSED)) {
            return;
        }
    }
    CNetHandler::Close();
}

int CNTimerEvent::handle_timer_event() {
    return -1;
}

}  // namespace Orvex::Reticor
