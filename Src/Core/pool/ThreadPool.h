// CThreadPool: one reactor. What its workers do with the records is in WorkerLoop.cpp.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

#include <Infra/LockClasses.h>
#include <Infra/Mutex.h>
#include <Infra/Semaphore.h>
#include <Infra/ThreadLite.h>

#include "Core/count/ThreadCounts.h"
#include "Core/handle/ObjectId.h"
#include "Core/handle/ObjectTable.h"
#include "Core/record/Event.h"
#include "Core/record/WorkQueue.h"
#include "Core/watch/BTree.h"
#include "Core/watch/Select_win.h"

namespace Orvex::Reticor {

/// Identical workers that share one queue of records, a daemon that proves that they move, and the tables
/// that lead from ids and socket handles to objects. There is no polling thread: the right to poll is a
/// record too.
///
/// Thread safety: construction, `Stop` and destruction on one thread; everything else on any thread between
/// them.
class CThreadPool {
public:
    /// What a worker does from its start to its end.
    using WorkerBody = void (CThreadPool::*)(Infra::CThreadLite& thread);

    /// Takes all memory first, and gives up with std::bad_alloc before any thread runs. Everything else is
    /// logged, and the pool runs as far as it can. The workers run `body`, which is handed in since it stands
    /// on what stands on pools; a pool without workers takes a null one.
    CThreadPool(int index, unsigned int threads, int priority, int policy, int stack, WorkerBody body,
                unsigned int cpus = processor_count());
    ~CThreadPool();

    CThreadPool(const CThreadPool&) = delete;
    CThreadPool& operator=(const CThreadPool&) = delete;

    /// The most that may be asked for in `threads`.
    static constexpr unsigned int MOST_THREADS = 65536;

    /// False if workers were asked for, and the system gave not one thread for them.
    bool HasWorkers() const { return m_running > 0 || m_threads.empty(); }

    /// Ends and joins the workers and the daemon. No lock may be held that a handler could want. What is
    /// pushed from now on stays in the queues and is deleted with them. The destructor calls it if nobody
    /// did.
    void Stop();

    /// Takes the first reference on the owner, gives it an id and makes it reachable. False, with nothing of
    /// it done, if there is no memory.
    bool AttachObject(ObjectEntry* entry);

    /// Makes the handler with that id unreachable and gives the id back. Result: the first reference, which
    /// the caller drops with no lock held; empty for an id that is detached already, since a handler can be
    /// sent two close messages.
    [[nodiscard]] HandlerPin DetachObject(int64_t id);

    /// Logs every registered socket whose handler is open, at level 4. Result: how many. In WorkerLoop.cpp.
    int TraversalSock();

    /// Push on the main queue, for a worker that sleeps there or waits for sockets. The caller keeps the pool
    /// alive.
    void Push(CEvent* ev);
    void PushFront(CEvent* ev);

    /// Puts a serial record in line, and queues the drain token if no drain is under way.
    void PushSerial(CEvent* ev);

    /// Threads that were started and not yet joined.
    size_t Workers() const { return m_running.load(std::memory_order_relaxed); }

    /// Serial messages that were put in line and taken.
    CEventQueue::Amounts SerialAmounts() { return m_event_serial.Count(); }

    /// The number of logical processors.
    static unsigned int processor_count();

    /// `threads` raised to a multiple of `cpus`; on one processor as it is.
    static int worker_count(unsigned int threads, unsigned int cpus);

    /// Logs a frame at level 4 that names the library. Which version it is, `reticorversion` tells.
    static void Version();

    /// The body of all workers but those of tests: takes records from the queue and serves them until the
    /// thread is cancelled. In WorkerLoop.cpp.
    void ThreadProc(Infra::CThreadLite& thread);

private:
    /// The workers; the first `m_running` of them run, or have run.
    std::vector<std::unique_ptr<Infra::CThreadLite>> m_threads;
    std::atomic<size_t> m_running{0};
    /// One for each worker, which takes it as it starts.
    std::vector<std::unique_ptr<ThreadCounts>> m_counts;
    std::atomic<size_t> m_counts_taken{0};
    int m_thread_num;
    CEvent m_poll_event;   ///< The poll token: queued, or with its worker.
    CEvent m_drain_event;  ///< The drain token: queued, or with its worker, or at rest.
    std::unique_ptr<Infra::CThreadLite> m_daemon;
    std::atomic<CEvent*> m_heartbeat{nullptr};  ///< The last heartbeat; for a debugger's eyes.

    // The order of the following is the reverse of the order in which a pool falls apart.
    Infra::CSemaphore m_daemon_sem{0};  ///< Holds the daemon back between heartbeats.
    Infra::CMutex m_serial_mutex{Infra::LockClass::POOL_SERIAL};
    /// True while the drain token rests: it is not queued, and no drain runs.
    bool m_serial_idle INFRA_GUARDED_BY(m_serial_mutex) = false;

public:
    CObjectId m_ids;
    CObjectTable m_obj_tree;  ///< Open handlers by id.
    BTree m_sock_tree;        ///< Socket records by handle.

private:
    const int m_index;

public:
    CMultiplexer m_mux;
    CWorkQueue m_event;

private:
    CEventQueue m_event_serial;

    void make_threads(WorkerBody body, int priority, int policy, int stack);
    void start_threads();
    std::unique_ptr<ThreadCounts> take_counts();
    void drop_records();
    void DaemonProc(Infra::CThreadLite& thread);
    CEvent* next_serial();

    /// In WorkerLoop.cpp.
    void serve(CEvent* ev, Infra::CThreadLite& thread);
    void drain(Infra::CThreadLite& thread);
    void unexpected(CEvent* ev);

    friend struct ThreadPoolProbe;  // tests
};

}  // namespace Orvex::Reticor
