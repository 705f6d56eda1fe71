// The timer rows on libevent: a heap, the events are laid out beforehand. Outside of the loop its clock is
// read at each arm.
#include "common/TimerRows.h"
#include "common/Usage.h"

#include <event2/event.h>
#include <event2/event_struct.h>
#include <unistd.h>
#include <vector>

namespace {

timeval toTimeval(std::uint64_t us) {
    timeval time{};
    time.tv_sec = static_cast<time_t>(us / 1000000);
    time.tv_usec = static_cast<suseconds_t>(us % 1000000);
    return time;
}

// The loop's own end is a wake-up that is not counted.
std::int64_t wakeUps(event_base* base, double seconds) {
    const timeval length = toTimeval(static_cast<std::uint64_t>(seconds * 1e6));
    event_base_loopexit(base, &length);
    const std::int64_t before = Bench::voluntarySwitches(getpid(), "timers_libevent");
    event_base_dispatch(base);
    return Bench::voluntarySwitches(getpid(), "timers_libevent") - before - 1;
}

}  // namespace

int main(int argc, char** argv) {
    Bench::TimerOptions options = Bench::parseTimerOptions(argc, argv, "timers on libevent");
    event_config* config = event_config_new();
    event_config_set_flag(config, EVENT_BASE_FLAG_NOLOCK);
    event_base* base = event_base_new_with_config(config);
    event_config_free(config);
    std::vector<event> timers(options.many);
    for (event& timer : timers) {
        evtimer_assign(
            &timer, base, [](evutil_socket_t, short, void*) {}, nullptr);
    }
    Bench::TimerUse use;
    use.arm = [&](std::size_t place, std::uint64_t delayUs) {
        const timeval delay = toTimeval(delayUs);
        evtimer_add(&timers[place], &delay);
    };
    use.cancel = [&](std::size_t place) { evtimer_del(&timers[place]); };
    use.wakeUps = [&](double seconds) { return wakeUps(base, seconds); };
    Bench::runTimers(options, use);
    event_base_free(base);
    return 0;
}
