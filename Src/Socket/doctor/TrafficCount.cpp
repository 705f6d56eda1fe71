// TrafficCount: a filter in the kernel passes on the headers of UDP datagrams to groups.
#include "Socket/doctor/TrafficCount.h"

#include <linux/filter.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>

#include <Infra/Time.h>

#include "Socket/socket/CloseCount.h"

namespace Orvex::Reticor {

namespace {

// Enough for the longest IPv4 header and that of UDP.
constexpr size_t HEADERS = 96;

// The same that GroupDatagram::parse looks for.
int set_filter(int handle) {
    sock_filter program[] = {
        BPF_STMT(BPF_LD | BPF_H | BPF_ABS, static_cast<uint32_t>(SKF_AD_OFF + SKF_AD_PROTOCOL)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, ETH_P_IP, 0, 5),
        BPF_STMT(BPF_LD | BPF_B | BPF_ABS, 16),
        BPF_STMT(BPF_ALU | BPF_AND | BPF_K, 0xF0),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, 0xE0, 0, 8),
        BPF_STMT(BPF_LD | BPF_B | BPF_ABS, 9),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, IPPROTO_UDP, 5, 6),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, ETH_P_IPV6, 0, 5),
        BPF_STMT(BPF_LD | BPF_B | BPF_ABS, 24),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, 0xFF, 0, 3),
        BPF_STMT(BPF_LD | BPF_B | BPF_ABS, 6),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, IPPROTO_UDP, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, HEADERS),
        BPF_STMT(BPF_RET | BPF_K, 0),
    };
    const sock_fprog filter{sizeof program / sizeof program[0], program};
    return ::setsockopt(handle, SOL_SOCKET, SO_ATTACH_FILTER, &filter, sizeof filter);
}

// Begins to hear only when the filter is there.
int open_listener() {
    const int handle = ::socket(AF_PACKET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (handle == -1) {
        return -1;
    }
    const int room = 8 << 20;
    if (::setsockopt(handle, SOL_SOCKET, SO_RCVBUFFORCE, &room, sizeof room) == -1) {
        ::setsockopt(handle, SOL_SOCKET, SO_RCVBUF, &room, sizeof room);
    }
    sockaddr_ll all{};
    all.sll_family = AF_PACKET;
    all.sll_protocol = htons(ETH_P_ALL);
    if (set_filter(handle) == -1 ||
        ::bind(handle, reinterpret_cast<const sockaddr*>(&all), sizeof all) == -1) {
        const int error = errno;
        close_counted(handle);
        errno = error;
        return -1;
    }
    return handle;
}

struct Listener {
    int handle;
    ~Listener() { close_counted(handle); }
};

}  // namespace

void TrafficCount::add(int interface_index, bool outgoing, const GroupDatagram& datagram) {
    const auto key = std::make_tuple(interface_index, datagram.group, datagram.port);
    auto row = m_rows.find(key);
    if (row == m_rows.end()) {
        if (m_rows.size() >= MOST_ROWS) {
            ++m_uncounted;
            return;
        }
        row = m_rows.emplace(key, TrafficFacts{}).first;
        row->second.interface_index = interface_index;
        row->second.port = datagram.port;
        row->second.address = datagram.group;
        datagram.group.write(row->second.group, sizeof row->second.group);
    }
    if (outgoing) {
        ++row->second.sent;
    } else {
        ++row->second.datagrams;
        row->second.bytes += datagram.bytes;
        datagram.source.write(row->second.source, sizeof row->second.source);
    }
}

void TrafficCount::take_waiting(int handle) {
    unsigned char packet[HEADERS];
    sockaddr_ll from{};
    // Not for ever, so that the time is looked at in a flood too.
    for (int taken = 0; taken < 1024; ++taken) {
        socklen_t size = sizeof from;
        const ssize_t got =
            ::recvfrom(handle, packet, sizeof packet, 0, reinterpret_cast<sockaddr*>(&from), &size);
        if (got < 0) {
            return;
        }
        const std::optional<GroupDatagram> datagram =
            GroupDatagram::parse(packet, static_cast<size_t>(got), ntohs(from.sll_protocol));
        if (datagram) {
            add(from.sll_ifindex, from.sll_pkttype == PACKET_OUTGOING, *datagram);
        }
    }
}

int TrafficCount::run(unsigned listen_ms) {
    const int handle = open_listener();
    if (handle == -1) {
        return errno;
    }
    const Listener listener{handle};
    const uint64_t end_us = Infra::CTime::getCurrentMicroSecond() + uint64_t{listen_ms} * 1000;
    for (uint64_t now_us = 0; (now_us = Infra::CTime::getCurrentMicroSecond()) < end_us;) {
        pollfd waiting{handle, POLLIN, 0};
        ::poll(&waiting, 1, static_cast<int>((end_us - now_us + 999) / 1000));
        take_waiting(handle);
    }
    tpacket_stats kernel{};
    socklen_t size = sizeof kernel;
    if (::getsockopt(handle, SOL_PACKET, PACKET_STATISTICS, &kernel, &size) == 0) {
        m_uncounted += kernel.tp_drops;
    }
    return 0;
}

std::vector<TrafficFacts> TrafficCount::rows() const {
    std::vector<TrafficFacts> all;
    all.reserve(m_rows.size());
    for (const auto& row : m_rows) {
        all.push_back(row.second);
    }
    return all;
}

}  // namespace Orvex::Reticor
