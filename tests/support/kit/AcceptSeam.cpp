// AcceptSeam: accept4(2) of this test program.
#include "support/kit/AcceptSeam.h"

#include <dlfcn.h>
#include <poll.h>
#include <sys/socket.h>

#include <atomic>
#include <cerrno>

namespace Orvex::Testing {

namespace {

constexpr int MOST_ERRORS = 8;

struct Errors {
    std::atomic<int> values[MOST_ERRORS];
    std::atomic<int> given{0};
    std::atomic<int> count{0};
} g_errors;

/// The error for the next call; 0 if it is to be the system's.
int next_error(int descriptor) {
    if (g_errors.given >= g_errors.count) {
        return 0;
    }
    pollfd waiting = {descriptor, POLLIN, 0};
    if (::poll(&waiting, 1, 0) != 1) {
        return 0;
    }
    const int number = g_errors.given.fetch_add(1);
    return number < g_errors.count ? g_errors.values[number].load() : 0;
}

}  // namespace

AcceptSeam::AcceptSeam(std::initializer_list<int> errors) {
    int count = 0;
    for (const int error : errors) {
        g_errors.values[count++] = error;
    }
    g_errors.given = 0;
    g_errors.count = count;
}

AcceptSeam::~AcceptSeam() {
    g_errors.count = 0;
}

int AcceptSeam::left() {
    return g_errors.count - g_errors.given;
}

}  // namespace Orvex::Testing

// This stands before the C library's.
extern "C" int accept4(int descriptor, sockaddr* address, socklen_t* length, int flags) {
    using Real = int (*)(int, sockaddr*, socklen_t*, int);
    if (const int error = Orvex::Testing::next_error(descriptor)) {
        errno = error;
        return -1;
    }
    return reinterpret_cast<Real>(dlsym(RTLD_NEXT, "accept4"))(descriptor, address, length, flags);
}
