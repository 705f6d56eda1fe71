// ProcessorPin: keeps the calling thread on one processor while it lives.
#pragma once

#include <atomic>

namespace Orvex::Reticor {

/// See sched_setaffinity(2). A processor that this process may not use is refused by the kernel: that is
/// logged at level 3, once per process, and the thread runs unpinned.
class ProcessorPin {
public:
    explicit ProcessorPin(unsigned int processor);
    /// Lets the thread run on every processor again.
    ~ProcessorPin();
    ProcessorPin(const ProcessorPin&) = delete;
    ProcessorPin& operator=(const ProcessorPin&) = delete;

private:
    static std::atomic<bool> sm_refusal_logged;
};

}  // namespace Orvex::Reticor
