// TsClock: the clock of a transport stream, and how a loop is made of a stream that ends.
#pragma once

#include <array>
#include <cstdint>

#include "media_relay/TsPacket.h"

namespace relay {

/// Media time by the clock of the programme (PCR). It begins near 0 and never goes back: where the clock
/// wraps (every 26.5 hours) it goes on, and where the clock jumps it goes on as if by the step before.
class PcrClock {
public:
    /// The time at a packet with this clock value, in microseconds, at least 1. `jump`: the stream itself
    /// says that the clock begins anew here.
    uint64_t at(uint64_t pcr, bool jump);

    uint64_t time_us() const { return 1 + m_ticks / 27; }
    bool isRunning() const { return m_running; }
    uint64_t jumps() const { return m_jumps; }

    /// The last step that was none of a jump, in ticks of 27 MHz.
    uint64_t step() const { return m_step; }

private:
    bool m_running = false;
    uint64_t m_last = 0;
    uint64_t m_ticks = 0;
    uint64_t m_step = 0;
    uint64_t m_jumps = 0;
};

/// Makes one stream of the same stream played again and again: its clock, its time stamps and its continuity
/// counters go on where the last round ended, so that no player sees a seam.
class TsLoop {
public:
    TsLoop() { m_lastCounter.fill(kNone); }

    /// The next packet is the first one again. `step` is the time from the last clock value of the round that
    /// ended to the first one of the next, in ticks of 27 MHz.
    void again(uint64_t step);

    /// Changes a sound packet in place. `isClock`: it carries the programme's clock.
    void apply(uint8_t* bytes, bool isClock);

private:
    static constexpr uint8_t kNone = 0xFF;

    void countOn(uint8_t* bytes, const TsPacket& packet);
    void shiftClock(uint8_t* bytes, const TsPacket& packet) const;
    void shiftStamps(uint8_t* bytes, const TsPacket& packet) const;

    bool m_looped = false;
    bool m_hasFirst = false;
    uint64_t m_first = 0;  // clock value at the beginning of the input
    uint64_t m_last = 0;   // the last one that was put out
    uint64_t m_shift = 0;  // added to all of the present round
    uint32_t m_round = 0;
    std::array<uint8_t, kTsPids> m_lastCounter{};
    std::array<uint8_t, kTsPids> m_counterShift{};
    std::array<uint32_t, kTsPids> m_counterRound{};  // in which the shift was found
};

}  // namespace relay
