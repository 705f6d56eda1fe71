// What the kernel knows about a thread of this process: whether it sleeps, how often it has, its name.
#pragma once

#include <dirent.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>

namespace Orvex::Testing {

// Numbers of system calls as /proc tells them. Below an emulator stands a kernel of another machine, with its
// own numbers; and younger machines have only one of the two calls that wait in epoll(7).
#if defined(RETICOR_TEST_EMULATED_ON_X86_64)
constexpr long KERNEL_FUTEX = 202;
constexpr long KERNEL_EPOLL_WAIT = 281;  // epoll_pwait, which an emulator takes for both
#elif defined(SYS_epoll_wait)
constexpr long KERNEL_FUTEX = SYS_futex;
constexpr long KERNEL_EPOLL_WAIT = SYS_epoll_wait;
#else
constexpr long KERNEL_FUTEX = SYS_futex;
constexpr long KERNEL_EPOLL_WAIT = SYS_epoll_pwait;
#endif

inline int kernelThreadId() {
    return static_cast<int>(::syscall(SYS_gettid));
}

inline std::ifstream openTaskFile(int thread_id, const char* file) {
    return std::ifstream("/proc/self/task/" + std::to_string(thread_id) + "/" + file);
}

// Whether the thread is asleep in futex(2), where the locks, the semaphore and pause() wait.
inline bool sleepsInFutex(int thread_id) {
    long number = -1;
    return static_cast<bool>(openTaskFile(thread_id, "syscall") >> number) && number == KERNEL_FUTEX;
}

// How often the thread went to sleep of its own accord.
inline long voluntarySleeps(int thread_id) {
    std::ifstream status = openTaskFile(thread_id, "status");
    const std::string key = "voluntary_ctxt_switches:";
    for (std::string line; std::getline(status, line);) {
        if (line.compare(0, key.size(), key) == 0) {
            return std::atol(line.c_str() + key.size());
        }
    }
    return -1;
}

inline std::string kernelThreadName(int thread_id) {
    std::string name;
    std::ifstream comm = openTaskFile(thread_id, "comm");
    std::getline(comm, name);
    return name;
}

// The kernel's number of the first thread of that name (which the kernel cuts to 15 characters); 0 if there
// is none.
inline int kernelThreadByName(const std::string& name) {
    DIR* const tasks = ::opendir("/proc/self/task");
    int found = 0;
    while (const dirent* const entry = tasks != nullptr && found == 0 ? ::readdir(tasks) : nullptr) {
        const int thread_id = std::atoi(entry->d_name);
        found = thread_id > 0 && kernelThreadName(thread_id) == name ? thread_id : 0;
    }
    if (tasks != nullptr) {
        ::closedir(tasks);
    }
    return found;
}

// Threads of this process, the caller included.
inline int kernelThreadCount() {
    DIR* const tasks = ::opendir("/proc/self/task");
    if (tasks == nullptr) {
        return -1;
    }
    int count = 0;
    while (const dirent* const entry = ::readdir(tasks)) {
        count += entry->d_name[0] != '.' ? 1 : 0;
    }
    ::closedir(tasks);
    return count;
}

// Bytes of address space that this process has mapped.
inline long addressSpace() {
    long pages = 0;
    std::ifstream("/proc/self/statm") >> pages;
    return pages * ::sysconf(_SC_PAGESIZE);
}

}  // namespace Orvex::Testing
