// Error numbers of the socket layer: their texts, and their way back to the caller.
#pragma once

#include <cerrno>
#include <string>

namespace Orvex::Reticor {

// The system's text for a socket error, that is for an errno value, or for the code of a failed name look-up
// (EAI_*, all negative). Any thread; errno is left alone. The text is empty if there is no memory for it.
std::string GetSockErrorText(int error) noexcept;

// A log line, a close or a destructor between the failing call and the caller may change errno. Operations
// save it right after the call and end with this, so that the caller finds the error of the call that failed.
inline int failWith(int error) {
    errno = error;
    return -1;
}

// The two errors that mean "nothing now, try again" on a non-blocking socket.
inline bool isTryAgain(int error) {
    return error == EWOULDBLOCK || error == EINTR;
}

}  // namespace Orvex::Reticor
