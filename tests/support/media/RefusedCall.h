// RefusedCall: a thread to which the kernel refuses one system call.
#pragma once

#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>

#include <cerrno>
#include <cstddef>
#include <functional>
#include <thread>

namespace Orvex::Testing {

// Runs `what` on a thread of its own, for which call `number` fails with EPERM. False if the kernel has no
// filters of system calls for us.
inline bool runWithRefusedCall(unsigned number, const std::function<void()>& what) {
    bool filtered = false;
    std::thread([&] {
        sock_filter rules[] = {
            BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
            BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, number, 0, 1),
            BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EPERM),
            BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
        };
        sock_fprog program = {sizeof rules / sizeof rules[0], rules};
        filtered = ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
                   ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
        if (filtered) {
            what();
        }
    }).join();
    return filtered;
}

}  // namespace Orvex::Testing
