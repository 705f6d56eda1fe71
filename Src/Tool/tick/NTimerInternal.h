// What CNTimer and CNTimerEvent keep behind their pointers, and the arithmetic of the tick's grid.
#pragma once

#include <atomic>
#include <cstdint>

#include <Infra/Atomic.h>
#include <Infra/LockClasses.h>
#include <Infra/Mutex.h>
#include <Infra/ThreadAnnotations.h>

#include "Core/count/ObjectRoll.h"
#include "Core/count/Tally.h"

namespace Orvex::Reticor {

class CNTimerEvent;

/// States of a CNTimerEvent.
enum NTimerEventState : int32_t {
    EVENT_CLOSED = 0,   ///< Waits for the next pass to unlink it.
    EVENT_CREATED = 1,  ///< Not on a timer.
    EVENT_READY = 2,    ///< Pushed, never started.
    EVENT_RUNNING = 3,  ///< Called on every tick.
    EVENT_STOPPED = 4,  ///< Stays in the list, is not called.
};

/// What a timer knows of an event: how to call it and how to end it, its link and its state.
struct NTimerEventInternal {
    explicit NTimerEventInternal(CNTimerEvent& owner) : m_owner(owner) {}
    virtual ~NTimerEventInternal() = default;

    /// The event was pushed. One that had been pushed before ends the process by an assertion.
    virtual void set_ready() = 0;
    /// The call of one tick, for an event in EVENT_RUNNING.
    virtual void turn() = 0;
    /// Ends the event, which the timer has unlinked. The object may be gone when this returns.
    virtual void close() = 0;

    CNTimerEvent& m_owner;
    /// The next in the list of the timer, whose mutex guards it.
    NTimerEventInternal* m_next = nullptr;
    /// No lock: whoever changes it to EVENT_RUNNING or EVENT_CLOSED must not touch the event any more.
    std::atomic<int32_t> m_state{EVENT_CREATED};

    /// True if the state was `from`, and is `to` now. Otherwise `from` tells what it was.
    bool change(int32_t& from, int32_t to) {
        return m_state.compare_exchange_strong(from, to, std::memory_order_acq_rel,
                                               std::memory_order_relaxed);
    }
};

/// The list of a timer's events, and the grid of its ticks.
struct NTimerInternal {
    // The grid belongs to the tick, which never overlaps itself: these three need no lock.
    uint64_t m_start = 0;    ///< Origin of the grid, us.
    int64_t m_ticks = 0;     ///< Taken since m_start.
    long long m_period = 0;  ///< us; any value.

    /// Held across a whole pass, with every call of a handler.
    Infra::CMutex m_mutex{Infra::LockClass::TICK};
    NTimerEventInternal* m_head INFRA_GUARDED_BY(m_mutex) = nullptr;  ///< First pushed.
    NTimerEventInternal* m_tail INFRA_GUARDED_BY(m_mutex) = nullptr;  ///< Last pushed.
    long m_tick_timer INFRA_GUARDED_BY(m_mutex) = 0;
    long m_sweep_timer INFRA_GUARDED_BY(m_mutex) = 0;  ///< Lets closed events go if the period is long.
    Tally m_all_ticks;                                 ///< Whatever became of the grid.
    uint64_t m_events = 0;  ///< In the list. Written under the mutex, read without it too.

    /// Whether the two timers of the handler have been set.
    bool is_armed() {
        Infra::CGuard guard(m_mutex);
        return m_tick_timer != -1 && m_sweep_timer != -1;
    }
    /// One pass along the list: unlinks and closes what is closed, and with `fire` calls what runs.
    void scan(bool fire) INFRA_REQUIRES(m_mutex);
    /// Closes every event, whatever its state. By the destructor: without the lock, since nobody else knows
    /// the timer any more.
    void close_all() INFRA_NO_THREAD_SAFETY_ANALYSIS;
    /// The delay from `now` to the next grid point. Gives the grid up, and begins a new one at `now`, when
    /// that is more than 20 periods away in either direction. At least 2000.
    int64_t next_delay(uint64_t now);

    void count_event() INFRA_REQUIRES(m_mutex) { Infra::relaxedStore(m_events, m_events + 1); }

    /// In snapshots. The last member.
    RollEntry m_roll{KIND, &figures, this};

private:
    static const ObjectKind KIND;

    static ObjectValues figures(const void* object);
    /// Ends an event that is not in the list any more.
    void end_event(NTimerEventInternal& event) INFRA_REQUIRES(m_mutex) {
        Infra::relaxedStore(m_events, m_events - 1);
        event.close();
    }
    void close_leading() INFRA_REQUIRES(m_mutex);
    NTimerEventInternal* close_after(NTimerEventInternal* ev, NTimerEventInternal* last)
        INFRA_REQUIRES(m_mutex);
};

}  // namespace Orvex::Reticor
