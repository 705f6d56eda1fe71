// CThreadPool: data, construction, daemon and end. What the workers do is in WorkerLoop.cpp.
#include "Core/pool/ThreadPool.h"

#include <unistd.h>

#include <cstdio>

#include <Infra/Log.h>

namespace Orvex::Reticor {

namespace {

constexpr short TREE_ORDER = 8;
constexpr size_t NAME_SIZE = 256;
constexpr int LEASE_MS = 60000;
constexpr int HEARTBEAT_REST_MS = 200;
constexpr unsigned int HEARTBEAT_WAIT_MS = 5000;

}  // namespace

unsigned int CThreadPool::processorCount() {
    const long count = sysconf(_SC_NPROCESSORS_ONLN);
    return count > 0 ? static_cast<unsigned int>(count) : 1;
}

int CThreadPool::workerCount(unsigned int threads, unsigned int cpus) {
    if (cpus <= 1) {
        return static_cast<int>(threads);
    }
    return static_cast<int>(threads < cpus ? cpus : cpus * ((threads + cpus - 1) / cpus));
}

CThreadPool::CThreadPool(int index, unsigned int threads, int priority, int policy, int stack,
                         WorkerBody body, unsigned int cpus)
    : m_thread_num(static_cast<int>(threads)),
      m_ids(index),
      m_sock_tree(TREE_ORDER),
      m_index(index),
      m_mux(index, m_sock_tree, m_event),
      m_event(m_loop_count) {
    Version();
    if (threads == 0) {
        INFRA_LOG(2, "Invalid thread num 0, Please check it!\n");
    }
    if (m_mux.Init() == -1) {
        INFRA_LOG(2, "socket mutiplexer init fail, Please check it!\n");
    }
    start_daemon(priority, policy, stack);
    m_thread_num = workerCount(threads, cpus);
    queue_token(EVENT_KEY_POLL, &m_poll_event);
    // The first drain finds nothing to do and turns m_serial_idle on.
    queue_token(EVENT_KEY_DRAIN, nullptr);
    start_workers(body, priority, policy, stack);
}

void CThreadPool::Version() {
    static const char frame[] =
        "-------------------------------------------------------------------------------\n";
    INFRA_LOG_PLAIN(4, "%s", frame);
    INFRA_LOG_PLAIN(4, "-                 Reticor Version:%s, Compiled Date:%s.                  -\n",
                    "Unknown", "");
    INFRA_LOG_PLAIN(4, "%s", frame);
}

void CThreadPool::queue_token(int64_t key, CEvent** keep) {
    CEvent* token = getEvent();
    token->m_key = key;
    if (keep != nullptr) {
        *keep = token;
    }
    token->m_next = nullptr;
    Push(token);
}

void CThreadPool::start_daemon(int priority, int policy, int stack) {
    char name[NAME_SIZE];
    std::snprintf(name, sizeof(name), "Reticor%d daemon", m_index);
    m_daemon =
        new Infra::CThreadLite(Infra::TFunction1<void, Infra::CThreadLite&>(&CThreadPool::DaemonProc, this),
                               name, priority, policy, stack);
    m_daemon->createThread();
}

void CThreadPool::start_workers(WorkerBody body, int priority, int policy, int stack) {
    char name[NAME_SIZE];
    std::snprintf(name, sizeof(name), "Reticor%d", m_index);
    m_threads.reserve(static_cast<size_t>(m_thread_num));
    for (int i = 0; i < m_thread_num; ++i) {
        m_threads.push_back(new Infra::CThreadLite(Infra::TFunction1<void, Infra::CThreadLite&>(body, this),
                                                   name, priority, policy, stack));
        m_threads.back()->createThread();
    }
}

void CThreadPool::Stop() {
    for (Infra::CThreadLite* thread : m_threads) {
        thread->cancelThread();
    }
    // Ends the wait of the token's holder. It queues the token and leaves, which lets the next worker go the
    // same way: the token empties the pool.
    m_mux.WakeUp();
    m_event.WakeAll();
    for (Infra::CThreadLite* thread : m_threads) {
        thread->destroyThread();
        delete thread;
    }
    m_threads.clear();
    if (m_daemon != nullptr) {
        // Cancelled before it is woken, or it would go round once more and rest again.
        m_daemon->cancelThread();
        m_daemon_sem.post();
        m_daemon_sem.post();
        m_daemon->destroyThread();
        delete m_daemon;
        m_daemon = nullptr;
    }
}

CThreadPool::~CThreadPool() {
    Stop();
    drop_records();
}

// A socket record that waits in the queue is in the socket tree as well, and the tree deletes it.
void CThreadPool::drop_records() {
    while (CEvent* ev = m_event.TryPop()) {
        if (ev->m_key < 0) {
            delete ev;
        }
    }
    delete m_cut_drain;
    // Handle 0 is a legal descriptor, but the tree deletes keys above 0 only.
    m_sock_tree.WriteLock();
    CEvent* zero = static_cast<CEvent*>(m_sock_tree.RemoveLocked(0));
    m_sock_tree.Unlock();
    delete zero;
}

void CThreadPool::AttachObject(ObjectEntry* entry) {
    entry->m_owner->AddRef();
    entry->m_id = m_ids.Alloc();
    m_obj_tree.Insert(entry);
}

void CThreadPool::DetachObject(int64_t id) {
    ObjectEntry* entry = m_obj_tree.Remove(id);
    if (entry == nullptr) {
        return;
    }
    m_ids.Release(static_cast<long>(id));
    entry->m_owner->DecRef();
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
    m_event_serial.PushSilent(ev);
    if (m_serial_idle) {
        m_serial_idle = false;
        queue_token(EVENT_KEY_DRAIN, nullptr);
    }
}

void CThreadPool::DaemonProc(Infra::CThreadLite& thread) {
    uint32_t last = 0;
    while (thread.looping()) {
        const uint32_t count = static_cast<uint32_t>(m_loop_count.load(std::memory_order_relaxed));
        if (count != last) {
            thread.setTimeout(LEASE_MS);
        }
        last = count;
        CEvent* beat = getEvent();
        m_heartbeat.store(beat, std::memory_order_relaxed);
        beat->m_key = EVENT_KEY_HEARTBEAT;
        beat->m_next = nullptr;
        Push(beat);
        thread.pause(HEARTBEAT_REST_MS);
        m_daemon_sem.pend(HEARTBEAT_WAIT_MS);
    }
}

}  // namespace Orvex::Reticor
