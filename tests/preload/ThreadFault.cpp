// Loaded into a program by LD_PRELOAD: the system refuses it one thread, the one after THREAD_FAULT_AFTER
// others, where that is set. How many were asked for stands in the file THREAD_FAULT_TOLD at the end.
#include <dlfcn.h>
#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>

namespace {

using Create = int (*)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);

std::atomic<long> g_asked{0};

Create system_create() {
    void* const symbol = ::dlsym(RTLD_NEXT, "pthread_create");
    Create create = nullptr;
    std::memcpy(&create, &symbol, sizeof(create));
    return create;
}

struct AtTheEnd {
    ~AtTheEnd() {
        const char* const told = std::getenv("THREAD_FAULT_TOLD");
        if (told != nullptr) {
            std::ofstream(told) << g_asked.load();
        }
    }
} g_at_the_end;

}  // namespace

extern "C" __attribute__((visibility("default"))) int pthread_create(pthread_t* thread,
                                                                     const pthread_attr_t* attributes,
                                                                     void* (*body)(void*), void* argument) {
    const char* const after = std::getenv("THREAD_FAULT_AFTER");
    const long before = g_asked.fetch_add(1);
    if (after != nullptr && before == std::atol(after)) {
        return EAGAIN;
    }
    return system_create()(thread, attributes, body, argument);
}
