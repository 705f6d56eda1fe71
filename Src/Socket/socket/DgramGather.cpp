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

#include "Socket/address/SockAddrRecord.h"
#include "Socket/address/SockError.h"

namespace Orvex::Reticor {

namespace {

// No datagram of either family is as long as this.
constexpr size_t LENGTH_LIMIT = 65536;

ssize_t send_pieces(int handle, const SockAddrRecord* remote, const iovec* vector, size_t count) {
    msghdr message{};
    if (remote != nullptr) {
        message.msg_name = const_cast<sockaddr*>(remote->get());
        message.msg_namelen = remote->length;
    }
    message.msg_iov = const_cast<iovec*>(vector);
    message.msg_iovlen = count;
    return ::sendmsg(handle, &message, MSG_NOSIGNAL);
}

// The bytes of all pieces, or at least the limit.
size_t bounded_length(const iovec* vector, size_t count) {
    size_t total = 0;
    for (size_t i = 0; i < count && total < LENGTH_LIMIT; ++i) {
        total += std::min(vector[i].iov_len, LENGTH_LIMIT);
    }
    return total;
}

ssize_t send_long_list(int handle, const SockAddrRecord* remote, const iovec* vector, size_t count) {
    constexpr size_t KEPT = IOV_MAX - 1;
    const size_t length = bounded_length(vector + KEPT, count - KEPT);
    if (length >= LENGTH_LIMIT) {
        return fail_with(EMSGSIZE);
    }
    const std::unique_ptr<char[]> end(new (std::nothrow) char[length]);
    const std::unique_ptr<iovec[]> pieces(new (std::nothrow) iovec[IOV_MAX]);
    if (!end || !pieces) {
        return fail_with(ENOMEM);
    }
    char* to = end.get();
    for (size_t i = KEPT; i < count; ++i) {
        if (vector[i].iov_len != 0) {
            std::memcpy(to, vector[i].iov_base, vector[i].iov_len);
            to += vector[i].iov_len;
        }
    }
    std::copy(vector, vector + KEPT, pieces.get());
    pieces[KEPT] = {end.get(), length};
    return send_pieces(handle, remote, pieces.get(), IOV_MAX);
}

}  // namespace

ssize_t send_gathered(int handle, const struct iovec* vector, int count, const SockAddrRecord* remote) {
    if (count < 0) {
        return fail_with(EMSGSIZE);
    }
    const auto pieces = static_cast<size_t>(count);
    return count <= IOV_MAX ? send_pieces(handle, remote, vector, pieces)
                            : send_long_list(handle, remote, vector, pieces);
}

}  // namespace Orvex::Reticor
