// HandClock, and the definition of clock_gettime that comes before the C library's.
#include "support/HandClock.h"

#include <dlfcn.h>
#include <time.h>

#include <Infra/Time.h>

namespace Orvex::Testing {

namespace {

thread_local bool t_stands = false;
thread_local std::uint64_t t_now_us = 0;

}  // namespace

HandClock::HandClock() {
    t_now_us = Infra::CTime::getCurrentMicroSecond();
    t_stands = true;
}

HandClock::~HandClock() {
    t_stands = false;
}

void HandClock::advanceUs(std::int64_t us) {
    t_now_us += static_cast<std::uint64_t>(us);
}

void HandClock::setUs(std::uint64_t us) {
    t_now_us = us;
}

std::uint64_t HandClock::nowUs() const {
    return t_now_us;
}

// False if the thread has the real clock.
bool readHandClock(timespec& now) {
    if (t_stands) {
        now.tv_sec = static_cast<time_t>(t_now_us / 1000000);
        now.tv_nsec = static_cast<long>(t_now_us % 1000000 * 1000);
    }
    return t_stands;
}

}  // namespace Orvex::Testing

extern "C" int clock_gettime(clockid_t clock, timespec* now) noexcept {
    if (clock == CLOCK_MONOTONIC && Orvex::Testing::readHandClock(*now)) {
        return 0;
    }
    static auto* const real =
        reinterpret_cast<decltype(::clock_gettime)*>(::dlsym(RTLD_NEXT, "clock_gettime"));
    return real(clock, now);
}
