// StallFloor: how little a peer may acknowledge in a time-out before it counts as stalled.
#pragma once

#include <cstdint>

#include <Infra/Atomic.h>

namespace Orvex::Reticor {

class CSock;

/// A peer that reads slowly, but steadily, is not one that has gone. Looked at when a write finds no room.
///
/// Thread safety: guarded by the lock of the sender's buffer but for what says otherwise.
class StallFloor {
public:
    /// Bytes; 0: there is none. No lock.
    void set_bytes(unsigned bytes) { Infra::relaxedStore(m_bytes, bytes); }
    bool on() const { return Infra::relaxedLoad(m_bytes) != 0; }

    /// Takes note of what is acknowledged by now, and tells whether for so long it was less than allowed.
    /// `blocked_us`: since when the socket
    /// has had no room, without a whole frame between; a new time begins with that.
    bool look(uint64_t blocked_us, uint64_t now_us, uint64_t timeout_us, uint64_t acknowledged);

    /// What the peer has acknowledged, if it is a TCP socket; else what was written.
    static uint64_t acknowledged(CSock& sock, uint64_t written);

private:
    unsigned m_bytes = 0;
    uint64_t m_blocked_us = 0;  ///< Of the time that is looked at.
    uint64_t m_since_us = 0;    ///< When it reached the floor last.
    uint64_t m_acknowledged = 0;
};

}  // namespace Orvex::Reticor
