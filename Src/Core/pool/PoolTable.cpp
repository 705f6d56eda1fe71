// PoolTable: the one door to the pools.
#include "Core/pool/PoolTable.h"

#include "Core/handle/ObjectId.h"
#include "Core/pool/PoolLease.h"
#include "Core/pool/ThreadPool.h"
#include "Core/record/EventFreeList.h"
#include "Core/record/SockRecord.h"

namespace Orvex::Reticor {

void PoolTable::Set(int index, CThreadPool* pool) {
    if (pool != nullptr) {
        PoolSlot::At(index).Fill(pool);
    } else {
        PoolSlot::At(index).Clear();
        RoomLosses::note();
    }
}

int PoolTable::PushEvent(int index, CEvent* ev) {
    if (const PoolLease pool{index}) {
        pool->Push(ev);
        return 0;
    }
    put_event_chain(ev);
    return 0;
}

int PoolTable::PushFrontEvent(int index, CEvent* ev) {
    if (const PoolLease pool{index}) {
        pool->PushFront(ev);
        return 0;
    }
    put_event(ev);
    return 0;
}

int PoolTable::PushSerialEvent(int index, CEvent* ev) {
    if (const PoolLease pool{index}) {
        pool->PushSerial(ev);
        return 0;
    }
    put_event_chain(ev);
    return 0;
}

namespace {

HandlerPin find_with_lease(int64_t id) {
    const PoolLease pool = PoolLease::OfId(id);
    return pool ? pool->m_obj_tree.Find(id) : HandlerPin();
}

}  // namespace

// On the way of every event: what a worker needs is all that it pays for.
HandlerPin PoolTable::FindHandler(int64_t id) {
    CThreadPool* own = PoolLease::Own(id);
    return __builtin_expect(own != nullptr, 1) ? own->m_obj_tree.Find(id) : find_with_lease(id);
}

bool PoolTable::IsOpen(int64_t id) {
    const PoolLease pool = PoolLease::OfId(id);
    return pool && pool->m_obj_tree.Has(id);
}

HandlerPin PoolTable::Detach(int64_t id) {
    const PoolLease pool = PoolLease::OfId(id);
    return pool ? pool->DetachObject(id) : HandlerPin();
}

long PoolTable::AllocId(int index) {
    CThreadPool* pool = Get(index);
    return pool != nullptr ? pool->m_ids.Alloc() : 0;
}

void PoolTable::ReleaseId(long id) {
    if (CThreadPool* pool = Get(INDEX_OF_ID(id))) {
        pool->m_ids.Release(id);
    }
}

int PoolTable::SocksWithoutPlace(int index) {
    const PoolLease pool(index);
    return pool ? pool->m_mux.SocksWithoutPlace() : -1;
}

}  // namespace Orvex::Reticor
