// PoolSlot: the place of a pool, and the count of those who work in the pool from outside.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include <Infra/Semaphore.h>

namespace Orvex::Reticor {

class CThreadPool;

/// Whoever enters finds the pool or null, without waiting; whoever clears the slot waits until all have left.
/// So an entry may be made under any lock, as long as nobody who clears the slot holds one that is wanted
/// between an entry and its end.
///
/// Thread safety: Fill and Clear on one thread at a time; the rest on any thread.
class PoolSlot {
public:
    static constexpr int LIMIT = 64;

    static bool InRange(int index) { return index >= 0 && index < LIMIT; }
    /// The slot with that index, which is in range.
    static PoolSlot& At(int index) { return sm_slots[index]; }

    constexpr PoolSlot() = default;
    PoolSlot(const PoolSlot&) = delete;
    PoolSlot& operator=(const PoolSlot&) = delete;

    CThreadPool* Get() const { return m_pool.load(std::memory_order_acquire); }

    void Fill(CThreadPool* pool) { m_pool.store(pool, std::memory_order_seq_cst); }

    /// From here on nobody finds the pool. Returns when everybody has left who did.
    void Clear();

    /// The pool, which stays until Leave on the same thread; or null, and then nothing is to be left.
    CThreadPool* Enter() {
        // Either the one who clears sees this count, or this one sees the empty slot.
        m_inside[shard()].count.fetch_add(1, std::memory_order_seq_cst);
        CThreadPool* pool = m_pool.load(std::memory_order_seq_cst);
        if (pool == nullptr) {
            Leave();
        }
        return pool;
    }

    void Leave() {
        m_inside[shard()].count.fetch_sub(1, std::memory_order_seq_cst);
        if (m_clearing.load(std::memory_order_seq_cst)) {
            m_left.post();
        }
    }

private:
    /// Two lines, since processors fetch and pass on lines in pairs.
    static constexpr size_t CACHE_LINE = 128;
    static constexpr size_t SHARDS = 8;

    struct alignas(CACHE_LINE) Shard {
        std::atomic<int32_t> count{0};
    };

    /// In which of the counts the calling thread counts itself, so that threads seldom share a cache line.
    /// The thread's own number is one more; 0 until it has one.
    static size_t shard() { return t_shard != 0 ? t_shard - 1 : first_shard(); }
    static size_t first_shard();
    static inline thread_local size_t t_shard __attribute__((tls_model("initial-exec"))) = 0;

    alignas(CACHE_LINE) std::atomic<CThreadPool*> m_pool{nullptr};
    std::atomic<bool> m_clearing{false};
    Infra::CSemaphore m_left{0};  ///< Posted by those who leave while the slot is being cleared.
    Shard m_inside[SHARDS];

    static PoolSlot sm_slots[LIMIT];
};

}  // namespace Orvex::Reticor
