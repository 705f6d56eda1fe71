// Clocks: the time, and the processor time of another process and of one's own.
#pragma once

#include <sys/types.h>
#include <time.h>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>

namespace LoadKit {

/// Nanoseconds of the monotonic clock.
inline uint64_t now() {
    const auto time = std::chrono::steady_clock::now().time_since_epoch();
    return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(time).count());
}

/// Processor time of all threads of a process, in ns; 0 if it cannot be read.
inline uint64_t processorTime(pid_t pid) {
    uint64_t sum = 0;
    std::error_code error;
    const std::filesystem::path tasks = "/proc/" + std::to_string(pid) + "/task";
    for (const auto& task : std::filesystem::directory_iterator(tasks, error)) {
        uint64_t time = 0;
        std::ifstream(task.path() / "schedstat") >> time;
        sum += time;
    }
    return sum;
}

/// Processor time of this process in ns, that of ended threads included.
inline uint64_t ownProcessorTime() {
    timespec time{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
    return static_cast<uint64_t>(time.tv_sec) * 1000000000 + static_cast<uint64_t>(time.tv_nsec);
}

}  // namespace LoadKit
