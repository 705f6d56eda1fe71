// TsClock: the clock of a transport stream, and how a loop is made of a stream that ends.
#pragma once

#include <array>
#include <cstdint>
#include <map>

#include "media_relay/mpegts/TsPacket.h"

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

private:
    bool m_running = false;
    uint64_t m_last = 0;
    uint64_t m_ticks = 0;
    uint64_t m_step = 0;  // the last one that was none of a jump
    uint64_t m_jumps = 0;
};

/// Makes one stream of the same stream played again and again: its clock, its time stamps and its continuity
/// counters go on where the last round ended, so that no player sees a seam.
class TsLoop {
public:
    TsLoop() { m_lastCounter.fill(kNone); }

    /// The next packet is the first one again. The stream goes on when its longest part has ended: pictures
    /// last as long as the one before them, and a piece of sound by its share of bytes.
    void again();

    /// Changes a sound packet in place. `isClock`: it carries the programme's clock.
    void apply(uint8_t* bytes, bool isClock);

private:
    static constexpr uint8_t kNone = 0xFF;

    void countOn(uint8_t* bytes, const TsPacket& packet);
    void shiftClock(uint8_t* bytes, const TsPacket& packet) const;
    void shiftStamps(uint8_t* bytes, const TsPacket& packet);
    void note(unsigned pid, uint64_t stamp);
    uint64_t shiftFor(unsigned pid) const;

    /// Decoding times of one PID, in ticks of 90 kHz, as they were put out.
    struct Stamps {
        uint64_t first = 0;  // of the first round
        uint64_t last = 0;
        uint64_t step = 0;   // from the one before to the last
        uint64_t bytes = 0;  // of the last unit, and of the one before
        uint64_t bytesBefore = 0;
    };

    bool m_hasFirst = false;
    unsigned m_clockPid = kTsNullPid;
    uint64_t m_first = 0;  // clock value at the beginning of the input
    uint64_t m_last = 0;   // the last one that was put out
    uint64_t m_shift = 0;  // added to all of the present round
    uint32_t m_round = 0;
    std::map<unsigned, Stamps> m_stamps;
    std::array<uint8_t, kTsPids> m_lastCounter{};
    std::array<uint8_t, kTsPids> m_counterShift{};
    std::array<uint32_t, kTsPids> m_counterRound{};  // in which the shift was found
};

}  // namespace relay
