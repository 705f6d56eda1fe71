// PoolTable: the one door to the pools. The slots and the hand-over of records are here; the lifecycle of
// CNetThread is in NetThread.cpp.
#pragma once

#include <cstdint>

#include "Core/handle/HandlerPin.h"
#include "Core/pool/PoolSlot.h"
#include "Core/record/Event.h"

namespace Orvex::Reticor {

/// Thread safety: any thread, but for Get and Set. Each operation finds the pool or does without it; see
/// PoolLease.
class PoolTable {
public:
    static constexpr int POOL_LIMIT = PoolSlot::LIMIT;

    /// The pool with that index, or null. The pointer is good as long as the caller keeps the pool alive: by
    /// running on one of its threads, or by the lock of set-up and teardown. All others take a PoolLease.
    static CThreadPool* Get(int index) {
        return PoolSlot::InRange(index) ? PoolSlot::At(index).Get() : nullptr;
    }

    /// Fills or clears a slot. After a clearing nobody works in the pool any more.
    static void Set(int index, CThreadPool* pool);

    /// Pushes a record, or the chain that starts with `ev`, on the main queue of a pool; with the slot empty
    /// the records go to the free list. Result 0.
    static int PushEvent(int index, CEvent* ev);

    /// The same ahead of everything else, for one record.
    static int PushFrontEvent(int index, CEvent* ev);

    /// Puts a serial record in line, and queues the pool's drain token if none is under way.
    static int PushSerialEvent(int index, CEvent* ev);

    /// The open handler with that id, pinned; or an empty pin.
    static HandlerPin FindHandler(int64_t id);

    /// Whether a handler with that id is there and open. Takes no reference, so any lock may be held.
    static bool IsOpen(int64_t id);

    /// Makes the handler with that id unreachable and gives the id back. Result: the reference that the pool
    /// had on it, to be dropped with no lock held; empty if the id finds nothing.
    [[nodiscard]] static HandlerPin Detach(int64_t id);

    /// An id from the allocator of a pool; 0 if there is no such pool. Under the mutex of the timers' heap,
    /// which the end of a pool takes after it has cleared the slot.
    static long AllocId(int index);

    /// Gives an id back to the pool it names. Without that pool the id has gone with its allocator. Under the
    /// same mutex.
    static void ReleaseId(long id);

    /// Sockets of a pool that have no place in its sets; -1 if there is no such pool.
    static int SocksWithoutPlace(int index);
};

}  // namespace Orvex::Reticor
