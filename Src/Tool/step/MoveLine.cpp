// MoveLine: a singly linked list, the first one at its head.
#include "Tool/step/MoveLine.h"

#include <utility>

namespace Orvex::Reticor {

void MoveLine::add(MoveGuest_IF& guest) {
    Infra::CGuard guard(m_mutex);
    MoveGuest_IF** link = &m_first;
    while (*link != nullptr) {
        link = &(*link)->m_next_mover;
    }
    guest.m_next_mover = nullptr;
    *link = &guest;
    m_count.fetch_add(1, std::memory_order_relaxed);
}

bool MoveLine::remove(const MoveGuest_IF& guest) {
    Infra::CGuard guard(m_mutex);
    MoveGuest_IF** link = &m_first;
    while (*link != nullptr && *link != &guest) {
        link = &(*link)->m_next_mover;
    }
    if (*link == nullptr) {
        return false;
    }
    *link = (*link)->m_next_mover;
    m_count.fetch_sub(1, std::memory_order_relaxed);
    return true;
}

MoveGuest_IF* MoveLine::take_first() {
    Infra::CGuard guard(m_mutex);
    MoveGuest_IF* const first = m_first;
    if (first != nullptr) {
        m_first = first->m_next_mover;
        m_count.fetch_sub(1, std::memory_order_relaxed);
    }
    return first;
}

void MoveLine::call_all(const MediaCore& core, bool gone) {
    for (uint32_t left = m_count.load(std::memory_order_relaxed); left > 0; --left) {
        MoveGuest_IF* const first = take_first();
        if (first == nullptr) {
            return;
        }
        first->called(core, gone);
    }
}

}  // namespace Orvex::Reticor
