// The texts of socket errors.
#include "Socket/address/SockError.h"

#include <netdb.h>

#include <cstring>
#include <exception>

namespace Orvex::Reticor {

std::string GetSockErrorText(int error) noexcept {
    const int saved = errno;
    std::string text;
    try {
        // strerror_r, since many workers report errors at once and strerror may share one buffer.
        char buffer[512] = {};
        text = error < 0 ? gai_strerror(error) : strerror_r(error, buffer, sizeof buffer);
    } catch (const std::exception&) {
        text.clear();
    }
    errno = saved;
    return text;
}

}  // namespace Orvex::Reticor
