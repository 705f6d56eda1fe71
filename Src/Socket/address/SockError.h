// Error numbers of the socket layer: their texts, their lines, and their way back to the caller.
#pragma once

#include <cerrno>
#include <string>

namespace Orvex::Reticor {

/// The system's text for an error: an errno value, or the code of a failed name look-up (EAI_*, all
/// negative). The one place for such texts in the library. Any thread; errno is left alone. The text is empty
/// if there is no memory for it.
std::string GetSockErrorText(int error) noexcept;

/// A close or a destructor between the failing call and the caller may change errno. An operation that has
/// one there saves errno right after the call and ends with this, so that the caller finds the error of the
/// call that failed.
inline int fail_with(int error) {
    errno = error;
    return -1;
}

/// The two errors that mean "nothing now, try again" on a non-blocking socket.
inline bool is_try_again(int error) {
    return error == EWOULDBLOCK || error == EINTR;
}

}  // namespace Orvex::Reticor

/// The end of a member function right after a call of the system that has failed: its line at level 2, with
/// the function's name in front and the system's text for errno as the format's last argument. The value is
/// -1, and errno is what the call has left. A macro, since the line names the place that logs it.
///
///     return SOCK_FAILED("recv failed, %s\n");
#define SOCK_FAILED(format) \
    (INFRA_LOG(2, "%s : " format, INFRA_FUNCTION, ::Orvex::Reticor::GetSockErrorText(errno).c_str()), -1)

/// The same with arguments of the format that stand before the system's text.
///
///     return SOCK_FAILED_WITH("bind failed! This port is %d %s\n", port);
#define SOCK_FAILED_WITH(format, ...)                              \
    (INFRA_LOG(2, "%s : " format, INFRA_FUNCTION, __VA_ARGS__,     \
               ::Orvex::Reticor::GetSockErrorText(errno).c_str()), \
     -1)
