// EventRing: how threads come to their rings, and leave them.
#include "Core/count/EventRing.h"

#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <new>

#include "Core/count/ThreadCounts.h"

namespace Orvex::Reticor {

std::atomic<EventRing*> EventRing::sm_first{nullptr};
std::atomic<uint64_t> EventRing::sm_ended{0};
std::atomic<bool> EventRing::sm_no_memory{false};

/// Leaves the ring when the thread ends. What it does later than that is not recorded.
struct EventRing::Return {
    bool used = false;
    bool over = false;
    ~Return() {
        over = true;
        if (t_mine != nullptr) {
            t_mine->m_ended.store(sm_ended.fetch_add(1, std::memory_order_relaxed),
                                  std::memory_order_relaxed);
            t_mine->m_live.store(false, std::memory_order_release);
            t_mine = nullptr;
        }
    }
};

__attribute__((noinline, cold)) EventRing* EventRing::attach() {
    static thread_local Return t_return;
    if (t_return.over) {
        return nullptr;
    }
    EventRing* ring = take_over();
    if (ring == nullptr && !sm_no_memory.load(std::memory_order_relaxed)) {
        ring = add();
    }
    if (ring != nullptr) {
        t_return.used = true;  // the first use registers the destructor
        ring->enter();
        t_mine = ring;
    }
    return ring;
}

/// Nobody asks again until the recorder is switched on once more: it would be at each event.
EventRing* EventRing::add() {
    auto* const ring = new (std::nothrow) EventRing;
    if (ring == nullptr) {
        sm_no_memory.store(true, std::memory_order_relaxed);
        return nullptr;
    }
    EventRing* first = sm_first.load(std::memory_order_relaxed);
    do {
        ring->m_next = first;
    } while (!sm_first.compare_exchange_weak(first, ring, std::memory_order_release));
    return ring;
}

/// The ring of the thread that ended first, if there are enough of them. Another thread may be quicker.
EventRing* EventRing::take_over() {
    for (;;) {
        EventRing* oldest = nullptr;
        size_t ended = 0;
        for (EventRing* ring = sm_first.load(std::memory_order_acquire); ring != nullptr;
             ring = ring->m_next) {
            if (ring->m_live.load(std::memory_order_acquire)) {
                continue;
            }
            ++ended;
            if (oldest == nullptr || ring->m_ended.load(std::memory_order_relaxed) <
                                         oldest->m_ended.load(std::memory_order_relaxed)) {
                oldest = ring;
            }
        }
        if (ended < MOST_ENDED) {
            return nullptr;
        }
        bool live = false;
        if (oldest->m_live.compare_exchange_strong(live, true, std::memory_order_acq_rel)) {
            return oldest;
        }
    }
}

/// The ring is the calling thread's. While it changes hands its thread is 0.
void EventRing::enter() {
    m_thread_id.store(0, std::memory_order_relaxed);
    char name[sizeof(DumpThread::name)] = {};
    ::prctl(PR_GET_NAME, name);
    uint64_t words[2];
    std::memcpy(words, name, sizeof(words));
    m_name[0].store(words[0], std::memory_order_release);
    m_name[1].store(words[1], std::memory_order_release);
    m_pool.store(ThreadCounts::Mine().m_pool, std::memory_order_release);
    m_first.store(m_written.load(std::memory_order_relaxed), std::memory_order_release);
    m_thread_id.store(static_cast<uint32_t>(::syscall(SYS_gettid)), std::memory_order_release);
}

DumpThread EventRing::Head() const {
    DumpThread head{};
    head.thread_id = m_thread_id.load(std::memory_order_acquire);
    head.first = m_first.load(std::memory_order_acquire);
    head.written = m_written.load(std::memory_order_acquire);
    head.pool = m_pool.load(std::memory_order_acquire);
    const uint64_t words[2] = {m_name[0].load(std::memory_order_acquire),
                               m_name[1].load(std::memory_order_acquire)};
    std::memcpy(head.name, words, sizeof(words));
    head.count = static_cast<uint32_t>(std::min(head.written, PLACES));
    head.live = m_live.load(std::memory_order_relaxed) ? 1 : 0;
    return head;
}

DumpThreadEnd EventRing::Tail() const {
    return {m_written.load(std::memory_order_acquire), m_thread_id.load(std::memory_order_acquire), 0};
}

void EventRing::Copy(uint64_t place, uint64_t count, TraceEvent* events) const {
    for (uint64_t i = 0; i < count; ++i) {
        events[i].ticks_what = __atomic_load_n(&m_events[place + i].ticks_what, __ATOMIC_ACQUIRE);
        events[i].object = __atomic_load_n(&m_events[place + i].object, __ATOMIC_ACQUIRE);
    }
}

}  // namespace Orvex::Reticor
