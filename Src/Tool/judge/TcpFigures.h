// TcpFigures: what the kernel tells of a TCP connection.
#pragma once

#include <cstddef>
#include <cstdint>

namespace Orvex::Reticor {

/// TCP_INFO, by the layout of the kernel's interface and not by the C library's structure, which ends early.
/// A field that the kernel does not have yet is 0. `delivery_rate`, `sndbuf_limited` and `backoff` are left
/// out: they mislead about senders that have little to send.
struct TcpFigures {
    bool known = false;         ///< It is a TCP connection, and the kernel knows what was acknowledged.
    bool limits_known = false;  ///< busy_us and closed_us are.
    bool window_known = false;  ///< window is.
    uint32_t mss = 0;           ///< Bytes in a segment.
    uint32_t unacked = 0;       ///< Segments under way.
    uint32_t rtt_us = 0;
    uint32_t congestion_window = 0;  ///< Segments.
    uint32_t retransmitted = 0;      ///< Segments, ever.
    uint32_t segments = 0;           ///< Segments with data, ever, those that were sent again included.
    uint32_t unsent = 0;             ///< Bytes.
    uint32_t window = 0;             ///< Bytes that the peer has room for.
    uint64_t acked = 0;              ///< Bytes, ever.
    uint64_t under_way = 0;          ///< Bytes.
    uint64_t busy_us = 0;            ///< Ever: there was something to send,
    uint64_t closed_us = 0;          ///< and the peer's window did not let it go.

    /// Asks the kernel. Not known of another socket.
    static TcpFigures ask(int handle);
    /// Of the first `size` bytes of the kernel's answer.
    static TcpFigures read(const unsigned char* bytes, size_t size);
};

}  // namespace Orvex::Reticor
