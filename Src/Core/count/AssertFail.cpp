// AssertFail: an assertion of the library that fails dumps what was recorded, and then ends as ever.
#include <assert.h>
#include <dlfcn.h>

#include <cstdlib>

#include <Reticor/Recorder.h>

// The library's own assertions call this one, since it is hidden: those of the product call the C library's.
extern "C" __attribute__((visibility("hidden"), noreturn)) void __assert_fail(const char* assertion,
                                                                              const char* file,
                                                                              unsigned int line,
                                                                              const char* function) noexcept {
    Orvex::Reticor::CRecorder::DumpInCrash();
    using AssertFail = void (*)(const char*, const char*, unsigned int, const char*);
    if (const auto fail = reinterpret_cast<AssertFail>(::dlsym(RTLD_NEXT, "__assert_fail"))) {
        fail(assertion, file, line, function);
    }
    std::abort();
}
