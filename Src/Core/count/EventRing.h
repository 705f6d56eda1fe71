// EventRing: the last events of a thread.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "Core/count/DumpFormat.h"

namespace Orvex::Reticor {

/// One ring for each thread that has met an event since the recorder was switched on, written by that thread
/// alone. Rings stay for the life of the process: so that somebody may read them at any moment, in a signal
/// handler too, and so that a thread's last events outlive it. A thread that comes when many have ended takes
/// over the ring of the one that did so first.
class EventRing {
public:
    static constexpr uint64_t PLACES = 65536;
    /// Rings of ended threads that are kept before one is taken over.
    static constexpr size_t MOST_ENDED = 16;

    EventRing(const EventRing&) = delete;
    EventRing& operator=(const EventRing&) = delete;

    /// Of the calling thread. Null without memory, and when the thread is about to be gone.
    static EventRing* Mine() { return t_mine != nullptr ? t_mine : attach(); }

    /// Memory may be there again for threads that have got none.
    static void TryAgain() { sm_no_memory.store(false, std::memory_order_relaxed); }

    /// Release, so that whoever reads a word of an event finds that all events before it were counted.
    void Put(uint64_t ticks, uint8_t what, uint64_t object) {
        const uint64_t number = m_written.load(std::memory_order_relaxed);
        TraceEvent& event = m_events[number % PLACES];
        __atomic_store_n(&event.ticks_what, ticks << TRACE_TICKS_SHIFT | what, __ATOMIC_RELEASE);
        __atomic_store_n(&event.object, object, __ATOMIC_RELEASE);
        m_written.store(number + 1, std::memory_order_release);
    }

    // For whoever reads, on any thread and in signal handlers. Without a lock.

    static const EventRing* First() { return sm_first.load(std::memory_order_acquire); }
    const EventRing* Next() const { return m_next; }

    /// What is known before the events are read, and after.
    DumpThread Head() const;
    DumpThreadEnd Tail() const;
    /// Copies `count` places from `place` on.
    void Copy(uint64_t place, uint64_t count, TraceEvent* events) const;

private:
    EventRing() = default;

    struct Return;
    static EventRing* attach();
    static EventRing* add();
    static EventRing* take_over();
    void enter();

    std::atomic<uint64_t> m_written{0};
    std::atomic<uint64_t> m_first{0};  ///< The first event of the thread that has it now.
    std::atomic<uint32_t> m_thread_id{0};
    std::atomic<int32_t> m_pool{-1};
    std::atomic<uint64_t> m_name[2] = {};
    std::atomic<bool> m_live{true};
    std::atomic<uint64_t> m_ended{0};  ///< In the order in which threads ended.
    EventRing* m_next = nullptr;       ///< Does not change.
    TraceEvent m_events[PLACES];       ///< Written before it is read: clearing it would touch all of it.

    static inline thread_local EventRing* t_mine __attribute__((tls_model("initial-exec"))) = nullptr;
    static std::atomic<EventRing*> sm_first;
    static std::atomic<uint64_t> sm_ended;
    static std::atomic<bool> sm_no_memory;
};

}  // namespace Orvex::Reticor
