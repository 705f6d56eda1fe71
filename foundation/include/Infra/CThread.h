// CThread: a named thread with a loop that can be asked to end, and that can be started again.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstddef>
#include <cstdint>

#include <Infra/CMutex.h>
#include <Infra/Export.h>
#include <Infra/ThreadAnnotations.h>

namespace Orvex::Infra {

/// A thread whose body is `thread_proc` of a derived class. Construction starts nothing.
///
/// Library threads run with all asynchronous signals blocked, so that a product's signals go to its own
/// threads; SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGTRAP and SIGSYS stay open.
///
/// Thread safety: every operation may be called from any thread, but the destructor, createThread() and
/// destroyThread() not from the thread itself: it would wait for its own end, and an assertion fires instead.
class INFRA_API CThread {
public:
    /// `name` is copied, and shown to the kernel cut to 15 bytes; null means no name. `priority` is 1
    /// (lower), 64 (as the creating thread) or 127 (higher), `policy` 0 (time sharing, SCHED_OTHER) or 1
    /// (real time, SCHED_RR); what the system refuses is logged once at level 3 and the thread runs without.
    /// `stack` is in bytes, 0 for the system's default, and a size that the system finds invalid counts as 0.
    CThread(const char* name, int priority, int policy, int stack) noexcept;
    /// Waits for the body as destroyThread() does.
    virtual ~CThread();
    CThread(const CThread&) = delete;
    CThread& operator=(const CThread&) = delete;

    /// Starts the thread. A run that has ended, or was asked to end, is waited for first. False if the thread
    /// still runs and nobody asked it to end, or if the system can give no thread: that is logged at level 2,
    /// and the thread is over.
    bool createThread();

    /// True until the end was requested; true again from the next createThread() on. The body asks once per
    /// pass. The call also looks at the lease of setTimeout(). Does not block.
    bool looping() const;

    /// Requests the end of the loop, ends a pause() of the thread, and returns at once. Always true.
    bool cancelThread();

    /// Requests the end of the loop and waits until the body has returned; nothing to do if the thread was
    /// never started or is destroyed already. Always true.
    bool destroyThread();

    /// True once the body has returned, and before the first start.
    bool isThreadOver() const;

    /// Renews the thread's liveness lease: unless it is renewed again within `ms` milliseconds, the next
    /// looping() logs the lapse at level 2 with the thread's name and calls the lease hook, once for each
    /// lapse. 0 or less ends the lease. There is none before the first call, and each createThread() starts
    /// without one.
    void setTimeout(int ms);

    /// The thread's own sleep: up to `ms` milliseconds, ended early by cancelThread(). False once the end was
    /// requested.
    bool pause(int ms) const;

    /// The name that was given to the constructor, cut to 63 bytes.
    const char* name() const noexcept { return m_name; }

    /// Called with the thread's name, by the thread that found the lapse, after the log line. It may be
    /// called under the library's locks: do not call the library from it, do not block. Null, the default,
    /// calls nothing.
    static void setLeaseHook(void (*hook)(const char* thread_name)) noexcept;

    /// Sleeps the caller for `ms` milliseconds of the monotonic clock, whatever signals arrive; at once for 0
    /// or less.
    static void sleep(int ms) noexcept;

    /// The kernel's number of the calling thread, gettid(2).
    static int getCurrentThreadID() noexcept;

protected:
    /// The body: runs once, on the new thread; its return is the thread's end.
    virtual void thread_proc() = 0;

private:
    friend struct ThreadLife;  // Start, body and end, in the source.

    static constexpr size_t NAME_SIZE = 64;

    // Constant after construction.
    char m_name[NAME_SIZE];
    const int m_priority;
    const int m_policy;
    const int m_stack;

    // One start or one end at a time. The thread itself never takes it, since it is held while the thread is
    // waited for.
    CMutex m_life_mutex;
    pthread_t m_thread INFRA_GUARDED_BY(m_life_mutex){};
    bool m_joinable INFRA_GUARDED_BY(m_life_mutex) = false;

    // 1 until the end was requested; pause() sleeps on this word.
    mutable std::atomic<uint32_t> m_looping{1};
    std::atomic<bool> m_over{true};
    // End of the lease in microseconds of CTime; 0 for none. Whoever takes an expired value out reports the
    // lapse.
    mutable std::atomic<uint64_t> m_lease_us{0};
};

}  // namespace Orvex::Infra
