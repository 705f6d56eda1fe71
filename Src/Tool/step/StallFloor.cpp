// StallFloor: times without enough bytes.
#include "Tool/step/StallFloor.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <Reticor/Sock.h>

namespace Orvex::Reticor {

namespace {

/// What the kernel fills in. The C library's part of it ends before the last field.
struct LongTcpInfo {
    tcp_info known;
    uint64_t pacing_rate;
    uint64_t max_pacing_rate;
    uint64_t bytes_acked;
};

}  // namespace

bool StallFloor::look(uint64_t blocked_us, uint64_t now_us, uint64_t timeout_us, uint64_t acknowledged) {
    if (blocked_us != m_blocked_us) {
        m_blocked_us = blocked_us;
        m_since_us = now_us;
        m_acknowledged = acknowledged;
    } else if (acknowledged - m_acknowledged >= Infra::relaxedLoad(m_bytes)) {
        m_since_us = now_us;
        m_acknowledged = acknowledged;
    }
    return now_us - m_since_us >= timeout_us;
}

uint64_t StallFloor::acknowledged(CSock& sock, uint64_t written) {
    LongTcpInfo info{};
    socklen_t size = sizeof info;
    const bool tcp = sock.GetType() == SOCK_TYPE_STREAM &&
                     ::getsockopt(sock.GetHandle(), IPPROTO_TCP, TCP_INFO, &info, &size) == 0;
    return tcp && size >= sizeof info ? info.bytes_acked : written;
}

}  // namespace Orvex::Reticor
