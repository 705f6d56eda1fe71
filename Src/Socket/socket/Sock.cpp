// The socket base: handle, blocking mode, addresses.
#include <Reticor/Sock.h>

#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <optional>

#include <Infra/Log.h>
#include <Reticor/SockAddr.h>
#include <Reticor/SockAddrIPv4.h>
#include <Reticor/SockAddrIPv6.h>
#include <Reticor/SockAddrStorage.h>

#include "Socket/address/SockError.h"
#include "Socket/socket/CloseCount.h"
#include "Socket/socket/WatchedNumbers.h"

namespace Orvex::Reticor {

namespace {

// Stores a record of either family in an address of a class that can take it. Empty if the class cannot.
std::optional<int> store(const sockaddr_in6& record, CSockAddr& addr) {
    if (record.sin6_family == AF_INET && addr.GetType() == SOCKADDR_TYPE_IPV4) {
        sockaddr_in ipv4;
        std::memcpy(&ipv4, &record, sizeof ipv4);
        return static_cast<CSockAddrIPv4&>(addr).SetAddr(ipv4);
    }
    if (record.sin6_family == AF_INET6 && addr.GetType() == SOCKADDR_TYPE_IPV6) {
        return static_cast<CSockAddrIPv6&>(addr).SetAddr(&record);
    }
    if ((record.sin6_family == AF_INET || record.sin6_family == AF_INET6) &&
        addr.GetType() == SOCKADDR_TYPE_STORAGE) {
        return static_cast<CSockAddrStorage&>(addr).SetAddr(reinterpret_cast<const sockaddr_in*>(&record));
    }
    return std::nullopt;
}

}  // namespace

CSock::CSock() : CSock(-1, SOCK_TYPE_UNKNOWN) {}

CSock::CSock(int handle, unsigned type) : m_handle(handle), m_type(type), m_block(false) {}

CSock::CSock(const CSock&) = default;

CSock& CSock::operator=(const CSock&) = default;

CSock::~CSock() {
    Close();
}

void CSock::SetBlockOpt(bool block) {
    const bool before = m_block;
    m_block = block;
    if (before == block) {
        return;
    }
    if (set_block_opt() < 0) {
        INFRA_LOG(2, "%s : SetBlockOpt failed! \n", INFRA_FUNCTION);
    }
}

int CSock::Close() {
    if (m_handle < 0) {
        return -1;
    }
    const int handle = m_handle;
    m_handle = -1;
    WatchedNumbers::NoteClose(handle);
    return close_counted(handle) == -1 ? -1 : 0;
}

int CSock::Attach(int handle) {
    if (m_handle != -1) {
        return -1;
    }
    m_handle = handle;
    return set_block_opt();
}

int CSock::Detach() {
    const int handle = m_handle;
    m_handle = -1;
    return handle;
}

int CSock::set_block_opt() {
    if (m_handle == -1) {
        return 0;
    }
    int non_blocking = m_block ? 0 : 1;
    if (::ioctl(m_handle, FIONBIO, &non_blocking) == -1) {
        return SOCK_FAILED("set socket block failed! %s\n");
    }
    return 0;
}

int CSock::GetLocalAddr(CSockAddr* addr) {
    sockaddr_in6 record{};
    socklen_t length = sizeof record;
    if (addr == nullptr || ::getsockname(m_handle, reinterpret_cast<sockaddr*>(&record), &length) < 0) {
        return -1;
    }
    return store(record, *addr).value_or(-1);
}

int CSock::GetRemoteAddr(CSockAddr* addr) {
    sockaddr_in6 record{};
    socklen_t length = sizeof record;
    if (::getpeername(m_handle, reinterpret_cast<sockaddr*>(&record), &length) < 0) {
        return SOCK_FAILED("getpeername failed! %s\n");
    }
    if (addr != nullptr) {
        if (const std::optional<int> result = store(record, *addr)) {
            return *result;
        }
    }
    INFRA_LOG(2, "%s : Unkonw Sockaddr Type.\n", INFRA_FUNCTION);
    return -1;
}

}  // namespace Orvex::Reticor
