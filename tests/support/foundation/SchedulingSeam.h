// SchedulingSeam: what threads ask of the system's scheduler, and what it answers. This program defines those
// calls itself, and passes them on while no test stands between.
#pragma once

#include <string>
#include <vector>

namespace Orvex::Testing {

// What the system says while one lives, to all threads. Nothing reaches the system. One at a time.
struct SchedulingAnswers {
    int nice = 0;            // of whoever asks
    int set_nice_error = 0;  // an errno value, or 0
    int policy = 0;          // of whoever asks, SCHED_OTHER
    int set_policy_error = 0;
};

class SchedulingSeam {
public:
    explicit SchedulingSeam(const SchedulingAnswers& answers);
    ~SchedulingSeam();
    SchedulingSeam(const SchedulingSeam&) = delete;
    SchedulingSeam& operator=(const SchedulingSeam&) = delete;

    // What was wanted, in order: "nice 10", "policy 2 priority 25".
    static std::vector<std::string> wanted();
};

}  // namespace Orvex::Testing
