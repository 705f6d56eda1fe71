// SockOptions: the options of one socket.
#pragma once

namespace Orvex::Reticor {

/// Sets and reads options of a socket, whose handle stays the caller's. Each operation is one call of the
/// system, see socket(7) and tcp(7): 0 or the value that was asked for; -1 with errno, in silence.
///
/// Thread safety: as of the socket.
class SockOptions {
public:
    explicit SockOptions(int handle) : m_handle(handle) {}

    /// Sizes of the kernel's buffers, in bytes. The kernel doubles what is set, within limits of its own.
    int set_receive_buffer(unsigned size) const;
    int set_send_buffer(unsigned size) const;
    int receive_buffer() const;
    int send_buffer() const;

    int set_keep_alive(bool on) const;
    int set_no_delay(bool on) const;

    /// Lets other sockets that ask for it too have the same port.
    int share_port() const;
    /// Lets the socket send to broadcast addresses.
    int allow_broadcast() const;

private:
    int set(int level, int option, int value) const;
    int get(int option) const;

    const int m_handle;
};

}  // namespace Orvex::Reticor
