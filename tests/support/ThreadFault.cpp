// Stands before pthread_create and lets it fail when a test says so.
#include "support/ThreadFault.h"

#include <dlfcn.h>
#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <cstring>

namespace Orvex::Testing {

namespace {

constexpr int NO_FAULT = -1;

// Creations that still succeed; below 0 without a fault.
std::atomic<int> g_left{NO_FAULT};
std::atomic<int> g_refused{0};

bool creation_is_refused() {
    int left = g_left.load();
    while (left > 0) {
        if (g_left.compare_exchange_weak(left, left - 1)) {
            return false;
        }
    }
    if (left == NO_FAULT) {
        return false;
    }
    ++g_refused;
    return true;
}

}  // namespace

ThreadFault::ThreadFault(int successes_before) {
    g_refused = 0;
    g_left = successes_before;
}

ThreadFault::~ThreadFault() {
    g_left = NO_FAULT;
}

int ThreadFault::refused() const {
    return g_refused;
}

}  // namespace Orvex::Testing

using CreateThread = int (*)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);

/// A sanitizer that is linked into the program has its own function under this name, and knows no thread that
/// was made without it. One that is a shared library, and the C library, come next after this program.
extern "C" __attribute__((weak)) int __interceptor_pthread_create(pthread_t*, const pthread_attr_t*,
                                                                  void* (*)(void*), void*);

static CreateThread real_function() {
    if (__interceptor_pthread_create != nullptr) {
        return &__interceptor_pthread_create;
    }
    CreateThread create = nullptr;
    void* const symbol = ::dlsym(RTLD_NEXT, "pthread_create");
    std::memcpy(&create, &symbol, sizeof(create));
    return create;
}

extern "C" __attribute__((visibility("default"))) int pthread_create(pthread_t* thread,
                                                                     const pthread_attr_t* attributes,
                                                                     void* (*start)(void*), void* argument) {
    static CreateThread next = nullptr;
    CreateThread create = __atomic_load_n(&next, __ATOMIC_RELAXED);
    if (create == nullptr) {
        create = real_function();
        __atomic_store_n(&next, create, __ATOMIC_RELAXED);
    }
    return Orvex::Testing::creation_is_refused() ? EAGAIN : create(thread, attributes, start, argument);
}
