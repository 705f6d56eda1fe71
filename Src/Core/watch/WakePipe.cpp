// CWINPipe: a connected pair of loopback TCP sockets, by which a blocked wait is ended.
#include "Core/watch/WakePipe.h"

#include <sys/socket.h>

#include <cerrno>
#include <memory>

#include <Infra/Log.h>
#include <Reticor/SockAcceptor.h>
#include <Reticor/SockAddrIPv4.h>
#include <Reticor/SockStream.h>

#include "Socket/address/SockError.h"
#include "Socket/socket/CloseCount.h"

namespace Orvex::Reticor {

namespace {

/// Strangers who connected to the passing port are closed, but not without end.
constexpr int STRANGER_LIMIT = 64;

std::unique_ptr<CSockStream> accept_own(CSockAcceptor& acceptor, CSockStream& own) {
    CSockAddrIPv4 expected;
    own.GetLocalAddr(&expected);
    for (int i = 0; i < STRANGER_LIMIT; ++i) {
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
    CSockAcceptor acceptor;
    CSockStream writer;
    // Blocking, so that connecting and accepting need no second try.
    acceptor.SetBlockOpt(true);
    writer.SetBlockOpt(true);
    if (acceptor.Open(addr) < 0) {
        return false;
    }
    acceptor.GetLocalAddr(&addr);
    if (writer.Connect(addr, nullptr) < 0) {
        return false;
    }
    std::unique_ptr<CSockStream> reader = accept_own(acceptor, writer);
    if (!reader) {
        return false;
    }
    reader->SetBlockOpt(!block);  // the option acts on a change alone
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
    return closeCounted(fd) != -1;
}

}  // namespace Orvex::Reticor
