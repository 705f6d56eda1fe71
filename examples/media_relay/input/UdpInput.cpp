// UdpInput: groups, and bursts of datagrams.

#include "media_relay/input/UdpInput.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <array>
#include <cerrno>
#include <cstring>
#include <utility>

#include <Infra/Time.h>
#include <Reticor/SockAddrStorage.h>

namespace relay {

using namespace Orvex::Reticor;
using Orvex::Infra::CGuard;
using Orvex::Infra::CTime;

namespace {

constexpr unsigned kDatagrams = 32;          // in one call of the system
constexpr unsigned kDatagram = 65536;        // bytes; none is longer
constexpr int kBursts = 8;                   // then others have their turn
constexpr unsigned kKernelBuffer = 4 << 20;  // bytes, as far as the system allows it

/// A numeric address.
sockaddr_storage recordOf(const std::string& ip) {
    sockaddr_storage record{};
    CSockAddrStorage(ip.c_str(), 0).GetAddr(reinterpret_cast<sockaddr*>(&record));
    return record;
}

bool isSame(const sockaddr* one, const sockaddr_storage& other) {
    if (one == nullptr || one->sa_family != other.ss_family) {
        return false;
    }
    if (one->sa_family == AF_INET) {
        return reinterpret_cast<const sockaddr_in*>(one)->sin_addr.s_addr ==
               reinterpret_cast<const sockaddr_in&>(other).sin_addr.s_addr;
    }
    return std::memcmp(&reinterpret_cast<const sockaddr_in6*>(one)->sin6_addr,
                       &reinterpret_cast<const sockaddr_in6&>(other).sin6_addr, sizeof(in6_addr)) == 0;
}

/// The number of the interface that has this address; 0 if none has.
unsigned interfaceOf(const std::string& ip) {
    const sockaddr_storage wanted = recordOf(ip);
    ifaddrs* all = nullptr;
    if (getifaddrs(&all) != 0) {
        return 0;
    }
    unsigned found = 0;
    for (const ifaddrs* one = all; one != nullptr && found == 0; one = one->ifa_next) {
        found = isSame(one->ifa_addr, wanted) ? if_nametoindex(one->ifa_name) : 0;
    }
    freeifaddrs(all);
    return found;
}

bool isGroup(const sockaddr_storage& record) {
    return record.ss_family == AF_INET
               ? IN_MULTICAST(ntohl(reinterpret_cast<const sockaddr_in&>(record).sin_addr.s_addr))
               : IN6_IS_ADDR_MULTICAST(&reinterpret_cast<const sockaddr_in6&>(record).sin6_addr);
}

/// With or without a sender that alone is wanted (RFC 3678). 0, or -1 with the reason in errno.
int join(int fd, const sockaddr_storage& group, unsigned interface, const std::string& source) {
    const int level = group.ss_family == AF_INET ? IPPROTO_IP : IPPROTO_IPV6;
    if (source.empty()) {
        group_req request{};
        request.gr_interface = interface;
        request.gr_group = group;
        return setsockopt(fd, level, MCAST_JOIN_GROUP, &request, sizeof request);
    }
    group_source_req request{};
    request.gsr_interface = interface;
    request.gsr_group = group;
    request.gsr_source = recordOf(source);
    return setsockopt(fd, level, MCAST_JOIN_SOURCE_GROUP, &request, sizeof request);
}

}  // namespace

std::string UdpInput::open(const InputUrl& url, std::unique_ptr<CSockDgram>& socket) {
    const sockaddr_storage record = recordOf(url.host);
    const bool group = isGroup(record);
    const unsigned interface = url.interface.empty() ? 0 : interfaceOf(url.interface);
    if (!url.interface.empty() && interface == 0) {
        return "no interface has the address " + url.interface;
    }
    const char* const any = record.ss_family == AF_INET ? "0.0.0.0" : "::";
    const CSockAddrStorage local(group ? any : url.host.c_str(), url.port);
    socket = std::make_unique<CSockDgram>();
    if (socket->Open(&local, group) != 0) {
        return std::strerror(errno);
    }
    if (group && join(socket->GetHandle(), record, interface, url.source) != 0) {
        return "cannot join the group: " + std::string(std::strerror(errno));
    }
    socket->SetSockRecvBuf(kKernelBuffer);
    return "";
}

void UdpInput::Create(Roster& roster, const Setup& setup, const InputUrl& url,
                      std::unique_ptr<CSockDgram> socket) {
    auto* const self = new UdpInput(roster, setup, url, std::move(socket));
    self->begin();
    self->RegisterSock(*self->m_socket, SOCK_READ, 0);
}

UdpInput::UdpInput(Roster& roster, const Setup& setup, const InputUrl& url,
                   std::unique_ptr<CSockDgram> socket)
    : LiveInput(roster, setup,
                std::string("MPEG transport stream by ") + (url.kind == InputUrl::Kind::Rtp ? "RTP" : "UDP")),
      m_rtp(url.kind == InputUrl::Kind::Rtp),
      m_socket(std::move(socket)),
      m_room(new char[size_t{kDatagrams} * kDatagram]) {}

int UdpInput::handle_input(int) {
    CGuard guard(m_mutex);
    std::array<SockReceived, kDatagrams> list;
    for (int burst = 0; burst < kBursts && !m_over; ++burst) {
        for (size_t i = 0; i < list.size(); ++i) {
            list[i].buf = m_room.get() + i * kDatagram;
            list[i].size = kDatagram;
        }
        const int got = m_socket->RecvMany(list.data(), static_cast<int>(list.size()));
        const uint64_t now_us = CTime::getCurrentMicroSecond();
        for (int i = 0; i < got; ++i) {
            const auto* const bytes = reinterpret_cast<const uint8_t*>(list[static_cast<size_t>(i)].buf);
            const size_t size = list[static_cast<size_t>(i)].length;
            if (m_rtp) {
                m_reader.put(bytes, size, now_us,
                             [this](const uint8_t* payload, size_t length)
                                 INFRA_REQUIRES(m_mutex) { take(payload, length); });
            } else {
                take(bytes, size);
            }
        }
        if (got < static_cast<int>(list.size())) {
            break;
        }
    }
    return 0;
}

void UdpInput::leave() {
    RemoveSock(*m_socket);
}

void UdpInput::fill(SourceView& view) {
    view.lostDatagrams = m_reader.lost();
    view.lateDatagrams = m_reader.late();
    view.badDatagrams = m_reader.bad();
}

}  // namespace relay
