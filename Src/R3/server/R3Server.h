// The debug server itself, behind the door that R3ServerStart is.
#pragma once

namespace Orvex::Reticor {

/// Builds a daemon, lets it listen on `port` or above, and announces it to R3Printf. `name` is the prompt,
/// null for "R3". With `local_only` clients of other machines are closed before the first byte.
///
/// 0; -1, with a line at level 2, if the server runs already or cannot start. The public pool must exist.
/// Any thread, but not from inside a command.
int start_debug_server(unsigned short port, const char* name, bool local_only);

/// Ends the server if it runs; does not wait for the handlers to go. Any thread.
void end_debug_server();

}  // namespace Orvex::Reticor
