// SchedulingSeam, and the calls that come before the C library's.
#include "support/foundation/SchedulingSeam.h"

#include <dlfcn.h>
#include <pthread.h>
#include <sched.h>
#include <sys/resource.h>

#include <cerrno>
#include <mutex>
#include <utility>

namespace Orvex::Testing {

namespace {

struct SeamState {
    std::mutex mutex;
    bool stands = false;
    SchedulingAnswers answers;
    std::vector<std::string> wanted;
};

SeamState& scheduling() {
    static SeamState* const state = new SeamState;
    return *state;
}

}  // namespace

SchedulingSeam::SchedulingSeam(const SchedulingAnswers& answers) {
    const std::lock_guard<std::mutex> guard(scheduling().mutex);
    scheduling().answers = answers;
    scheduling().wanted.clear();
    scheduling().stands = true;
}

SchedulingSeam::~SchedulingSeam() {
    const std::lock_guard<std::mutex> guard(scheduling().mutex);
    scheduling().stands = false;
}

std::vector<std::string> SchedulingSeam::wanted() {
    const std::lock_guard<std::mutex> guard(scheduling().mutex);
    return scheduling().wanted;
}

// False if the call is to reach the system.
bool take_wish(const std::string& wish, SchedulingAnswers& answers) {
    const std::lock_guard<std::mutex> guard(scheduling().mutex);
    answers = scheduling().answers;
    if (scheduling().stands && !wish.empty()) {
        scheduling().wanted.push_back(wish);
    }
    return scheduling().stands;
}

template <typename Function>
Function* next_of(const char* name) {
    return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
}

}  // namespace Orvex::Testing

#define SEAM_EXPORT __attribute__((visibility("default")))

extern "C" SEAM_EXPORT int getpriority(__priority_which_t which, id_t who) noexcept {
    Orvex::Testing::SchedulingAnswers answers;
    if (Orvex::Testing::take_wish("", answers)) {
        return answers.nice;
    }
    static auto* const real = Orvex::Testing::next_of<decltype(::getpriority)>("getpriority");
    return real(which, who);
}

extern "C" SEAM_EXPORT int setpriority(__priority_which_t which, id_t who, int value) noexcept {
    Orvex::Testing::SchedulingAnswers answers;
    if (Orvex::Testing::take_wish("nice " + std::to_string(value), answers)) {
        errno = answers.set_nice_error;
        return answers.set_nice_error != 0 ? -1 : 0;
    }
    static auto* const real = Orvex::Testing::next_of<decltype(::setpriority)>("setpriority");
    return real(which, who, value);
}

extern "C" SEAM_EXPORT int pthread_getschedparam(pthread_t thread, int* policy,
                                                 sched_param* parameters) noexcept {
    Orvex::Testing::SchedulingAnswers answers;
    if (Orvex::Testing::take_wish("", answers)) {
        *policy = answers.policy;
        parameters->sched_priority = answers.policy == SCHED_OTHER ? 0 : 7;
        return 0;
    }
    static auto* const real =
        Orvex::Testing::next_of<decltype(::pthread_getschedparam)>("pthread_getschedparam");
    return real(thread, policy, parameters);
}

extern "C" SEAM_EXPORT int pthread_setschedparam(pthread_t thread, int policy,
                                                 const sched_param* parameters) noexcept {
    const std::string wish =
        "policy " + std::to_string(policy) + " priority " + std::to_string(parameters->sched_priority);
    Orvex::Testing::SchedulingAnswers answers;
    if (Orvex::Testing::take_wish(wish, answers)) {
        return answers.set_policy_error;
    }
    static auto* const real =
        Orvex::Testing::next_of<decltype(::pthread_setschedparam)>("pthread_setschedparam");
    return real(thread, policy, parameters);
}
