// SocketWriter: one way to write to a socket, whatever its kind.
#pragma once

#include <sys/uio.h>

#include <cstdint>

#include <Reticor/Sock.h>

namespace Orvex::Reticor {

/// CSock has no virtual operations, so whoever writes to a socket of a kind that is known at run time only
/// selects the operation by the type code. This is the one place that does.
///
/// A socket that cannot be written to (an acceptor, a plain CSock) fires an assertion. Results are those of
/// the kind's own operation: the bytes written, 0 if the socket takes nothing now, negative if it failed.
///
/// Thread safety: none; like the socket, it is its user's.
class SocketWriter {
public:
    explicit SocketWriter(CSock& sock) : SocketWriter(sock, sock.GetType()) {}
    /// `type` is what sock.GetType() gave earlier.
    SocketWriter(CSock& sock, uint32_t type) : m_sock(sock), m_type(type) {}

    /// Whether a socket of this type takes a stream of bytes without a handshake of its own.
    static constexpr bool is_byte_stream(uint32_t type) {
        return type == SOCK_TYPE_STREAM || type == SOCK_TYPE_SIMULATOR;
    }

    /// A datagram goes to the peer that was set.
    int send(const char* data, unsigned len) const;
    int write_v(const iovec* vector, int count) const;

private:
    CSock& m_sock;
    const uint32_t m_type;
};

/// What CSockStream::WriteV would have given for a write that was made in another way, with its line if that
/// failed: `result` is the bytes, or the error, negative. errno is then set.
int answer_of_write(CSock& sock, int result);

}  // namespace Orvex::Reticor
