// NTimerInternal: a pass along the list of events, and the arithmetic of the grid.
#include "Tool/tick/NTimerInternal.h"

#include <algorithm>
#include <limits>

namespace Orvex::Reticor {

namespace {

constexpr int64_t SHORTEST_DELAY_US = 2000;
/// A timer that is more periods off its grid than these does not catch up with it.
constexpr int GRID_PERIODS = 20;

/// Holds a period times a number of ticks, whatever the period.
__extension__ using Wide = __int128;

}  // namespace

const ObjectKind NTimerInternal::KIND{"tick",
                                      {{{"period_us", "Periods, added up.", false},
                                        {"ticks", "Ticks so far.", true},
                                        {"events", "What is called at ticks.", false}}}};

ObjectValues NTimerInternal::figures(const void* object) {
    const auto& timer = *static_cast<const NTimerInternal*>(object);
    return {static_cast<uint64_t>(timer.m_period), timer.m_all_ticks.Get(),
            Infra::relaxedLoad(timer.m_events)};
}

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

// Handlers may start, stop and close any event meanwhile, and push others. Those stand after the event that
// was the last when the pass began, and wait for the next one: else a handler that pushes one event per call
// would keep a tick going for ever.
void NTimerInternal::scan(bool fire) {
    close_leading();
    NTimerEventInternal* last = m_tail;
    for (NTimerEventInternal* ev = m_head; ev != nullptr; ev = ev->m_next) {
        last = close_after(ev, last);
        if (fire && ev->m_state.load(std::memory_order_acquire) == EVENT_RUNNING) {
            ev->turn();
        }
        if (ev == last) {
            break;
        }
    }
}

void NTimerInternal::close_leading() {
    while (m_head != nullptr && m_head->m_state.load(std::memory_order_acquire) == EVENT_CLOSED) {
        NTimerEventInternal* const closed = m_head;
        m_head = closed->m_next;
        end_event(*closed);
    }
    if (m_head == nullptr) {
        m_tail = nullptr;
    }
}

// The closed events right after `ev`. The result is `last`, or `ev` if that one was among them.
NTimerEventInternal* NTimerInternal::close_after(NTimerEventInternal* ev, NTimerEventInternal* last) {
    NTimerEventInternal*& next = ev->m_next;
    while (next != nullptr && next->m_state.load(std::memory_order_acquire) == EVENT_CLOSED) {
        NTimerEventInternal* const closed = next;
        next = closed->m_next;
        if (closed == m_tail) {
            m_tail = ev;
        }
        if (closed == last) {
            last = ev;
        }
        end_event(*closed);
    }
    return last;
}

void NTimerInternal::close_all() {
    while (m_head != nullptr) {
        NTimerEventInternal* const ev = m_head;
        m_head = ev->m_next;
        ev->close();
    }
}

}  // namespace Orvex::Reticor
