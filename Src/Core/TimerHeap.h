// TimerHeap: the armed timers of all pools, soonest first.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <vector>

#include <Infra/Mutex.h>

#include "Core/Event.h"
#include "Core/PoolTable.h"

namespace Orvex::Reticor {

/// The records that one tick found due, one chain for each pool. Chains grow at their front: within one tick
/// and one pool, the timer that was due last runs first.
struct DueChains {
    std::array<CEvent*, PoolTable::POOL_LIMIT> m_chain{};  ///< By pool index; all null between ticks.
    std::array<int, PoolTable::POOL_LIMIT> m_active{};     ///< The indexes with a chain, by first appearance.
    int m_active_num = 0;
};

/// A binary min-heap by expiry, and a table that leads from a timer's id to its record.
///
/// A timer is armed if the table says so. Ending one takes it out of the table alone, so that a million armed
/// timers cost nothing to one that is cancelled; its entry stays in the heap as a dead one until it comes to
/// the top, or until the dead ones outnumber the others and are swept out.
///
/// Thread safety: any thread.
class TimerHeap {
public:
    TimerHeap();

    /// Adds a record. Result: its expiry if it is now the soonest, otherwise 0.
    uint64_t Insert(CEvent* ev);

    /// The soonest expiry, or 0.
    uint64_t Peek();

    /// Moves everything that expires up to `limit` into the chains.
    void PopDue(uint64_t limit, DueChains& due);

    /// Takes out the timer with that id; null if it is not here.
    CEvent* RemoveById(long id);

    /// Takes out every timer of a pool. Result: a chain, or null.
    CEvent* RemovePool(int index);

    int Count();

private:
    /// Names an armed timer, or one that is armed no more. The record itself may be somebody else's by then.
    struct Entry {
        uint64_t expire;
        int64_t id;
    };
    struct Later {
        bool operator()(const Entry& a, const Entry& b) const { return a.expire > b.expire; }
    };

    using Chunk = std::unique_ptr<CEvent*[]>;
    static constexpr size_t CHUNK = 1024;
    static constexpr size_t FIRST_CAPACITY = 200;

    CEvent** slot_of(int64_t id) INFRA_REQUIRES(m_mutex);
    CEvent** make_slot(int64_t id) INFRA_REQUIRES(m_mutex);
    CEvent* armed(const Entry& entry) INFRA_REQUIRES(m_mutex);
    void disarm(CEvent* ev) INFRA_REQUIRES(m_mutex);
    void pop_top() INFRA_REQUIRES(m_mutex);
    void drop_dead_top() INFRA_REQUIRES(m_mutex);
    void sweep() INFRA_REQUIRES(m_mutex);

    Infra::CMutex m_mutex;
    /// Armed timers. The top of the heap is always one of them.
    size_t m_count INFRA_GUARDED_BY(m_mutex) = 0;
    std::vector<Entry> m_array INFRA_GUARDED_BY(m_mutex);
    std::array<std::vector<Chunk>, PoolTable::POOL_LIMIT> m_by_id INFRA_GUARDED_BY(m_mutex);
};

}  // namespace Orvex::Reticor
