// CNetThread: the library's set-up and teardown, in one explicit order. The slots of the pools are in
// PoolTable.cpp.
#include <Reticor/NetThread.h>

#include <atomic>
#include <cassert>
#include <cstdint>

#include <Infra/LockClasses.h>
#include <Infra/Log.h>
#include <Infra/Mutex.h>
#include <Reticor/R3.h>
#include <Reticor/TsMemory.h>

#include "Core/pool/PoolTable.h"
#include "Core/pool/ThreadPool.h"
#include "Core/service/Message.h"
#include "Core/service/NetSock.h"
#include "Core/service/NetTimer.h"
#include "Core/service/SockTimer.h"
#include "R3/server/Debug.h"
#include "Tool/file/FileThread.h"
#include "Tool/file/NFileEnd.h"
#include "Tool/media/SenderHandler.h"
#include "Tool/receive/ReceiverGroup.h"

namespace Orvex::Reticor {

namespace {

constexpr int NOT_SET_UP = -1;
constexpr unsigned short R3_PORT = 42323;

/// Scheduling values of threads to come. Set without a lock: each is a value of its own.
struct Scheduling {
    std::atomic<int> priority{64};
    std::atomic<int> policy{0};
    std::atomic<int> stack{0};

    void store(int new_priority, int new_policy, int new_stack) {
        priority.store(new_priority, std::memory_order_relaxed);
        policy.store(new_policy, std::memory_order_relaxed);
        stack.store(new_stack, std::memory_order_relaxed);
    }
};

/// Serialises all creating and destroying of pools, TraversalSock, SetRcvPriority, EnableR3 and DisableR3.
/// Held while the threads of a pool are joined, so nothing that a handler may call can take it.
Infra::CMutex sm_mutex{Infra::LockClass::SETUP};

/// Pools alive; NOT_SET_UP before set-up and after teardown.
int sm_pool_num INFRA_GUARDED_BY(sm_mutex) = NOT_SET_UP;
/// Users of the public pool, and one for the set-up itself.
int sm_pub_pool_ref INFRA_GUARDED_BY(sm_mutex) = 0;
/// Holders of EnableR3.
unsigned int sm_r3_ref INFRA_GUARDED_BY(sm_mutex) = 0;
/// Processors, read once at set-up.
unsigned int sm_cpu_num INFRA_GUARDED_BY(sm_mutex) = 0;
/// The file workers were started. Never cleared: they are started once in a process.
bool sm_file_started INFRA_GUARDED_BY(sm_mutex) = false;

Scheduling g_next_pool;
Scheduling g_receivers;

CThreadPool* new_pool(int index, unsigned int threads) INFRA_REQUIRES(sm_mutex) {
    return new CThreadPool(index, threads, g_next_pool.priority, g_next_pool.policy, g_next_pool.stack,
                           &CThreadPool::ThreadProc, sm_cpu_num);
}

int set_up(unsigned int threads) INFRA_REQUIRES(sm_mutex) {
    CTsMemory::InitStaticVal();
    sm_cpu_num = CThreadPool::processorCount();
    if (InitSocketLibrary() != 0) {
        INFRA_LOG_STATIC(2, "CNetThread::check_on_init, CNetSock init environment failed!\n");
        return -1;
    }
    if (CNetTimer::Init() != 0) {
        INFRA_LOG_STATIC(2, "CNetThread::check_on_init, CNetTimer init failed!\n");
        StopSockTimer();
        CleanupSocketLibrary();
        return -1;
    }
    ReceiverGroup::Setup(sm_cpu_num, g_receivers.priority, g_receivers.policy, g_receivers.stack);
    PoolTable::Set(0, new_pool(0, threads));
    sm_pool_num = 1;
    ++sm_pub_pool_ref;
    CSenderHandler::Resume();
    return 0;
}

/// Ends the pool's threads with no slot lock held and the slot still filled, so that a handler on its way
/// finds its pool; then takes away what other threads hold of the pool's sockets; then clears the slot, and
/// takes away its timers, to which none can be added any more. The pool's memory is the caller's to free.
CThreadPool* retire(int index) INFRA_REQUIRES(sm_mutex) {
    CThreadPool* pool = PoolTable::Get(index);
    pool->Stop();
    sockTimer().UnlinkAll(pool->m_sock_tree);
    PoolTable::Set(index, nullptr);
    CNetTimer::DropPool(index);
    return pool;
}

/// Takes the library down once the public pool is the last one and only the set-up's own count is left.
/// `files` ends those that are left once the caller has left the lock.
int ReleaseAll(NFileEnd& files) INFRA_REQUIRES(sm_mutex) {
    if (sm_pool_num != 1 || sm_pub_pool_ref != 1) {
        return 0;
    }
    ReceiverGroup::Teardown();
    CSenderHandler::Suspend();
    CNetTimer::Exit();
    StopSockTimer();
    CThreadPool* pool = retire(0);
    sm_pool_num = 0;
    sm_pub_pool_ref = 0;
    if (sm_file_started) {
        StopFileThreads();
    }
    CMessage::DropIOMessages();
    files.take(*pool);
    delete pool;
    CTsMemory::DestroyMemPool();
    CleanupSocketLibrary();
    sm_pool_num = NOT_SET_UP;
    return 0;
}

int start_file_threads(NFileEnd& files) INFRA_REQUIRES(sm_mutex) {
    if (StartFileThreads(sm_cpu_num) < 0) {
        ReleaseAll(files);
        return -1;
    }
    sm_file_started = true;
    return 0;
}

/// -1, or the number of references on the public pool.
int check_on_init(unsigned int threads, bool file_io, NFileEnd& files) INFRA_REQUIRES(sm_mutex) {
    if (sm_pool_num == NOT_SET_UP && set_up(threads) != 0) {
        return -1;
    }
    if (!sm_file_started && file_io && start_file_threads(files) != 0) {
        return -1;
    }
    // The line has always stood for success, and who watches the log of a product counts on it; a failure
    // tells of itself.
    if (InitConsoleDebug()) {
        INFRA_LOG_STATIC(2, "InitConsoleDebug Failed! Will not to able use console commands.\n");
    }
    return sm_pub_pool_ref;
}

int destroy_thread_pool(int index, NFileEnd& files) INFRA_REQUIRES(sm_mutex) {
    if (index == 0 && --sm_pub_pool_ref > 1) {
        return 0;
    }
    if (PoolTable::Get(index) == nullptr) {
        INFRA_LOG_STATIC(2, "The private pool %d not exist! Can't close it!\n", index);
        return -1;
    }
    if (index != 0) {
        --sm_pool_num;
        delete retire(index);
    }
    return ReleaseAll(files);
}

int lowest_free_slot() INFRA_REQUIRES(sm_mutex) {
    for (int index = 1; index < PoolTable::POOL_LIMIT; ++index) {
        if (PoolTable::Get(index) == nullptr) {
            return index;
        }
    }
    return -1;
}

}  // namespace

int CNetThread::CreateThreadPool(unsigned int threads, bool file_io) {
    NFileEnd files;
    Infra::CGuard guard(sm_mutex);
    if (check_on_init(threads, file_io, files) == -1) {
        return -1;
    }
    ++sm_pub_pool_ref;
    g_next_pool.store(64, 0, 0);
    return 0;
}

int CNetThread::CreatePrivatePool(unsigned int threads, bool file_io) {
    NFileEnd files;
    Infra::CGuard guard(sm_mutex);
    if (check_on_init(threads, file_io, files) == -1) {
        return -1;
    }
    const int index = lowest_free_slot();
    if (index == -1) {
        INFRA_LOG_STATIC(2, "No more private pool can be created!\n");
        return -1;
    }
    PoolTable::Set(index, new_pool(index, threads));
    ++sm_pool_num;
    g_next_pool.store(64, 0, 0);
    return index;
}

int CNetThread::DestroyThreadPool() {
    NFileEnd files;
    Infra::CGuard guard(sm_mutex);
    return destroy_thread_pool(0, files);
}

int CNetThread::DestroyPrivatePool(int index) {
    if (index < 1 || index >= PoolTable::POOL_LIMIT) {
        return -1;
    }
    NFileEnd files;
    Infra::CGuard guard(sm_mutex);
    return destroy_thread_pool(index, files);
}

int CNetThread::SetThreadPriority(int priority, int policy, int stack) {
    if (priority != 1 && priority != 127 && priority != 64) {
        INFRA_LOG_STATIC(2, "%s : Thread priority set error!\n", INFRA_FUNCTION);
        return -1;
    }
    if (policy != 0 && policy != 1) {
        INFRA_LOG_STATIC(2, "%s : Thread policy set error!\n", INFRA_FUNCTION);
        return -1;
    }
    g_next_pool.store(priority, policy, stack);
    return 0;
}

int CNetThread::SetRecvThreadPriority(int priority, int policy, int stack) {
    if (policy != 0 && policy != 1) {
        INFRA_LOG_STATIC(2, "%s : Thread policy set error!\n", INFRA_FUNCTION);
        return -1;
    }
    g_receivers.store(priority, policy, stack);
    return 0;
}

void CNetThread::SetRcvPriority(int level) {
    constexpr int periods_ms[] = {10, 20, 25, 30};
    Infra::CGuard guard(sm_mutex);
    ReceiverGroup::SetPeriod(level >= 0 && level <= 3 ? periods_ms[level] : 20);
}

int CNetThread::TraversalSock() {
    Infra::CGuard guard(sm_mutex);
    int count = 0;
    for (int index = 0; index < PoolTable::POOL_LIMIT; ++index) {
        if (CThreadPool* pool = PoolTable::Get(index)) {
            count += pool->TraversalSock();
        }
    }
    return count;
}

int CNetThread::GetSocksWithoutPlace(int pool) {
    return PoolTable::SocksWithoutPlace(pool);
}

int CNetThread::EnableR3() {
    Infra::CGuard guard(sm_mutex);
    assert(sm_pub_pool_ref);
    if (sm_r3_ref == 0 && R3ServerStart(R3_PORT, nullptr, true) < 0) {
        INFRA_LOG_PLAIN(2, "R3ServerStart failed!!\n\n");
        return -1;
    }
    ++sm_r3_ref;
    return 0;
}

int CNetThread::DisableR3() {
    Infra::CGuard guard(sm_mutex);
    assert(sm_pub_pool_ref);
    // Without a holder there is no server to end, and the count stays where it is.
    if (sm_r3_ref == 0 || --sm_r3_ref != 0) {
        return 0;
    }
    return R3ServerExit();
}

extern "C" {

int CreateThreadPool(unsigned int threads, int file_io) {
    return CNetThread::CreateThreadPool(threads, file_io != 0);
}

int DestroyThreadPool() {
    return CNetThread::DestroyThreadPool();
}

int SetRecvThreadPriority(int priority, int policy, int stack) {
    return CNetThread::SetRecvThreadPriority(priority, policy, stack);
}

}  // extern "C"

}  // namespace Orvex::Reticor
