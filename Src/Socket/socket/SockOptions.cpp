// SockOptions: setsockopt and getsockopt.
#include "Socket/socket/SockOptions.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

namespace Orvex::Reticor {

int SockOptions::set(int level, int option, int value) const {
    return ::setsockopt(m_handle, level, option, &value, sizeof value);
}

int SockOptions::get(int option) const {
    int value = 0;
    socklen_t length = sizeof value;
    return ::getsockopt(m_handle, SOL_SOCKET, option, &value, &length) < 0 ? -1 : value;
}

int SockOptions::set_receive_buffer(unsigned size) const {
    return set(SOL_SOCKET, SO_RCVBUF, static_cast<int>(size));
}

int SockOptions::set_send_buffer(unsigned size) const {
    return set(SOL_SOCKET, SO_SNDBUF, static_cast<int>(size));
}

int SockOptions::receive_buffer() const {
    return get(SO_RCVBUF);
}

int SockOptions::send_buffer() const {
    return get(SO_SNDBUF);
}

int SockOptions::set_keep_alive(bool on) const {
    return set(SOL_SOCKET, SO_KEEPALIVE, on ? 1 : 0);
}

int SockOptions::set_no_delay(bool on) const {
    return set(IPPROTO_TCP, TCP_NODELAY, on ? 1 : 0);
}

int SockOptions::share_port() const {
    return set(SOL_SOCKET, SO_REUSEADDR, 1);
}

int SockOptions::allow_broadcast() const {
    return set(SOL_SOCKET, SO_BROADCAST, 1);
}

}  // namespace Orvex::Reticor
