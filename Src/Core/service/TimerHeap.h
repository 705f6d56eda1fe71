// TimerHeap: the armed timers of all pools, soonest first.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <vector>

#include <Infra/LockClasses.h>
#include <Infra/Mutex.h>

#include "Core/pool/PoolTable.h"
#include "Core/record/Event.h"
#include "Core/service/DueChains.h"
#include "Core/service/TimerBuckets.h"
#include "Core/service/TimerIds.h"
#include "Core/service/TimerTable.h"

namespace Orvex::Reticor {

/// A binary min-heap by expiry of the timers that are due soon, buckets for the others, and a table that
/// leads from an id to its timer.
///
/// A timer is armed if the table says so. Ending one takes it out of the table alone, so that a million armed
/// timers cost nothing to one that is cancelled; its entry stays behind as a dead one until its time comes,
/// or until the dead ones outnumber the others and are swept out. A timer goes from its bucket to the heap,
/// or is forgotten if it is dead, when a tick reaches the bucket's time: few timers that wait for long are
/// ever sorted.
///
/// Thread safety: any thread. The mutex comes before that of a pool's id allocator.
class TimerHeap {
public:
    static constexpr long NO_POOL = 0;
    static constexpr long NO_MEMORY = 1;

    /// Arms a timer under an id of the pool that `timer.obj_id` names. Result: the id, or one of the two
    /// above. `first` tells whether Soonest() has become earlier, or is not 0 any more. It takes all the
    /// memory that the timer needs from now until it ends, on its way through queues and handlers too.
    long Arm(ArmedTimer timer, bool& first);

    /// Arms a timer again that was due. Result: whether Soonest() has become earlier, or is not 0 any more.
    bool Rearm(const ArmedTimer& timer);

    /// Lets the id of a timer that was due wait for its next timer.
    void Release(long id);

    /// Ends an armed timer, and lets its id wait for its next timer. Nothing if there is none with that id.
    std::optional<ArmedTimer> RemoveById(long id);

    /// Takes out every timer of a pool that nobody finds any more. The ids end with the pool's allocator;
    /// those of the next pool in its place begin with the counter `next`.
    void RemovePool(int index, int64_t next);

    /// No timer expires before this; 0 without timers. It may be early after one was removed.
    uint64_t Soonest();

    /// The soonest expiry, or 0: what Soonest() gives from now on. Looks for it if need be.
    uint64_t Peek();

    /// Makes records of everything that expires up to `limit`, and adds them to the chains. False if there
    /// was no memory for all of them; the others stay armed.
    bool PopDue(uint64_t limit, DueChains& due);

    /// Armed timers.
    int Count();

    /// Those of one pool.
    size_t CountOfPool(int index);

    /// Puts the handlers of a part of a pool's armed timers in `owners`, one for each timer; the parts count
    /// from 0. False if there is no such part. Takes memory only where `owners` is too short.
    bool ListOwners(int index, size_t part, std::vector<int64_t>& owners);

private:
    struct Later {
        bool operator()(const TimerEntry& a, const TimerEntry& b) const { return a.expire > b.expire; }
    };
    struct Pool {
        TimerTable table;
        TimerIds ids;
        size_t armed = 0;
        size_t held = 0;  ///< Timers of the pool, armed or on their way to a handler.
    };
    static constexpr size_t FIRST_CAPACITY = 200;
    static constexpr uint64_t NEVER = ~uint64_t{0};

    Pool* pool_of(int64_t id) INFRA_REQUIRES(m_mutex);
    ArmedTimer* armed(const TimerEntry& entry) INFRA_REQUIRES(m_mutex);
    bool reserve() INFRA_REQUIRES(m_mutex);
    ArmedTimer* hold(Pool& pool, int64_t id) INFRA_REQUIRES(m_mutex);
    void let_go(Pool& pool, int64_t id) INFRA_REQUIRES(m_mutex);
    bool arm(Pool& pool, const ArmedTimer& timer, bool& first) INFRA_REQUIRES(m_mutex);
    bool insert(Pool& pool, const ArmedTimer& timer) INFRA_REQUIRES(m_mutex);
    void erase(Pool& pool, ArmedTimer* timer) INFRA_REQUIRES(m_mutex);
    int64_t take_id(int index) INFRA_REQUIRES(m_mutex);
    void put_id(int64_t id) INFRA_REQUIRES(m_mutex);
    void push(const TimerEntry& entry) INFRA_REQUIRES(m_mutex);
    void pop_top() INFRA_REQUIRES(m_mutex);
    bool is_to_be_swept() const INFRA_REQUIRES(m_mutex);
    void sweep() INFRA_REQUIRES(m_mutex);

    Infra::CMutex m_mutex{Infra::LockClass::TIMER_HEAP};
    size_t m_count INFRA_GUARDED_BY(m_mutex) = 0;  ///< Armed timers.
    size_t m_held INFRA_GUARDED_BY(m_mutex) = 0;   ///< Those that are on their way as well.
    uint64_t m_soonest INFRA_GUARDED_BY(m_mutex) = NEVER;
    std::vector<TimerEntry> m_array INFRA_GUARDED_BY(m_mutex);  ///< The heap.
    TimerBuckets m_later INFRA_GUARDED_BY(m_mutex);
    std::array<Pool, PoolTable::POOL_LIMIT> m_pool INFRA_GUARDED_BY(m_mutex);

    friend struct TimerHeapProbe;  // tests
};

}  // namespace Orvex::Reticor
