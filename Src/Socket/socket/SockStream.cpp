// TCP sockets.
#include <Reticor/SockStream.h>

#include <netinet/in.h>
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
#include "Socket/socket/SockOptions.h"
#include "Socket/socket/SocketWriter.h"

namespace Orvex::Reticor {

namespace {

enum class Wait { ready, time_up, interrupted, exception, not_ready, failed };

// Waits for one direction of one socket, POLLIN or POLLOUT, up to `limit_us` microseconds. `failed` leaves
// the error in errno. poll and not select, whose bitmaps end at descriptor 1024; nanoseconds, since poll's
// milliseconds would make the last one of a wait a busy loop.
Wait wait_for(int handle, short direction, int64_t limit_us) {
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

// errno is as before: a clock that can be read sets none.
int64_t elapsed_since(uint64_t start_us) {
    return static_cast<int64_t>(Infra::CTime::getCurrentMicroSecond() - start_us);
}

}  // namespace

CSockStream::CSockStream() : CSock(-1, SOCK_TYPE_STREAM) {}

CSockStream::CSockStream(const CSockStream&) = default;

CSockStream& CSockStream::operator=(const CSockStream&) = default;

CSockStream::~CSockStream() = default;

int CSockStream::Connect(const CSockAddr& remote, CSockAddr* local) {
    const SockAddrRecord peer(remote);
    if (!peer.has_family()) {
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
        return SOCK_FAILED("create socket failed! %s\n");
    }
    if (set_block_opt() < 0) {
        return -1;
    }
    if (local != nullptr && ::bind(m_handle, own.get(), own.length) < 0) {
        return SOCK_FAILED_WITH("bind failed! This port is %d %s\n", own.port());
    }
    if (::connect(m_handle, peer.get(), peer.length) < 0 && errno != EINPROGRESS && errno != EWOULDBLOCK) {
        const int error = errno;
        const int result = SOCK_FAILED("connect faield! %s\n");
        Close();
        errno = error;
        return result;
    }
    return 0;
}

int CSockStream::GetConnectStatus() {
    int status = -1;
    socklen_t length = sizeof status;
    if (::getsockopt(m_handle, SOL_SOCKET, SO_ERROR, &status, &length) < 0) {
        static_cast<void>(SOCK_FAILED("getsockopt error, %s\n"));
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
    return is_try_again(errno) ? 0 : SOCK_FAILED("send failed! %s\n");
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
    message.msg_iovlen = count < 0 ? SIZE_MAX : static_cast<size_t>(std::min(count, IOV_MAX));
    const ssize_t sent = ::sendmsg(m_handle, &message, MSG_NOSIGNAL);
    if (sent >= 0) {
        return static_cast<int>(sent);
    }
    return is_try_again(errno) ? 0 : SOCK_FAILED("send failed! %s\n");
}

int answer_of_write(CSock& sock, int result) {
    if (result >= 0) {
        return result;
    }
    errno = -result;
    if (is_try_again(errno)) {
        return 0;
    }
    if (Infra::logEnabled(2)) {
        constexpr const char* WRITE_NAME =
            "int Orvex::Reticor::CSockStream::WriteV(const iovec*, int)";  // a part of the line
        Infra::Detail::logMember(2, __FILE__, WRITE_NAME, __LINE__, &sock, "%s : send failed! %s\n",
                                 Infra::Detail::FunctionName(WRITE_NAME).text(),
                                 GetSockErrorText(errno).c_str());
    }
    errno = -result;
    return -1;
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
        return fail_with(ECONNRESET);  // An orderly close and a reset are one case to the caller.
    }
    if (is_try_again(errno)) {
        return 0;
    }
    return errno == ECONNRESET ? -1 : SOCK_FAILED("recv failed, %s\n");
}

int CSockStream::Send_n(const char* buf, unsigned len, int timeout) {
    const int wanted = static_cast<int>(std::min<unsigned>(len, INT_MAX));
    int count = Send(buf, static_cast<unsigned>(wanted));
    if (count < 0) {
        return count;
    }
    const uint64_t start_us = Infra::CTime::getCurrentMicroSecond();
    int64_t elapsed_us = 0;
    while (elapsed_us < timeout && count < wanted) {
        const Wait wait = wait_for(m_handle, POLLOUT, timeout - elapsed_us);
        elapsed_us = elapsed_since(start_us);
        if (wait == Wait::interrupted) {
            continue;
        }
        if (wait == Wait::time_up) {
            break;
        }
        if (wait == Wait::failed) {
            return SOCK_FAILED("Send_n failed, %s\n");
        }
        if (wait == Wait::exception) {
            INFRA_LOG(2, "%s : Send_n error, socket exception!\n", INFRA_FUNCTION);
            return -1;
        }
        if (wait == Wait::not_ready) {
            return -1;
        }
        const ssize_t sent = ::send(m_handle, buf + count, static_cast<size_t>(wanted - count), MSG_NOSIGNAL);
        if (sent >= 0) {
            count += static_cast<int>(sent);
        } else if (!is_try_again(errno)) {
            return SOCK_FAILED("send error, %s\n");
        }
    }
    return count;
}

int CSockStream::Recv_n(char* buf, unsigned len, int timeout) {
    if (buf == nullptr) {
        return -1;
    }
    const uint64_t start_us = Infra::CTime::getCurrentMicroSecond();
    int64_t elapsed_us = 0;
    while (elapsed_us < timeout) {
        const Wait wait = wait_for(m_handle, POLLIN, timeout - elapsed_us);
        elapsed_us = elapsed_since(start_us);
        if (wait == Wait::interrupted) {
            continue;
        }
        if (wait == Wait::time_up) {
            return 0;
        }
        if (wait == Wait::failed) {
            return -1;
        }
        if (wait == Wait::exception) {
            INFRA_LOG(2, "%s : Recv_n error, socket exception!\n", INFRA_FUNCTION);
            return -1;
        }
        if (wait == Wait::not_ready) {
            return -1;
        }
        const ssize_t received = ::recv(m_handle, buf, len, 0);
        if (received >= 0) {
            return static_cast<int>(received);  // 0, a closed peer, included
        }
        if (is_try_again(errno)) {
            continue;
        }
        return errno == ECONNRESET ? -1 : SOCK_FAILED("recv error %s\n");
    }
    return 0;
}

int CSockStream::SetSockRecvBuf(unsigned size) {
    const int result = SockOptions(m_handle).set_receive_buffer(size);
    return result < 0 ? SOCK_FAILED("setsockopt failed! %s\n") : result;
}

int CSockStream::SetSockSendBuf(unsigned size) {
    const int result = SockOptions(m_handle).set_send_buffer(size);
    return result < 0 ? SOCK_FAILED("setsockopt failed! %s\n") : result;
}

int CSockStream::GetSockRecvBuf() {
    const int size = SockOptions(m_handle).receive_buffer();
    return size < 0 ? SOCK_FAILED("getsockopt failed! %s\n") : size;
}

int CSockStream::GetSockSendBuf() {
    const int size = SockOptions(m_handle).send_buffer();
    return size < 0 ? SOCK_FAILED("getsockopt failed! %s\n") : size;
}

int CSockStream::SetSockKeepAlive(bool on) {
    return SockOptions(m_handle).set_keep_alive(on) < 0 ? SOCK_FAILED("setsockopt failed! %s\n") : 0;
}

int CSockStream::SetSockNoDelay(bool on) {
    return SockOptions(m_handle).set_no_delay(on) < 0 ? SOCK_FAILED("setsockopt failed! %s\n") : 0;
}

}  // namespace Orvex::Reticor
