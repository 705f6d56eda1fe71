// CThreadPool, but for what its workers do with records: that is in WorkerLoop.cpp.
#include "Core/pool/ThreadPool.h"

#include <unistd.h>

#include <cstdio>
#include <utility>

#include <Infra/Atomic.h>
#include <Infra/Log.h>

#include "Core/count/Points.h"
#include "Core/record/EventFreeList.h"

namespace Orvex::Reticor {

namespace {

constexpr short TREE_ORDER = 8;
constexpr size_t NAME_SIZE = 256;
constexpr int LEASE_MS = 60000;
constexpr int HEARTBEAT_REST_MS = 200;
constexpr unsigned int HEARTBEAT_WAIT_MS = 5000;

}  // namespace

unsigned int CThreadPool::processor_count() {
    const long count = sysconf(_SC_NPROCESSORS_ONLN);
    return count > 0 ? static_cast<unsigned int>(count) : 1;
}

int CThreadPool::worker_count(unsigned int threads, unsigned int cpus) {
    if (cpus <= 1) {
        return static_cast<int>(threads);
    }
    return static_cast<int>(threads < cpus ? cpus : cpus * ((threads + cpus - 1) / cpus));
}

CThreadPool::CThreadPool(int index, unsigned int threads, int priority, int policy, int stack,
                         WorkerBody body, unsigned int cpus)
    : m_thread_num(static_cast<int>(threads)),
      m_ids(index),
      m_obj_tree(m_ids.First()),
      m_sock_tree(TREE_ORDER),
      m_index(index),
      m_mux(index, m_sock_tree, m_event) {
    Version();
    if (threads == 0) {
        INFRA_LOG(2, "Invalid thread num 0, Please check it!\n");
    }
    m_thread_num = worker_count(threads, cpus);
    make_threads(body, priority, policy, stack);
    if (m_mux.Init() == -1) {
        INFRA_LOG(2, "socket mutiplexer init fail, Please check it!\n");
    }
    m_poll_event.m_key = EVENT_KEY_POLL;
    m_event.PushOne(&m_poll_event);
    // The first drain finds nothing to do and turns m_serial_idle on.
    m_drain_event.m_key = EVENT_KEY_DRAIN;
    m_event.PushOne(&m_drain_event);
    start_threads();
}

void CThreadPool::Version() {
    static const char frame[] =
        "-------------------------------------------------------------------------------\n";
    INFRA_LOG_PLAIN(4, "%s", frame);
    INFRA_LOG_PLAIN(4, "-                 Reticor Version:%s, Compiled Date:%s.                  -\n",
                    "Unknown", "");
    INFRA_LOG_PLAIN(4, "%s", frame);
}

/// All memory that the pool's threads and tokens need.
void CThreadPool::make_threads(WorkerBody body, int priority, int policy, int stack) {
    using Body = Infra::TFunction1<void, Infra::CThreadLite&>;
    char name[NAME_SIZE];
    std::snprintf(name, sizeof(name), "Reticor%d daemon", m_index);
    m_daemon = std::make_unique<Infra::CThreadLite>(Body(&CThreadPool::DaemonProc, this), name, priority,
                                                    policy, stack);
    std::snprintf(name, sizeof(name), "Reticor%d", m_index);
    m_threads.reserve(static_cast<size_t>(m_thread_num));
    m_counts.reserve(static_cast<size_t>(m_thread_num));
    for (int i = 0; i < m_thread_num; ++i) {
        m_threads.push_back(
            std::make_unique<Infra::CThreadLite>(Body(body, this), name, priority, policy, stack));
        m_counts.push_back(std::make_unique<ThreadCounts>());
    }
}

std::unique_ptr<ThreadCounts> CThreadPool::take_counts() {
    return std::move(m_counts[m_counts_taken.fetch_add(1, std::memory_order_relaxed)]);
}

void CThreadPool::start_threads() {
    m_daemon->createThread();
    while (m_running < m_threads.size() && m_threads[m_running]->createThread()) {
        ++m_running;
    }
    if (m_running < m_threads.size()) {
        INFRA_LOG(2, "Only %d of %d threads of pool %d could be started!\n", static_cast<int>(m_running),
                  m_thread_num, m_index);
    }
}

void CThreadPool::Stop() {
    for (const auto& thread : m_threads) {
        thread->cancelThread();
    }
    // Ends the wait of the token's holder. It queues the token and leaves, which lets the next worker go the
    // same way: the token empties the pool.
    m_mux.WakeUp();
    m_event.WakeAll();
    m_threads.clear();
    m_running = 0;
    if (m_daemon == nullptr) {
        return;
    }
    // Cancelled before it is woken, or it would go round once more and rest again.
    m_daemon->cancelThread();
    m_daemon_sem.post();
    m_daemon_sem.post();
    m_daemon.reset();
}

CThreadPool::~CThreadPool() {
    Stop();
    drop_records();
}

// A socket record that waits in the queue is in the socket tree as well, and the tree deletes it; the tokens
// are the pool's own.
void CThreadPool::drop_records() {
    while (CEvent* ev = m_event.TryPop()) {
        if (ev->m_key < 0 && ev != &m_poll_event && ev != &m_drain_event) {
            delete ev;
        }
    }
    // Handle 0 is a legal descriptor, but the tree deletes keys above 0 only.
    m_sock_tree.WriteLock();
    CEvent* zero = static_cast<CEvent*>(m_sock_tree.RemoveLocked(0));
    m_sock_tree.Unlock();
    delete zero;
}

bool CThreadPool::AttachObject(ObjectEntry* entry) {
    HandlerInternal& internal = HandlerInternal::Of(*entry->m_owner);
    internal.AddRef();
    Infra::relaxedStore(entry->m_id, m_ids.Alloc());
    if (m_obj_tree.Insert(entry)) {
        return true;
    }
    m_ids.Release(static_cast<long>(entry->m_id));
    Infra::relaxedStore(entry->m_id, 0);
    internal.m_ref.store(0, std::memory_order_relaxed);
    return false;
}

HandlerPin CThreadPool::DetachObject(int64_t id) {
    ObjectEntry* entry = m_obj_tree.Remove(id);
    if (entry == nullptr) {
        return HandlerPin();
    }
    HandlerInternal::Of(*entry->m_owner).m_detached.store(true, std::memory_order_relaxed);
    m_ids.Release(static_cast<long>(id));
    return HandlerPin::Adopt(entry->m_owner);
}

void CThreadPool::Push(CEvent* ev) {
    if (m_event.Push(ev)) {
        m_mux.WakeUp();
    }
}

void CThreadPool::PushFront(CEvent* ev) {
    if (m_event.PushFront(ev)) {
        m_mux.WakeUp();
    }
}

void CThreadPool::PushSerial(CEvent* ev) {
    Infra::CGuard guard(m_serial_mutex);
    Points::Pushed(ev);
    m_event_serial.PushSilent(ev);
    if (m_serial_idle) {
        m_serial_idle = false;
        m_drain_event.m_next = nullptr;
        Push(&m_drain_event);
    }
}

// Null means that the drain is over, and says so to those who post: a message that came between the two looks
// would otherwise wait for the next one.
CEvent* CThreadPool::next_serial() {
    CEvent* ev = m_event_serial.TryPop();
    if (ev == nullptr) {
        Infra::CGuard guard(m_serial_mutex);
        ev = m_event_serial.TryPop();
        m_serial_idle = ev == nullptr;
    }
    return ev;
}

void CThreadPool::DaemonProc(Infra::CThreadLite& thread) {
    uint64_t last = 0;
    while (thread.looping()) {
        const uint64_t count = m_event.Count().taken;
        if (count != last) {
            thread.setTimeout(LEASE_MS);
        }
        last = count;
        fill_event_reserve();
        if (CEvent* beat = get_event()) {
            m_heartbeat.store(beat, std::memory_order_relaxed);
            beat->m_key = EVENT_KEY_HEARTBEAT;
            beat->m_next = nullptr;
            Push(beat);
        }
        thread.pause(HEARTBEAT_REST_MS);
        m_daemon_sem.pend(HEARTBEAT_WAIT_MS);
    }
}

}  // namespace Orvex::Reticor
