// The timer rows on libuv: a heap, the handles are the caller's and are laid out beforehand. Its clock is
// read once per pass of the loop, so an arm here reads none.
#include "common/TimerRows.h"
#include "common/Usage.h"

#include <unistd.h>
#include <uv.h>
#include <thread>
#include <vector>

namespace {

// One timer of the loop's own ends the watch; that wake-up is not counted.
std::int64_t wakeUps(uv_loop_t* loop, double seconds) {
    uv_timer_t end;
    uv_timer_init(loop, &end);
    uv_update_time(loop);
    uv_timer_start(
        &end, [](uv_timer_t* timer) { uv_stop(timer->loop); }, static_cast<std::uint64_t>(seconds * 1000), 0);
    const std::int64_t before = Bench::voluntarySwitches(getpid(), "timers_libuv");
    uv_run(loop, UV_RUN_DEFAULT);
    const std::int64_t after = Bench::voluntarySwitches(getpid(), "timers_libuv");
    uv_close(reinterpret_cast<uv_handle_t*>(&end), nullptr);
    uv_run(loop, UV_RUN_NOWAIT);
    return after - before - 1;
}

}  // namespace

int main(int argc, char** argv) {
    Bench::TimerOptions options = Bench::parseTimerOptions(argc, argv, "timers on libuv");
    uv_loop_t loop;
    uv_loop_init(&loop);
    std::vector<uv_timer_t> timers(options.many);
    for (uv_timer_t& timer : timers) {
        uv_timer_init(&loop, &timer);
    }
    Bench::TimerUse use;
    use.arm = [&](std::size_t place, std::uint64_t delayUs) {
        uv_timer_start(
            &timers[place], [](uv_timer_t*) {}, delayUs / 1000, 0);
    };
    use.cancel = [&](std::size_t place) { uv_timer_stop(&timers[place]); };
    use.wakeUps = [&](double seconds) { return wakeUps(&loop, seconds); };
    Bench::runTimers(options, use);
    return 0;
}
