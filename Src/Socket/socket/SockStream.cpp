// TCP sockets.
#include <Reticor/SockStream.h>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <ctime>

#include <Infra/Log.h>
#include <Infra/Time.h>
#include <Reticor/SockAddr.h>

#include "Socket/address/SockAddrRecord.h"
#include "Socket/address/SockError.h"

namespace Orvex::Reticor {

namespace {

enum class Wait { ready, time_up, interrupted, exception, not_ready, failed };

// Waits for one direction of one socket, POLLIN or POLLOUT, up to `limit_us` microseconds. `failed` leaves
// the error in errno. poll and not select, whose bitmaps end at descriptor 1024; nanoseconds, since poll's
// milliseconds would make the last one of a wait a busy loop.
Wait waitFor(int handle, short direction, std::int64_t limit_us) {
    if (handle < 0) {
        errno = EBADF;  // poll ignores such an entry and would sleep through the whole limit.
        return Wait::failed;
    }
    pollfd entry{};
    entry.fd = handle;
    entry.events = static_cast<short>(direction | POLLPRI);
    timespec limit{};
    limit.tv_sec = static_cast<std::time_t>(limit_us / 1000000);
    limit.tv_nsec = static_cast<long>(limit_us % 1000000 * 1000);
    const int result = ::ppoll(&entry, 1, &limit, nullptr);
    if (result < 0) {
        return errno == EINTR ? Wait::interrupted : Wait::failed;
    }
    if (result == 0) {
        return Wait::time_up;
    }
    if ((entry.revents & POLLNVAL) != 0) {
        errno = EBADF;
        return Wait::failed;
    }
    if ((entry.revents & POLLPRI) != 0) {
        return Wait::exception;
    }
    // After an error or a hang-up the next call tells at once what happened, so both count as ready.
    return (entry.revents & (direction | POLLERR | POLLHUP)) != 0 ? Wait::ready : Wait::not_ready;
}

std::int64_t elapsedSince(std::uint64_t start_us) {
    return static_cast<std::int64_t>(Infra::CTime::getCurrentMicroSecond() - start_us);
}

}  // namespace

CSockStream::CSockStream() : CSock(-1, SOCK_TYPE_STREAM) {}

CSockStream::CSockStream(const CSockStream&) = default;

CSockStream& CSockStream::operator=(const CSockStream&) = default;

CSockStream::~CSockStream() = default;

int CSockStream::Connect(const CSockAddr& remote, CSockAddr* local) {
    const SockAddrRecord peer(remote);
    if (!peer.hasFamily()) {
        INFRA_LOG(2, "%s : SockAddr type error\n", INFRA_FUNCTION);
        return -1;
    }
    const SockAddrRecord own = local != nullptr ? SockAddrRecord(*local) : peer;
    if (own.type != peer.type) {
        INFRA_LOG(2, "%s : SockAddr type error\n", INFRA_FUNCTION);
        return -1;
    }
    if (m_handle != -1) {
        Close();
    }
    m_handle = ::socket(peer.family(), SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (m_handle < 0) {
        const int error = errno;
        INFRA_LOG(2, "%s : create socket failed! %s\n", INFRA_FUNCTION, GetSockErrorText(error).c_str());
        return failWith(error);
    }
    if (set_block_opt() < 0) {
        return -1;
    }
    if (local != nullptr && ::bind(m_handle, own.get(), own.length) < 0) {
        const int error = errno;
        INFRA_LOG(2, "%s : bind failed! This port is %d %s\n", INFRA_FUNCTION, own.port(),
                  GetSockErrorText(error).c_str());
        return failWith(error);
    }
    if (::connect(m_handle, peer.get(), peer.length) < 0 && errno != EINPROGRESS && errno != EWOULDBLOCK) {
        const int error = errno;
        INFRA_LOG(2, "%s : connect faield! %s\n", INFRA_FUNCTION, GetSockErrorText(error).c_str());
        Close();
        return failWith(error);
    }
    return 0;
}

int CSockStream::GetConnectStatus() {
    int status = -1;
    socklen_t length = sizeof status;
    if (::getsockopt(m_handle, SOL_SOCKET, SO_ERROR, &status, &length) < 0) {
        const int error = errno;
        INFRA_LOG(2, "%s : getsockopt error, %s\n", INFRA_FUNCTION, GetSockErrorText(error).c_str());
        errno = error;
        return -2;
    }
    if (status != 0) {
        INFRA_LOG(2, "%s : error: %d\n", INFRA_FUNCTION, status);
        errno = status;  // The system forgets the reason as it tells it, so this is the caller's only copy.
        return -2;
    }
    return 0;
}

int CSockStream::Send(const char* buf, unsigned len) {
    if (buf == nullptr) {
        return -1;
    }
    const ssize_t sent = ::send(m_handle, buf, len, MSG_NOSIGNAL);
    if (sent >= 0) {
        return static_cast<int>(sent);
    }
    const int error = errno;
    if (isTryAgain(error)) {
        return 0;
    }
    INFRA_LOG(2, "%s : send failed! %s\n", INFRA_FUNCTION, GetSockErrorText(error).c_str());
    return failWith(error);
}

int CSockStream::WriteV(const struct iovec* vector, int count) {
    if (vector == nullptr) {
        return -1;
    }
    // The kernel takes no more than IOV_MAX pieces. If those were all empty the result would be 0, which
    // means "not now", and the caller would offer the same list for ever.
    while (count > IOV_MAX && vector->iov_len == 0) {
        ++vector;
        --count;
    }
    // sendmsg and not writev, which knows no flags and would raise SIGPIPE.
    msghdr message{};
    message.msg_iov = const_cast<iovec*>(vector);
    message.msg_iovlen = count < 0 ? SIZE_MAX : static_cast<std::size_t>(std::min(count, IOV_MAX));
    const ssize_t sent = ::sendmsg(m_handle, &message, MSG_NOSIGNAL);
    if (sent >= 0) {
        return static_cast<int>(sent);
    }
    const int error = errno;
    if (isTryAgain(error)) {
        return 0;
    }
    INFRA_LOG(2, "%s : send failed! %s\n", INFRA_FUNCTION, GetSockErrorText(error).c_str());
    return failWith(error);
}

int CSockStream::Recv(char* buf, unsigned len) {
    if (buf == nullptr) {
        return -1;
    }
    const ssize_t received = ::recv(m_handle, buf, len, 0);
    if (received > 0) {
        return static_cast<int>(received);
    }
    if (received == 0) {
        return failWith(ECONNRESET);  // An orderly close and a reset are one case to the caller.
    }
    const int error = errno;
    if (isTryAgain(error)) {
        return 0;
    }
    if (error != ECONNRESET) {
        INFRA_LOG(2, "%s : recv failed, %s\n", INFRA_FUNCTION, GetSockErrorText(error).c_str());
    }
    return failWith(error);
}

int CSockStream::Send_n(const char* buf, unsigned len, int timeout) {
    const int wanted = static_cast<int>(std::min<unsigned>(len, INT_MAX));
    int count = Send(buf, static_cast<unsigned>(wanted));
    if (count < 0) {
        return count;
    }
    const std::uint64_t start_us = Infra::CTime::getCurrentMicroSecond();
    std::int64_t elapsed_us = 0;
    while (elapsed_us < timeout && count < wanted) {
        const Wait wait = waitFor(m_handle, POLLOUT, timeout - elapsed_us);
        int error = errno;
        elapsed_us = elapsedSince(start_us);
        if (wait == Wait::interrupted) {
            continue;
        }
        if (wait == Wait::time_up) {
            break;
        }
        if (wait == Wait::failed) {
            INFRA_LOG(2, "%s : Send_n failed, %s\n", INFRA_FUNCTION, GetSockErrorText(error).c_str());
            return failWith(error);
        }
        if (wait == Wait::exception) {
            INFRA_LOG(2, "%s : Send_n error, socket exception!\n", INFRA_FUNCTION);
            return -1;
        }
        if (wait == Wait::not_ready) {
            return -1;
        }
        const ssize_t sent =
            ::send(m_handle, buf + count, static_cast<std::size_t>(wanted - count), MSG_NOSIGNAL);
        error = errno;
        if (sent >= 0) {
            count += static_cast<int>(sent);
        } else if (!isTryAgain(error)) {
            INFRA_LOG(2, "%s : send error, %s\n", INFRA_FUNCTION, GetSockErrorText(error).c_str());
            return failWith(error);
        }
    }
    return count;
}

int CSockStream::Recv_n(char* buf, unsigned len, int timeout) {
    if (buf == nullptr) {
        return -1;
    }
    const std::uint64_t start_us = Infra::CTime::getCurrentMicroSecond();
    std::int64_t elapsed_us = 0;
    while (elapsed_us < timeout) {
        const Wait wait = waitFor(m_handle, POLLIN, timeout - elapsed_us);
        int error = errno;
        elapsed_us = elapsedSince(start_us);
        if (wait == Wait::interrupted) {
            continue;
        }
        if (wait == Wait::time_up) {
            return 0;
        }
        if (wait == Wait::failed) {
            return failWith(error);
        }
        if (wait == Wait::exception) {
            INFRA_LOG(2, "%s : Recv_n error, socket exception!\n", INFRA_FUNCTION);
            return -1;
        }
        if (wait == Wait::not_ready) {
            return -1;
        }
        const ssize_t received = ::recv(m_handle, buf, len, 0);
        error = errno;
        if (received >= 0) {
            return static_cast<int>(received);  // 0, a closed peer, included
        }
        if (isTryAgain(error)) {
            continue;
        }
        if (error != ECONNRESET) {
            INFRA_LOG(2, "%s : recv error %s\n", INFRA_FUNCTION, GetSockErrorText(error).c_str());
        }
        return failWith(error);
    }
    return 0;
}

int CSockStream::SetSockRecvBuf(unsigned size) {
    const int result = ::setsockopt(m_handle, SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
    if (result < 0) {
        const int error = errno;
        INFRA_LOG(2, "%s : setsockopt failed! %s\n", INFRA_FUNCTION, GetSockErrorText(error).c_str());
        return failWith(error);
    }
    return result;
}

int CSockStream::SetSockSendBuf(unsigned size) {
    const int result = ::setsockopt(m_handle, SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
    if (result < 0) {
        const int error = errno;
        INFRA_LOG(2, "%s : setsockopt failed! %s\n", INFRA_FUNCTION, GetSockErrorText(error).c_str());
        return failWith(error);
    }
    return result;
}

int CSockStream::GetSockRecvBuf() {
    int size = 0;
    socklen_t length = sizeof size;
    if (::getsockopt(m_handle, SOL_SOCKET, SO_RCVBUF, &size, &length) < 0) {
        const int error = errno;
        INFRA_LOG(2, "%s : getsockopt failed! %s\n", INFRA_FUNCTION, GetSockErrorText(error).c_str());
        return failWith(error);
    }
    return size;
}

int CSockStream::GetSockSendBuf() {
    int size = 0;
    socklen_t length = sizeof size;
    if (::getsockopt(m_handle, SOL_SOCKET, SO_SNDBUF, &size, &length) < 0) {
        const int error = errno;
        INFRA_LOG(2, "%s : getsockopt failed! %s\n", INFRA_FUNCTION, GetSockErrorText(error).c_str());
        return failWith(error);
    }
    return size;
}

int CSockStream::SetSockKeepAlive(bool on) {
    const int value = on ? 1 : 0;
    if (::setsockopt(m_handle, SOL_SOCKET, SO_KEEPALIVE, &value, sizeof value) < 0) {
        const int error = errno;
        INFRA_LOG(2, "%s : setsockopt failed! %s\n", INFRA_FUNCTION, GetSockErrorText(error).c_str());
        return failWith(error);
    }
    return 0;
}

int CSockStream::SetSockNoDelay(bool on) {
    const int value = on ? 1 : 0;
    if (::setsockopt(m_handle, IPPROTO_TCP, TCP_NODELAY, &value, sizeof value) < 0) {
        const int error = errno;
        INFRA_LOG(2, "%s : setsockopt failed! %s\n", INFRA_FUNCTION, GetSockErrorText(error).c_str());
        return failWith(error);
    }
    return 0;
}

}  // namespace Orvex::Reticor
