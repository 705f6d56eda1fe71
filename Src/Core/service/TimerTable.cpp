// TimerTable: places by id, in chunks.
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

}  // namespace Orvex::Reticor
