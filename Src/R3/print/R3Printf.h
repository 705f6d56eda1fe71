// The way of debug output to the debug server's daemon, which stands above everything that prints.
#pragma once

#include <Reticor/R3.h>

namespace Orvex::Reticor {

class CR3Daemon;

/// The daemon that is running, null while there is none. Whoever starts the server sets it last, after
/// `g_r3_print`, and `R3ServerExit` clears it. R3Printf reads it on any thread, without a lock.
extern CR3Daemon* g_r3_daemon;

/// Prints a finished text on a daemon. Set by the daemon's module before the first daemon is announced in
/// `g_r3_daemon`, and not changed after that.
using R3PrintHook = void (*)(CR3Daemon* daemon, const char* text);
extern R3PrintHook g_r3_print;

}  // namespace Orvex::Reticor
