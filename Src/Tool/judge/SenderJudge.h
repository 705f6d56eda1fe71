// SenderJudge: what holds a sender up, from what it and its socket have counted.
#pragma once

#include <cstddef>
#include <cstdint>

#include <Reticor/MediaVerdicts.h>

#include "Tool/judge/TcpFigures.h"

namespace Orvex::Reticor {

/// What was counted by one moment. Sums only rise.
struct SenderReading {
    uint64_t now_us = 0;
    uint64_t produced = 0;    ///< Bytes of its channels, ever.
    uint64_t written = 0;     ///< Bytes that its socket took, ever.
    uint64_t blocked_us = 0;  ///< For how long the socket was full, ever.
    uint64_t backlog = 0;     ///< Bytes that it has not written yet.
    bool joined = false;      ///< It has a place in the stream.
    TcpFigures tcp;

    /// Bytes that have come to the peer; of another socket than a TCP one, that were written.
    uint64_t taken() const { return tcp.known ? tcp.acked : written; }
    /// Bytes that the kernel holds, sent or not.
    uint64_t in_kernel() const { return tcp.known ? tcp.under_way + tcp.unsent : 0; }
};

/// Keeps the changes of ten times and judges by the newest two: one that has just begun to suffer shows
/// soon. Another verdict comes when two answers in a row agree, since the first answer after a change is
/// often wrong: a stall begins like a slow reader, and a dead network like a slow one.
///
/// The shares by which is judged were fitted to measured connections, with two kinds of congestion control.
class SenderJudge {
public:
    static constexpr size_t SLOTS = 10;
    /// The least that lies in the kernel of one that keeps up, whatever its stream.
    static constexpr uint64_t ALWAYS_FINE = 64 * 1024;

    /// What came between readings.
    struct Sums {
        uint64_t time_us = 0;
        uint64_t produced = 0;
        uint64_t taken = 0;
        uint64_t blocked_us = 0;
        uint64_t busy_us = 0;
        uint64_t closed_us = 0;
        uint64_t segments = 0;
        uint64_t retransmitted = 0;

        /// Bytes in a second.
        static uint64_t rate(uint64_t bytes, uint64_t time_us) {
            return time_us != 0 ? bytes * 1000000 / time_us : 0;
        }
    };

    /// Whether it is time for another reading.
    bool is_due(uint64_t now_us, uint64_t window_us) const {
        return m_last.now_us == 0 || now_us - m_last.now_us >= window_us / SLOTS;
    }
    /// A reading that does not go on from the one before, as that of another socket, begins anew.
    void add(const SenderReading& reading, uint64_t window_us);

    SenderVerdictKind kind() const { return m_kind; }
    const SenderReading& last() const { return m_last; }
    /// Of the time for which the verdict has held.
    Sums held() const;
    /// Of the newest changes that make `least_us`, or of all.
    Sums newest(uint64_t least_us) const;
    /// For how long nothing was taken though something waits.
    uint64_t quiet_us(uint64_t now_us) const;

private:
    /// One time. What does not fit is as much as fits.
    struct Slot {
        uint32_t time_us;
        uint32_t produced;
        uint32_t taken;
        uint32_t blocked_us;
        uint32_t busy_us;
        uint32_t closed_us;
        uint32_t segments;
        uint32_t retransmitted;
    };

    const Slot& slot(size_t age) const { return m_slots[(m_next + SLOTS - 1 - age) % SLOTS]; }
    void put(const SenderReading& reading);
    void settle(SenderVerdictKind answer);
    Sums sum(size_t count) const;
    SenderVerdictKind judge(uint64_t window_us) const;
    bool is_pause() const;
    bool is_burst(const Sums& now) const;

    SenderReading m_last;
    uint64_t m_moved_us = 0;  ///< When something was taken last, or nothing waited.
    Slot m_slots[SLOTS] = {};
    size_t m_next = 0;
    size_t m_count = 0;
    size_t m_held = 0;   ///< Times for which the verdict has held.
    size_t m_tried = 0;  ///< And the answer that is not the verdict yet.
    SenderVerdictKind m_kind = SenderVerdictKind::UNKNOWN;
    SenderVerdictKind m_answer = SenderVerdictKind::UNKNOWN;
};

}  // namespace Orvex::Reticor
