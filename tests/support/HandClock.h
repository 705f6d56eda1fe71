// HandClock: while one lives, the monotonic clock stands still for this thread, and goes on only by the
// test's hand.
//
//     HandClock clock;
//     clock.advanceUs(1500);
//
// Other threads, and the deadlines of system calls, keep the real clock: use it for code that reads
// Infra::CTime on the test's own thread and does not wait.
#pragma once

#include <cstdint>

namespace Orvex::Testing {

class HandClock {
public:
    HandClock();
    ~HandClock();
    HandClock(const HandClock&) = delete;
    HandClock& operator=(const HandClock&) = delete;

    void advanceUs(std::int64_t us);
    void setUs(std::uint64_t us);
    std::uint64_t nowUs() const;
};

}  // namespace Orvex::Testing
