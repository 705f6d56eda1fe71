// What a thread asks the kernel for itself: name, nice value, real-time policy.
#include "ThreadScheduling.h"

#include <pthread.h>
#include <sched.h>
#include <string.h>
#include <sys/resource.h>

#include <algorithm>
#include <atomic>
#include <cerrno>

#include <Infra/Log.h>

#include "ErrorText.h"
#include "ThreadId.h"

namespace Orvex::Infra::Detail {

namespace {

constexpr int PRIORITY_LOW = 1;
constexpr int PRIORITY_HIGH = 127;
constexpr int POLICY_REAL_TIME = 1;

// Distance in nice values from the creating thread's own, for the low and the high priority.
constexpr int NICE_STEP = 10;
constexpr int NICE_MIN = -20;
constexpr int NICE_MAX = 19;

std::atomic<bool> g_nice_refused{false};
std::atomic<bool> g_policy_refused{false};

void log_refusal(std::atomic<bool>& logged, const char* what, const char* name, int value,
                 int error) noexcept {
    if (!logged.exchange(true, std::memory_order_relaxed)) {
        INFRA_LOG_STATIC(3, "%s : the system refuses %s %d to thread \"%s\", error : %d, %s\n",
                         INFRA_FUNCTION, what, value, name, error, ErrorText(error).text());
    }
}

// The default priority asks for nothing: the thread runs with what its creator has.
void apply_nice(const char* name, int priority) noexcept {
    if (priority != PRIORITY_LOW && priority != PRIORITY_HIGH) {
        return;
    }
    const auto thread = static_cast<id_t>(thread_id());
    const int current = ::getpriority(PRIO_PROCESS, thread);
    const int wanted =
        std::clamp(priority == PRIORITY_LOW ? current + NICE_STEP : current - NICE_STEP, NICE_MIN, NICE_MAX);
    if (::setpriority(PRIO_PROCESS, thread, wanted) != 0) {
        log_refusal(g_nice_refused, "nice value", name, wanted, errno);
    }
}

// The three priorities within the lower half of the real-time range, so that they stay below the kernel's own
// threads.
int real_time_priority(int priority) noexcept {
    const int lowest = ::sched_get_priority_min(SCHED_RR);
    const int range = ::sched_get_priority_max(SCHED_RR) - lowest;
    if (priority == PRIORITY_LOW) {
        return lowest;
    }
    return lowest + (priority == PRIORITY_HIGH ? range / 2 : range / 4);
}

// False if the thread stays with time sharing.
bool apply_real_time(const char* name, int priority) noexcept {
    sched_param parameters{};
    parameters.sched_priority = real_time_priority(priority);
    const int error = ::pthread_setschedparam(::pthread_self(), SCHED_RR, &parameters);
    if (error != 0) {
        log_refusal(g_policy_refused, "real-time priority", name, parameters.sched_priority, error);
    }
    return error == 0;
}

// A thread inherits its creator's policy, and the default policy is time sharing whoever the creator was.
void leave_real_time() noexcept {
    int policy = SCHED_OTHER;
    sched_param parameters{};
    if (::pthread_getschedparam(::pthread_self(), &policy, &parameters) == 0 &&
        (policy == SCHED_RR || policy == SCHED_FIFO)) {
        parameters.sched_priority = 0;
        ::pthread_setschedparam(::pthread_self(), SCHED_OTHER, &parameters);
    }
}

}  // namespace

void set_kernel_thread_name(const char* name) noexcept {
    constexpr size_t KERNEL_NAME_SIZE = 16;
    char cut[KERNEL_NAME_SIZE] = {};
    ::strncpy(cut, name, KERNEL_NAME_SIZE - 1);
    if (cut[0] != '\0') {
        ::pthread_setname_np(::pthread_self(), cut);
    }
}

void apply_scheduling(const char* name, int priority, int policy) noexcept {
    if (policy == POLICY_REAL_TIME && apply_real_time(name, priority)) {
        return;
    }
    if (policy != POLICY_REAL_TIME) {
        leave_real_time();
    }
    apply_nice(name, priority);
}

}  // namespace Orvex::Infra::Detail
