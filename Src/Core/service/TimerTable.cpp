// TimerTable and TimerIds.
#include "Core/service/TimerTable.h"

#include <algorithm>
#include <utility>

namespace Orvex::Reticor {

void TimerTable::Put(const ArmedTimer& timer) {
    const size_t place = place_of(timer.id);
    const size_t chunk = place / CHUNK;
    if (chunk >= m_chunks.size()) {
        m_chunks.resize(chunk + 1);
    }
    if (m_chunks[chunk] == nullptr) {
        m_chunks[chunk] = m_spare != nullptr ? std::move(m_spare) : std::make_unique<Chunk>();
    }
    m_chunks[chunk]->timer[place % CHUNK] = timer;
    ++m_chunks[chunk]->armed;
}

void TimerTable::Erase(ArmedTimer* timer) {
    std::unique_ptr<Chunk>& chunk = m_chunks[place_of(timer->id) / CHUNK];
    timer->id = 0;
    if (--chunk->armed == 0) {
        m_spare = std::move(chunk);
    }
}

size_t TimerTable::Clear(int64_t first) {
    size_t armed = 0;
    for (const std::unique_ptr<Chunk>& chunk : m_chunks) {
        armed += chunk != nullptr ? chunk->armed : 0;
    }
    m_chunks.clear();
    m_first = first;
    return armed;
}

int64_t TimerIds::Take() {
    if (m_count <= CObjectId::WAITING) {
        return 0;
    }
    const int64_t id = (*m_ring)[m_read];
    m_read = (m_read + 1) % CAPACITY;
    --m_count;
    return CObjectId::next_generation(id);
}

bool TimerIds::Put(int64_t id) {
    if (m_count == CAPACITY) {
        return false;
    }
    if (m_ring == nullptr) {
        m_ring = std::make_unique<std::array<int64_t, CAPACITY>>();
    }
    (*m_ring)[(m_read + m_count) % CAPACITY] = id;
    ++m_count;
    return true;
}

}  // namespace Orvex::Reticor
