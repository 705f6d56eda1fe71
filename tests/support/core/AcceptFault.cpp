// AcceptFault: stands before accept4(2) of the C library.
#include "support/core/AcceptFault.h"

#include <dlfcn.h>
#include <sys/socket.h>

#include <atomic>
#include <cerrno>

namespace Orvex::Testing {

namespace {

std::atomic<int> g_accept_error{0};
std::atomic<int> g_failed_accepts{0};

}  // namespace

AcceptFault::AcceptFault(int error) {
    g_failed_accepts = 0;
    g_accept_error = error;
}

AcceptFault::~AcceptFault() {
    g_accept_error = 0;
}

int AcceptFault::calls() const {
    return g_failed_accepts;
}

}  // namespace Orvex::Testing

extern "C" __attribute__((visibility("default"))) int accept4(int descriptor, sockaddr* address,
                                                              socklen_t* length, int flags) {
    using Real = int (*)(int, sockaddr*, socklen_t*, int);
    static const Real real = reinterpret_cast<Real>(::dlsym(RTLD_NEXT, "accept4"));
    if (const int error = Orvex::Testing::g_accept_error) {
        ++Orvex::Testing::g_failed_accepts;
        errno = error;
        return -1;
    }
    return real(descriptor, address, length, flags);
}
