// TsInput: what becomes of the bytes of one transport stream, however they come.
#pragma once

#include <cstddef>
#include <cstdint>

#include "media_relay/input/SourceView.h"
#include "media_relay/input/TsOutputs.h"
#include "media_relay/mpegts/TsClock.h"
#include "media_relay/mpegts/TsDemuxer.h"
#include "media_relay/mpegts/TsFramer.h"
#include "media_relay/mpegts/TsLosses.h"

namespace relay {

/// Finds the packets, counts what is damaged or missing, cuts out one programme, and hands each unit to the
/// outputs when it is complete. One thread at a time; nothing here waits.
///
/// Whoever has bytes that are to be handed on at once calls `put`. Whoever keeps a pace fills `room` and
/// calls `step` until it gives Nothing.
class TsInput : private TsDemuxer::Sink {
public:
    enum class Step {
        Nothing,  // more bytes are needed
        Packet,
        Clock,  // a packet with a value of the programme's clock: time_us has moved
    };

    /// Of several programmes it takes the one with this number, 0 is the first one.
    explicit TsInput(const TsOutputs& outputs, unsigned program = 0);

    /// For what is handed on at once: see TsDemuxer::endByLength. Before the first byte.
    void endByLength() { m_demuxer.endByLength(); }

    /// Takes all of it.
    void put(const uint8_t* bytes, size_t size);

    /// Where the next bytes go, and how many of them; at least one packet's, once `step` has given Nothing.
    uint8_t* room(size_t& size) { return m_framer.room(size); }
    void filled(size_t size);

    /// Takes the next packet of those that are there.
    Step step();

    /// No byte follows those that are there: the last of them need no proof by what comes after them.
    void finish() { m_framer.finish(); }

    /// Hands out the units under way: nothing follows them.
    void flush() { m_demuxer.flush(); }

    /// The same bytes come once more. Clock, stamps and counters go on where they were.
    void again();

    /// What comes next does not follow what came last: the source has begun anew. Units under way are given
    /// up, since nobody knows whether they are whole.
    void restart();

    /// The end of the outputs' stream, after `flush`.
    void end();

    /// Media time, at least 1 once the clock runs.
    uint64_t time_us() const { return m_clock.time_us(); }
    bool isRunning() const { return m_clock.isRunning(); }

    /// Whether there was a unit since the last `again`.
    bool hasUnits() const { return m_units > m_roundUnits; }

    /// Whether so many bytes have come that a programme with a clock must have shown, and has not.
    bool isHopeless() const;

    /// Writes what has been counted.
    void fill(SourceView& view) const;

private:
    Step take(uint8_t* bytes);
    void onUnit(AccessUnit&& unit) override;
    void onProgram(const ProgramMap& map) override;

    const TsOutputs m_outputs;
    TsFramer m_framer;
    TsLosses m_losses;
    TsLoop m_looper;
    PcrClock m_clock;
    TsDemuxer m_demuxer;
    bool m_jump = false;        // the clock begins anew, though the stream does not say so
    uint64_t m_bytes = 0;       // of this round
    uint64_t m_units = 0;       // of all rounds
    uint64_t m_roundUnits = 0;  // at the beginning of this round
    uint64_t m_damaged = 0;
    uint64_t m_rounds = 0;
};

}  // namespace relay
