// R3Printf: debug output, nothing but one load while no daemon runs.
#include "R3/print/R3Printf.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>

namespace Orvex::Reticor {

CR3Daemon* g_r3_daemon = nullptr;
R3PrintHook g_r3_print = nullptr;

namespace {

constexpr int TEXT_LIMIT = 4096;  ///< Bytes of a text, with its end mark.

/// Whether this thread is on its way to the daemon's client. What that way does prints too when it is traced,
/// and would come here again without end.
thread_local bool t_printing = false;

}  // namespace

void R3Printf(const char* format, ...) {
    CR3Daemon* daemon = __atomic_load_n(&g_r3_daemon, __ATOMIC_ACQUIRE);
    if (daemon == nullptr) {
        return;
    }
    const R3PrintHook print = __atomic_load_n(&g_r3_print, __ATOMIC_RELAXED);
    if (print == nullptr || t_printing) {
        return;
    }
    t_printing = true;
    const int saved_errno = errno;
    char text[TEXT_LIMIT];
    va_list arguments;
    va_start(arguments, format);
    const int length = std::vsnprintf(text, sizeof(text), format, arguments);
    va_end(arguments);
    if (length >= 1 && length < TEXT_LIMIT) {
        print(daemon, text);
    }
    errno = saved_errno;
    t_printing = false;
}

}  // namespace Orvex::Reticor
