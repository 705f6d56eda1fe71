// TsDemuxer: takes one programme of a transport stream apart into access units.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <vector>

#include "media_relay/mpegts/KeyFrames.h"
#include "media_relay/mpegts/TsPacket.h"
#include "media_relay/mpegts/TsSections.h"

namespace relay {

/// A picture, or a piece of sound: all packets of its stream from one unit start to the next.
struct AccessUnit {
    StreamKind kind = StreamKind::Data;
    unsigned pid = 0;
    bool key = false;             // a client can begin here
    bool disposable = false;      // no other picture needs it
    std::vector<uint8_t> tables;  // packets to be sent first; empty but for a key unit
    std::vector<uint8_t> packets;
    bool hasNext = false;  // whether it is known when the stream's next unit is decoded
    uint64_t next = 0;     // ticks of 90 kHz
};

/// Whatever the input holds, memory is bounded: by the units under way, one per stream of the programme.
class TsDemuxer {
public:
    class Sink {
    public:
        virtual ~Sink() = default;
        virtual void onUnit(AccessUnit&& unit) = 0;
        /// What the units from now on belong to.
        virtual void onProgram(const ProgramMap&) {}
    };

    /// Of several programmes it takes the one with this number, 0 is the first one.
    explicit TsDemuxer(Sink& sink, unsigned program = 0) : m_sink(sink), m_wanted(program) {}

    /// From now on a unit is handed out as soon as it is whole, where its head says how long it is: else it
    /// waits for the next one, which for sound may be 0.4 s. Not so pictures, since it is only then known
    /// when the next one is decoded.
    void endByLength() { m_byLength = true; }

    /// Takes a packet that is sound. `time_us` is the media time, by which units count as keys when the
    /// stream itself names none for long.
    void put(const TsPacket& packet, uint64_t time_us);

    /// Hands out the units under way: nothing follows them.
    void flush();

    /// Forgets the units under way: what comes next does not follow them.
    void giveUpUnits();

    /// Whether the tables of a programme have been read.
    bool hasProgram() const { return m_hasMap; }

    /// Whether the packet carries the programme's clock.
    bool isClock(const TsPacket& packet) const {
        return m_hasMap && packet.hasPcr() && packet.pid() == m_map.pcrPid;
    }

    /// Units that were given up, since they had no end.
    uint64_t givenUp() const { return m_givenUp; }

private:
    struct Stream {
        StreamEntry entry;
        bool open = false;  // a unit is under way
        bool key = false;   // by the flag of its first packet
        KeyFrameFinder finder;
        size_t missing = 0;   // bytes to the end of the unit, if it is known
        bool whole = false;   // the last one ended by its length: what comes before the next belongs to that
        bool strays = false;  // there was more of a unit than its head said
        std::vector<uint8_t> packets;
    };

    void onAssociation(const std::vector<uint8_t>& section);
    void onMap(const std::vector<uint8_t>& section);
    void putStream(Stream& stream, const TsPacket& packet);
    void putClock(const TsPacket& packet);
    bool isWhole(Stream& stream, const TsPacket& packet) const;
    void append(Stream& stream, const TsPacket& packet);
    void finish(Stream& stream, const TsPacket* next = nullptr);
    bool isKey(const Stream& stream);
    std::vector<uint8_t> tables();

    Sink& m_sink;
    const unsigned m_wanted;
    bool m_byLength = false;
    SectionReader m_associationReader;
    SectionReader m_mapReader;
    unsigned m_program = 0;
    unsigned m_mapPid = kTsNullPid;
    std::vector<uint8_t> m_association;  // the section that clients get
    std::vector<uint8_t> m_mapSection;
    ProgramMap m_map;
    bool m_hasMap = false;
    bool m_hasVideo = false;
    bool m_hasSound = false;
    std::map<unsigned, Stream> m_streams;  // by PID
    unsigned m_associationCounter = 0;
    unsigned m_mapCounter = 0;
    uint64_t m_time_us = 0;
    uint64_t m_lastKey_us = 0;
    bool m_anyKey = false;
    uint64_t m_givenUp = 0;
};

}  // namespace relay
