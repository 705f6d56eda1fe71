// The timer rows: what arming and cancelling costs with many timers pending, and who wakes while none is due.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

namespace Bench {

struct TimerOptions {
    std::size_t many = 1000000;   // armed together, then cancelled in random order
    std::size_t pending = 10000;  // pending while one after the other is cancelled and armed anew
    std::size_t churn = 1000000;  // cancel-and-arm pairs
    double idleSeconds = 2;       // watching the sleeping timer thread
};

// Ends the process with a message if the command line is wrong.
TimerOptions parseTimerOptions(int argc, char** argv, const char* description);

// How one library does it. Timers are known by a place from 0 to `many`; no delay is below an hour, so none
// falls due.
struct TimerUse {
    std::function<void(std::size_t place, std::uint64_t delayUs)> arm;
    std::function<void(std::size_t place)> cancel;
    // Lets the thread that would fire timers sleep for so long, with timers armed. Result: how often it woke.
    std::function<std::int64_t(double seconds)> wakeUps;
};

// Measures and prints the figures as JSON. Times are processor time of the calling thread.
void runTimers(const TimerOptions& options, const TimerUse& use);

}  // namespace Bench
