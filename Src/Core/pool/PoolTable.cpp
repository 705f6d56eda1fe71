// PoolTable: the one door to the pools.
#include "Core/pool/PoolTable.h"

#include "Core/handle/ObjectId.h"
#include "Core/pool/ThreadPool.h"

namespace Orvex::Reticor {

std::atomic<CThreadPool*> PoolTable::sm_pools[POOL_LIMIT];
PoolTable::SlotLock PoolTable::sm_pool_mutex[POOL_LIMIT];

void PoolTable::Set(int index, CThreadPool* pool) {
    Infra::CWriteGuard guard(sm_pool_mutex[index]);
    sm_pools[index].store(pool, std::memory_order_release);
}

int PoolTable::PushEvent(int index, CEvent* ev) {
    {
        Infra::CReadGuard guard(sm_pool_mutex[index]);
        if (CThreadPool* pool = Get(index)) {
            pool->Push(ev);
            return 0;
        }
    }
    putEventChain(ev);
    return 0;
}

int PoolTable::PushFrontEvent(int index, CEvent* ev) {
    {
        Infra::CReadGuard guard(sm_pool_mutex[index]);
        if (CThreadPool* pool = Get(index)) {
            pool->PushFront(ev);
            return 0;
        }
    }
    putEvent(ev);
    return 0;
}

int PoolTable::PushSerialEvent(int index, CEvent* ev) {
    {
        Infra::CReadGuard guard(sm_pool_mutex[index]);
        if (CThreadPool* pool = Get(index)) {
            pool->PushSerial(ev);
            return 0;
        }
    }
    putEventChain(ev);
    return 0;
}

HandlerPin PoolTable::FindHandler(int64_t id) {
    CThreadPool* pool = Get(INDEX_OF_ID(static_cast<long>(id)));
    return pool != nullptr ? pool->m_obj_tree.Find(id) : HandlerPin();
}

void PoolTable::Detach(int64_t id) {
    if (CThreadPool* pool = Get(INDEX_OF_ID(static_cast<long>(id)))) {
        pool->DetachObject(id);
    }
}

HandlerPin PoolTable::FindHandlerFromOutside(int64_t id) {
    Infra::CReadGuard guard(sm_pool_mutex[INDEX_OF_ID(static_cast<long>(id))]);
    return FindHandler(id);
}

void PoolTable::DetachFromOutside(int64_t id) {
    // Keeps the detaching from being what drops the last reference, under the lock.
    const HandlerPin pin = FindHandlerFromOutside(id);
    Infra::CReadGuard guard(sm_pool_mutex[INDEX_OF_ID(static_cast<long>(id))]);
    Detach(id);
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
    if (index < 0 || index >= POOL_LIMIT) {
        return -1;
    }
    Infra::CReadGuard guard(sm_pool_mutex[index]);
    CThreadPool* pool = Get(index);
    return pool != nullptr ? pool->m_mux.SocksWithoutPlace() : -1;
}

}  // namespace Orvex::Reticor
