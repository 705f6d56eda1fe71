// CNetThread: the library's set-up and teardown, in one explicit order. The slots of the pools are in
// PoolTable.cpp.
#include <Reticor/NetThread.h>

#include <atomic>
#include <cassert>
#include <cerrno>
#include <cstdint>
#include <memory>
#include <new>
#include <utility>

#include <Infra/LockClasses.h>
#include <Infra/Log.h>
#include <Infra/Mutex.h>
#include <Reticor/R3.h>
#include <Reticor/Stats.h>
#include <Reticor/TsMemory.h>

#include "Core/handle/HandlerDrops.h"
#include "Core/handle/HolderNotes.h"
#include "Core/pool/PoolTable.h"
#include "Core/pool/ThreadPool.h"
#include "Core/record/EventFreeList.h"
#include "Core/service/DeadNumbers.h"
#include "Core/service/Message.h"
#include "Core/service/NetSock.h"
#include "Core/service/NetTimer.h"
#include "Core/service/SockTimer.h"
#include "Core/stats/HandlerListing.h"
#include "Core/stats/LeftHandlers.h"
#include "Core/stats/MediaSource.h"
#include "Core/stats/StatsServer.h"
#include "Core/stats/StuckWatch.h"
#include "R3/server/Debug.h"
#include "Socket/address/SockError.h"
#include "Socket/socket/WatchedNumbers.h"
#include "Tool/file/FileThread.h"
#include "Tool/file/NFileEnd.h"
#include "Tool/receive/ReceiverGroup.h"
#include "Tool/step/SenderHandler.h"
#include "Tool/verdict/MediaSnapshot.h"

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

/// What a change leaves to be done once the lock is left: references to drop, files to end. Declared ahead of
/// the guard.
struct AfterLock {
    HandlerDrops drops;
    NFileEnd files;
};

/// What the set-up of the library has made, and for whom. Names that assertions print are part of the
/// interface.
struct Library {
    /// Serialises all creating and destroying of pools, TraversalSock, EnableR3 and DisableR3. Held while the
    /// threads of a pool are joined, so nothing that a handler may call can take it.
    Infra::CMutex m_mutex{Infra::LockClass::SETUP};

    /// Pools alive; NOT_SET_UP before set-up and after teardown.
    int m_pool_num INFRA_GUARDED_BY(m_mutex) = NOT_SET_UP;
    /// Users of the public pool, and one for the set-up itself.
    int m_pub_pool_ref INFRA_GUARDED_BY(m_mutex) = 0;
    /// Holders of EnableR3.
    unsigned int m_r3_ref INFRA_GUARDED_BY(m_mutex) = 0;
    /// Processors, read once at set-up.
    unsigned int m_cpu_num INFRA_GUARDED_BY(m_mutex) = 0;
    /// The file workers were started. Never cleared: they are started once in a process.
    bool m_file_started INFRA_GUARDED_BY(m_mutex) = false;

    Scheduling m_next_pool;
    Scheduling m_receivers;

    int CreatePublic(unsigned int threads, bool file_io, AfterLock& after) INFRA_REQUIRES(m_mutex);
    int CreatePrivate(unsigned int threads, bool file_io, AfterLock& after) INFRA_REQUIRES(m_mutex);
    int Destroy(int index, AfterLock& after) INFRA_REQUIRES(m_mutex);

private:
    CThreadPool* new_pool(int index, unsigned int threads) INFRA_REQUIRES(m_mutex);
    int set_up(unsigned int threads, AfterLock& after) INFRA_REQUIRES(m_mutex);
    int start_services() INFRA_REQUIRES(m_mutex);
    static void stop_services();
    int start_file_threads(AfterLock& after) INFRA_REQUIRES(m_mutex);
    int check_on_init(unsigned int threads, bool file_io, AfterLock& after) INFRA_REQUIRES(m_mutex);
    CThreadPool* retire(int index, AfterLock& after) INFRA_REQUIRES(m_mutex);
    static void tell_of_left(const LeftHandlers& left, int index);
    int ReleaseAll(AfterLock& after) INFRA_REQUIRES(m_mutex);
};

Library g_library;

/// What looks at the process from threads of its own, whatever pools there are.
struct Serving {
    Infra::CMutex m_mutex{Infra::LockClass::STATS_SERVING};  ///< Held while such a thread is joined.
    StatsServer* m_server INFRA_GUARDED_BY(m_mutex) = nullptr;
};

Serving g_serving;

/// The index of the lowest empty slot for a private pool; -1 if there is none.
int lowest_free_slot() {
    for (int index = 1; index < PoolTable::POOL_LIMIT; ++index) {
        if (PoolTable::Get(index) == nullptr) {
            return index;
        }
    }
    return -1;
}

/// The pool, which runs; null, with a line, if too many threads were asked for, the system gave none of them,
/// or there is no memory.
CThreadPool* Library::new_pool(int index, unsigned int threads) {
    if (threads > CThreadPool::MOST_THREADS) {
        INFRA_LOG_STATIC(2, "Invalid thread num %u, a pool has %u at most!\n", threads,
                         CThreadPool::MOST_THREADS);
        return nullptr;
    }
    try {
        auto pool = std::make_unique<CThreadPool>(index, threads, m_next_pool.priority, m_next_pool.policy,
                                                  m_next_pool.stack, &CThreadPool::ThreadProc, m_cpu_num);
        return pool->HasWorkers() ? pool.release() : nullptr;
    } catch (const std::bad_alloc&) {
        INFRA_LOG_STATIC(2, "No memory for pool %d!\n", index);
        return nullptr;
    }
}

/// What all pools share. On failure nothing of it is left.
int Library::start_services() {
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
    if (ReceiverGroup::Setup(m_cpu_num, m_receivers.priority, m_receivers.policy, m_receivers.stack) != 0) {
        INFRA_LOG_STATIC(2, "CNetThread::check_on_init, no memory for the stream receivers!\n");
        stop_services();
        return -1;
    }
    fill_event_reserve();
    return 0;
}

void Library::stop_services() {
    ReceiverGroup::Teardown();
    CNetTimer::Exit();
    StopSockTimer();
    CTsMemory::DestroyMemPool();
    CleanupSocketLibrary();
}

int Library::set_up(unsigned int threads, AfterLock& after) {
    MediaSource::Set(&MediaSnapshot::gather);
    WatchedNumbers::SetListener(&DeadNumbers::NoteClose);
    CTsMemory::InitStaticVal();
    m_cpu_num = CThreadPool::processor_count();
    if (start_services() != 0) {
        return -1;
    }
    CThreadPool* pool = new_pool(0, threads);
    if (pool == nullptr) {
        stop_services();
        return -1;
    }
    PoolTable::Set(0, pool);
    m_pool_num = 1;
    ++m_pub_pool_ref;
    if (!CSenderHandler::Resume()) {
        INFRA_LOG_STATIC(2, "CNetThread::check_on_init, no memory for the timer of the media buffers!\n");
        ReleaseAll(after);
        return -1;
    }
    return 0;
}

/// Ends the pool's threads with the slot still filled, so that a handler on its way finds its pool; then
/// clears the slot, after which no other thread works in the pool; then takes away what the services hold of
/// its sockets and timers, and serves the close messages that no worker has taken. The pool's memory is the
/// caller's to free.
CThreadPool* Library::retire(int index, AfterLock& after) {
    CThreadPool* pool = PoolTable::Get(index);
    pool->Stop();
    PoolTable::Set(index, nullptr);
    sock_timer().UnlinkAll(pool->m_sock_tree);
    CNetTimer::DropPool(index, pool->m_ids.Next());
    CMessage::CloseQueued(*pool, after.drops);
    tell_of_left(LeftHandlers(index, pool->m_ids.First(), pool->m_ids.Next()), index);
    return pool;
}

/// Who keeps a process alive is hard to find once its pool is gone.
void Library::tell_of_left(const LeftHandlers& left, int index) {
    for (size_t i = 0; i < left.Count(); ++i) {
        INFRA_LOG_STATIC(
            2, "pool %d ends with handlers left of class %s: %u open, %u closed, close not delivered\n",
            index, left.At(i).class_name, left.At(i).open, left.At(i).unreleased);
    }
    if (left.OtherClasses() != 0) {
        INFRA_LOG_STATIC(2, "pool %d ends with %u handlers left of %u other classes\n", index,
                         left.OtherHandlers(), left.OtherClasses());
    }
}

/// Takes the library down once the public pool is the last one and only the set-up's own count is left.
int Library::ReleaseAll(AfterLock& after) {
    if (m_pool_num != 1 || m_pub_pool_ref != 1) {
        return 0;
    }
    ReceiverGroup::Teardown();
    CSenderHandler::Suspend(after.drops);
    CNetTimer::Exit();
    StopSockTimer();
    CThreadPool* pool = retire(0, after);
    m_pool_num = 0;
    m_pub_pool_ref = 0;
    if (m_file_started) {
        StopFileThreads();
    }
    CMessage::DropIOMessages();
    after.files.take(*pool);
    delete pool;
    CTsMemory::DestroyMemPool();
    CleanupSocketLibrary();
    m_pool_num = NOT_SET_UP;
    return 0;
}

int Library::start_file_threads(AfterLock& after) {
    if (StartFileThreads(m_cpu_num) < 0) {
        ReleaseAll(after);
        return -1;
    }
    m_file_started = true;
    return 0;
}

/// -1, or the number of references on the public pool.
int Library::check_on_init(unsigned int threads, bool file_io, AfterLock& after) {
    if (m_pool_num == NOT_SET_UP && set_up(threads, after) != 0) {
        return -1;
    }
    if (!m_file_started && file_io && start_file_threads(after) != 0) {
        return -1;
    }
    // The line stands for success, which is part of the interface; a failure tells of itself.
    if (InitConsoleDebug()) {
        INFRA_LOG_STATIC(2, "InitConsoleDebug Failed! Will not to able use console commands.\n");
    }
    return m_pub_pool_ref;
}

int Library::CreatePublic(unsigned int threads, bool file_io, AfterLock& after) {
    if (check_on_init(threads, file_io, after) == -1) {
        return -1;
    }
    ++m_pub_pool_ref;
    m_next_pool.store(64, 0, 0);
    return 0;
}

int Library::CreatePrivate(unsigned int threads, bool file_io, AfterLock& after) {
    if (check_on_init(threads, file_io, after) == -1) {
        return -1;
    }
    const int index = lowest_free_slot();
    if (index == -1) {
        INFRA_LOG_STATIC(2, "No more private pool can be created!\n");
        return -1;
    }
    CThreadPool* pool = new_pool(index, threads);
    if (pool == nullptr) {
        ReleaseAll(after);  // if the library was set up for this pool alone
        return -1;
    }
    PoolTable::Set(index, pool);
    ++m_pool_num;
    m_next_pool.store(64, 0, 0);
    return index;
}

int Library::Destroy(int index, AfterLock& after) {
    if (index == 0 && --m_pub_pool_ref > 1) {
        return 0;
    }
    if (PoolTable::Get(index) == nullptr) {
        INFRA_LOG_STATIC(2, "The private pool %d not exist! Can't close it!\n", index);
        return -1;
    }
    if (index != 0) {
        --m_pool_num;
        delete retire(index, after);
    }
    return ReleaseAll(after);
}

}  // namespace

int CNetThread::CreateThreadPool(unsigned int threads, bool file_io) {
    AfterLock after;
    Infra::CGuard guard(g_library.m_mutex);
    return g_library.CreatePublic(threads, file_io, after);
}

int CNetThread::CreatePrivatePool(unsigned int threads, bool file_io) {
    AfterLock after;
    Infra::CGuard guard(g_library.m_mutex);
    return g_library.CreatePrivate(threads, file_io, after);
}

int CNetThread::DestroyThreadPool() {
    AfterLock after;
    Infra::CGuard guard(g_library.m_mutex);
    return g_library.Destroy(0, after);
}

int CNetThread::DestroyPrivatePool(int index) {
    if (index < 1 || index >= PoolTable::POOL_LIMIT) {
        return -1;
    }
    AfterLock after;
    Infra::CGuard guard(g_library.m_mutex);
    return g_library.Destroy(index, after);
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
    g_library.m_next_pool.store(priority, policy, stack);
    return 0;
}

int CNetThread::SetRecvThreadPriority(int priority, int policy, int stack) {
    if (policy != 0 && policy != 1) {
        INFRA_LOG_STATIC(2, "%s : Thread policy set error!\n", INFRA_FUNCTION);
        return -1;
    }
    g_library.m_receivers.store(priority, policy, stack);
    return 0;
}

void CNetThread::SetRcvPriority(int level) {
    constexpr int PERIODS_MS[] = {10, 20, 25, 30};
    // Without a lock: a handler may call it while its pool is being destroyed.
    ReceiverGroup::SetPeriod(level >= 0 && level <= 3 ? PERIODS_MS[level] : 20);
}

int CNetThread::TraversalSock() {
    Infra::CGuard guard(g_library.m_mutex);
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

int CNetThread::ListHandlers(bool (*call)(void* context, const HandlerInfo& handler), void* context) {
    HandlerListing listing;
    if (!listing.Gather()) {
        return -1;
    }
    for (const HandlerInfo& handler : listing.handlers()) {
        if (!call(context, handler)) {
            break;
        }
    }
    return static_cast<int>(listing.handlers().size());
}

void CNetThread::SetHolderNotes(bool on) {
    HolderNotes::Switch(on);
}

int CNetThread::SetStuckLimit(int limit_ms) {
    Infra::CGuard guard(g_serving.m_mutex);
    return StuckWatch::Set(limit_ms) ? 0 : -1;
}

void CNetThread::SetStuckHook(void (*hook)(void* context, const StuckCall& call), void* context) {
    StuckWatch::SetHook(hook, context);
}

int CNetThread::ServeStats(const char* path) {
    Infra::CGuard guard(g_serving.m_mutex);
    if (g_serving.m_server != nullptr) {
        INFRA_LOG_STATIC(2, "%s : serves already!\n", INFRA_FUNCTION);
        return -1;
    }
    int error = ENOMEM;
    try {
        auto server = std::make_unique<StatsServer>();
        if (server->Start(path)) {
            g_serving.m_server = server.release();
            return 0;
        }
        error = errno;
    } catch (const std::bad_alloc&) {
        error = ENOMEM;
    }
    INFRA_LOG_STATIC(2, "%s : can't serve at %s, %s\n", INFRA_FUNCTION, path,
                     GetSockErrorText(error).c_str());
    return -1;
}

int CNetThread::StopServingStats() {
    Infra::CGuard guard(g_serving.m_mutex);
    if (g_serving.m_server == nullptr) {
        return -1;
    }
    delete std::exchange(g_serving.m_server, nullptr);
    return 0;
}

int CNetThread::EnableR3() {
    Infra::CGuard guard(g_library.m_mutex);
    const int sm_pub_pool_ref = g_library.m_pub_pool_ref;
    assert(sm_pub_pool_ref);
    if (g_library.m_r3_ref == 0 && R3ServerStart(R3_PORT, nullptr, true) < 0) {
        INFRA_LOG_PLAIN(2, "R3ServerStart failed!!\n\n");
        return -1;
    }
    ++g_library.m_r3_ref;
    return 0;
}

int CNetThread::DisableR3() {
    Infra::CGuard guard(g_library.m_mutex);
    const int sm_pub_pool_ref = g_library.m_pub_pool_ref;
    assert(sm_pub_pool_ref);
    // A call without a use is counted as well: it takes the next use away in advance.
    if (--g_library.m_r3_ref != 0) {
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
