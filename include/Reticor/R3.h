// R3: debug output of a running process, and the box of named commands that steer it.
#pragma once

#include <Reticor/Export.h>

namespace Orvex::Reticor {

/// Prints a line to the client of the debug server, in the manner of printf. While no server runs it returns
/// at once and formats nothing. A text that is empty, or of 4096 bytes and more, is dropped; so is one that
/// is printed while no client is connected, and one that printing itself gives rise to. `errno` is left
/// alone.
///
/// Thread safety: any thread, at any time, also beside the end of a client or of the server.
RETICOR_API void R3Printf(const char* format, ...) __attribute__((format(printf, 1, 2)));

/// Enters a command in the command box. The debug server calls `func` with exactly ten arguments of type int,
/// the numbers that stood after the command's name, 0 for those that did not; its result is ignored. The
/// call comes on a worker of the public pool, with no lock of the library held.
///
/// `name` and `help` (one line; may be null) are kept by pointer and must outlive the box, so give literals.
/// Result: 0; -1 if `func` or `name` is null, and, with a line logged at level 2, if the box holds 1024
/// commands already or one of that name, or if there is no memory.
///
/// Thread safety: any thread. `R3ServerExit` empties the box; what is registered after that starts a new one.
RETICOR_API int R3Register(void* func, const char* name, const char* help);

/// Starts the debug server, a telnet port without a password: on `port`, or on the first free one of the
/// hundred above it, which is logged at level 4. `name` is the prompt, cut to 64 bytes; null is "R3". With
/// `open` true, as `CNetThread::EnableR3` has it, clients of other machines are closed before the first byte,
/// with a line at level 2; with false everybody that reaches the port gets the prompt. The port is bound on
/// all addresses in either case.
///
/// 0; -1 with a line if the server runs already, no port is free, or there is no memory. The public pool must
/// exist: an assertion says so. Unless the library was built with RETICOR_R3_SERVER=ON, the server is
/// switched off: the call logs a line at level 4 and gives -1, whatever its arguments.
///
/// Thread safety: any thread.
RETICOR_API int R3ServerStart(unsigned short port, const char* name, bool open);

/// Ends the debug server if it runs, and empties the command box; the library's own commands do not come
/// back. Its port and its client's connection are closed when the call returns; its handlers go a moment
/// later, so give them that before the pool is destroyed. Blocks for a millisecond. Always 0.
///
/// Thread safety: any thread, also inside a command of the server.
RETICOR_API int R3ServerExit();

}  // namespace Orvex::Reticor
