// CMutex, CReadWriteMutex: the locks of the library, and the guards that hold them for a scope.
//
// Both can be static objects: they are constant-initialised, so that they work before main, and their
// destructors are trivial, so that threads which still run while the process exits never meet a destroyed
// lock. Neither changes errno, and neither allocates, but for what the C library notes at a thread's first
// entry for reading. Neither is fair.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <type_traits>

#include <Infra/Export.h>
#include <Infra/ThreadAnnotations.h>

namespace Orvex::Infra {

// A recursive mutual exclusion lock: the holder may enter again, so that a callback which runs under an
// object's lock may call back into the same object, and must leave as often as it entered. An uncontended
// enter or leave makes no system call. Never destroy it while it is held.
class INFRA_API INFRA_CAPABILITY("mutex") CMutex {
public:
    constexpr CMutex() noexcept = default;
    CMutex(const CMutex&) = delete;
    CMutex& operator=(const CMutex&) = delete;

    // Blocks until the calling thread holds the lock. Always true.
    bool enter() noexcept INFRA_ACQUIRE() {
        if (!take_free() && !enter_again()) {
            enter_contended();
            take_over();
        }
        return true;
    }
    // Gives up one entry of the calling thread. Always true; fires an assertion if the caller is not the
    // holder.
    bool leave() noexcept INFRA_RELEASE() {
        if (m_depth != 1 || !heldByThisThread()) {
            leave_once();
            return true;
        }
        m_owner.store(nullptr, std::memory_order_relaxed);
        // From the exchange on another thread may enter, leave and destroy the lock: only its address is used
        // after it.
        if (m_state.exchange(FREE, std::memory_order_release) == HELD_WITH_SLEEPERS) {
            wake_sleeper();
        }
        return true;
    }
    // Takes the lock if it is free or already the caller's, and returns true; else returns false at once.
    bool tryEnter() noexcept INFRA_TRY_ACQUIRE(true) { return take_free() || enter_again(); }

    // For assertions: exact for the calling thread's own hold, whatever other threads do meanwhile.
    bool heldByThisThread() const noexcept {
        return m_owner.load(std::memory_order_relaxed) == this_thread();
    }

private:
    // Values of m_state.
    static constexpr uint32_t FREE = 0;
    static constexpr uint32_t HELD = 1;
    static constexpr uint32_t HELD_WITH_SLEEPERS = 2;

    // An address that no other running thread has.
    static const void* this_thread() noexcept { return __builtin_thread_pointer(); }

    bool take_free() noexcept {
        uint32_t expected = FREE;
        if (!m_state.compare_exchange_strong(expected, HELD, std::memory_order_acquire,
                                             std::memory_order_relaxed)) {
            return false;
        }
        take_over();
        return true;
    }
    // The question comes only after the exchange has failed: a look at the owner beforehand would fetch the
    // cache line twice from another processor, once to read and once to write.
    bool enter_again() noexcept {
        if (!heldByThisThread()) {
            return false;
        }
        ++m_depth;
        return true;
    }
    void take_over() noexcept {
        m_owner.store(this_thread(), std::memory_order_relaxed);
        m_depth = 1;
    }
    void enter_contended() noexcept;
    void leave_once() noexcept;
    void wake_sleeper() noexcept;

    // FREE, HELD, or held while somebody may sleep on this word.
    std::atomic<uint32_t> m_state{FREE};
    // Entries of the holder; touched by the holder alone.
    uint32_t m_depth = 0;
    // Names the holder. Others may read a stale value, but never their own name unless they hold the lock.
    std::atomic<const void*> m_owner{nullptr};
};

// A lock for many readers or one writer, made for data that is read all the time and seldom written.
//
// Readers neither wait for each other nor write to a common cache line: each thread counts itself in one of a
// few slots, always the same one. The price is paid by writers, who look at every slot, and in size (more
// than a kilobyte). A waiting writer goes before new readers. For that reason a thread that reads must not
// enter reading again: with a writer waiting in between it would wait for itself. A thread must leave what it
// has entered itself; a hold cannot be handed to another thread. Entering either way while the calling thread
// holds writing fires an assertion.
class INFRA_API INFRA_CAPABILITY("mutex") CReadWriteMutex {
public:
    constexpr CReadWriteMutex() noexcept = default;
    CReadWriteMutex(const CReadWriteMutex&) = delete;
    CReadWriteMutex& operator=(const CReadWriteMutex&) = delete;

    // Blocks while a writer holds the lock or waits for it. Always true.
    bool enterReading() noexcept INFRA_ACQUIRE_SHARED();
    // Blocks until no other thread holds the lock in either way. Always true.
    bool enterWriting() noexcept INFRA_ACQUIRE();
    // Ends either kind of hold of the calling thread. Always true; fires an assertion if it sees that there
    // is none.
    bool leave() noexcept INFRA_RELEASE_GENERIC();

    // For assertions.
    bool writtenByThisThread() const noexcept { return m_writer.heldByThisThread(); }

    // Readers count themselves in so many slots.
    static constexpr std::size_t SLOT_COUNT = 8;

private:
    // Two lines, since processors fetch and pass on lines in pairs.
    static constexpr std::size_t CACHE_LINE = 128;

    struct alignas(CACHE_LINE) Slot {
        std::atomic<uint32_t> readers{0};
    };

    Slot& slot_of_this_thread() noexcept;
    void leave_slot(Slot& slot) noexcept;
    void wait_for_writer() noexcept;
    void wait_for_readers(Slot& slot) noexcept;

    // Bits of m_gate: see the source.
    alignas(CACHE_LINE) std::atomic<uint32_t> m_gate{0};
    // Held by the one writer that has closed the gate, from enterWriting to leave.
    CMutex m_writer;
    Slot m_slots[SLOT_COUNT];

    friend struct ReadWriteMutexProbe;  // tests
};

static_assert(std::is_trivially_destructible_v<CMutex>, "a static lock must survive exit()");
static_assert(std::is_trivially_destructible_v<CReadWriteMutex>, "a static lock must survive exit()");

// Holds a CMutex from its construction to the end of its scope.
class INFRA_SCOPED_CAPABILITY CGuard {
public:
    explicit CGuard(CMutex& mutex) noexcept INFRA_ACQUIRE(mutex) : m_mutex(mutex) { m_mutex.enter(); }
    ~CGuard() INFRA_RELEASE() { m_mutex.leave(); }
    CGuard(const CGuard&) = delete;
    CGuard& operator=(const CGuard&) = delete;

private:
    CMutex& m_mutex;
};

// Reads under a CReadWriteMutex from its construction to the end of its scope.
class INFRA_SCOPED_CAPABILITY CReadGuard {
public:
    explicit CReadGuard(CReadWriteMutex& mutex) noexcept INFRA_ACQUIRE_SHARED(mutex) : m_mutex(mutex) {
        m_mutex.enterReading();
    }
    ~CReadGuard() INFRA_RELEASE() { m_mutex.leave(); }
    CReadGuard(const CReadGuard&) = delete;
    CReadGuard& operator=(const CReadGuard&) = delete;

private:
    CReadWriteMutex& m_mutex;
};

// Writes under a CReadWriteMutex from its construction to the end of its scope.
class INFRA_SCOPED_CAPABILITY CWriteGuard {
public:
    explicit CWriteGuard(CReadWriteMutex& mutex) noexcept INFRA_ACQUIRE(mutex) : m_mutex(mutex) {
        m_mutex.enterWriting();
    }
    ~CWriteGuard() INFRA_RELEASE() { m_mutex.leave(); }
    CWriteGuard(const CWriteGuard&) = delete;
    CWriteGuard& operator=(const CWriteGuard&) = delete;

private:
    CReadWriteMutex& m_mutex;
};

}  // namespace Orvex::Infra
