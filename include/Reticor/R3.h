// R3: debug output of a running process, and the box of named commands that steer it.
#pragma once

#include <Reticor/Export.h>

namespace Orvex::Reticor {

/// Prints a line to the client of the debug server, in the manner of printf. While no server runs it returns
/// at once and formats nothing. A text that is empty, or of 4096 bytes and more, is dropped; so is one that
/// is printed while no client is connected, and one that printing itself gives rise to. `errno` is left
/// alone.
///
/// Thread safety: any thread, at any time, but not beside `R3ServerExit` of a running server.
RETICOR_API void R3Printf(const char* format, ...) __attribute__((format(printf, 1, 2)));

/// Enters a command in the command box. The debug server calls `func` with exactly ten arguments of type int,
/// the numbers that stood behind the command's name, 0 for those that did not; its result is ignored.
///
/// `name` and `help` (one line; may be null) are kept by pointer and must outlive the box, so give literals.
/// Result: 0; -1 if `func` or `name` is null, and, with a line logged at level 2, if the box holds 1024
/// commands already or one of that name.
///
/// Thread safety: none. Call it while the library is loaded or before the first pool is created, on one
/// thread. `R3ServerExit` empties the box; what is registered after that starts a new one.
RETICOR_API int R3Register(void* func, const char* name, const char* help);

/// Starts the debug server. It is switched off in this configuration: the call logs a line at level 4 and
/// gives -1, whatever its arguments.
RETICOR_API int R3ServerStart(unsigned short port, const char* name, bool open);

/// Ends the debug server if it runs, and empties the command box. Always 0.
///
/// Thread safety: not beside other calls of this header.
RETICOR_API int R3ServerExit();

}  // namespace Orvex::Reticor
