// TimerTable: places by id, in chunks.
#include "Core/service/TimerTable.h"

#include <new>
#include <utility>

namespace Orvex::Reticor {

bool TimerTable::make_chunk(size_t chunk) {
    try {
        if (chunk >= m_chunks.size()) {
            m_chunks.resize(chunk + 1);
        }
        m_chunks[chunk] = m_spare != nullptr ? std::move(m_spare) : std::make_unique<Chunk>();
    } catch (const std::bad_alloc&) {
        return false;
    }
    return true;
}

bool TimerTable::ListOwners(size_t chunk, std::vector<int64_t>& owners) const {
    if (chunk >= m_chunks.size()) {
        return false;
    }
    if (m_chunks[chunk] != nullptr) {
        for (const ArmedTimer& timer : m_chunks[chunk]->timer) {
            if (timer.id != 0) {
                owners.push_back(timer.obj_id);
            }
        }
    }
    return true;
}

void TimerTable::Clear(int64_t first) {
    m_chunks.clear();
    m_first = first;
}

}  // namespace Orvex::Reticor
