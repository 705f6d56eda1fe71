// CEventQueue.
#include "Core/record/Event.h"

#include <new>

#include <Infra/Log.h>

namespace Orvex::Reticor {

CEventQueue::~CEventQueue() {
    Infra::CGuard guard(m_mutex);
    while (CEvent* ev = take()) {
        delete ev;
    }
}

int CEventQueue::append(CEvent* ev) {
    if (m_head != nullptr) {
        m_tail->m_next = ev;
    } else {
        m_head = ev;
    }
    m_tail = ev;
    int count = 1;
    while (m_tail->m_next != nullptr) {
        m_tail = m_tail->m_next;
        ++count;
    }
    m_pushed += static_cast<unsigned int>(count);
    return count;
}

void CEventQueue::put_front(CEvent* ev) {
    // m_head is null in an empty queue, so the link is right in both cases.
    ev->m_next = m_head;
    if (m_head == nullptr) {
        m_tail = ev;
    }
    m_head = ev;
    ++m_pushed;
}

CEventQueue::Amounts CEventQueue::Count() {
    Infra::CGuard guard(m_mutex);
    return {m_pushed, m_taken};
}

CEvent* CEventQueue::take() {
    CEvent* ev = m_head;
    if (ev != nullptr) {
        ++m_taken;
        m_head = ev->m_next;
        if (m_head == nullptr) {
            m_tail = nullptr;
        }
    }
    return ev;
}

void CEventQueue::Push(CEvent* ev) {
    Infra::CGuard guard(m_mutex);
    const int count = append(ev);
    m_sem.post(count, count);
}

void CEventQueue::PushOne(CEvent* ev) {
    ev->m_next = nullptr;
    Push(ev);
}

void CEventQueue::PushSilent(CEvent* ev) {
    Infra::CGuard guard(m_mutex);
    append(ev);
}

void CEventQueue::PushFront(CEvent* ev) {
    Infra::CGuard guard(m_mutex);
    put_front(ev);
    m_sem.post();
}

CEvent* CEventQueue::Pop() {
    m_sem.pend();
    CEvent* ev = TryPop();
    if (ev == nullptr) {
        INFRA_LOG(2, "sem_wait error unexpected!!\n");
    }
    return ev;
}

CEvent* CEventQueue::PopNow() {
    return m_sem.pendFor(0) ? TryPop() : nullptr;
}

CEvent* CEventQueue::TryPop() {
    Infra::CGuard guard(m_mutex);
    return take();
}

}  // namespace Orvex::Reticor
