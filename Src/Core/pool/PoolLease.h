// PoolLease: keeps a pool in its slot for as long as a thread works in it.
#pragma once

#include <utility>

#include "Core/handle/ObjectId.h"
#include "Core/pool/PoolSlot.h"

namespace Orvex::Reticor {

/// The way to a pool for every thread, whoever may be ending the pool meanwhile: with the lease it is there,
/// with an empty one there is none. No pointer to a pool is kept beyond the lease.
///
/// The end of a pool waits for its leases, with the lock of set-up and teardown held. So none is held while a
/// handler is called, nor while a reference is dropped. Taking one waits for nobody, so any lock may be held
/// meanwhile. A worker of the pool itself, which is joined before the slot is cleared, needs no count.
class PoolLease {
public:
    /// Of the pool with that index; empty for an index that is out of range.
    explicit PoolLease(int index) {
        if (index == t_index) {
            m_pool = t_pool;
        } else if (PoolSlot::InRange(index)) {
            m_pool = PoolSlot::At(index).Enter();
            m_slot = m_pool != nullptr ? &PoolSlot::At(index) : nullptr;
        }
    }
    /// Of the pool that an id names.
    static PoolLease OfId(int64_t id) { return PoolLease(INDEX_OF_ID(static_cast<long>(id))); }

    ~PoolLease() { End(); }
    PoolLease(const PoolLease&) = delete;
    PoolLease& operator=(const PoolLease&) = delete;

    /// Ends the lease ahead of the scope.
    void End() {
        m_pool = nullptr;
        if (PoolSlot* slot = std::exchange(m_slot, nullptr)) {
            slot->Leave();
        }
    }

    explicit operator bool() const { return m_pool != nullptr; }
    CThreadPool* operator->() const { return m_pool; }
    CThreadPool& operator*() const { return *m_pool; }

    /// From here on the calling thread is a worker of the pool with that index.
    static void EnterWorker(int index, CThreadPool* pool) {
        t_index = index;
        t_pool = pool;
    }

    /// The pool of an id, if the calling thread is a worker of it; or null.
    static CThreadPool* Own(int64_t id) {
        return INDEX_OF_ID(static_cast<long>(id)) == t_index ? t_pool : nullptr;
    }

private:
    static constexpr int NONE = -1;

    /// The pool whose worker the thread is.
    static inline thread_local int t_index __attribute__((tls_model("initial-exec"))) = NONE;
    static inline thread_local CThreadPool* t_pool __attribute__((tls_model("initial-exec"))) = nullptr;

    CThreadPool* m_pool = nullptr;
    PoolSlot* m_slot = nullptr;  ///< Null for an empty lease, and for a worker's own.
};

}  // namespace Orvex::Reticor
