// Clocks: the time, and the processor time of another process.
#pragma once

#include <sys/types.h>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>

/// Nanoseconds of the monotonic clock.
inline std::uint64_t now() {
    const auto time = std::chrono::steady_clock::now().time_since_epoch();
    return static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(time).count());
}

/// Processor time of all threads of a process, in ns; 0 if it cannot be read.
inline std::uint64_t processorTime(pid_t pid) {
    std::uint64_t sum = 0;
    std::error_code error;
    const std::filesystem::path tasks = "/proc/" + std::to_string(pid) + "/task";
    for (const auto& task : std::filesystem::directory_iterator(tasks, error)) {
        std::uint64_t time = 0;
        std::ifstream(task.path() / "schedstat") >> time;
        sum += time;
    }
    return sum;
}
