// CReceiverThread: the list of receivers, the walk over it, and the grid of ticks.
#include "Tool/receive/ReceiverThread.h"

#include <cassert>
#include <new>

#include <Infra/Log.h>
#include <Infra/Time.h>

#include "Tool/receive/PacedReceiver.h"
#include "Tool/receive/ProcessorPin.h"

namespace Orvex::Reticor {

namespace {

constexpr uint64_t GRID_US = 100000;
constexpr int64_t LATE_LIMIT_TICKS = 20;
constexpr int OVER_POLL_MS = 10;

}  // namespace

CReceiverThread::CReceiverThread(unsigned int index, int group, unsigned int count, int64_t period_us)
    : m_index(index), m_group(group), m_count(count), m_period_us(period_us) {}

CReceiverThread::~CReceiverThread() {
    Infra::CThreadLite* thread = nullptr;
    {
        Infra::CGuard guard(m_mutex);
        thread = m_thread;
        m_thread = nullptr;
    }
    if (thread != nullptr && !thread->isThreadOver()) {
        thread->cancelThread();
        thread->destroyThread();
    }
    delete thread;
    Infra::CGuard guard(m_mutex);
    while (CPacedReceiver_IF* const receiver = m_head) {
        m_head = receiver->m_next;  // Before the call: a worker may delete the receiver at once.
        receiver->close();
        --m_number;
    }
    m_tail = nullptr;
    assert(m_number == 0);
}

int CReceiverThread::Number() const {
    Infra::CGuard guard(m_mutex);
    return m_number;
}

int CReceiverThread::Add(CPacedReceiver_IF* receiver, const ReceiverScheduling& scheduling) {
    Infra::CGuard guard(m_mutex);
    receiver->m_next = nullptr;
    if (m_tail != nullptr) {
        m_tail->m_next = receiver;
    } else {
        m_head = receiver;
    }
    m_tail = receiver;
    ++m_number;
    if (m_number == 1 && start(scheduling) != 0) {
        // The group's mutex was held all the time, so nobody has come since: the list is this receiver.
        m_number = 0;
        m_head = m_tail = nullptr;
        return -1;
    }
    return 0;
}

int CReceiverThread::start(const ReceiverScheduling& scheduling) {
    align(Infra::CTime::getCurrentMicroSecond());
    if (m_thread == nullptr) {
        m_thread = new (std::nothrow)
            Infra::CThreadLite({&CReceiverThread::thread_proc, this}, "stream_receiver_thread",
                               scheduling.priority, scheduling.policy, scheduling.stack);
        if (m_thread == nullptr) {
            return -1;
        }
    }
    // An earlier run has seen its list empty, or there would be no start; it ends soon.
    while (!m_thread->isThreadOver()) {
        m_mutex.leave();
        Infra::CThread::sleep(OVER_POLL_MS);
        m_mutex.enter();
    }
    return m_thread->createThread() ? 0 : -1;
}

// Begins the grid of ticks anew, with this thread's share of the period as its shift.
void CReceiverThread::align(uint64_t now_us) {
    m_base_time = now_us - now_us % GRID_US + static_cast<uint64_t>(m_period_us) * m_index / m_count;
}

void CReceiverThread::thread_proc(Infra::CThreadLite& thread) {
    ProcessorPin pin(m_index % m_count);
    assert(Number() >= 1);
    m_tick = 0;
    do {
        ++m_tick;
        if (!pass()) {
            return;
        }
        const int64_t due_us = next_due(Infra::CTime::getCurrentMicroSecond());
        if (due_us >= 1000) {
            thread.pause(static_cast<int>(due_us / 1000));
        }
    } while (thread.looping());
}

// Calls every receiver once. False if there is none.
bool CReceiverThread::pass() {
    CPacedReceiver_IF* receiver = first_receiver();
    if (receiver == nullptr) {
        return false;
    }
    while (receiver != nullptr) {
        drop_closed_after(receiver);
        // With no lock held: callbacks may start, stop and close receivers.
        if (receiver->m_state.load(std::memory_order_acquire) == RECEIVER_RUNNING) {
            receiver->turn();
        }
        receiver = after(receiver);
    }
    return true;
}

// The first receiver that is not closed; those before it are dropped.
CPacedReceiver_IF* CReceiverThread::first_receiver() {
    Infra::CGuard guard(m_mutex);
    while (m_head != nullptr && m_head->m_state.load(std::memory_order_acquire) == RECEIVER_CLOSED) {
        CPacedReceiver_IF* const closed = m_head;
        m_head = closed->m_next;  // Before the call: a worker may delete the receiver at once.
        closed->close();
        --m_number;
    }
    if (m_head == nullptr) {
        m_tail = nullptr;
    }
    return m_head;
}

void CReceiverThread::drop_closed_after(CPacedReceiver_IF* receiver) {
    Infra::CGuard guard(m_mutex);
    CPacedReceiver_IF* next = receiver->m_next;
    while (next != nullptr && next->m_state.load(std::memory_order_acquire) == RECEIVER_CLOSED) {
        CPacedReceiver_IF* const closed = next;
        next = closed->m_next;  // Before the call: a worker may delete the receiver at once.
        receiver->m_next = next;
        if (closed == m_tail) {
            m_tail = receiver;
        }
        closed->close();
        --m_number;
        assert(m_number > 0);
    }
}

CPacedReceiver_IF* CReceiverThread::after(CPacedReceiver_IF* receiver) {
    Infra::CGuard guard(m_mutex);
    assert(m_number >= 1);
    return receiver->m_next;
}

// Microseconds until the next tick; below 0 if the thread is behind, and then it catches up without a sleep.
// So far away in either direction that the clock or the machine must have jumped, the grid begins anew.
int64_t CReceiverThread::next_due(uint64_t now_us) {
    const int64_t limit = m_period_us * LATE_LIMIT_TICKS;
    const auto due =
        static_cast<int64_t>(m_base_time + static_cast<uint64_t>(m_period_us) * (m_tick + 1) - now_us);
    if (due >= -limit && due <= limit) {
        return due;
    }
    align(now_us);
    if (m_group == WRITE_GROUP) {
        m_tick = 1;
        return 0;
    }
    m_tick = 0;
    return m_period_us;
}

}  // namespace Orvex::Reticor
