// PoolSlot.
#include "Core/pool/PoolSlot.h"

namespace Orvex::Reticor {

PoolSlot PoolSlot::sm_slots[LIMIT];

size_t PoolSlot::first_shard() {
    static std::atomic<size_t> sm_threads{0};
    t_shard = sm_threads.fetch_add(1, std::memory_order_relaxed) % SHARDS + 1;
    return t_shard - 1;
}

void PoolSlot::Clear() {
    m_pool.store(nullptr, std::memory_order_seq_cst);
    m_clearing.store(true, std::memory_order_seq_cst);
    for (const Shard& shard : m_inside) {
        while (shard.count.load(std::memory_order_seq_cst) != 0) {
            m_left.pend();
        }
    }
    m_clearing.store(false, std::memory_order_seq_cst);
}

}  // namespace Orvex::Reticor
