// CObjectId: gives out the ids of a pool's handlers and timers. INDEX_OF_ID: which pool an id belongs to.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include <Infra/LockClasses.h>
#include <Infra/Mutex.h>

namespace Orvex::Reticor {

// An id is a negative number of three parts. Bits 0 to 7 are the generation: 0 for a fresh id and one more,
// modulo 256, at each reuse. Bits 8 to 15 are the index of the pool. The bits above are a counter of the pool
// that starts at -100 and goes down, over all lives of the pool, so that no id falls among the numbers from
// -101 to -1, which name kinds of records.

/// The index of the pool that `id` belongs to.
inline int INDEX_OF_ID(long id) {
    return static_cast<int>((id >> 8) & 0xFF);
}

/// The ids of one pool. An id that was given back waits after at least 1024 others and comes back with
/// another generation, so that a stale id does not reach a newer object.
///
/// Thread safety: any thread.
class CObjectId {
public:
    static constexpr int64_t FIRST_COUNTER = -100;
    static constexpr int COUNTER_SHIFT = 16;
    static constexpr uint32_t FIRST_CAPACITY = 2048;
    static constexpr uint32_t LAST_CAPACITY = 204800;
    static constexpr uint32_t WAITING = 1024;  ///< So many ids wait before one is reused.

    /// Where the counter in `id` stands in the order in which counters are drawn from `first` on: 0, 1, 2 and
    /// so on. An id that was drawn earlier, and a number that is not an id, give a place that is far too
    /// large.
    static size_t place_of(int64_t id, int64_t first = FIRST_COUNTER) {
        return static_cast<size_t>(first - (id >> COUNTER_SHIFT));
    }

    /// The id that is given out after `id`, in the same place.
    static int64_t next_generation(int64_t id) { return (id & ~int64_t{0xFF}) | ((id + 1) & 0xFF); }

    /// The counters go on where those of the last allocator of that pool ended, so that no id of an ended
    /// pool comes again in its next life.
    explicit CObjectId(int index);
    ~CObjectId();

    CObjectId(const CObjectId&) = delete;
    CObjectId& operator=(const CObjectId&) = delete;

    /// The first counter of this allocator, and the one that it will draw next.
    int64_t First() const { return m_first; }
    int64_t Next();

    /// A fresh id, or the one that waits longest if more than 1024 do.
    long Alloc();

    /// Lets an id wait for reuse. It is lost if 204800 wait already, or if there is no memory for more; ids
    /// are plentiful.
    void Release(long id);

private:
    bool make_room() INFRA_REQUIRES(m_mutex);
    uint32_t next_place(uint32_t place) const INFRA_REQUIRES(m_mutex) {
        return place + 1 == m_capacity ? 0 : place + 1;
    }
    int64_t fresh() INFRA_REQUIRES(m_mutex);
    int64_t reuse() INFRA_REQUIRES(m_mutex);

    uint32_t m_capacity INFRA_GUARDED_BY(m_mutex);  ///< Places in the ring.
    Infra::CMutex m_mutex{Infra::LockClass::OBJECT_IDS};
    int64_t* m_ring INFRA_GUARDED_BY(m_mutex);       ///< Ids that wait. Owned.
    uint32_t m_read INFRA_GUARDED_BY(m_mutex) = 0;   ///< Place of the oldest.
    uint32_t m_write INFRA_GUARDED_BY(m_mutex) = 0;  ///< Next free place.
    uint32_t m_count INFRA_GUARDED_BY(m_mutex) = 0;  ///< Ids in the ring.
    const int32_t m_index;                           ///< Of the pool.
    const int64_t m_first;                           ///< Of the first fresh id.
    int64_t m_counter INFRA_GUARDED_BY(m_mutex);     ///< Of the next fresh id.

    static constexpr int POOLS = 256;
    /// How many counters a pool of each index has drawn in its earlier lives.
    static std::atomic<int64_t> sm_drawn[POOLS];

    friend struct ObjectIdProbe;  // tests
};

}  // namespace Orvex::Reticor
