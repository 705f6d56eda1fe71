// PoolTable: the one door to the pools. The slots, their locks and the hand-over of records are here; the
// lifecycle of CNetThread is in NetThread.cpp.
#pragma once

#include <atomic>
#include <cstdint>

#include <Infra/LockClasses.h>
#include <Infra/ReadWriteMutex.h>

#include "Core/handle/HandlerPin.h"
#include "Core/record/Event.h"

namespace Orvex::Reticor {

class CThreadPool;

class PoolTable {
public:
    static constexpr int POOL_LIMIT = 64;

    /// The pool with that index, or null. The pointer is good as long as the caller keeps the pool alive: by
    /// running on one of its threads, or by the application's own order of closing handlers before pools.
    static CThreadPool* Get(int index) {
        const bool known = index >= 0 && index < POOL_LIMIT;
        return known ? sm_pools[index].load(std::memory_order_acquire) : nullptr;
    }

    /// Fills or clears a slot, under the slot's lock for that moment. After a clearing nobody pushes any
    /// more.
    static void Set(int index, CThreadPool* pool);

    /// Pushes a record, or the chain that starts with `ev`, on the main queue of a pool; with the slot empty
    /// the records go to the free list. Holds the slot's lock meanwhile, so it is safe against the end of the
    /// pool. Result 0.
    static int PushEvent(int index, CEvent* ev);

    /// The same ahead of everything else, for one record.
    static int PushFrontEvent(int index, CEvent* ev);

    /// Puts a serial record in line, and queues the pool's drain token if none is under way.
    static int PushSerialEvent(int index, CEvent* ev);

    /// The open handler with that id, pinned; or an empty pin.
    static HandlerPin FindHandler(int64_t id);

    /// Makes the handler with that id unreachable.
    static void Detach(int64_t id);

    /// The same two for threads that are no worker of the pool and that nobody joins before the pool goes:
    /// they hold the slot's lock over their look into the pool. The last reference of a handler is dropped
    /// without it.
    static HandlerPin FindHandlerFromOutside(int64_t id);
    static void DetachFromOutside(int64_t id);

    /// An id from the allocator of a pool; 0 if there is no such pool.
    static long AllocId(int index);

    /// Gives an id back to the pool it names. Without that pool the id has gone with its allocator.
    static void ReleaseId(long id);

    /// Sockets of a pool that have no place in its sets; -1 if there is no such pool. Safe against the end of
    /// the pool.
    static int SocksWithoutPlace(int index);

private:
    struct SlotLock : Infra::CReadWriteMutex {
        constexpr SlotLock() noexcept : CReadWriteMutex(Infra::LockClass::POOL_SLOT) {}
    };

    static std::atomic<CThreadPool*> sm_pools[POOL_LIMIT];
    /// One per slot. Shared while a record is handed over, exclusive while the slot changes. Comes before the
    /// mutex of a queue.
    static SlotLock sm_pool_mutex[POOL_LIMIT];
};

}  // namespace Orvex::Reticor
