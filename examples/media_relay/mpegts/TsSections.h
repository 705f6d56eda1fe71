// TsSections: the tables that say what a transport stream holds (ISO/IEC 13818-1, 2.4.4).
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

#include "media_relay/mpegts/TsPacket.h"

namespace relay {

/// Puts the sections of one PID together from the packets that carry them. What does not fit its checksum is
/// dropped: tables are repeated all the time.
class SectionReader {
public:
    using OnSection = std::function<void(const std::vector<uint8_t>&)>;

    void put(const TsPacket& packet, const OnSection& onSection);
    void reset();

private:
    void append(const uint8_t* begin, const uint8_t* end, const OnSection& onSection);

    std::vector<uint8_t> m_bytes;  // of the section under way
    bool m_collecting = false;
};

/// What a stream of the programme carries; the channel that its frames go to.
enum class StreamKind { Video = 0, Audio = 1, Data = 2 };

/// What its bytes are, as far as this program looks into them.
enum class Codec { Other, Mpeg2, H264, H265, Aac, Opus };

struct StreamEntry {
    unsigned pid = 0;
    StreamKind kind = StreamKind::Data;
    Codec codec = Codec::Other;
    unsigned channels = 0;  // of Opus, whose bytes do not say it; 0 if it is not told in a plain number
};

struct ProgramMap {
    unsigned pcrPid = kTsNullPid;  // kTsNullPid: the programme has no clock
    std::vector<StreamEntry> streams;
};

/// The programme `wanted` of an association table, or the first one for 0: its number and the PID of its map.
/// False if the section is not such a table, or does not list it.
bool parseAssociation(const std::vector<uint8_t>& section, unsigned& program, unsigned& mapPid,
                      unsigned wanted = 0);

/// False if the section is not the map of `program` that is in force.
bool parseProgramMap(const std::vector<uint8_t>& section, unsigned program, ProgramMap& map);

/// An association table with this one programme.
std::vector<uint8_t> makeAssociation(unsigned program, unsigned mapPid);

/// Appends a section as packets. `counter` is the PID's continuity counter, and moves on.
void appendSection(std::vector<uint8_t>& packets, unsigned pid, unsigned& counter,
                   const std::vector<uint8_t>& section);

/// The checksum of sections; 0 over a section that includes its own.
uint32_t sectionChecksum(const uint8_t* bytes, size_t size);

}  // namespace relay
