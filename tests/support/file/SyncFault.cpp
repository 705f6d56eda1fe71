// SyncFault: fdatasync of this test program.
#include "support/file/SyncFault.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>

namespace Orvex::Testing {

namespace {

std::atomic<int> g_error{0};
std::atomic<int> g_calls{0};

int sync_data(int fd) {
    ++g_calls;
    if (g_error != 0) {
        errno = g_error;
        return -1;
    }
    return static_cast<int>(::syscall(SYS_fdatasync, fd));
}

}  // namespace

SyncFault::SyncFault(int error) {
    g_calls = 0;
    g_error = error;
}

SyncFault::~SyncFault() {
    g_error = 0;
}

int SyncFault::calls() const {
    return g_calls;
}

}  // namespace Orvex::Testing

extern "C" __attribute__((visibility("default"))) int fdatasync(int fd) {
    return Orvex::Testing::sync_data(fd);
}
