// TimerHeap: the armed timers of all pools, soonest first.
#include "Core/TimerHeap.h"

#include "Core/ObjectId.h"

namespace Orvex::Reticor {

TimerHeap::TimerHeap() {
    m_array.reserve(FIRST_CAPACITY);
}

// ---- the table of ids ------------------------------------------------------------------------------------

// The upper bits of the ids of a pool count down by one, so they index an array of chunks.
CEvent** TimerHeap::id_slot(int64_t id, bool grow) {
    const int pool = INDEX_OF_ID(static_cast<long>(id));
    if (pool >= PoolTable::POOL_LIMIT) {
        return nullptr;
    }
    std::vector<Chunk>& chunks = m_by_id[static_cast<size_t>(pool)];
    const size_t place = CObjectId::place_of(id);
    const size_t chunk = place / CHUNK;
    if (chunk >= chunks.size()) {
        if (!grow) {
            return nullptr;
        }
        chunks.resize(chunk + 1);
    }
    if (!chunks[chunk]) {
        if (!grow) {
            return nullptr;
        }
        chunks[chunk] = std::make_unique<CEvent*[]>(CHUNK);
    }
    return &chunks[chunk][place % CHUNK];
}

// ---- the heap ------------------------------------------------------------------------------------------

void TimerHeap::put(size_t place, const Entry& entry) {
    m_array[place] = entry;
    entry.record->m_heap_place = static_cast<int32_t>(place);
}

void TimerHeap::sift_up(size_t place, const Entry& entry) {
    while (place > 0) {
        const size_t parent = (place + 1) / 2 - 1;
        if (m_array[parent].expire <= entry.expire) {
            break;
        }
        put(place, m_array[parent]);
        place = parent;
    }
    put(place, entry);
}

void TimerHeap::sift_down(size_t place, const Entry& entry) {
    const size_t count = m_array.size();
    for (size_t child = 2 * place + 1; child < count; child = 2 * place + 1) {
        if (child + 1 < count && m_array[child + 1].expire < m_array[child].expire) {
            ++child;
        }
        if (entry.expire <= m_array[child].expire) {
            break;
        }
        put(place, m_array[child]);
        place = child;
    }
    put(place, entry);
}

CEvent* TimerHeap::remove_at(size_t place) {
    CEvent* record = m_array[place].record;
    *id_slot(record->m_key, true) = nullptr;
    const Entry last = m_array.back();
    m_array.pop_back();
    if (place < m_array.size()) {
        if (place > 0 && m_array[(place + 1) / 2 - 1].expire > last.expire) {
            sift_up(place, last);
        } else {
            sift_down(place, last);
        }
    }
    return record;
}

uint64_t TimerHeap::Insert(CEvent* ev) {
    Infra::CGuard guard(m_mutex);
    *id_slot(ev->m_key, true) = ev;
    const Entry entry{ev->m_expire, ev};
    m_array.push_back(entry);
    sift_up(m_array.size() - 1, entry);
    return m_array.front().record == ev ? entry.expire : 0;
}

uint64_t TimerHeap::Peek() {
    Infra::CGuard guard(m_mutex);
    return m_array.empty() ? 0 : m_array.front().expire;
}

void TimerHeap::PopDue(uint64_t limit, DueChains& due) {
    Infra::CGuard guard(m_mutex);
    while (!m_array.empty() && m_array.front().expire <= limit) {
        CEvent* ev = remove_at(0);
        const size_t index = static_cast<size_t>(INDEX_OF_ID(static_cast<long>(ev->m_obj_id)));
        if (due.m_chain[index] == nullptr) {
            due.m_active[static_cast<size_t>(due.m_active_num++)] = static_cast<int>(index);
        }
        ev->m_next = due.m_chain[index];
        due.m_chain[index] = ev;
    }
}

CEvent* TimerHeap::RemoveById(long id) {
    Infra::CGuard guard(m_mutex);
    if (id >= EVENT_KEY_TIMER_LIMIT) {
        return nullptr;
    }
    CEvent** slot = id_slot(id, false);
    if (slot == nullptr || *slot == nullptr || (*slot)->m_key != id) {
        return nullptr;
    }
    return remove_at(static_cast<size_t>((*slot)->m_heap_place));
}

CEvent* TimerHeap::RemovePool(int index) {
    Infra::CGuard guard(m_mutex);
    CEvent* chain = nullptr;
    const std::vector<Entry> all = std::move(m_array);
    m_array.clear();
    for (const Entry& entry : all) {
        if (INDEX_OF_ID(static_cast<long>(entry.record->m_key)) == index) {
            entry.record->m_next = chain;
            chain = entry.record;
        } else {
            m_array.push_back(entry);
            sift_up(m_array.size() - 1, entry);
        }
    }
    m_by_id[static_cast<size_t>(index)].clear();
    return chain;
}

int TimerHeap::Count() {
    Infra::CGuard guard(m_mutex);
    return static_cast<int>(m_array.size());
}

}  // namespace Orvex::Reticor
