// What a process and its threads have used so far, read from the kernel's own accounts.
#pragma once

#include <sys/types.h>
#include <cstdint>
#include <string>

namespace Bench {

// Times that the threads of this name (at most 15 characters count) went to sleep of their own accord, which
// is also how often they were woken. Negative if the process has no such thread.
std::int64_t voluntarySwitches(pid_t pid, const std::string& threadName);

// Processor time of the calling process, ended threads included.
std::uint64_t ownCpuNs();

// Processor time of the calling thread, system calls included: what other programs take does not count.
std::uint64_t threadCpuNs();

// CLOCK_MONOTONIC in nanoseconds.
std::uint64_t nowNs();

}  // namespace Bench
