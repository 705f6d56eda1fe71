// CMutex and CReadWriteMutex, on futexes.
#include <Infra/Mutex.h>

#include <unistd.h>

#include <cassert>
#include <cerrno>

#include "Futex.h"

namespace Orvex::Infra {

namespace {

// Bits of CReadWriteMutex::m_gate. Readers pass while it is 0.
constexpr uint32_t GATE_CLOSED = 1;         // a writer holds the lock or waits for readers to leave
constexpr uint32_t GATE_WRITER_SLEEPS = 2;  // the writer sleeps on some slot: a leaving reader wakes it
constexpr uint32_t GATE_READERS_SLEEP = 4;  // readers sleep on the gate: the leaving writer wakes them

// How often a lock looks again before it sleeps: about two microseconds, less than a sleep and a wake-up
// cost, and longer than the short stretches for which the library holds its locks.
constexpr int SPINS = 60;

constexpr std::size_t SLOTS = CReadWriteMutex::SLOT_COUNT;

// Slot number of the thread plus one; 0 while it has none.
__attribute__((tls_model("initial-exec"))) thread_local uint32_t t_slot = 0;

// How many running threads count themselves in each slot, those of all locks taken together.
std::atomic<uint32_t> g_slot_threads[SLOTS];

// Gives the thread's slot number back when the thread ends. Locks that are entered even later keep using it.
struct SlotReturn {
    uint32_t slot = 0;
    ~SlotReturn() {
        if (slot != 0) {
            g_slot_threads[slot - 1].fetch_sub(1, std::memory_order_relaxed);
        }
    }
};
thread_local SlotReturn t_slot_return;

// The slot that the fewest threads have: threads that come and go must not pile up in one.
__attribute__((noinline)) uint32_t take_slot() noexcept {
    uint32_t best = 0;
    for (uint32_t i = 1; i < SLOTS; ++i) {
        if (g_slot_threads[i].load(std::memory_order_relaxed) <
            g_slot_threads[best].load(std::memory_order_relaxed)) {
            best = i;
        }
    }
    g_slot_threads[best].fetch_add(1, std::memory_order_relaxed);
    t_slot_return.slot = best + 1;
    return best + 1;
}

int count_processors() noexcept {
    const int saved_errno = errno;
    const long count = ::sysconf(_SC_NPROCESSORS_ONLN);
    errno = saved_errno;
    return count > 1 ? static_cast<int>(count) : 1;
}

// Spinning waits for a holder that runs on another processor; with one processor there is none.
int spin_limit() noexcept {
    static std::atomic<int> limit{-1};
    int value = limit.load(std::memory_order_relaxed);
    if (value < 0) {
        value = count_processors() > 1 ? SPINS : 0;
        limit.store(value, std::memory_order_relaxed);
    }
    return value;
}

}  // namespace

// Out of line: an entry of several, or a mistake.
void CMutex::leave_once() noexcept {
    assert(heldByThisThread() && "CMutex::leave on a thread that does not hold the lock");
    --m_depth;
}

void CMutex::wake_sleeper() noexcept {
    Detail::futexWake(m_state, 1);
}

void CMutex::enter_contended() noexcept {
    const int limit = spin_limit();
    // Ever longer pauses: each look takes the cache line from the holder, which could else do its work, and
    // often that of its next entries, in the meantime.
    for (int pauses = 1, spent = 0; spent < limit; pauses *= 2) {
        uint32_t state = m_state.load(std::memory_order_relaxed);
        if (state == HELD_WITH_SLEEPERS) {
            break;  // Others have given up spinning already.
        }
        if (state == FREE && m_state.compare_exchange_weak(state, HELD, std::memory_order_acquire,
                                                           std::memory_order_relaxed)) {
            return;
        }
        for (int i = 0; i < pauses; ++i, ++spent) {
            Detail::spinPause();
        }
    }
    // A thread that has slept cannot know whether others still sleep, so it takes the lock in the state that
    // makes it wake one when it leaves.
    while (m_state.exchange(HELD_WITH_SLEEPERS, std::memory_order_acquire) != FREE) {
        Detail::futexWait(m_state, HELD_WITH_SLEEPERS);
    }
}

// How a reader and a writer find out about each other: the reader counts itself and then looks at the gate,
// the writer closes the gate and then looks at the counts, all in sequentially consistent order. So at least
// one of them sees the other: the reader backs off, or the writer waits. The same argument, with "takes
// itself off and then looks at the gate" against "says that it sleeps and then looks at the count", shows
// that no wake-up is lost.

CReadWriteMutex::Slot& CReadWriteMutex::slot_of_this_thread() noexcept {
    if (t_slot == 0) {
        t_slot = take_slot();
    }
    return m_slots[t_slot - 1];
}

bool CReadWriteMutex::enterReading() noexcept INFRA_NO_THREAD_SAFETY_ANALYSIS {
    assert(!writtenByThisThread() && "CReadWriteMutex::enterReading on the thread that holds it for writing");
    Slot& slot = slot_of_this_thread();
    for (;;) {
        slot.readers.fetch_add(1, std::memory_order_seq_cst);
        if (m_gate.load(std::memory_order_seq_cst) == 0) {
            return true;
        }
        leave_slot(slot);
        wait_for_writer();
    }
}

bool CReadWriteMutex::enterWriting() noexcept INFRA_NO_THREAD_SAFETY_ANALYSIS {
    assert(!writtenByThisThread() && "CReadWriteMutex::enterWriting on the thread that holds it for writing");
    m_writer.enter();
    m_gate.fetch_or(GATE_CLOSED, std::memory_order_seq_cst);
    for (Slot& slot : m_slots) {
        wait_for_readers(slot);
    }
    return true;
}

bool CReadWriteMutex::leave() noexcept INFRA_NO_THREAD_SAFETY_ANALYSIS {
    if (!writtenByThisThread()) {
        leave_slot(slot_of_this_thread());
        return true;
    }
    // Order matters: with the gate opened last, a next writer could close it while this one still means to
    // open it.
    const uint32_t gate = m_gate.exchange(0, std::memory_order_seq_cst);
    if ((gate & GATE_READERS_SLEEP) != 0) {
        Detail::futexWake(m_gate);
    }
    m_writer.leave();
    return true;
}

void CReadWriteMutex::leave_slot(Slot& slot) noexcept {
    const uint32_t before = slot.readers.fetch_sub(1, std::memory_order_seq_cst);
    assert(before > 0 && "CReadWriteMutex::leave on a thread that does not hold the lock");
    if (before == 1 && (m_gate.load(std::memory_order_seq_cst) & GATE_WRITER_SLEEPS) != 0) {
        Detail::futexWake(slot.readers, 1);
    }
}

// Returns when the gate was seen open; it may be closed again by then.
void CReadWriteMutex::wait_for_writer() noexcept {
    for (int spins = spin_limit(); spins > 0; --spins) {
        if (m_gate.load(std::memory_order_relaxed) == 0) {
            return;
        }
        Detail::spinPause();
    }
    uint32_t gate = m_gate.load(std::memory_order_relaxed);
    while (gate != 0) {
        if ((gate & GATE_READERS_SLEEP) == 0 &&
            !m_gate.compare_exchange_weak(gate, gate | GATE_READERS_SLEEP, std::memory_order_seq_cst)) {
            continue;
        }
        Detail::futexWait(m_gate, gate | GATE_READERS_SLEEP);
        gate = m_gate.load(std::memory_order_relaxed);
    }
}

// Returns when no reader is left in the slot; later ones find the gate closed and back off.
void CReadWriteMutex::wait_for_readers(Slot& slot) noexcept {
    for (int spins = spin_limit(); spins > 0; --spins) {
        if (slot.readers.load(std::memory_order_seq_cst) == 0) {
            return;
        }
        Detail::spinPause();
    }
    m_gate.fetch_or(GATE_WRITER_SLEEPS, std::memory_order_seq_cst);
    for (;;) {
        const uint32_t readers = slot.readers.load(std::memory_order_seq_cst);
        if (readers == 0) {
            return;
        }
        Detail::futexWait(slot.readers, readers);
    }
}

}  // namespace Orvex::Infra
