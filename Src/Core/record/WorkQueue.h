// CWorkQueue: the main queue of a pool, which knows its sleeping workers and wakes no more of them than pays.
#pragma once

#include <atomic>
#include <cstdint>

#include "Core/record/Event.h"

namespace Orvex::Reticor {

/// A CEventQueue whose sleepers are counted under its mutex: pushing and taking a record touch nothing else
/// while nobody sleeps, and a wake-up is given out once.
///
/// A pushed record wakes a sleeper, with one exception: the poller's own push. The poller itself takes the
/// next record, and where the handlers are quick, waking somebody for the one after it costs more than
/// serving it. So the poller says how many workers its batch is worth. Others are served in spite of a
/// handler that blocks, because one idle worker is the *guard*: it looks every millisecond for a record that
/// is still there, and takes it. Without a guard the poller's push wakes one worker at least. And whoever was
/// asleep and leaves records behind with no guard wakes another. A guard that sees the pool stand still
/// sleeps without limit like the others, so an idle pool makes no wake-ups.
///
/// Thread safety: any thread. A push wakes after it has left the mutex, so the caller keeps the pool alive:
/// it is one of the pool's threads, or holds the lock of the pool's slot.
class CWorkQueue : public CEventQueue {
public:
    CWorkQueue() = default;

    /// As in CEventQueue. True if fewer sleep here than there are new records, and the poller waits for
    /// sockets: the caller ends that wait, so that the poller takes one of them. It is told once for each
    /// wait.
    bool Push(CEvent* ev);
    bool PushOne(CEvent* ev);
    bool PushFront(CEvent* ev);
    void PushSilent(CEvent* ev) = delete;
    CEvent* Pop() = delete;

    /// The poller's push: the ready chain (null if empty) of `count` records, and the token after it. Wakes
    /// up to `wakes` sleepers for them, and no more than `count`.
    void PushReady(CEvent* chain, int count, CEvent* token, int wakes);

    /// A worker's Pop: waits for a record. Null after WakeAll.
    CEvent* PopWork();

    /// Whether the holder of the token may wait for sockets without limit. Not while records stand after the
    /// token: all others may be in long calls.
    bool PollerMayWait() const { return m_poller_waits.load(std::memory_order_relaxed); }

    /// What the pool has before it at one moment.
    struct Load {
        Amounts records;
        int resting;  ///< Threads that sleep, are about to, or wait for sockets, and were not woken.
    };
    Load Measure();

    /// Timers that wait for a worker, though they were due at `before_us` or earlier.
    struct OldTimers {
        uint64_t count = 0;
        uint64_t oldest_us = 0;  ///< When the first of them was due; 0 for none.
    };
    /// Looks at the first thousand records, so that nobody waits for long meanwhile.
    OldTimers FindOldTimers(uint64_t before_us);

    /// Has every sleeper return. For the end of the pool: each worker that leaves calls it, since another may
    /// have gone to sleep after the call before.
    void WakeAll();

private:
    static constexpr uint64_t GUARD_PERIOD_US = 1000;
    static constexpr int IDLE_LOOKS = 2;
    static constexpr int MOST_RECORDS_SEEN = 1000;

    enum class Look { again, overdue, idle };

    /// What a guard remembers from look to look.
    struct Watch {
        uint64_t seen_taken = ~uint64_t{0};
        int idle_looks = 0;
    };

    int claim(int most) INFRA_REQUIRES(m_mutex);
    bool claim_poller() INFRA_REQUIRES(m_mutex);
    CEvent* take_record() INFRA_REQUIRES(m_mutex);
    void wake(int claimed);
    CEvent* take_woken();
    void sleep_as_guard();
    Look look(Watch& watch);

    /// Workers that sleep, or are about to, and for whom no wake-up was given out.
    int m_sleepers INFRA_GUARDED_BY(m_mutex) = 0;
    bool m_guard INFRA_GUARDED_BY(m_mutex) = false;
    /// The token was taken from a queue that was empty after it, and nothing was pushed since without a
    /// sleeper to wake. Written under the mutex.
    std::atomic<bool> m_poller_waits{false};

    friend struct WorkQueueProbe;  // tests
};

}  // namespace Orvex::Reticor
