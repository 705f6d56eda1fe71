// KernelLag: how much may lie unsent in a socket, so that it is not more than so many milliseconds.
#pragma once

#include <cstdint>

#include <Infra/Atomic.h>

namespace Orvex::Reticor {

class CSock;

/// Frames that the kernel has taken cannot be stepped over any more. Bounds what the kernel takes beyond what
/// is on its way to the peer (TCP_NOTSENT_LOWAT), by the rate of the link. That rate is what a socket took
/// that was full at both ends of a time: what it takes at other times is the rate of the stream.
///
/// Thread safety: guarded by the lock of the sender's buffer but for what says otherwise.
class KernelLag {
public:
    static constexpr uint32_t LEAST_BYTES = 16 * 1024;
    static constexpr uint32_t MOST_BYTES = 1 << 30;
    /// What one look at the rate is made of.
    static constexpr uint64_t WINDOW_US = 200000;

    /// Milliseconds; 0: the system's own bound. No lock.
    void set_limit(unsigned limit_ms) {
        Infra::relaxedStore(m_limit_ms, limit_ms);
        Infra::relaxedStore(m_is_new, true);
    }
    bool on() const { return Infra::relaxedLoad(m_limit_ms) != 0; }

    /// A turn has ended with the socket full. The bytes are those of all turns before it, and with it. True
    /// if there is another bound now.
    bool note_full(uint64_t now_us, uint64_t bytes_before, uint64_t bytes_now);
    /// Of the socket; 0: the system's.
    uint32_t bound() const;
    /// Bytes in a second; 0: not known yet.
    uint64_t rate() const { return m_rate; }
    /// Another socket: nothing is known of its link.
    void forget();

    /// Sets the bound of a socket, if it is a TCP one.
    static void apply(CSock& sock, uint32_t bytes);

private:
    unsigned m_limit_ms = 0;
    bool m_is_new = false;
    uint64_t m_full_us = 0;     ///< When the socket was full last; 0: not known.
    uint64_t m_full_bytes = 0;  ///< What it had taken then.
    uint64_t m_window_us = 0;
    uint64_t m_window_bytes = 0;
    uint64_t m_rate = 0;
    uint32_t m_set = 0;  ///< The bound that was given last.
};

}  // namespace Orvex::Reticor
