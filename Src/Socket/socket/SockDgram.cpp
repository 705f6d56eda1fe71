// UDP sockets: opening, peers, datagrams. Groups are in DgramGroups, options in SockOptions, gathering in
// DgramGather.
#include <Reticor/SockDgram.h>

#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <memory>
#include <new>

#include <Infra/Log.h>
#include <Reticor/SockAddrIPv4.h>
#include <Reticor/SockAddrIPv6.h>
#include <Reticor/SockAddrStorage.h>

#include "Socket/address/IpLiteral.h"
#include "Socket/address/SockAddrRecord.h"
#include "Socket/address/SockError.h"
#include "Socket/socket/DgramBatch.h"
#include "Socket/socket/DgramGather.h"
#include "Socket/socket/DgramGroups.h"
#include "Socket/socket/DgramSegments.h"
#include "Socket/socket/SockOptions.h"

namespace Orvex::Reticor {

namespace {

// The port that the address tells. A storage address can hold another one in its record.
unsigned short port_of(const CSockAddr& addr) {
    switch (addr.GetType()) {
        case SOCKADDR_TYPE_IPV4:
            return static_cast<const CSockAddrIPv4&>(addr).GetPort();
        case SOCKADDR_TYPE_IPV6:
            return static_cast<const CSockAddrIPv6&>(addr).GetPort();
        default:
            return static_cast<const CSockAddrStorage&>(addr).GetPort();
    }
}

// A new address of the record's family; null if it has none, or there is no memory.
std::unique_ptr<CSockAddr> make_addr(const SockAddrRecord& record) {
    switch (record.type) {
        case SOCKADDR_TYPE_IPV4:
            return std::unique_ptr<CSockAddr>(new (std::nothrow) CSockAddrIPv4(record.ipv4()));
        case SOCKADDR_TYPE_IPV6:
            return std::unique_ptr<CSockAddr>(new (std::nothrow) CSockAddrIPv6(&record.ipv6()));
        default:
            return nullptr;
    }
}

// Stores the sender's address. False if it is an IPv6 one that the class cannot take.
bool store_sender(const sockaddr_in6& from, CSockAddr& remote) {
    const auto& ipv4 = reinterpret_cast<const sockaddr_in&>(from);
    if (remote.GetType() == SOCKADDR_TYPE_IPV6) {
        static_cast<CSockAddrIPv6&>(remote).SetAddr(&from);
    } else if (remote.GetType() == SOCKADDR_TYPE_STORAGE) {
        static_cast<CSockAddrStorage&>(remote).SetAddr(&ipv4);
    } else if (from.sin6_family == AF_INET) {
        static_cast<CSockAddrIPv4&>(remote).SetIp(ntohl(ipv4.sin_addr.s_addr));
        static_cast<CSockAddrIPv4&>(remote).SetPort(ntohs(ipv4.sin_port));
    } else {
        return false;
    }
    return true;
}

bool is_known_type(const CSockAddr& addr) {
    return addr.GetType() >= SOCKADDR_TYPE_IPV4 && addr.GetType() <= SOCKADDR_TYPE_STORAGE;
}

bool can_receive(const SockReceived& entry) {
    return entry.buf != nullptr && entry.size != 0 &&
           (entry.remote == nullptr || is_known_type(*entry.remote));
}

// The address to bind to: the wildcard for a group, else the record's; with the port given.
SockAddrRecord bind_record(const SockAddrRecord& record, unsigned short port) {
    SockAddrRecord own = record;
    // The port stands at the same place in both families.
    auto& ipv4 = reinterpret_cast<sockaddr_in&>(own.storage);
    if (record.is_group()) {
        own.storage = {};
        own.storage.ss_family = static_cast<sa_family_t>(record.family());
    }
    ipv4.sin_port = htons(port);
    return own;
}

}  // namespace

/// What a socket holds besides its handle.
struct CSockDgram::Record {
    std::unique_ptr<CSockAddr> m_remote_addr;  ///< The peer set by SetRemote, of its family's class, or null.
    DgramGroups m_groups;
    DgramSegments m_segments;
    bool m_is_ipv4 = true;        ///< Family of the socket.
    bool m_is_connected = false;  ///< To m_remote_addr, so that datagrams for it need no address.

    struct Target;

    /// `remote`, or if that is null the peer that was set; null if none was.
    static const CSockAddr* peer_of(const Record* record, const CSockAddr* remote) {
        return remote != nullptr || record == nullptr ? remote : record->m_remote_addr.get();
    }
    /// Why nothing can be sent to `peer`; null if something can.
    static const char* fault_of(const CSockAddr* peer) {
        return peer == nullptr ? "null" : peer->IsValid() ? nullptr : "invalid";
    }
};

/// Where the datagrams of a list go.
struct CSockDgram::Record::Target {
    Target(const Record* record, const CSockAddr* remote)
        : fault(Record::fault_of(Record::peer_of(record, remote))),
          is_connected(remote == nullptr && record != nullptr && record->m_is_connected),
          to(fault == nullptr ? SockAddrRecord(*Record::peer_of(record, remote)) : SockAddrRecord()) {}

    /// Null: the connected peer, who needs no address.
    const SockAddrRecord* name() const { return is_connected ? nullptr : &to; }

    const char* const fault;  ///< Why nothing can be sent there; null if something can.
    const bool is_connected;
    const SockAddrRecord to;
};

CSockDgram::CSockDgram() : CSock(-1, SOCK_TYPE_DGRAM), m_record(new (std::nothrow) Record()) {
    if (!m_record) {
        INFRA_LOG(2, "no memory for a socket!\n");
    }
}

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
    }
    m_record->m_remote_addr.reset();
    m_record->m_is_connected = false;
    m_record->m_groups.forget();
    m_record->m_segments.forget();
    m_record->m_is_ipv4 = addr == nullptr || SockAddrRecord::family_type_of(*addr) == SOCKADDR_TYPE_IPV4;
    m_handle = ::socket(m_record->m_is_ipv4 ? AF_INET : AF_INET6, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (m_handle < 0) {
        return SOCK_FAILED("create socket failed, %s\n.");
    }
    if (set_block_opt() == -1) {
        return -1;
    }
    DgramGroups::receive_joined_only(m_handle, m_record->m_is_ipv4);
    if (addr == nullptr) {
        return 0;
    }
    const SockAddrRecord record(*addr);
    if (!record.has_family()) {
        // Such an address has no text either, and nothing has that name. The look-up says so in its own line.
        return CSockAddrIPv6().SetIp("");
    }
    const SockAddrRecord own = bind_record(record, port_of(*addr));
    if (reuseaddr && own.port() != 0 && SockOptions(m_handle).share_port() == -1) {
        return SOCK_FAILED("set reuseaddr failed!, %s\n");
    }
    if (::bind(m_handle, own.get(), own.length) == -1) {
        return SOCK_FAILED_WITH("bind failed! This port is %d %s\n", own.port());
    }
    if (!record.is_group() || m_record->m_groups.join(m_handle, record) == 0) {
        return 0;
    }
    return record.is_ipv4() ? SOCK_FAILED("IP_ADD_MEMBERSHIP failed, %s\n")
                            : SOCK_FAILED("IPV6_JOIN_GROUP failed, %s\n");
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
    m_record->m_is_connected = false;
    sockaddr_storage probe;
    if (remote->GetAddr(reinterpret_cast<sockaddr*>(&probe)) == nullptr) {
        INFRA_LOG(2, "%s : invalid remote addresst type!\n", INFRA_FUNCTION);
        return -1;
    }
    const SockAddrRecord record(*remote);
    m_record->m_remote_addr = make_addr(record);
    const bool broadcast = record.looks_like_broadcast();
    if (broadcast && SockOptions(m_handle).allow_broadcast() == -1) {
        return SOCK_FAILED_WITH("set SO_BROADCAST failed,errno:%d, errmsg %s\n", errno);
    }
    if (!m_record->m_remote_addr) {
        INFRA_LOG(2, "%s : CSockDgram::SetRemote error!\n", INFRA_FUNCTION);
        return -1;
    }
    if (broadcast || record.is_group()) {
        return 0;
    }
    if (::connect(m_handle, record.get(), record.length) == -1 && errno != EINPROGRESS &&
        errno != EWOULDBLOCK) {
        const int error = errno;
        const int result = SOCK_FAILED("connect faield! %s\n");
        Close();
        errno = error;
        return result;
    }
    m_record->m_is_connected = true;
    return 0;
}

int CSockDgram::Send(const char* buf, unsigned len, const CSockAddr* remote) {
    if (buf == nullptr || len == 0) {
        INFRA_LOG(2, "%s : send to failed! Invalid parameter: buf:%p, len:%u \n", INFRA_FUNCTION,
                  static_cast<const void*>(buf), len);
        return -1;
    }
    remote = Record::peer_of(m_record.get(), remote);
    if (const char* const fault = Record::fault_of(remote)) {
        INFRA_LOG(2, "%s : send to failed! remote is %s \n", INFRA_FUNCTION, fault);
        return -1;
    }
    const SockAddrRecord record(*remote);
    const ssize_t sent = ::sendto(m_handle, buf, len, MSG_NOSIGNAL, record.get(), record.length);
    if (sent >= 0) {
        return static_cast<int>(sent);
    }
    return is_try_again(errno) ? 0 : SOCK_FAILED("send to failed! %s\n");
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
    return is_try_again(errno) ? 0 : SOCK_FAILED("send failed! %s\n");
}

int CSockDgram::SendSegments(const struct iovec* vector, int count, unsigned segment,
                             const CSockAddr* remote) {
    constexpr unsigned LONGEST = 65527;
    if (!m_record) {
        return fail_with(ENOMEM);
    }
    const bool any = vector != nullptr && std::any_of(vector, vector + std::max(count, 0),
                                                      [](const iovec& piece) { return piece.iov_len != 0; });
    if (!any || segment == 0 || segment > LONGEST) {
        INFRA_LOG(2, "%s : SendSegments failed! Invalid parameter: vector:%p, count:%d, segment:%u \n",
                  INFRA_FUNCTION, static_cast<const void*>(vector), count, segment);
        return -1;
    }
    const Record::Target target(m_record.get(), remote);
    if (target.fault != nullptr) {
        INFRA_LOG(2, "%s : send to failed! remote is %s \n", INFRA_FUNCTION, target.fault);
        return -1;
    }
    const ssize_t sent =
        m_record->m_segments.send(m_handle, target.name(), vector, static_cast<size_t>(count), segment);
    if (sent >= 0) {
        return static_cast<int>(sent);
    }
    return is_try_again(errno) ? 0 : SOCK_FAILED("send failed! %s\n");
}

int CSockDgram::SendMany(const struct iovec* datagrams, int count, const CSockAddr* remote) {
    const int wanted = std::min(count, static_cast<int>(MOST_MESSAGES));
    const bool good =
        datagrams != nullptr && wanted > 0 &&
        std::all_of(datagrams, datagrams + wanted, [](const iovec& one) { return one.iov_len != 0; });
    if (!good) {
        INFRA_LOG(2, "%s : send to failed! Invalid parameter: datagrams:%p, count:%d \n", INFRA_FUNCTION,
                  static_cast<const void*>(datagrams), count);
        return -1;
    }
    const Record::Target target(m_record.get(), remote);
    if (target.fault != nullptr) {
        INFRA_LOG(2, "%s : send to failed! remote is %s \n", INFRA_FUNCTION, target.fault);
        return -1;
    }
    std::array<mmsghdr, MOST_MESSAGES> messages;
    for (int i = 0; i < wanted; ++i) {
        messages[static_cast<size_t>(i)] = {};
        msghdr& message = messages[static_cast<size_t>(i)].msg_hdr;
        if (const SockAddrRecord* const to = target.name()) {
            message.msg_name = const_cast<sockaddr*>(to->get());
            message.msg_namelen = to->length;
        }
        message.msg_iov = const_cast<iovec*>(&datagrams[i]);
        message.msg_iovlen = 1;
    }
    const ssize_t sent = send_messages(m_handle, messages.data(), static_cast<size_t>(wanted));
    if (sent >= 0) {
        return static_cast<int>(sent);
    }
    return is_try_again(errno) ? 0 : SOCK_FAILED("send to failed! %s\n");
}

int CSockDgram::Recv(char* buf, unsigned len, CSockAddr* remote) {
    if (buf == nullptr || len == 0) {
        INFRA_LOG(2, "%s : recv failed! invalid parameter: buf:%p, len:%u \n", INFRA_FUNCTION,
                  static_cast<const void*>(buf), len);
        return -1;
    }
    if (remote != nullptr && !is_known_type(*remote)) {
        INFRA_LOG(2, "%s : recv failed! invalid parameter,remote type:%u \n", INFRA_FUNCTION,
                  remote->GetType());
        return -1;
    }
    sockaddr_in6 from{};
    socklen_t length = sizeof from;
    const ssize_t received = ::recvfrom(m_handle, buf, len, 0, reinterpret_cast<sockaddr*>(&from), &length);
    if (received < 0) {
        // 11 is EAGAIN here, which is_try_again knows by its other name where the two differ.
        return is_try_again(errno) || errno == 11 ? 0 : SOCK_FAILED("recv from failed! %s\n");
    }
    if (received > 0 && remote != nullptr && !store_sender(from, *remote)) {
        INFRA_LOG(2, "%s : a ipv6 address can not put into CSockAddrIPv4!\n", INFRA_FUNCTION);
    }
    return static_cast<int>(received);
}

int CSockDgram::RecvMany(SockReceived* list, int count) {
    const int wanted = std::min(count, static_cast<int>(MOST_MESSAGES));
    const bool good = list != nullptr && wanted > 0 && std::all_of(list, list + wanted, can_receive);
    if (!good) {
        INFRA_LOG(2, "%s : recv failed! invalid parameter: list:%p, count:%d \n", INFRA_FUNCTION,
                  static_cast<void*>(list), count);
        return -1;
    }
    std::array<sockaddr_in6, MOST_MESSAGES> from;
    const ssize_t received = receive_messages(m_handle, list, from.data(), static_cast<size_t>(wanted));
    if (received < 0) {
        return is_try_again(errno) ? 0 : SOCK_FAILED("recv from failed! %s\n");
    }
    for (ssize_t i = 0; i < received; ++i) {
        if (list[i].remote != nullptr && !store_sender(from[static_cast<size_t>(i)], *list[i].remote)) {
            INFRA_LOG(2, "%s : a ipv6 address can not put into CSockAddrIPv4!\n", INFRA_FUNCTION);
        }
    }
    return static_cast<int>(received);
}

int CSockDgram::SetJoinReceived(bool on) {
    return set_joining(m_handle, on) == -1 ? SOCK_FAILED("UDP_GRO failed, %s\n") : 0;
}

int CSockDgram::SetMulticastIF(unsigned ip) {
    if (!m_record || !m_record->m_groups.joined()) {
        return -1;
    }
    switch (m_record->m_groups.move_to(m_handle, ip)) {
        case DgramGroups::Step::drop:
            return SOCK_FAILED_WITH("IP_DROP_MEMBERSHIP failed,errno:%d, errmsg %s\n", errno);
        case DgramGroups::Step::add:
            return SOCK_FAILED("IP_ADD_MEMBERSHIP failed, %s\n");
        case DgramGroups::Step::send_through:
            return SOCK_FAILED("IP_MULTICAST_IF failed, %s\n");
        case DgramGroups::Step::done:
            break;
    }
    return 0;
}

int CSockDgram::SetMulticastIF(const char* ip) {
    if (ip == nullptr || !m_record || !m_record->m_groups.joined()) {
        return -1;
    }
    if (!m_record->m_groups.is_ipv4()) {
        return DgramGroups::send_through_default(m_handle) == -1
                   ? SOCK_FAILED("IPV6_MULTICAST_IF faied, %s\n")
                   : 0;
    }
    in_addr address{};
    if (!parse_ipv4_literal(ip, address)) {
        errno = EINVAL;
        return SOCK_FAILED("inet_pton failed,, %s\n");
    }
    return SetMulticastIF(ntohl(address.s_addr));
}

int CSockDgram::SetMulticastTTL(unsigned char ttl) {
    const bool is_ipv4 = !m_record || m_record->m_is_ipv4;
    if (DgramGroups::set_hops(m_handle, is_ipv4, ttl) == 0) {
        return 0;
    }
    return is_ipv4 ? SOCK_FAILED("IP_MULTICAST_TTL failed, %s\n")
                   : SOCK_FAILED("IP_MULTICAST_HOPS failed, %s\n");
}

int CSockDgram::SetMulticastLoop(bool on) {
    if (!m_record || !m_record->m_groups.joined()) {
        INFRA_LOG(2, "%s : IP_MULTICAST_LOOP failed, multicast addr:%p\n", INFRA_FUNCTION,
                  static_cast<void*>(nullptr));
        return -1;
    }
    const DgramGroups& groups = m_record->m_groups;
    if (groups.set_loop(m_handle, on) == 0) {
        return 0;
    }
    return groups.is_ipv4() ? SOCK_FAILED("IP_MULTICAST_LOOP failed, %s\n")
                            : SOCK_FAILED("IPV6_MULTICAST_LOOP failed, %s\n");
}

int CSockDgram::SetSockRecvBuf(unsigned size) {
    const int result = SockOptions(m_handle).set_receive_buffer(size);
    return result < 0 ? SOCK_FAILED("setsockopt failed! %s\n") : result;
}

int CSockDgram::SetSockSendBuf(unsigned size) {
    const int result = SockOptions(m_handle).set_send_buffer(size);
    return result < 0 ? SOCK_FAILED("setsockopt failed! %s\n") : result;
}

int CSockDgram::GetSockRecvBuf() {
    const int size = SockOptions(m_handle).receive_buffer();
    return size < 0 ? SOCK_FAILED("getsockopt failed! %s\n") : size;
}

int CSockDgram::GetSockSendBuf() {
    const int size = SockOptions(m_handle).send_buffer();
    return size < 0 ? SOCK_FAILED("getsockopt failed! %s\n") : size;
}

}  // namespace Orvex::Reticor
