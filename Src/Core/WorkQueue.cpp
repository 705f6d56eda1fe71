// CWorkQueue: the main queue of a pool, which also keeps the poll token while its holder serves a record.
#include "Core/WorkQueue.h"

#include <Infra/Log.h>

namespace Orvex::Reticor {

int CWorkQueue::append_parked() {
    if (m_parked == nullptr) {
        return 0;
    }
    CEvent* token = m_parked;
    m_parked = nullptr;
    token->m_next = nullptr;
    return append(token);
}

void CWorkQueue::Push(CEvent* ev) {
    Infra::CGuard guard(m_mutex);
    int count = append(ev);
    count += append_parked();
    m_sem.post(count, count);
}

void CWorkQueue::PushOne(CEvent* ev) {
    ev->m_next = nullptr;
    Push(ev);
}

void CWorkQueue::PushFront(CEvent* ev) {
    Infra::CGuard guard(m_mutex);
    ev->m_next = m_head;
    if (m_head == nullptr) {
        m_tail = ev;
    }
    m_head = ev;
    const int count = 1 + append_parked();
    m_sem.post(count, count);
}

void CWorkQueue::PushReady(CEvent* chain, int count, CEvent* token) {
    token->m_next = nullptr;
    Infra::CGuard guard(m_mutex);
    if (chain != nullptr) {
        append(chain);
    }
    append(token);
    m_sem.post(count + 1, count);
}

CEvent* CWorkQueue::take_one() {
    CEvent* ev = TryPop();
    if (ev == nullptr) {
        INFRA_LOG(2, "sem_wait error unexpected!!\n");
    }
    return ev;
}

CEvent* CWorkQueue::PopWork() {
    if (m_sem.pendFor(0)) {
        return take_one();
    }
    if (become_guard()) {
        return guard();
    }
    m_sem.pend();
    return take_one();
}

bool CWorkQueue::become_guard() {
    Infra::CGuard guard(m_mutex);
    if (m_guard) {
        return false;
    }
    m_guard = true;
    return true;
}

CEvent* CWorkQueue::guard() {
    uint64_t seen_parkings = ~uint64_t{0};
    uint64_t seen_progress = ~uint64_t{0};
    while (!m_sem.pendFor(GUARD_PERIOD_US)) {
        CEvent* token = nullptr;
        if (!keep_guarding(seen_parkings, seen_progress, token)) {
            if (token != nullptr) {
                return token;
            }
            m_sem.pend();
            return take_one();
        }
    }
    CEvent* ev;
    {
        Infra::CGuard lock(m_mutex);
        m_guard = false;
        ev = take();
        // A push has put a parked token behind its record already, unless it was parked after another worker
        // took that record. Nobody would watch it now.
        if (const int count = append_parked()) {
            m_sem.post(count, count);
        }
    }
    if (ev == nullptr) {
        INFRA_LOG(2, "sem_wait error unexpected!!\n");
    }
    return ev;
}

bool CWorkQueue::keep_guarding(uint64_t& seen_parkings, uint64_t& seen_progress, CEvent*& token) {
    Infra::CGuard guard(m_mutex);
    const uint64_t progress = m_progress.load(std::memory_order_relaxed);
    const bool same_parking = m_parkings == seen_parkings;
    if (m_parked != nullptr && same_parking) {
        token = m_parked;
        m_parked = nullptr;
    } else if (m_parked != nullptr || !same_parking || progress != seen_progress) {
        seen_parkings = m_parkings;
        seen_progress = progress;
        return true;
    }
    m_guard = false;
    return false;
}

bool CWorkQueue::Park(CEvent* token) {
    Infra::CGuard guard(m_mutex);
    if (m_head != nullptr || !m_guard) {
        return false;
    }
    m_parked = token;
    ++m_parkings;
    return true;
}

bool CWorkQueue::Unpark(CEvent* token) {
    Infra::CGuard guard(m_mutex);
    if (m_parked != token) {
        return false;
    }
    m_parked = nullptr;
    return true;
}

}  // namespace Orvex::Reticor
