// Timing: how long records wait and calls run.
#include "Core/count/Timing.h"

#include <time.h>

namespace Orvex::Reticor {

std::atomic<bool> Timing::sm_on{false};

uint64_t Timing::NowNs() {
    timespec now;
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000000000 + static_cast<uint64_t>(now.tv_nsec);
}

__attribute__((noinline, cold)) uint64_t Timing::stamp_message() {
    static thread_local unsigned int t_posted = 0;
    return t_posted++ % MESSAGES_EACH == 0 ? NowNs() : 0;
}

__attribute__((noinline, cold)) uint64_t Timing::taken(uint64_t stamp_ns) {
    const uint64_t now_ns = NowNs();
    // The stamp was taken on another processor.
    ThreadCounts::Mine().m_pool_tally.wait.Add(now_ns > stamp_ns ? now_ns - stamp_ns : 0);
    return now_ns;
}

__attribute__((noinline, cold)) void Timing::Ran(uint64_t begin_ns, ClassTally& row) {
    const uint64_t took_ns = NowNs() - begin_ns;
    ThreadCounts::Mine().m_pool_tally.run.Add(took_ns);
    row.time_ns.Add(took_ns);
    row.timed.Increment();
}

}  // namespace Orvex::Reticor
