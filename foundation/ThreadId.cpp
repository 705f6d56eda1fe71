// thread_id: kept by each thread, forgotten by a forked child.
#include "ThreadId.h"

#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>

namespace Orvex::Infra::Detail {

namespace {

thread_local int t_thread_id = 0;

// A forked child is a new thread with a copy of its parent's memory.
void forget_thread_id() {
    t_thread_id = 0;
}

int read_thread_id() noexcept {
    static std::atomic<bool> sm_fork_watched{false};
    if (!sm_fork_watched.exchange(true, std::memory_order_relaxed)) {
        ::pthread_atfork(nullptr, nullptr, &forget_thread_id);
    }
    t_thread_id = static_cast<int>(::syscall(SYS_gettid));
    return t_thread_id;
}

}  // namespace

int thread_id() noexcept {
    return t_thread_id != 0 ? t_thread_id : read_thread_id();
}

}  // namespace Orvex::Infra::Detail
