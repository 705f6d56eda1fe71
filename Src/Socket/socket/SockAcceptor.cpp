// Listening sockets.
#include <Reticor/SockAcceptor.h>

#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <new>

#include <Infra/Log.h>
#include <Reticor/SockAddrIPv4.h>
#include <Reticor/SockAddrIPv6.h>
#include <Reticor/SockAddrStorage.h>
#include <Reticor/SockStream.h>

#include "Socket/address/SockAddrRecord.h"
#include "Socket/address/SockError.h"
#include "Socket/socket/SockOptions.h"

namespace Orvex::Reticor {

namespace {

constexpr int LISTEN_BACKLOG = 1024;

}  // namespace

CSockAcceptor::CSockAcceptor() : CSock(-1, SOCK_TYPE_ACCEPTOR) {}

CSockAcceptor::CSockAcceptor(const CSockAcceptor&) = default;

CSockAcceptor& CSockAcceptor::operator=(const CSockAcceptor&) = default;

CSockAcceptor::~CSockAcceptor() = default;

int CSockAcceptor::Open(const CSockAddr& local) {
    const SockAddrRecord own(local);
    if (m_handle != -1) {
        Close();
    }
    if (!own.has_family()) {
        INFRA_LOG(2, "%s : invalid local addresst type!\n", INFRA_FUNCTION);
        return -1;
    }
    m_handle = ::socket(own.family(), SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (m_handle < 0) {
        return SOCK_FAILED("socket failed, %s\n");
    }
    if (SockOptions(m_handle).share_port() < 0) {
        return SOCK_FAILED("set reuseaddr failed! %s\n");
    }
    if (::bind(m_handle, own.get(), own.length) < 0) {
        return SOCK_FAILED_WITH("bind failed! This port is %d %s\n", own.port());
    }
    if (::listen(m_handle, LISTEN_BACKLOG) < 0) {
        return SOCK_FAILED("listen failed! %s\n");
    }
    return set_block_opt();
}

int CSockAcceptor::Accept(CSockStream& stream, CSockAddr* remote) {
    const unsigned remote_type = remote != nullptr ? remote->GetType() : 0;
    if (remote != nullptr && remote_type != SOCKADDR_TYPE_IPV4 && remote_type != SOCKADDR_TYPE_IPV6 &&
        remote_type != SOCKADDR_TYPE_STORAGE) {
        INFRA_LOG(2, "%s : invalid local address type!\n", INFRA_FUNCTION);
        return -1;
    }
    sockaddr_in6 record{};
    socklen_t length = sizeof record;
    const int handle = ::accept4(m_handle, reinterpret_cast<sockaddr*>(&record), &length, SOCK_CLOEXEC);
    if (handle < 0) {
        return -1;
    }
    if (remote_type == SOCKADDR_TYPE_IPV4) {
        if (record.sin6_family == AF_INET) {
            sockaddr_in ipv4;
            std::memcpy(&ipv4, &record, sizeof ipv4);
            static_cast<CSockAddrIPv4*>(remote)->SetAddr(ipv4);
        } else {
            INFRA_LOG(3, "a ipv6 address can't be put into CSockAddrIPv4!\n");
        }
    } else if (remote_type == SOCKADDR_TYPE_IPV6) {
        static_cast<CSockAddrIPv6*>(remote)->SetAddr(&record);
    } else if (remote_type == SOCKADDR_TYPE_STORAGE) {
        static_cast<CSockAddrStorage*>(remote)->SetAddr(reinterpret_cast<const sockaddr_in*>(&record));
    }
    return stream.Attach(handle);
}

CSockStream* CSockAcceptor::Accept(CSockAddr* remote) {
    std::unique_ptr<CSockStream> stream(new (std::nothrow) CSockStream);
    if (stream && Accept(*stream, remote) == 0) {
        return stream.release();
    }
    const int error = errno;
    if (!stream) {
        INFRA_LOG(2, "no memory for a socket!\n");
    }
    stream.reset();
    errno = error;
    return nullptr;
}

}  // namespace Orvex::Reticor
