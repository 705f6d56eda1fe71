// TimerHeap: the armed timers of all pools, soonest first.
#include "Core/TimerHeap.h"

#include <algorithm>

#include "Core/ObjectId.h"

namespace Orvex::Reticor {

TimerHeap::TimerHeap() {
    m_array.reserve(FIRST_CAPACITY);
}

// ---- the table of ids ------------------------------------------------------------------------------------

// The upper bits of the ids of a pool count down by one, so they index an array of chunks. Null where no
// timer of that id can be.
inline CEvent** TimerHeap::slot_of(int64_t id) {
    const size_t pool = static_cast<size_t>(INDEX_OF_ID(static_cast<long>(id)));
    if (pool >= PoolTable::POOL_LIMIT) {
        return nullptr;
    }
    const std::vector<Chunk>& chunks = m_by_id[pool];
    const size_t place = CObjectId::place_of(id);
    const size_t chunk = place / CHUNK;
    return chunk < chunks.size() && chunks[chunk] ? &chunks[chunk][place % CHUNK] : nullptr;
}

/// For an id of a pool, which has a slot from its first timer on.
CEvent** TimerHeap::make_slot(int64_t id) {
    if (CEvent** slot = slot_of(id)) {
        return slot;
    }
    std::vector<Chunk>& chunks = m_by_id[static_cast<size_t>(INDEX_OF_ID(static_cast<long>(id)))];
    const size_t place = CObjectId::place_of(id);
    chunks.resize(std::max(place / CHUNK + 1, chunks.size()));
    chunks[place / CHUNK] = std::make_unique<CEvent*[]>(CHUNK);
    return slot_of(id);
}

/// The record of an entry whose timer is still armed. An id comes back with another generation, and one timer
/// is armed again with a later expiry, so id and expiry together name one arming.
inline CEvent* TimerHeap::armed(const Entry& entry) {
    CEvent** slot = slot_of(entry.id);
    CEvent* ev = slot != nullptr ? *slot : nullptr;
    return ev != nullptr && ev->m_key == entry.id && ev->m_expire == entry.expire ? ev : nullptr;
}

void TimerHeap::disarm(CEvent* ev) {
    *slot_of(ev->m_key) = nullptr;
    --m_count;
}

// ---- the heap ------------------------------------------------------------------------------------------

void TimerHeap::pop_top() {
    std::pop_heap(m_array.begin(), m_array.end(), Later());
    m_array.pop_back();
}

void TimerHeap::drop_dead_top() {
    while (!m_array.empty() && armed(m_array.front()) == nullptr) {
        pop_top();
    }
}

void TimerHeap::sweep() {
    if (m_array.size() < 2 * m_count + FIRST_CAPACITY) {
        return;
    }
    m_array.erase(std::remove_if(m_array.begin(), m_array.end(),
                                 [this](const Entry& entry)
                                     INFRA_NO_THREAD_SAFETY_ANALYSIS { return armed(entry) == nullptr; }),
                  m_array.end());
    std::make_heap(m_array.begin(), m_array.end(), Later());
}

uint64_t TimerHeap::Insert(CEvent* ev) {
    Infra::CGuard guard(m_mutex);
    *make_slot(ev->m_key) = ev;
    ++m_count;
    const uint64_t top = m_array.empty() ? ~uint64_t{0} : m_array.front().expire;
    m_array.push_back({ev->m_expire, ev->m_key});
    std::push_heap(m_array.begin(), m_array.end(), Later());
    return ev->m_expire < top ? ev->m_expire : 0;
}

uint64_t TimerHeap::Peek() {
    Infra::CGuard guard(m_mutex);
    return m_array.empty() ? 0 : m_array.front().expire;
}

void TimerHeap::PopDue(uint64_t limit, DueChains& due) {
    Infra::CGuard guard(m_mutex);
    while (!m_array.empty() && m_array.front().expire <= limit) {
        CEvent* ev = armed(m_array.front());
        pop_top();
        if (ev == nullptr) {
            continue;
        }
        disarm(ev);
        const size_t index = static_cast<size_t>(INDEX_OF_ID(static_cast<long>(ev->m_obj_id)));
        if (due.m_chain[index] == nullptr) {
            due.m_active[static_cast<size_t>(due.m_active_num++)] = static_cast<int>(index);
        }
        ev->m_next = due.m_chain[index];
        due.m_chain[index] = ev;
    }
    drop_dead_top();
}

CEvent* TimerHeap::RemoveById(long id) {
    if (id >= EVENT_KEY_TIMER_LIMIT) {
        return nullptr;
    }
    Infra::CGuard guard(m_mutex);
    CEvent** slot = slot_of(id);
    CEvent* ev = slot != nullptr ? *slot : nullptr;
    if (ev == nullptr || ev->m_key != id) {
        return nullptr;
    }
    disarm(ev);
    drop_dead_top();
    sweep();
    return ev;
}

CEvent* TimerHeap::RemovePool(int index) {
    Infra::CGuard guard(m_mutex);
    CEvent* chain = nullptr;
    for (Chunk& chunk : m_by_id[static_cast<size_t>(index)]) {
        for (size_t place = 0; chunk && place < CHUNK; ++place) {
            if (CEvent* ev = chunk[place]) {
                ev->m_next = chain;
                chain = ev;
                --m_count;
            }
        }
    }
    m_by_id[static_cast<size_t>(index)].clear();
    drop_dead_top();
    sweep();
    return chain;
}

int TimerHeap::Count() {
    Infra::CGuard guard(m_mutex);
    return static_cast<int>(m_count);
}

}  // namespace Orvex::Reticor
