// CThread: start, end, pause and lease.
#include <Infra/Thread.h>

#include <signal.h>
#include <time.h>
#include <unistd.h>

#include <cassert>
#include <cerrno>
#include <cstring>
#include <initializer_list>

#include <Infra/LockClasses.h>
#include <Infra/Log.h>
#include <Infra/Time.h>

#include "DefaultSink.h"
#include "ErrorText.h"
#include "Futex.h"
#include "ThreadId.h"
#include "ThreadScheduling.h"

#if defined(RETICOR_HELD_LOCKS)
#include <Infra/Seam.h>
#endif

namespace Orvex::Infra {

namespace {

thread_local const CThread* t_running = nullptr;

std::atomic<void (*)(const char*)> g_lease_hook{nullptr};

// Blocks on the calling thread every signal that is not the thread's own doing, so that a thread which is
// created meanwhile starts that way.
class SignalsBlocked {
public:
    SignalsBlocked() noexcept {
        sigset_t blocked;
        ::sigfillset(&blocked);
        for (const int own : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGTRAP, SIGSYS}) {
            ::sigdelset(&blocked, own);
        }
        ::pthread_sigmask(SIG_SETMASK, &blocked, &m_before);
    }
    ~SignalsBlocked() { ::pthread_sigmask(SIG_SETMASK, &m_before, nullptr); }
    SignalsBlocked(const SignalsBlocked&) = delete;
    SignalsBlocked& operator=(const SignalsBlocked&) = delete;

private:
    sigset_t m_before;
};

// Whoever watches the locks is told of the sleeps of threads; others are not.
void before_wait([[maybe_unused]] const void* object) noexcept {
#if defined(RETICOR_HELD_LOCKS)
    Seam::enter_wait(object);
#endif
}

void after_wait([[maybe_unused]] const void* object) noexcept {
#if defined(RETICOR_HELD_LOCKS)
    Seam::leave_wait(object);
#endif
}

}  // namespace

// What a thread does between its creation and its end.
struct ThreadLife {
    static void* run(void* self);
    static int start(CThread& thread) INFRA_REQUIRES(thread.m_life_mutex);
    static void join(CThread& thread) INFRA_REQUIRES(thread.m_life_mutex);
    static void check_lease(const CThread& thread);
};

void* ThreadLife::run(void* self) {
    CThread* const thread = static_cast<CThread*>(self);
    t_running = thread;
    Detail::set_kernel_thread_name(thread->m_name);
    Detail::apply_scheduling(thread->m_name, thread->m_priority, thread->m_policy);
#if defined(RETICOR_HELD_LOCKS)
    Seam::thread_begins(thread->m_name);
#endif
    thread->thread_proc();
#if defined(RETICOR_HELD_LOCKS)
    Seam::thread_ends(thread->m_name);
#endif
    t_running = nullptr;
    // The last touch: whoever sees it may start the thread again.
    thread->m_over.store(true, std::memory_order_release);
    return nullptr;
}

int ThreadLife::start(CThread& thread) {
    pthread_attr_t attributes;
    int error = ::pthread_attr_init(&attributes);
    if (error != 0) {
        return error;
    }
    const bool own_stack = thread.m_stack > 0 &&
                           ::pthread_attr_setstacksize(&attributes, static_cast<size_t>(thread.m_stack)) == 0;
    {
        const SignalsBlocked blocked;
        error = ::pthread_create(&thread.m_thread, &attributes, &ThreadLife::run, &thread);
        // A stack that is large enough for the attribute can still be too small for the thread-local data.
        if (error == EINVAL && own_stack) {
            error = ::pthread_create(&thread.m_thread, nullptr, &ThreadLife::run, &thread);
        }
    }
    ::pthread_attr_destroy(&attributes);
    return error;
}

void ThreadLife::join(CThread& thread) {
    before_wait(&thread);
    [[maybe_unused]] const int error = ::pthread_join(thread.m_thread, nullptr);
    after_wait(&thread);
    assert(error == 0);
    thread.m_joinable = false;
}

void ThreadLife::check_lease(const CThread& thread) {
    uint64_t lease_us = thread.m_lease_us.load(std::memory_order_relaxed);
    if (lease_us == 0) {
        return;
    }
    const uint64_t now_us = CTime::getCurrentMicroSecond();
    if (now_us < lease_us ||
        !thread.m_lease_us.compare_exchange_strong(lease_us, 0, std::memory_order_relaxed)) {
        return;
    }
    // The function in the line is part of the interface.
    constexpr const char* FUNCTION = "Orvex::Infra::CThread::check_lease";
    if (logEnabled(2)) {
        Detail::logMember(2, __FILE__, FUNCTION, __LINE__, &thread,
                          "%s : the lease of thread \"%s\" ran out %llu ms ago\n", FUNCTION, thread.m_name,
                          static_cast<unsigned long long>((now_us - lease_us) / 1000));
    }
    void (*const hook)(const char*) = g_lease_hook.load(std::memory_order_acquire);
    if (hook != nullptr) {
        hook(thread.m_name);
    }
}

CThread::CThread(const char* name, int priority, int policy, int stack) noexcept
    : m_name{}, m_priority(priority), m_policy(policy), m_stack(stack), m_life_mutex(LockClass::THREAD_LIFE) {
    if (name != nullptr) {
        std::strncpy(m_name, name, NAME_SIZE - 1);
    }
}

CThread::~CThread() {
    // A derived class has joined already, since its body uses its own members; this is for the case of a
    // class without.
    destroyThread();
}

bool CThread::createThread() {
    assert(t_running != this &&
           "CThread::createThread called by the thread itself, which would wait for its own end");
    CGuard guard(m_life_mutex);
    if (m_joinable) {
        if (!m_over.load(std::memory_order_acquire) && m_looping.load(std::memory_order_relaxed) != 0) {
            return false;
        }
        ThreadLife::join(*this);
    }
    // All of this is set before the thread exists, so that a cancelThread() that comes before its first step
    // counts.
    m_lease_us.store(0, std::memory_order_relaxed);
    m_over.store(false, std::memory_order_relaxed);
    m_looping.store(1, std::memory_order_release);
    const int error = ThreadLife::start(*this);
    if (error == 0) {
        m_joinable = true;
        return true;
    }
    m_over.store(true, std::memory_order_release);
    INFRA_LOG(2, "%s : thread \"%s\" cannot be created, error : %d, %s\n", INFRA_FUNCTION, m_name, error,
              Detail::ErrorText(error).text());
    return false;
}

bool CThread::looping() const {
    ThreadLife::check_lease(*this);
    return m_looping.load(std::memory_order_acquire) != 0;
}

bool CThread::cancelThread() {
    m_looping.store(0, std::memory_order_release);
    Detail::futex_wake(m_looping);
    return true;
}

bool CThread::destroyThread() {
    assert(t_running != this &&
           "CThread::destroyThread called by the thread itself, which would wait for its own end");
    cancelThread();
    CGuard guard(m_life_mutex);
    if (m_joinable) {
        // Once more: a createThread() that was under way may have taken the first request back.
        cancelThread();
        ThreadLife::join(*this);
    }
    return true;
}

bool CThread::isThreadOver() const {
    return m_over.load(std::memory_order_acquire);
}

void CThread::setTimeout(int ms) {
    const uint64_t lease_us = ms > 0 ? CTime::getCurrentMicroSecond() + static_cast<uint64_t>(ms) * 1000 : 0;
    m_lease_us.store(lease_us, std::memory_order_relaxed);
}

void CThread::setLeaseHook(void (*hook)(const char* thread_name)) noexcept {
    g_lease_hook.store(hook, std::memory_order_release);
}

bool CThread::pause(int ms) const {
    timespec deadline;
    bool time_left = ms > 0 && Detail::deadline_after(static_cast<uint64_t>(ms) * 1000, deadline);
    // Threads that sleep now and then are those that have time for lines that nobody took.
    Detail::g_default_sink.flush();
    while (m_looping.load(std::memory_order_acquire) != 0) {
        if (!time_left) {
            return true;
        }
        before_wait(this);
        time_left = Detail::futex_wait(m_looping, 1, &deadline);
        after_wait(this);
    }
    return false;
}

void CThread::sleep(int ms) noexcept {
    Detail::g_default_sink.flush();
    if (ms <= 0) {
        return;
    }
    timespec deadline;
    Detail::deadline_after(static_cast<uint64_t>(ms) * 1000, deadline);
    before_wait(nullptr);
    while (::clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &deadline, nullptr) == EINTR) {
    }
    after_wait(nullptr);
}

int CThread::getCurrentThreadID() noexcept {
    return Detail::thread_id();
}

}  // namespace Orvex::Infra
