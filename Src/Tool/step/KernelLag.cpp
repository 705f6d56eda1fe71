// KernelLag: the rate, and the socket option.
#include "Tool/step/KernelLag.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <algorithm>

#include <Reticor/Sock.h>

namespace Orvex::Reticor {

uint32_t KernelLag::bound() const {
    const uint64_t bytes = m_rate * Infra::relaxedLoad(m_limit_ms) / 1000;
    return on() ? static_cast<uint32_t>(std::clamp<uint64_t>(bytes, LEAST_BYTES, MOST_BYTES)) : 0;
}

bool KernelLag::note_full(uint64_t now_us, uint64_t bytes_before, uint64_t bytes_now) {
    // Nobody has written since: the socket had something to send all the time.
    if (m_full_us != 0 && m_full_bytes == bytes_before) {
        m_window_us += now_us - m_full_us;
        m_window_bytes += bytes_now - bytes_before;
    }
    m_full_us = now_us;
    m_full_bytes = bytes_now;
    if (m_window_us >= WINDOW_US) {
        const uint64_t rate = m_window_bytes * 1000000 / m_window_us;
        m_rate = m_rate == 0 ? rate : (3 * m_rate + rate) / 4;
        m_window_us = 0;
        m_window_bytes = 0;
    }
    if (Infra::relaxedLoad(m_is_new)) {
        Infra::relaxedStore(m_is_new, false);
        m_set = 0;
    }
    const uint32_t wanted = bound();
    const uint32_t change = std::max(wanted, m_set) - std::min(wanted, m_set);
    if (change <= m_set / 8) {
        return false;
    }
    m_set = wanted;
    return true;
}

void KernelLag::forget() {
    m_full_us = 0;
    m_window_us = 0;
    m_window_bytes = 0;
    m_rate = 0;
    m_set = 0;
}

void KernelLag::apply(CSock& sock, uint32_t bytes) {
    if (sock.GetType() == SOCK_TYPE_STREAM) {
        ::setsockopt(sock.GetHandle(), IPPROTO_TCP, TCP_NOTSENT_LOWAT, &bytes, sizeof bytes);
    }
}

}  // namespace Orvex::Reticor
