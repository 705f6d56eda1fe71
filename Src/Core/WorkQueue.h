// CWorkQueue: the main queue of a pool, which also keeps the poll token while its holder serves a record.
#pragma once

#include <atomic>
#include <cstdint>

#include "Core/Event.h"

namespace Orvex::Reticor {

/// A CEventQueue whose poller may keep the poll token over one record.
///
/// The rule of a pool is that the token stands in the queue behind the records of its poll, so that another
/// worker polls while a handler runs. With one ready socket at a time that hand-over costs more than the work
/// itself: two wakes and two sleeps for each record. So the poller may *park* the token here, serve the
/// record itself, and take the token back. Others are served in spite of a handler that blocks, because:
///
///  1. Parking needs an empty queue and a *guard*: a worker that waits for work with a time limit. One guard
///  is
///     enough; all other idle workers wait without limit.
///  2. A guard that finds the same parking at two looks takes the token and polls.
///  3. Every push onto a queue with a parked token puts the token behind the pushed record, and wakes for
///  both.
///  4. A guard that sees the pool stand still waits without limit, so that an idle pool makes no wake-ups.
///  The
///     first record after that finds no guard, and the token goes through the queue.
class CWorkQueue : public CEventQueue {
public:
    /// `progress` moves with every record that the pool takes; it tells a guard whether the pool is idle.
    explicit CWorkQueue(const std::atomic<uint64_t>& progress) : m_progress(progress) {}

    // As in CEventQueue, and by rule 3.
    void Push(CEvent* ev);
    void PushOne(CEvent* ev);
    void PushFront(CEvent* ev);

    /// The poller's push: the ready chain (null if empty) of `count` records, and the token behind it. Wakes
    /// one sleeper less than that makes records, since the caller itself takes the next one.
    void PushReady(CEvent* chain, int count, CEvent* token);

    /// A worker's Pop: waits for a record, or as guard for an overdue token.
    CEvent* PopWork();

    /// Keeps the token here for its holder. False, and nothing is kept, if rule 1 does not hold.
    bool Park(CEvent* token);

    /// Gives the parked token back to its holder; false if it has gone to the queue or to the guard
    /// meanwhile.
    bool Unpark(CEvent* token);

    /// Wakes one worker that sleeps although the queue has a record for it. A worker that leaves calls this:
    /// it may have queued the token in the belief that it would take the next record itself.
    void Kick() { m_sem.wakeOne(); }

private:
    /// How long a guard waits between two looks. The token is overdue after two of them at most.
    static constexpr uint64_t GUARD_PERIOD_US = 1000;

    int append_parked() INFRA_REQUIRES(m_mutex);
    bool become_guard();
    CEvent* guard();
    bool keep_guarding(uint64_t& seen_parkings, uint64_t& seen_progress, CEvent*& token);
    CEvent* take_one();

    const std::atomic<uint64_t>& m_progress;
    CEvent* m_parked INFRA_GUARDED_BY(m_mutex) = nullptr;
    uint64_t m_parkings INFRA_GUARDED_BY(m_mutex) = 0;
    bool m_guard INFRA_GUARDED_BY(m_mutex) = false;

    friend struct WorkQueueProbe;  // tests
};

}  // namespace Orvex::Reticor
