// One datagram from many pieces.
#include "Socket/socket/DgramGather.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstring>
#include <memory>
#include <new>

#include "Socket/address/SockError.h"

namespace Orvex::Reticor {

namespace {

// No datagram of either family is as long as this.
constexpr std::size_t length_limit = 65536;

ssize_t sendPieces(int handle, const iovec* vector, std::size_t count) {
    msghdr message{};
    message.msg_iov = const_cast<iovec*>(vector);
    message.msg_iovlen = count;
    return ::sendmsg(handle, &message, MSG_NOSIGNAL);
}

// The bytes of all pieces, or at least the limit.
std::size_t boundedLength(const iovec* vector, std::size_t count) {
    std::size_t total = 0;
    for (std::size_t i = 0; i < count && total < length_limit; ++i) {
        total += std::min(vector[i].iov_len, length_limit);
    }
    return total;
}

ssize_t sendLongList(int handle, const iovec* vector, std::size_t count) {
    constexpr std::size_t kept = IOV_MAX - 1;
    const std::size_t length = boundedLength(vector + kept, count - kept);
    if (length >= length_limit) {
        return failWith(EMSGSIZE);
    }
    const std::unique_ptr<char[]> end(new (std::nothrow) char[length]);
    const std::unique_ptr<iovec[]> pieces(new (std::nothrow) iovec[IOV_MAX]);
    if (!end || !pieces) {
        return failWith(ENOMEM);
    }
    char* to = end.get();
    for (std::size_t i = kept; i < count; ++i) {
        if (vector[i].iov_len != 0) {
            std::memcpy(to, vector[i].iov_base, vector[i].iov_len);
            to += vector[i].iov_len;
        }
    }
    std::copy(vector, vector + kept, pieces.get());
    pieces[kept] = {end.get(), length};
    return sendPieces(handle, pieces.get(), IOV_MAX);
}

}  // namespace

ssize_t sendGathered(int handle, const struct iovec* vector, int count) {
    if (count < 0) {
        return failWith(EMSGSIZE);
    }
    const auto pieces = static_cast<std::size_t>(count);
    return count <= IOV_MAX ? sendPieces(handle, vector, pieces) : sendLongList(handle, vector, pieces);
}

}  // namespace Orvex::Reticor
