// CObjectId.
#include "Core/handle/ObjectId.h"

#include <algorithm>

#include "Core/record/GeneralAllocator.h"

namespace Orvex::Reticor {

namespace {

int64_t* new_ring(uint32_t capacity) {
    return static_cast<int64_t*>(general_allocate(sizeof(int64_t) * capacity));
}

}  // namespace

std::atomic<int64_t> CObjectId::sm_drawn[POOLS];

// Without memory the ring starts with no place, and the first release tries again.
CObjectId::CObjectId(int index)
    : m_capacity(FIRST_CAPACITY),
      m_ring(new_ring(FIRST_CAPACITY)),
      m_index(index),
      m_first(FIRST_COUNTER - sm_drawn[index].load(std::memory_order_relaxed)),
      m_counter(m_first) {
    if (m_ring == nullptr) {
        m_capacity = 0;
    }
}

CObjectId::~CObjectId() {
    sm_drawn[m_index].store(FIRST_COUNTER - m_counter, std::memory_order_relaxed);
    general_free(m_ring);
}

int64_t CObjectId::Next() {
    Infra::CGuard guard(m_mutex);
    return m_counter;
}

long CObjectId::Alloc() {
    Infra::CGuard guard(m_mutex);
    return static_cast<long>(m_count <= WAITING ? fresh() : reuse());
}

int64_t CObjectId::fresh() {
    const int64_t counter = m_counter--;
    return (counter * 256 + m_index) * 256;
}

int64_t CObjectId::reuse() {
    const int64_t id = m_ring[m_read];
    m_ring[m_read] = 0;
    m_read = next_place(m_read);
    --m_count;
    return next_generation(id);
}

void CObjectId::Release(long id) {
    Infra::CGuard guard(m_mutex);
    if (m_count == m_capacity && !make_room()) {
        return;
    }
    m_ring[m_write] = id;
    m_write = next_place(m_write);
    ++m_count;
}

/// Moves the ids of a full ring to one of twice the size, oldest first. False if the ring stays as it is.
bool CObjectId::make_room() {
    const uint32_t capacity = m_capacity == 0 ? FIRST_CAPACITY : std::min(2 * m_capacity, LAST_CAPACITY);
    if (capacity == m_capacity) {
        return false;
    }
    int64_t* ring = new_ring(capacity);
    if (ring == nullptr) {
        return false;
    }
    for (uint32_t i = 0; i < m_count; ++i) {
        ring[i] = m_ring[(m_read + i) % m_capacity];
    }
    general_free(m_ring);
    m_ring = ring;
    m_capacity = capacity;
    m_read = 0;
    m_write = m_count;
    return true;
}

}  // namespace Orvex::Reticor
