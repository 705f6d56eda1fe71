// runWithoutFutex: runs a piece of code in a process that dies at its first futex(2) call.
#pragma once

#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstddef>
#include <cstdio>

namespace Orvex::Testing {

constexpr int WITHOUT_FUTEX = 42;

// For the statement of EXPECT_EXIT(..., testing::ExitedWithCode(WITHOUT_FUTEX), ""): never returns.
template <typename Code>
[[noreturn]] void runWithoutFutex(Code code) {
    sock_filter rules[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_futex, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_KILL_PROCESS),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    const sock_fprog program = {sizeof(rules) / sizeof(rules[0]), rules};
    if (::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 ||
        ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) != 0) {
        std::perror("seccomp");
        ::_exit(1);
    }
    code();
    ::_exit(WITHOUT_FUTEX);
}

}  // namespace Orvex::Testing
