// CSockTimer: measures the idle time of sockets, for the whole process.
#include "Core/service/SockTimer.h"

#include <new>
#include <utility>

#include "Core/pool/PoolLease.h"
#include "Core/pool/ThreadPool.h"

namespace Orvex::Reticor {

CSockTimer& sock_timer() {
    static CSockTimer timer;
    return timer;
}

int CSockTimer::Start() {
    m_thread = new (std::nothrow)
        Infra::CThreadLite(Infra::TFunction1<void, Infra::CThreadLite&>(&CSockTimer::thread_proc, this),
                           "Sock_Timer_Thread", 64, 0, 0);
    if (m_thread != nullptr && m_thread->createThread()) {
        return 0;
    }
    delete m_thread;
    m_thread = nullptr;
    return -1;
}

void CSockTimer::Stop() {
    if (m_thread == nullptr) {
        return;
    }
    m_thread->cancelThread();
    m_thread->destroyThread();
    delete m_thread;
    m_thread = nullptr;
    m_now.store(0, std::memory_order_relaxed);
}

void CSockTimer::set_deadline(CEvent* ev, int time_out) {
    ev->m_timer.m_set_time = time_out;
    ev->m_timer.m_sock_deadline =
        static_cast<int64_t>(m_now.load(std::memory_order_relaxed)) + time_out + PASS_MS;
}

void CSockTimer::Link(CEvent* ev, int time_out) {
    set_deadline(ev, time_out);
    set_flag(ev, MUX_LISTED);
    ev->m_timer.m_timer_prev = nullptr;
    Infra::CGuard guard(m_mutex);
    ev->m_timer.m_timer_next = m_head;
    if (m_head != nullptr) {
        m_head->m_timer.m_timer_prev = ev;
    }
    m_head = ev;
}

void CSockTimer::Update(CEvent* ev, int time_out) {
    set_deadline(ev, time_out);
}

void CSockTimer::Unlink(CEvent* ev) {
    Infra::CGuard guard(m_mutex);
    unlink_locked(ev);
}

void CSockTimer::unlink_locked(CEvent* ev) {
    SockTimerNode& node = ev->m_timer;
    if (node.m_timer_prev != nullptr) {
        node.m_timer_prev->m_timer.m_timer_next = node.m_timer_next;
    } else {
        m_head = node.m_timer_next;
    }
    if (node.m_timer_next != nullptr) {
        node.m_timer_next->m_timer.m_timer_prev = node.m_timer_prev;
    }
    node.m_set_time = 0;
    node.m_sock_deadline = 0;
    node.m_timer_prev = nullptr;
    node.m_timer_next = nullptr;
    clear_flag(ev, MUX_LISTED);
}

void CSockTimer::UnlinkAll(BTree& tree) {
    tree.ReadLock();
    tree.ForEach([this](void* payload) {
        const RecordPin record = RecordPin::Enter(static_cast<CEvent*>(payload));
        if (IsLinked(record.get())) {
            Unlink(record.get());
        }
    });
    tree.Unlock();
    // A pass that is under way may have its eyes on a record that has just left the list.
    Infra::CGuard guard(m_mutex);
}

void CSockTimer::thread_proc(Infra::CThreadLite& thread) {
    while (thread.looping()) {
        if (thread.pause(PASS_MS)) {
            pass();
        }
    }
}

void CSockTimer::pass() {
    m_now.fetch_add(PASS_MS, std::memory_order_relaxed);
    Infra::CGuard guard(m_mutex);
    for (CEvent* ev = m_head; ev != nullptr;) {
        CEvent* next = ev->m_timer.m_timer_next;
        // A busy record waits for the next pass: blocking here would be against the order of the locks.
        if (RecordPin record = RecordPin::Try(ev)) {
            expire(std::move(record));
        }
        ev = next;
    }
}

void CSockTimer::expire(RecordPin record) {
    CEvent* ev = record.get();
    const int64_t deadline = ev->m_timer.m_sock_deadline;
    if (deadline < 1 || deadline > static_cast<int64_t>(m_now.load(std::memory_order_relaxed))) {
        return;
    }
    unlink_locked(ev);
    const PoolLease pool = PoolLease::OfId(ev->m_obj_id);
    if (!pool) {
        return;  // the record goes with its pool
    }
    pool->m_mux.RemoveEvent(ev);
    if (ev->m_event_mask & SOCK_READ) {
        set_revents(ev, REVENT_READ_TIMEOUT);
    } else if (ev->m_event_mask & SOCK_WRITE) {
        set_revents(ev, REVENT_WRITE_TIMEOUT);
    } else {
        // No direction is left to call: the record passes through a worker all the same, and counts as in
        // flight.
        set_flag(ev, MUX_BUSY);
    }
    ev->m_stamp_ns = 0;
    ev->m_next = nullptr;
    record.Leave();
    pool->Push(ev);
}

}  // namespace Orvex::Reticor
