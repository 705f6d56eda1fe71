// CThread and CThreadLite: start, end, pause and lease.
#include <Infra/Thread.h>

#include <signal.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <cassert>
#include <cerrno>
#include <cstring>

#include <Infra/Log.h>
#include <Infra/Time.h>

#include "Futex.h"
#include "ThreadScheduling.h"

namespace Orvex::Infra {

namespace {

thread_local int t_thread_id = 0;
thread_local const CThread* t_running = nullptr;

std::atomic<void (*)(const char*)> g_lease_hook{nullptr};

// A forked child is a new thread with a copy of its parent's memory.
void forget_thread_id() {
    t_thread_id = 0;
}

int read_thread_id() noexcept {
    static std::atomic<bool> fork_watched{false};
    if (!fork_watched.exchange(true, std::memory_order_relaxed)) {
        ::pthread_atfork(nullptr, nullptr, &forget_thread_id);
    }
    t_thread_id = static_cast<int>(::syscall(SYS_gettid));
    return t_thread_id;
}

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

}  // namespace

CThread::CThread(const char* name, int priority, int policy, int stack) noexcept
    : m_name{}, m_priority(priority), m_policy(policy), m_stack(stack) {
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
        join_thread();
    }
    // All of this is set before the thread exists, so that a cancelThread() that comes before its first step
    // counts.
    m_lease_us.store(0, std::memory_order_relaxed);
    m_over.store(false, std::memory_order_relaxed);
    m_looping.store(1, std::memory_order_release);
    const int error = start_thread();
    if (error == 0) {
        m_joinable = true;
        return true;
    }
    m_over.store(true, std::memory_order_release);
    INFRA_LOG(2, "%s : thread \"%s\" cannot be created, error : %d, %s\n", INFRA_FUNCTION, m_name, error,
              Detail::ErrorText(error).text());
    return false;
}

int CThread::start_thread() {
    pthread_attr_t attributes;
    int error = ::pthread_attr_init(&attributes);
    if (error != 0) {
        return error;
    }
    const bool own_stack =
        m_stack > 0 && ::pthread_attr_setstacksize(&attributes, static_cast<std::size_t>(m_stack)) == 0;
    {
        const SignalsBlocked blocked;
        error = ::pthread_create(&m_thread, &attributes, &CThread::trampoline, this);
        // A stack that is large enough for the attribute can still be too small for the thread-local data.
        if (error == EINVAL && own_stack) {
            error = ::pthread_create(&m_thread, nullptr, &CThread::trampoline, this);
        }
    }
    ::pthread_attr_destroy(&attributes);
    return error;
}

void* CThread::trampoline(void* self) {
    CThread* const thread = static_cast<CThread*>(self);
    t_running = thread;
    Detail::setKernelThreadName(thread->m_name);
    Detail::applyScheduling(thread->m_name, thread->m_priority, thread->m_policy);
    thread->thread_proc();
    t_running = nullptr;
    // The last touch: whoever sees it may start the thread again.
    thread->m_over.store(true, std::memory_order_release);
    return nullptr;
}

void CThread::join_thread() {
    [[maybe_unused]] const int error = ::pthread_join(m_thread, nullptr);
    assert(error == 0);
    m_joinable = false;
}

bool CThread::looping() const {
    check_lease();
    return m_looping.load(std::memory_order_acquire) != 0;
}

bool CThread::cancelThread() {
    m_looping.store(0, std::memory_order_release);
    Detail::futexWake(m_looping);
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
        join_thread();
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

void CThread::check_lease() const {
    uint64_t lease_us = m_lease_us.load(std::memory_order_relaxed);
    if (lease_us == 0) {
        return;
    }
    const uint64_t now_us = CTime::getCurrentMicroSecond();
    if (now_us < lease_us || !m_lease_us.compare_exchange_strong(lease_us, 0, std::memory_order_relaxed)) {
        return;
    }
    INFRA_LOG(2, "%s : the lease of thread \"%s\" ran out %llu ms ago\n", INFRA_FUNCTION, m_name,
              static_cast<unsigned long long>((now_us - lease_us) / 1000));
    void (*const hook)(const char*) = g_lease_hook.load(std::memory_order_acquire);
    if (hook != nullptr) {
        hook(m_name);
    }
}

void CThread::setLeaseHook(void (*hook)(const char* thread_name)) noexcept {
    g_lease_hook.store(hook, std::memory_order_release);
}

bool CThread::pause(int ms) const {
    timespec deadline;
    bool time_left = ms > 0 && Detail::deadlineAfter(static_cast<uint64_t>(ms) * 1000, deadline);
    while (m_looping.load(std::memory_order_acquire) != 0) {
        if (!time_left) {
            return true;
        }
        time_left = Detail::futexWait(m_looping, 1, &deadline);
    }
    return false;
}

void CThread::sleep(int ms) noexcept {
    if (ms <= 0) {
        return;
    }
    timespec deadline;
    Detail::deadlineAfter(static_cast<uint64_t>(ms) * 1000, deadline);
    while (::clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &deadline, nullptr) == EINTR) {
    }
}

int CThread::getCurrentThreadID() noexcept {
    return t_thread_id != 0 ? t_thread_id : read_thread_id();
}

CThreadLite::CThreadLite(TFunction1<void, CThreadLite&> proc, const char* name, int priority, int policy,
                         int stack) noexcept
    : CThread(name, priority, policy, stack), m_proc(proc) {}

CThreadLite::~CThreadLite() {
    destroyThread();
}

void CThreadLite::thread_proc() {
    m_proc(*this);
}

}  // namespace Orvex::Infra
