// TimerIds: a ring of ids.
#include "Core/service/TimerIds.h"

#include <new>

namespace Orvex::Reticor {

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
        m_ring.reset(new (std::nothrow) std::array<int64_t, CAPACITY>);
        if (m_ring == nullptr) {
            return false;
        }
    }
    (*m_ring)[(m_read + m_count) % CAPACITY] = id;
    ++m_count;
    return true;
}

}  // namespace Orvex::Reticor
