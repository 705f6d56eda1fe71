// TimerHeap: the armed timers of all pools, soonest first.
#include "Core/service/TimerHeap.h"

#include <algorithm>
#include <new>
#include <utility>

#include "Core/handle/ObjectId.h"

namespace Orvex::Reticor {

// ---- timers and ids ------------------------------------------------------------------------------------

TimerHeap::Pool* TimerHeap::pool_of(int64_t id) {
    const int index = INDEX_OF_ID(static_cast<long>(id));
    return index < PoolTable::POOL_LIMIT ? &m_pool[static_cast<size_t>(index)] : nullptr;
}

/// The timer of an entry, or null if it is armed no more. An id comes back with another generation, and one
/// timer is armed again with a later expiry, so id and expiry together name one arming.
inline ArmedTimer* TimerHeap::armed(const TimerEntry& entry) {
    ArmedTimer* timer = pool_of(entry.id)->table.Find(entry.id);
    return timer != nullptr && timer->expire == entry.expire ? timer : nullptr;
}

inline void TimerHeap::erase(Pool& pool, ArmedTimer* timer) {
    --pool.armed;
    TimerTable::Erase(timer);
    if (--m_count == 0) {
        m_soonest = NEVER;
    }
}

/// Asking the pool under the mutex, which RemovePool takes after the pool is out of reach, makes sure that no
/// timer outlives its pool.
int64_t TimerHeap::take_id(int index) {
    if (PoolTable::Get(index) == nullptr) {
        return 0;
    }
    const int64_t id = m_pool[static_cast<size_t>(index)].ids.Take();
    return id != 0 ? id : PoolTable::AllocId(index);
}

void TimerHeap::put_id(int64_t id) {
    const int index = INDEX_OF_ID(static_cast<long>(id));
    if (PoolTable::Get(index) != nullptr && !m_pool[static_cast<size_t>(index)].ids.Put(id)) {
        PoolTable::ReleaseId(static_cast<long>(id));
    }
}

// ---- the heap and the buckets --------------------------------------------------------------------------

/// Takes the memory that a timer with this id needs until let_go. The heap has an entry for each timer that
/// is armed, and dead ones: no more than there were timers at the last removal, and a few, see sweep(). So it
/// is never longer than twice the most timers that there were.
inline ArmedTimer* TimerHeap::hold(Pool& pool, int64_t id) {
    if (m_array.capacity() < 2 * (m_held + 1 + FIRST_CAPACITY) && !reserve()) {
        return nullptr;
    }
    ArmedTimer* const place = pool.table.Hold(id);
    if (place != nullptr) {
        ++pool.held;
        ++m_held;
    }
    return place;
}

/// For twice as many as hold() needs.
bool TimerHeap::reserve() {
    try {
        m_array.reserve(4 * (m_held + 1 + FIRST_CAPACITY));
    } catch (const std::bad_alloc&) {
        return false;
    }
    return true;
}

inline void TimerHeap::let_go(Pool& pool, int64_t id) {
    pool.table.Drop(id);
    --pool.held;
    --m_held;
}

// Within the capacity that hold() has seen to.
void TimerHeap::push(const TimerEntry& entry) {
    m_array.push_back(entry);
    std::push_heap(m_array.begin(), m_array.end(), Later());
}

void TimerHeap::pop_top() {
    std::pop_heap(m_array.begin(), m_array.end(), Later());
    m_array.pop_back();
}

/// The dead entries are in the majority.
inline bool TimerHeap::is_to_be_swept() const {
    return m_array.size() + m_later.Size() >= 2 * m_count + FIRST_CAPACITY;
}

/// Forgets the dead entries.
void TimerHeap::sweep() {
    const auto dead = [this](const TimerEntry& entry)
                          INFRA_NO_THREAD_SAFETY_ANALYSIS { return armed(entry) == nullptr; };
    m_array.erase(std::remove_if(m_array.begin(), m_array.end(), dead), m_array.end());
    std::make_heap(m_array.begin(), m_array.end(), Later());
    m_later.KeepOnly([&dead](const TimerEntry& entry) { return !dead(entry); });
}

/// The table has it already.
inline bool TimerHeap::insert(Pool& pool, const ArmedTimer& timer) {
    ++pool.armed;
    ++m_count;
    if (m_array.empty() && m_later.Size() == 0) {
        m_later.StartAt(timer.expire - std::min(timer.delay, timer.expire));  // about the time it is now
    }
    // What is due before the first bucket, or after the last one, has none.
    const TimerEntry entry{timer.expire, timer.id};
    if (!m_later.Covers(timer.expire) || !m_later.Put(entry)) {
        push(entry);
    }
    const bool first = timer.expire < m_soonest;
    m_soonest = std::min(m_soonest, timer.expire);
    return first;
}

/// False if there is no memory.
bool TimerHeap::arm(Pool& pool, const ArmedTimer& timer, bool& first) {
    ArmedTimer* const place = hold(pool, timer.id);
    if (place == nullptr) {
        return false;
    }
    *place = timer;
    first = insert(pool, timer);
    return true;
}

long TimerHeap::Arm(ArmedTimer timer, bool& first) {
    Infra::CGuard guard(m_mutex);
    m_later.Prefetch(timer.expire);
    first = false;
    const int index = INDEX_OF_ID(static_cast<long>(timer.obj_id));
    timer.id = take_id(index);
    if (timer.id == 0) {
        return NO_POOL;
    }
    if (!arm(m_pool[static_cast<size_t>(index)], timer, first)) {
        put_id(timer.id);
        return NO_MEMORY;
    }
    return static_cast<long>(timer.id);
}

bool TimerHeap::Rearm(const ArmedTimer& timer) {
    Infra::CGuard guard(m_mutex);
    Pool& pool = *pool_of(timer.id);
    pool.table.Put(timer);
    return insert(pool, timer);
}

void TimerHeap::Release(long id) {
    Infra::CGuard guard(m_mutex);
    let_go(*pool_of(id), id);
    put_id(id);
}

std::optional<ArmedTimer> TimerHeap::RemoveById(long id) {
    if (id >= EVENT_KEY_TIMER_LIMIT) {
        return std::nullopt;
    }
    Infra::CGuard guard(m_mutex);
    Pool* pool = pool_of(id);
    ArmedTimer* timer = pool != nullptr ? pool->table.Find(id) : nullptr;
    if (timer == nullptr) {
        return std::nullopt;
    }
    const ArmedTimer removed = *timer;
    erase(*pool, timer);
    let_go(*pool, id);
    put_id(id);
    if (is_to_be_swept()) {
        sweep();
    }
    return removed;
}

void TimerHeap::RemovePool(int index, int64_t next) {
    Infra::CGuard guard(m_mutex);
    Pool& pool = m_pool[static_cast<size_t>(index)];
    pool.ids.Clear();
    m_count -= pool.armed;
    m_held -= pool.held;
    pool.armed = 0;
    pool.held = 0;
    pool.table.Clear(next);
    m_soonest = m_count == 0 ? NEVER : m_soonest;
    if (is_to_be_swept()) {
        sweep();
    }
}

uint64_t TimerHeap::Soonest() {
    Infra::CGuard guard(m_mutex);
    return m_soonest == NEVER ? 0 : m_soonest;
}

uint64_t TimerHeap::Peek() {
    Infra::CGuard guard(m_mutex);
    while (!m_array.empty() && armed(m_array.front()) == nullptr) {
        pop_top();
    }
    m_soonest = m_array.empty() ? NEVER : m_array.front().expire;
    if (m_soonest >= m_later.Begin()) {
        const auto alive = [this](const TimerEntry& entry)
                               INFRA_NO_THREAD_SAFETY_ANALYSIS { return armed(entry) != nullptr; };
        const uint64_t later = m_later.Soonest(alive);
        m_soonest = later != 0 ? std::min(later, m_soonest) : m_soonest;
    }
    return m_soonest == NEVER ? 0 : m_soonest;
}

bool TimerHeap::PopDue(uint64_t limit, DueChains& due) {
    Infra::CGuard guard(m_mutex);
    m_later.AdvanceBehind(limit, [this](const TimerEntry& entry) INFRA_NO_THREAD_SAFETY_ANALYSIS {
        if (armed(entry) != nullptr) {
            push(entry);
        }
    });
    while (!m_array.empty() && m_array.front().expire <= limit) {
        ArmedTimer* timer = armed(m_array.front());
        if (timer != nullptr && !due.Add(*timer)) {
            return false;
        }
        pop_top();
        if (timer != nullptr) {
            erase(*pool_of(timer->id), timer);
        }
    }
    return true;
}

size_t TimerHeap::CountOfPool(int index) {
    Infra::CGuard guard(m_mutex);
    return m_pool[static_cast<size_t>(index)].armed;
}

bool TimerHeap::ListOwners(int index, size_t part, std::vector<int64_t>& owners) {
    Infra::CGuard guard(m_mutex);
    return m_pool[static_cast<size_t>(index)].table.ListOwners(part, owners);
}

int TimerHeap::Count() {
    Infra::CGuard guard(m_mutex);
    return static_cast<int>(m_count);
}

}  // namespace Orvex::Reticor
