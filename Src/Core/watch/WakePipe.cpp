// CWINPipe: a connected pair of loopback TCP sockets, by which a blocked wait is ended.
#include "Core/watch/WakePipe.h"

#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdint>
#include <memory>

#include <Infra/Log.h>
#include <Infra/Time.h>
#include <Reticor/SockAcceptor.h>
#include <Reticor/SockAddrIPv4.h>
#include <Reticor/SockStream.h>

#include "Socket/address/SockError.h"
#include "Socket/socket/CloseCount.h"

namespace Orvex::Reticor {

namespace {

/// Strangers who connected to the passing port are closed, but not without end.
constexpr int STRANGER_LIMIT = 64;

/// For the whole of it: on loopback each step is done as soon as it is asked for, unless something is wrong.
constexpr uint64_t SETUP_LIMIT_MS = 2000;

/// Waits for `events` until the time is over. False if they do not come.
bool await(int fd, short events, uint64_t deadline_ms) {
    pollfd wanted{fd, events, 0};
    for (;;) {
        const uint64_t now_ms = Infra::CTime::getCurrentMilliSecond();
        const int limit = now_ms < deadline_ms ? static_cast<int>(deadline_ms - now_ms) : 0;
        const int found = ::poll(&wanted, 1, limit);
        if (found >= 0 || errno != EINTR) {
            return found > 0;
        }
    }
}

std::unique_ptr<CSockStream> accept_own(CSockAcceptor& acceptor, CSockStream& own, uint64_t deadline_ms) {
    CSockAddrIPv4 expected;
    own.GetLocalAddr(&expected);
    for (int i = 0; i < STRANGER_LIMIT && await(acceptor.GetHandle(), POLLIN, deadline_ms); ++i) {
        CSockAddrIPv4 peer;
        std::unique_ptr<CSockStream> accepted(acceptor.Accept(&peer));
        if (!accepted || peer == expected) {
            return accepted;
        }
    }
    return nullptr;
}

}  // namespace

bool CWINPipe::CreatePipe(bool block) {
    CSockAddrIPv4 addr;
    if (addr.SetAddr("127.0.0.1", 0) < 0) {
        return false;
    }
    // Neither blocks, so that each step can be waited for with a bound.
    CSockAcceptor acceptor;
    CSockStream writer;
    if (acceptor.Open(addr) < 0) {
        return false;
    }
    acceptor.GetLocalAddr(&addr);
    const uint64_t deadline_ms = Infra::CTime::getCurrentMilliSecond() + SETUP_LIMIT_MS;
    if (writer.Connect(addr, nullptr) < 0 || !await(writer.GetHandle(), POLLOUT, deadline_ms) ||
        writer.GetConnectStatus() < 0) {
        return false;
    }
    std::unique_ptr<CSockStream> reader = accept_own(acceptor, writer, deadline_ms);
    if (!reader) {
        return false;
    }
    reader->SetBlockOpt(block);
    writer.SetBlockOpt(block);
    m_read_fd = reader->Detach();
    m_write_fd = writer.Detach();
    return true;
}

int CWINPipe::Read(int fd, char* buf, int len) {
    const ssize_t got = ::recv(fd, buf, static_cast<size_t>(len), 0);
    if (got > 0) {
        return static_cast<int>(got);
    }
    if (got == 0) {
        INFRA_LOG_STATIC(2, "socket disconnected\n");
        return -1;
    }
    const int error = errno;
    if (error == EWOULDBLOCK || error == EINTR) {
        return 0;
    }
    if (error != ECONNRESET) {
        INFRA_LOG_STATIC(2, "recv failed, %s\n", GetSockErrorText(error).c_str());
    }
    return -1;
}

int CWINPipe::Write(int fd, const char* buf, int len) {
    const ssize_t sent = ::send(fd, buf, static_cast<size_t>(len), MSG_NOSIGNAL);
    if (sent >= 0) {
        return static_cast<int>(sent);
    }
    const int error = errno;
    if (error == EWOULDBLOCK || error == EINTR) {
        return 0;
    }
    INFRA_LOG_STATIC(2, "send failed! %s\n", GetSockErrorText(error).c_str());
    return -1;
}

bool CWINPipe::Close(int fd) {
    return close_counted(fd) != -1;
}

}  // namespace Orvex::Reticor
