// CWorkQueue: the main queue of a pool, which knows its sleeping workers and wakes no more of them than pays.
#include "Core/record/WorkQueue.h"

#include <algorithm>

#include "Core/count/Points.h"

namespace Orvex::Reticor {

// ---- pushing -------------------------------------------------------------------------------------------

/// Gives out up to `most` wake-ups: whoever is woken for them is no sleeper any more.
int CWorkQueue::claim(int most) {
    const int claimed = std::min(m_sleepers, most);
    m_sleepers -= claimed;
    return claimed;
}

void CWorkQueue::wake(int claimed) {
    m_sem.post(claimed, claimed);
}

/// True once for each wait of the poller.
bool CWorkQueue::claim_poller() {
    if (!m_poller_waits.load(std::memory_order_relaxed)) {
        return false;
    }
    m_poller_waits.store(false, std::memory_order_relaxed);
    return true;
}

bool CWorkQueue::Push(CEvent* ev) {
    Points::Pushed(ev);
    int claimed;
    bool poller;
    {
        Infra::CGuard guard(m_mutex);
        const int records = append(ev);
        claimed = claim(records);
        poller = claimed < records && claim_poller();
    }
    wake(claimed);
    return poller;
}

bool CWorkQueue::PushOne(CEvent* ev) {
    ev->m_next = nullptr;
    return Push(ev);
}

bool CWorkQueue::PushFront(CEvent* ev) {
    Points::PushedOne(ev);
    int claimed;
    bool poller;
    {
        Infra::CGuard guard(m_mutex);
        put_front(ev);
        claimed = claim(1);
        poller = claimed == 0 && claim_poller();
    }
    wake(claimed);
    return poller;
}

void CWorkQueue::PushReady(CEvent* chain, int count, CEvent* token, int wakes) {
    token->m_next = nullptr;
    Points::Pushed(chain);
    int claimed;
    {
        Infra::CGuard guard(m_mutex);
        if (chain != nullptr) {
            append(chain);
        }
        append(token);
        m_poller_waits.store(false, std::memory_order_relaxed);
        claimed = claim(std::min(count, m_guard ? wakes : std::max(wakes, 1)));
    }
    wake(claimed);
}

CWorkQueue::Load CWorkQueue::Measure() {
    Infra::CGuard guard(m_mutex);
    return {{m_pushed, m_taken}, m_sleepers + (m_poller_waits.load(std::memory_order_relaxed) ? 1 : 0)};
}

CWorkQueue::OldTimers CWorkQueue::FindOldTimers(uint64_t before_us) {
    OldTimers found;
    Infra::CGuard guard(m_mutex);
    int left = MOST_RECORDS_SEEN;
    for (const CEvent* ev = m_head; ev != nullptr && left > 0; ev = ev->m_next, --left) {
        if (ev->m_key < EVENT_KEY_TIMER_LIMIT && ev->m_expire <= before_us) {
            ++found.count;
            found.oldest_us =
                found.oldest_us == 0 ? ev->m_expire : std::min(found.oldest_us, uint64_t{ev->m_expire});
        }
    }
    return found;
}

void CWorkQueue::WakeAll() {
    int claimed;
    {
        Infra::CGuard guard(m_mutex);
        claimed = claim(m_sleepers);
    }
    wake(claimed);
}

// ---- taking --------------------------------------------------------------------------------------------

CEvent* CWorkQueue::take_record() {
    CEvent* ev = take();
    if (ev != nullptr && ev->m_key == EVENT_KEY_POLL) {
        m_poller_waits.store(m_head == nullptr, std::memory_order_relaxed);
    }
    return ev;
}

CEvent* CWorkQueue::PopWork() {
    bool guarding;
    {
        Infra::CGuard guard(m_mutex);
        if (CEvent* ev = take_record()) {
            return ev;
        }
        ++m_sleepers;
        guarding = !m_guard;
        m_guard = true;
    }
    if (guarding) {
        sleep_as_guard();
    } else {
        m_sem.pend();
    }
    return take_woken();
}

/// The take of a worker that was asleep. If it leaves records behind with nobody on guard, it wakes another
/// one: its own record may block, and the poll token stand after it.
CEvent* CWorkQueue::take_woken() {
    CEvent* ev;
    int claimed;
    {
        Infra::CGuard guard(m_mutex);
        ev = take_record();
        claimed = m_head != nullptr && !m_guard ? claim(1) : 0;
    }
    wake(claimed);
    return ev;
}

/// Returns when there is, or just was, something to take.
void CWorkQueue::sleep_as_guard() {
    Watch watch;
    while (!m_sem.pendFor(GUARD_PERIOD_US)) {
        switch (look(watch)) {
            case Look::again:
                break;
            case Look::overdue:
                return;
            case Look::idle:
                m_sem.pend();
                return;
        }
    }
    Infra::CGuard guard(m_mutex);
    m_guard = false;
}

/// A look of the guard: whether records are overdue, or the pool has stood still for a while.
CWorkQueue::Look CWorkQueue::look(Watch& watch) {
    Infra::CGuard guard(m_mutex);
    // Every record that the pool takes tells that it is not idle.
    watch.idle_looks = m_taken == watch.seen_taken ? watch.idle_looks + 1 : 0;
    watch.seen_taken = m_taken;
    // With no sleeper counted, a wake-up is on its way to this thread, and is waited for.
    if (m_head == nullptr || claim(1) == 0) {
        const bool idle = watch.idle_looks >= IDLE_LOOKS || m_head != nullptr;
        m_guard = !idle;
        return idle ? Look::idle : Look::again;
    }
    m_guard = false;
    return Look::overdue;
}

}  // namespace Orvex::Reticor
