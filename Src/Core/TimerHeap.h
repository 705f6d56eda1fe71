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

/// A binary min-heap by expiry. Parent of place i is (i + 1) / 2 - 1; ties stay where they fall. Each record
/// knows its place, and a table leads from a timer's id to its record, so that ending one timer of a million
/// searches nothing.
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
    /// The expiry stands beside the record, so that sifting compares without touching records.
    struct Entry {
        uint64_t expire;
        CEvent* record;
    };
    using Chunk = std::unique_ptr<CEvent*[]>;
    static constexpr size_t CHUNK = 1024;
    static constexpr size_t FIRST_CAPACITY = 200;

    void put(size_t place, const Entry& entry) INFRA_REQUIRES(m_mutex);
    void sift_up(size_t place, const Entry& entry) INFRA_REQUIRES(m_mutex);
    void sift_down(size_t place, const Entry& entry) INFRA_REQUIRES(m_mutex);
    CEvent* remove_at(size_t place) INFRA_REQUIRES(m_mutex);
    CEvent** id_slot(int64_t id, bool grow) INFRA_REQUIRES(m_mutex);

    Infra::CMutex m_mutex;
    std::vector<Entry> m_array INFRA_GUARDED_BY(m_mutex);
    std::array<std::vector<Chunk>, PoolTable::POOL_LIMIT> m_by_id INFRA_GUARDED_BY(m_mutex);
};

}  // namespace Orvex::Reticor
