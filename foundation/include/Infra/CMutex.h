// CMutex: the lock of the library, and the guard that holds it for a scope.
#pragma once

#include <atomic>
#include <cstdint>
#include <type_traits>

#include <Infra/Export.h>
#include <Infra/LockClass.h>
#include <Infra/ThreadAnnotations.h>

namespace Orvex::Infra {

/// A recursive mutual exclusion lock: the holder may enter again, so that a callback which runs under an
/// object's lock may call back into the same object, and must leave as often as it entered. An uncontended
/// enter or leave makes no system call. Never destroy it while it is held.
///
/// It can be a static object: it is constant-initialised, so that it works before main, and its destructor is
/// trivial, so that threads which still run while the process exits never meet a destroyed lock. It neither
/// changes errno nor allocates. It is not fair.
class INFRA_API INFRA_CAPABILITY("mutex") CMutex {
public:
    constexpr CMutex() noexcept = default;
#if defined(RETICOR_HELD_LOCKS)
    constexpr explicit CMutex(LockClass lock_class) noexcept : m_class(lock_class) {}
#else
    /// Only builds that watch the locks look at the class.
    constexpr explicit CMutex(LockClass) noexcept {}
#endif
    CMutex(const CMutex&) = delete;
    CMutex& operator=(const CMutex&) = delete;

    /// Blocks until the calling thread holds the lock. Always true.
    bool enter(INFRA_PLACE_PARAMETER) noexcept INFRA_ACQUIRE() {
#if defined(RETICOR_HELD_LOCKS)
        if (enter_again()) {
            return true;
        }
        Seam::beforeLock(this, m_class, LockWay::ENTER, place);
        take();
        Seam::afterLock(this, m_class, LockWay::ENTER, place, true);
#else
        take();
#endif
        return true;
    }

    /// Gives up one entry of the calling thread. Always true; fires an assertion if the caller is not the
    /// holder.
    bool leave() noexcept INFRA_RELEASE() {
#if defined(RETICOR_HELD_LOCKS)
        if (m_depth == 1 && heldByThisThread()) {
            Seam::beforeUnlock(this, LockWay::ENTER);
            give();
            Seam::afterUnlock(this, LockWay::ENTER);
            return true;
        }
#endif
        give();
        return true;
    }

    /// Takes the lock if it is free or already the caller's, and returns true; else returns false at once.
    bool tryEnter(INFRA_PLACE_PARAMETER) noexcept INFRA_TRY_ACQUIRE(true) {
#if defined(RETICOR_HELD_LOCKS)
        if (enter_again()) {
            return true;
        }
        Seam::beforeLock(this, m_class, LockWay::TRY, place);
        const bool taken = take_free();
        Seam::afterLock(this, m_class, LockWay::TRY, place, taken);
        return taken;
#else
        return take_free() || enter_again();
#endif
    }

    /// For assertions: exact for the calling thread's own hold, whatever other threads do meanwhile.
    bool heldByThisThread() const noexcept {
        return m_owner.load(std::memory_order_relaxed) == this_thread();
    }

private:
    friend class CReadWriteMutex;  // A writer holds one, which is not to be seen as a lock of its own.

    // Values of m_state.
    static constexpr uint32_t FREE = 0;
    static constexpr uint32_t HELD = 1;
    static constexpr uint32_t HELD_WITH_SLEEPERS = 2;

    // An address that no other running thread has.
    static const void* this_thread() noexcept {
        return __builtin_thread_pointer();
    }

    void take() noexcept {
        if (!take_free() && !enter_again()) {
            enter_contended();
            take_over();
        }
    }
    void give() noexcept {
        if (m_depth != 1 || !heldByThisThread()) {
            leave_once();
            return;
        }
        m_owner.store(nullptr, std::memory_order_relaxed);
        // From the exchange on another thread may enter, leave and destroy the lock: only its address is used
        // after it.
        if (m_state.exchange(FREE, std::memory_order_release) == HELD_WITH_SLEEPERS) {
            wake_sleeper();
        }
    }
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

    // The only private operations of Infra that are exported: what stands above is compiled into products,
    // and calls them.
    void enter_contended() noexcept;
    void leave_once() noexcept;
    void wake_sleeper() noexcept;

    // FREE, HELD, or held while somebody may sleep on this word.
    std::atomic<uint32_t> m_state{FREE};
    // Entries of the holder; touched by the holder alone.
#if defined(RETICOR_HELD_LOCKS)
    uint16_t m_depth = 0;
    LockClass m_class = UNNAMED_LOCK;  // In bits that the depth does not need: the layout stays.
#else
    uint32_t m_depth = 0;
#endif
    // Names the holder. Others may read a stale value, but never their own name unless they hold the lock.
    std::atomic<const void*> m_owner{nullptr};
};

static_assert(std::is_trivially_destructible_v<CMutex>, "a static lock must survive exit()");
static_assert(sizeof(CMutex) == 2 * sizeof(uint32_t) + sizeof(void*), "the layout is part of the interface");

/// Holds a CMutex from its construction to the end of its scope.
class INFRA_SCOPED_CAPABILITY CGuard {
public:
    /// Enters; waits for as long as another thread holds it.
    explicit CGuard(CMutex& mutex INFRA_AND_PLACE_PARAMETER) noexcept INFRA_ACQUIRE(mutex) : m_mutex(mutex) {
        m_mutex.enter(INFRA_PLACE);
    }
    ~CGuard() INFRA_RELEASE() { m_mutex.leave(); }
    CGuard(const CGuard&) = delete;
    CGuard& operator=(const CGuard&) = delete;

private:
    CMutex& m_mutex;
};

}  // namespace Orvex::Infra
