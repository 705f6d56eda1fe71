// CReadWriteMutex: a lock for data that is read all the time and seldom written, and the guards that hold it
// for a scope.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <type_traits>

#include <Infra/CMutex.h>
#include <Infra/Export.h>
#include <Infra/ThreadAnnotations.h>

namespace Orvex::Infra {

/// A lock for many readers or one writer.
///
/// Readers neither wait for each other nor write to a common cache line: each thread counts itself in one of
/// a few slots, always the same one. The price is paid by writers, which look at every slot, and in size
/// (more than a kilobyte). A waiting writer goes before new readers. For that reason a thread that reads must
/// not enter reading again: with a writer waiting in between it would wait for itself. A thread must leave
/// what it has entered itself; a hold cannot be handed to another thread. Entering either way while the
/// calling thread holds writing fires an assertion.
///
/// It can be a static object, as CMutex can. It does not change errno, and it allocates nothing but what the
/// C library notes at a thread's first entry for reading.
class INFRA_API INFRA_CAPABILITY("mutex") CReadWriteMutex {
public:
    constexpr CReadWriteMutex() noexcept = default;
    /// Only builds that watch the locks look at the class.
    constexpr explicit CReadWriteMutex(LockClass lock_class) noexcept : m_writer(lock_class) {}
    CReadWriteMutex(const CReadWriteMutex&) = delete;
    CReadWriteMutex& operator=(const CReadWriteMutex&) = delete;

    /// Blocks while a writer holds the lock or waits for it. Always true.
    bool enterReading(INFRA_PLACE_PARAMETER) noexcept INFRA_ACQUIRE_SHARED();
    /// Blocks until no other thread holds the lock in either way. Always true.
    bool enterWriting(INFRA_PLACE_PARAMETER) noexcept INFRA_ACQUIRE();
    /// Ends either kind of hold of the calling thread. Always true; fires an assertion if it sees that there
    /// is none.
    bool leave() noexcept INFRA_RELEASE_GENERIC();

    /// For assertions.
    bool writtenByThisThread() const noexcept { return m_writer.heldByThisThread(); }

    /// The number of slots in which readers count themselves.
    static constexpr size_t SLOT_COUNT = 8;

private:
    // Two lines, since processors fetch and pass on lines in pairs.
    static constexpr size_t CACHE_LINE = 128;

    struct alignas(CACHE_LINE) Slot {
        std::atomic<uint32_t> readers{0};
    };

    // Bits of m_gate: see the source.
    alignas(CACHE_LINE) std::atomic<uint32_t> m_gate{0};
    // Held by the one writer that has closed the gate, from enterWriting to leave.
    CMutex m_writer;
    Slot m_slots[SLOT_COUNT];

    friend struct ReadWriteMutexProbe;  // tests
};

static_assert(std::is_trivially_destructible_v<CReadWriteMutex>, "a static lock must survive exit()");

/// Reads under a CReadWriteMutex from its construction to the end of its scope.
class INFRA_SCOPED_CAPABILITY CReadGuard {
public:
    /// Enters for reading; waits for a writer.
    explicit CReadGuard(CReadWriteMutex& mutex INFRA_AND_PLACE_PARAMETER) noexcept INFRA_ACQUIRE_SHARED(mutex)
        : m_mutex(mutex) {
        m_mutex.enterReading(INFRA_PLACE);
    }
    ~CReadGuard() INFRA_RELEASE() { m_mutex.leave(); }
    CReadGuard(const CReadGuard&) = delete;
    CReadGuard& operator=(const CReadGuard&) = delete;

private:
    CReadWriteMutex& m_mutex;
};

/// Writes under a CReadWriteMutex from its construction to the end of its scope.
class INFRA_SCOPED_CAPABILITY CWriteGuard {
public:
    /// Enters for writing; waits for all others.
    explicit CWriteGuard(CReadWriteMutex& mutex INFRA_AND_PLACE_PARAMETER) noexcept INFRA_ACQUIRE(mutex)
        : m_mutex(mutex) {
        m_mutex.enterWriting(INFRA_PLACE);
    }
    ~CWriteGuard() INFRA_RELEASE() { m_mutex.leave(); }
    CWriteGuard(const CWriteGuard&) = delete;
    CWriteGuard& operator=(const CWriteGuard&) = delete;

private:
    CReadWriteMutex& m_mutex;
};

}  // namespace Orvex::Infra
