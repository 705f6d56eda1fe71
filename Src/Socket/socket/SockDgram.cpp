// UDP sockets: opening, peers, datagrams. Groups are in SockDgramMulticast.cpp, gathering in DgramGather.
#include <Reticor/SockDgram.h>

#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdint>
#include <new>

#include <Infra/Log.h>
#include <Reticor/SockAddrIPv4.h>
#include <Reticor/SockAddrIPv6.h>
#include <Reticor/SockAddrStorage.h>

#include "Socket/address/SockAddrRecord.h"
#include "Socket/address/SockError.h"
#include "Socket/socket/DgramGather.h"
#include "Socket/socket/SockDgramRecord.h"

namespace Orvex::Reticor {

namespace {

// The port that the address tells. A storage address can hold another one in its record.
unsigned short portOf(const CSockAddr& addr) {
    switch (addr.GetType()) {
        case SOCKADDR_TYPE_IPV4:
            return static_cast<const CSockAddrIPv4&>(addr).GetPort();
        case SOCKADDR_TYPE_IPV6:
            return static_cast<const CSockAddrIPv6&>(addr).GetPort();
        default:
            return static_cast<const CSockAddrStorage&>(addr).GetPort();
    }
}

// Whether the record, of either family, is that of a group.
bool isGroup(const SockAddrRecord& record) {
    if (record.type == SOCKADDR_TYPE_IPV4) {
        const std::uint32_t ip = ntohl(reinterpret_cast<const sockaddr_in&>(record.storage).sin_addr.s_addr);
        return ip >= 0xE0000000u && ip < 0xF0000000u;
    }
    return reinterpret_cast<const sockaddr_in6&>(record.storage).sin6_addr.s6_addr[0] == 255;
}

// Four bits, and not a netmask, which nobody tells us.
bool looksLikeBroadcast(const SockAddrRecord& record) {
    return record.type == SOCKADDR_TYPE_IPV4 &&
           (ntohl(reinterpret_cast<const sockaddr_in&>(record.storage).sin_addr.s_addr) & 0xFu) == 0xFu;
}

// A new address of the record's family; null if that is none, or there is no memory.
std::unique_ptr<CSockAddr> makeAddr(const SockAddrRecord& record) {
    switch (record.type) {
        case SOCKADDR_TYPE_IPV4:
            return std::unique_ptr<CSockAddr>(
                new (std::nothrow) CSockAddrIPv4(reinterpret_cast<const sockaddr_in&>(record.storage)));
        case SOCKADDR_TYPE_IPV6:
            return std::unique_ptr<CSockAddr>(
                new (std::nothrow) CSockAddrIPv6(reinterpret_cast<const sockaddr_in6*>(&record.storage)));
        default:
            return nullptr;
    }
}

// The address to bind to: the wildcard for a group, else the record's; with the port given.
SockAddrRecord bindRecord(const SockAddrRecord& record, unsigned short port) {
    SockAddrRecord own = record;
    // The port stands at the same place in both families.
    auto& ipv4 = reinterpret_cast<sockaddr_in&>(own.storage);
    if (isGroup(record)) {
        own.storage = {};
        own.storage.ss_family = static_cast<sa_family_t>(record.family());
    }
    ipv4.sin_port = htons(port);
    return own;
}

}  // namespace

CSockDgram::CSockDgram() : CSock(-1, SOCK_TYPE_DGRAM), m_record(new (std::nothrow) Record()) {}

CSockDgram::~CSockDgram() = default;

int CSockDgram::Open(const CSockAddr* addr) {
    return Open(addr, false);
}

int CSockDgram::Open(const CSockAddr* addr, bool reuseaddr) {
    if (reuseaddr && addr == nullptr) {
        INFRA_LOG(2, "%s : open failed!Invalid parameter: reuseaddr:%d, addr:%p \n", INFRA_FUNCTION,
                  static_cast<int>(reuseaddr), static_cast<const void*>(addr));
        return -1;
    }
    if (!m_record) {
        return fail_with(ENOMEM);
    }
    if (m_handle != -1) {
        Close();
        m_record->m_remote_addr.reset();
        m_record->m_multicast_addr.reset();
    }
    m_record->m_is_ipv4 = addr == nullptr || SockAddrRecord::family_type_of(*addr) == SOCKADDR_TYPE_IPV4;
    m_handle = ::socket(m_record->m_is_ipv4 ? AF_INET : AF_INET6, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (m_handle < 0) {
        const int error = errno;
        INFRA_LOG(2, "%s : create socket failed, %s\n.", INFRA_FUNCTION, GetSockErrorText(error).c_str());
        return fail_with(error);
    }
    if (set_block_opt() == -1) {
        return -1;
    }
    receive_joined_groups_only();
    return addr != nullptr ? bind_to(*addr, reuseaddr) : 0;
}

int CSockDgram::bind_to(const CSockAddr& addr, bool reuseaddr) {
    const SockAddrRecord record(addr);
    if (!record.has_family()) {
        // Such an address has no text either, and nothing has that name. The look-up says so in its own line.
        return CSockAddrIPv6().SetIp("");
    }
    const SockAddrRecord own = bindRecord(record, portOf(addr));
    const int on = 1;
    if (reuseaddr && own.port() != 0 &&
        ::setsockopt(m_handle, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) == -1) {
        const int error = errno;
        INFRA_LOG(2, "%s : set reuseaddr failed!, %s\n", "Orvex::Reticor::CSockDgram::Open",
                  GetSockErrorText(error).c_str());
        return fail_with(error);
    }
    if (::bind(m_handle, own.get(), own.length) == -1) {
        const int error = errno;
        INFRA_LOG(2, "%s : bind failed! This port is %d %s\n", "Orvex::Reticor::CSockDgram::Open", own.port(),
                  GetSockErrorText(error).c_str());
        return fail_with(error);
    }
    if (!isGroup(record)) {
        return 0;
    }
    if (join_group(record) == -1) {
        return -1;
    }
    m_record->m_multicast_addr = makeAddr(record);
    return 0;
}

int CSockDgram::SetRemote(const CSockAddr* remote) {
    if (remote == nullptr) {
        INFRA_LOG(2, "%s : invalid remote addresst type!\n", INFRA_FUNCTION);
        return -1;
    }
    if (!m_record) {
        return fail_with(ENOMEM);
    }
    m_record->m_remote_addr.reset();
    sockaddr_storage probe;
    if (remote->GetAddr(reinterpret_cast<sockaddr*>(&probe)) == nullptr) {
        INFRA_LOG(2, "%s : invalid remote addresst type!\n", INFRA_FUNCTION);
        return -1;
    }
    const SockAddrRecord record(*remote);
    m_record->m_remote_addr = makeAddr(record);
    const bool broadcast = looksLikeBroadcast(record);
    if (broadcast && set_broadcast() == -1) {
        return -1;
    }
    if (!m_record->m_remote_addr) {
        INFRA_LOG(2, "%s : CSockDgram::SetRemote error!\n", INFRA_FUNCTION);
        return -1;
    }
    return broadcast || isGroup(record) ? 0 : connect_to(record);
}

int CSockDgram::set_broadcast() {
    const int on = 1;
    if (::setsockopt(m_handle, SOL_SOCKET, SO_BROADCAST, &on, sizeof on) == -1) {
        const int error = errno;
        INFRA_LOG(2, "%s : set SO_BROADCAST failed,errno:%d, errmsg %s\n",
                  "Orvex::Reticor::CSockDgram::SetRemote", error, GetSockErrorText(error).c_str());
        return fail_with(error);
    }
    return 0;
}

int CSockDgram::connect_to(const SockAddrRecord& record) {
    if (::connect(m_handle, record.get(), record.length) == -1 && errno != EINPROGRESS &&
        errno != EWOULDBLOCK) {
        const int error = errno;
        INFRA_LOG(2, "%s : connect faield! %s\n", "Orvex::Reticor::CSockDgram::SetRemote",
                  GetSockErrorText(error).c_str());
        Close();
        return fail_with(error);
    }
    return 0;
}

int CSockDgram::Send(const char* buf, unsigned len, const CSockAddr* remote) {
    if (buf == nullptr || len == 0) {
        INFRA_LOG(2, "%s : send to failed! Invalid parameter: buf:%p, len:%u \n", INFRA_FUNCTION,
                  static_cast<const void*>(buf), len);
        return -1;
    }
    if (remote == nullptr) {
        remote = m_record ? m_record->m_remote_addr.get() : nullptr;
    }
    if (remote == nullptr) {
        INFRA_LOG(2, "%s : send to failed! remote is null \n", INFRA_FUNCTION);
        return -1;
    }
    if (!remote->IsValid()) {
        INFRA_LOG(2, "%s : send to failed! remote is invalid \n", INFRA_FUNCTION);
        return -1;
    }
    const SockAddrRecord record(*remote);
    const ssize_t sent = ::sendto(m_handle, buf, len, MSG_NOSIGNAL, record.get(), record.length);
    if (sent >= 0) {
        return static_cast<int>(sent);
    }
    const int error = errno;
    if (is_try_again(error)) {
        return 0;
    }
    INFRA_LOG(2, "%s : send to failed! %s\n", INFRA_FUNCTION, GetSockErrorText(error).c_str());
    return fail_with(error);
}

int CSockDgram::WriteV(const struct iovec* vector, int count) {
    const CSockAddr* const m_remote_addr = m_record ? m_record->m_remote_addr.get() : nullptr;
    if (vector == nullptr || m_remote_addr == nullptr) {
        INFRA_LOG(2, "%s : WriteV failed! Invalid parameter: vector:%p, m_remote_addr:%p \n", INFRA_FUNCTION,
                  static_cast<const void*>(vector), static_cast<const void*>(m_remote_addr));
        return -1;
    }
    const ssize_t sent = send_gathered(m_handle, vector, count);
    if (sent >= 0) {
        return static_cast<int>(sent);
    }
    const int error = errno;
    if (is_try_again(error)) {
        return 0;
    }
    INFRA_LOG(2, "%s : send failed! %s\n", INFRA_FUNCTION, GetSockErrorText(error).c_str());
    return fail_with(error);
}

int CSockDgram::Recv(char* buf, unsigned len, CSockAddr* remote) {
    if (buf == nullptr || len == 0) {
        INFRA_LOG(2, "%s : recv failed! invalid parameter: buf:%p, len:%u \n", INFRA_FUNCTION,
                  static_cast<const void*>(buf), len);
        return -1;
    }
    if (remote != nullptr &&
        (remote->GetType() < SOCKADDR_TYPE_IPV4 || remote->GetType() > SOCKADDR_TYPE_STORAGE)) {
        INFRA_LOG(2, "%s : recv failed! invalid parameter,remote type:%u \n", INFRA_FUNCTION,
                  remote->GetType());
        return -1;
    }
    sockaddr_in6 from{};
    socklen_t length = sizeof from;
    const ssize_t received = ::recvfrom(m_handle, buf, len, 0, reinterpret_cast<sockaddr*>(&from), &length);
    if (received < 0) {
        const int error = errno;
        // 11 is EAGAIN here, which is_try_again knows by its other name where the two differ.
        if (is_try_again(error) || error == 11) {
            return 0;
        }
        INFRA_LOG(2, "%s : recv from failed! %s\n", INFRA_FUNCTION, GetSockErrorText(error).c_str());
        return fail_with(error);
    }
    if (received > 0 && remote != nullptr) {
        store_sender(from, *remote);
    }
    return static_cast<int>(received);
}

void CSockDgram::store_sender(const struct sockaddr_in6& from, CSockAddr& remote) {
    const auto& ipv4 = reinterpret_cast<const sockaddr_in&>(from);
    if (remote.GetType() == SOCKADDR_TYPE_IPV6) {
        static_cast<CSockAddrIPv6&>(remote).SetAddr(&from);
    } else if (remote.GetType() == SOCKADDR_TYPE_STORAGE) {
        static_cast<CSockAddrStorage&>(remote).SetAddr(&ipv4);
    } else if (from.sin6_family == AF_INET) {
        static_cast<CSockAddrIPv4&>(remote).SetIp(ntohl(ipv4.sin_addr.s_addr));
        static_cast<CSockAddrIPv4&>(remote).SetPort(ntohs(ipv4.sin_port));
    } else {
        INFRA_LOG(2, "%s : a ipv6 address can not put into CSockAddrIPv4!\n",
                  "Orvex::Reticor::CSockDgram::Recv");
    }
}

}  // namespace Orvex::Reticor
