// What a process and its threads have used so far; see the header.
#include "Usage.h"

#include <ctime>
#include <filesystem>
#include <fstream>

namespace Bench {

namespace {

std::filesystem::path tasksOf(pid_t pid) {
    return "/proc/" + std::to_string(pid) + "/task";
}

std::uint64_t read(clockid_t clock) {
    timespec time{};
    clock_gettime(clock, &time);
    return static_cast<std::uint64_t>(time.tv_sec) * 1000000000U + static_cast<std::uint64_t>(time.tv_nsec);
}

}  // namespace

std::int64_t voluntarySwitches(pid_t pid, const std::string& threadName) {
    const std::string label = "voluntary_ctxt_switches:";
    std::int64_t sum = -1;
    std::error_code error;
    for (const auto& task : std::filesystem::directory_iterator(tasksOf(pid), error)) {
        std::string name;
        std::getline(std::ifstream(task.path() / "comm"), name);
        if (name != threadName.substr(0, 15)) {
            continue;
        }
        std::ifstream status(task.path() / "status");
        for (std::string line; std::getline(status, line);) {
            if (line.compare(0, label.size(), label) == 0) {
                sum = (sum < 0 ? 0 : sum) + std::stoll(line.substr(label.size()));
            }
        }
    }
    return sum;
}

std::uint64_t ownCpuNs() {
    return read(CLOCK_PROCESS_CPUTIME_ID);
}

std::uint64_t threadCpuNs() {
    return read(CLOCK_THREAD_CPUTIME_ID);
}

std::uint64_t nowNs() {
    return read(CLOCK_MONOTONIC);
}

}  // namespace Bench
