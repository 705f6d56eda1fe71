// What a load generator asks of its own process and reads of the server's.
#pragma once

#include <sys/resource.h>
#include <sys/types.h>
#include <unistd.h>
#include <cstdint>
#include <fstream>
#include <string>

namespace LoadKit {

/// Lets this process open as many descriptors as the system allows it, and tells how many that are.
inline uint64_t raiseDescriptorLimit() {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) {
        return 0;
    }
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
    return limit.rlim_max;
}

/// Resident memory of a process in bytes; 0 if it cannot be read.
inline uint64_t residentBytes(pid_t pid) {
    uint64_t size = 0;
    uint64_t resident = 0;
    std::ifstream("/proc/" + std::to_string(pid) + "/statm") >> size >> resident;
    return resident * static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
}

}  // namespace LoadKit
