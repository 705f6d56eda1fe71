// CReadWriteMutex, on futexes.
#include <Infra/ReadWriteMutex.h>

#include <cassert>

#include <Infra/HeldLocks.h>

#include "Futex.h"

// As in the header, without the default.
#if defined(RETICOR_HELD_LOCKS)
#define PLACE_PARAMETER LockPlace place
#else
#define PLACE_PARAMETER
#endif

namespace Orvex::Infra {

namespace {

// Bits of CReadWriteMutex::m_gate. Readers pass while it is 0.
constexpr uint32_t GATE_CLOSED = 1;         // a writer holds the lock or waits for readers to leave
constexpr uint32_t GATE_WRITER_SLEEPS = 2;  // the writer sleeps on some slot: a leaving reader wakes it
constexpr uint32_t GATE_READERS_SLEEP = 4;  // readers sleep on the gate: the leaving writer wakes them

constexpr size_t SLOTS = CReadWriteMutex::SLOT_COUNT;

using Word = std::atomic<uint32_t>;

// Slot number of the thread plus one; 0 while it has none.
__attribute__((tls_model("initial-exec"))) thread_local uint32_t t_slot = 0;

// How many running threads count themselves in each slot, those of all locks taken together.
Word g_slot_threads[SLOTS];

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

uint32_t slot_of_this_thread() noexcept {
    if (t_slot == 0) {
        t_slot = take_slot();
    }
    return t_slot - 1;
}

// How a reader and a writer find out about each other: the reader counts itself and then looks at the gate,
// the writer closes the gate and then looks at the counts, all in sequentially consistent order. So at least
// one of them sees the other: the reader backs off, or the writer waits. The same argument, with "takes
// itself off and then looks at the gate" against "says that it sleeps and then looks at the count", shows
// that no wake-up is lost.

void leave_slot(Word& readers, Word& gate) noexcept {
    const uint32_t before = readers.fetch_sub(1, std::memory_order_seq_cst);
    assert(before > 0 && "CReadWriteMutex::leave on a thread that does not hold the lock");
    if (before == 1 && (gate.load(std::memory_order_seq_cst) & GATE_WRITER_SLEEPS) != 0) {
        Detail::futex_wake(readers, 1);
    }
}

// Returns when the gate was seen open; it may be closed again by then.
void wait_for_writer(Word& gate) noexcept {
    for (int spins = Detail::spin_limit(); spins > 0; --spins) {
        if (gate.load(std::memory_order_relaxed) == 0) {
            return;
        }
        Detail::spin_pause();
    }
    uint32_t seen = gate.load(std::memory_order_relaxed);
    while (seen != 0) {
        if ((seen & GATE_READERS_SLEEP) == 0 &&
            !gate.compare_exchange_weak(seen, seen | GATE_READERS_SLEEP, std::memory_order_seq_cst)) {
            continue;
        }
        Detail::futex_wait(gate, seen | GATE_READERS_SLEEP);
        seen = gate.load(std::memory_order_relaxed);
    }
}

// Returns when no reader is left in the slot; later ones find the gate closed and back off.
void wait_for_readers(Word& readers, Word& gate) noexcept {
    for (int spins = Detail::spin_limit(); spins > 0; --spins) {
        if (readers.load(std::memory_order_seq_cst) == 0) {
            return;
        }
        Detail::spin_pause();
    }
    gate.fetch_or(GATE_WRITER_SLEEPS, std::memory_order_seq_cst);
    for (;;) {
        const uint32_t count = readers.load(std::memory_order_seq_cst);
        if (count == 0) {
            return;
        }
        Detail::futex_wait(readers, count);
    }
}

}  // namespace

bool CReadWriteMutex::enterReading(PLACE_PARAMETER) noexcept INFRA_NO_THREAD_SAFETY_ANALYSIS {
    assert(!writtenByThisThread() && "CReadWriteMutex::enterReading on the thread that holds it for writing");
#if defined(RETICOR_HELD_LOCKS)
    Seam::beforeLock(this, m_writer.m_class, LockWay::READ, place);
#endif
    Word& readers = m_slots[slot_of_this_thread()].readers;
    for (;;) {
        readers.fetch_add(1, std::memory_order_seq_cst);
        if (m_gate.load(std::memory_order_seq_cst) == 0) {
            break;
        }
        leave_slot(readers, m_gate);
        wait_for_writer(m_gate);
    }
#if defined(RETICOR_HELD_LOCKS)
    Seam::afterLock(this, m_writer.m_class, LockWay::READ, place, true);
#endif
    return true;
}

bool CReadWriteMutex::enterWriting(PLACE_PARAMETER) noexcept INFRA_NO_THREAD_SAFETY_ANALYSIS {
    assert(!writtenByThisThread() && "CReadWriteMutex::enterWriting on the thread that holds it for writing");
#if defined(RETICOR_HELD_LOCKS)
    Seam::beforeLock(this, m_writer.m_class, LockWay::ENTER, place);
#endif
    m_writer.take();
    m_gate.fetch_or(GATE_CLOSED, std::memory_order_seq_cst);
    for (Slot& slot : m_slots) {
        wait_for_readers(slot.readers, m_gate);
    }
#if defined(RETICOR_HELD_LOCKS)
    Seam::afterLock(this, m_writer.m_class, LockWay::ENTER, place, true);
#endif
    return true;
}

bool CReadWriteMutex::leave() noexcept INFRA_NO_THREAD_SAFETY_ANALYSIS {
    const bool writes = writtenByThisThread();
#if defined(RETICOR_HELD_LOCKS)
    const LockWay way = writes ? LockWay::ENTER : LockWay::READ;
    assert(HeldLocks::holds(this) && "CReadWriteMutex::leave on a thread that does not hold the lock");
    Seam::beforeUnlock(this, way);
#endif
    if (writes) {
        // Order matters: with the gate opened last, a next writer could close it while this one still means
        // to open it.
        const uint32_t gate = m_gate.exchange(0, std::memory_order_seq_cst);
        if ((gate & GATE_READERS_SLEEP) != 0) {
            Detail::futex_wake(m_gate);
        }
        m_writer.give();
    } else {
        leave_slot(m_slots[slot_of_this_thread()].readers, m_gate);
    }
#if defined(RETICOR_HELD_LOCKS)
    Seam::afterUnlock(this, way);
#endif
    return true;
}

}  // namespace Orvex::Infra
