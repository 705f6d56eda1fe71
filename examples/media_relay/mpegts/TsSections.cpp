// TsSections: reading and writing of PAT and PMT.

#include "media_relay/mpegts/TsSections.h"

#include <algorithm>

namespace relay {

namespace {

constexpr size_t kMaxSection = 1024;
constexpr size_t kChecksumSize = 4;
constexpr uint8_t kAssociationTable = 0;
constexpr uint8_t kProgramMapTable = 2;

unsigned number16(const uint8_t* at) {
    return at[0] * 256U + at[1];
}
unsigned number13(const uint8_t* at) {
    return number16(at) & 0x1FFFU;
}
unsigned number12(const uint8_t* at) {
    return number16(at) & 0x0FFFU;
}

/// Whether it is a table of this kind that is in force now, long enough for `head` bytes.
bool isTable(const std::vector<uint8_t>& section, uint8_t table, size_t head) {
    return section.size() >= head + kChecksumSize && section[0] == table && (section[5] & 1) != 0;
}

/// Streams of private data say by a descriptor that they are sound.
bool isSoundDescriptor(uint8_t tag) {
    return tag == 0x6A || tag == 0x7A || tag == 0x7B || tag == 0x7C;  // ETSI EN 300 468: AC-3, DTS, AAC
}

/// A registration says that it is Opus, and an extension of how many channels (ETSI TS 103 491, annex B).
void readPrivate(const uint8_t* begin, const uint8_t* end, StreamEntry& entry) {
    while (end - begin >= 2 && end - begin >= 2 + begin[1]) {
        const uint8_t* const body = begin + 2;
        if (isSoundDescriptor(begin[0])) {
            entry.kind = StreamKind::Audio;
        } else if (begin[0] == 0x05 && begin[1] >= 4 && std::equal(body, body + 4, "Opus")) {
            entry.kind = StreamKind::Audio;
            entry.codec = Codec::Opus;
        } else if (begin[0] == 0x7F && begin[1] >= 2 && body[0] == 0x80) {
            entry.channels = body[1] <= 8 ? body[1] : 0U;
        }
        begin += 2 + begin[1];
    }
}

StreamEntry classify(uint8_t type, const uint8_t* descriptors, const uint8_t* end) {
    StreamEntry entry;
    switch (type) {
        case 0x01:
        case 0x02:
            entry.kind = StreamKind::Video;
            entry.codec = Codec::Mpeg2;
            break;
        case 0x1B:
            entry.kind = StreamKind::Video;
            entry.codec = Codec::H264;
            break;
        case 0x24:
            entry.kind = StreamKind::Video;
            entry.codec = Codec::H265;
            break;
        case 0x10:
        case 0x33:
            entry.kind = StreamKind::Video;
            break;
        case 0x0F:
            entry.kind = StreamKind::Audio;
            entry.codec = Codec::Aac;
            break;
        case 0x03:
        case 0x04:
        case 0x11:
        case 0x81:
        case 0x87:
            entry.kind = StreamKind::Audio;
            break;
        case 0x06:
            readPrivate(descriptors, end, entry);
            break;
        default:
            break;
    }
    return entry;
}

}  // namespace

void SectionReader::reset() {
    m_bytes.clear();
    m_collecting = false;
}

void SectionReader::put(const TsPacket& packet, const OnSection& onSection) {
    const uint8_t* at = packet.payload();
    const uint8_t* const end = at + packet.payloadSize();
    if (at >= end) {
        return;
    }
    if (!packet.startsUnit()) {
        append(at, end, onSection);
        return;
    }
    const size_t rest = *at++;  // bytes of the section before, and then a new one begins
    if (rest > static_cast<size_t>(end - at)) {
        reset();
        return;
    }
    append(at, at + rest, onSection);
    m_bytes.clear();
    m_collecting = true;
    append(at + rest, end, onSection);
}

void SectionReader::append(const uint8_t* begin, const uint8_t* end, const OnSection& onSection) {
    if (!m_collecting) {
        return;
    }
    m_bytes.insert(m_bytes.end(), begin, end);
    while (m_bytes.size() >= 3) {
        const size_t size = 3 + number12(&m_bytes[1]);
        if (m_bytes[0] == 0xFF || size > kMaxSection) {  // the rest is filling, or nonsense
            reset();
            return;
        }
        if (m_bytes.size() < size) {
            return;
        }
        const std::vector<uint8_t> section(m_bytes.begin(), m_bytes.begin() + static_cast<ptrdiff_t>(size));
        m_bytes.erase(m_bytes.begin(), m_bytes.begin() + static_cast<ptrdiff_t>(size));
        if (sectionChecksum(section.data(), section.size()) == 0) {
            onSection(section);
        }
    }
}

bool parseAssociation(const std::vector<uint8_t>& section, unsigned& program, unsigned& mapPid,
                      unsigned wanted) {
    if (!isTable(section, kAssociationTable, 8)) {
        return false;
    }
    for (size_t at = 8; at + 4 + kChecksumSize <= section.size(); at += 4) {
        const unsigned number = number16(&section[at]);
        if (number != 0 && (wanted == 0 || number == wanted)) {  // 0 names the network's own table
            program = number;
            mapPid = number13(&section[at + 2]);
            return true;
        }
    }
    return false;
}

bool parseProgramMap(const std::vector<uint8_t>& section, unsigned program, ProgramMap& map) {
    if (!isTable(section, kProgramMapTable, 12) || number16(&section[3]) != program) {
        return false;
    }
    map = ProgramMap();
    map.pcrPid = number13(&section[8]);
    const size_t end = section.size() - kChecksumSize;
    size_t at = 12 + number12(&section[10]);
    while (at + 5 <= end) {
        const size_t descriptors = at + 5;
        const size_t next = descriptors + number12(&section[at + 3]);
        if (next > end) {
            return false;
        }
        StreamEntry entry = classify(section[at], section.data() + descriptors, section.data() + next);
        entry.pid = number13(&section[at + 1]);
        map.streams.push_back(entry);
        at = next;
    }
    return true;
}

std::vector<uint8_t> makeAssociation(unsigned program, unsigned mapPid) {
    std::vector<uint8_t> section{kAssociationTable,
                                 0xB0,
                                 13,
                                 0,
                                 1,
                                 0xC1,
                                 0,
                                 0,
                                 static_cast<uint8_t>(program >> 8),
                                 static_cast<uint8_t>(program),
                                 static_cast<uint8_t>(0xE0 | mapPid >> 8),
                                 static_cast<uint8_t>(mapPid)};
    const uint32_t checksum = sectionChecksum(section.data(), section.size());
    for (int shift = 24; shift >= 0; shift -= 8) {
        section.push_back(static_cast<uint8_t>(checksum >> shift));
    }
    return section;
}

void appendSection(std::vector<uint8_t>& packets, unsigned pid, unsigned& counter,
                   const std::vector<uint8_t>& section) {
    size_t taken = 0;
    while (taken < section.size()) {
        const bool first = taken == 0;
        const size_t begin = packets.size();
        packets.push_back(kTsSync);
        packets.push_back(static_cast<uint8_t>((first ? 0x40U : 0U) | pid >> 8));
        packets.push_back(static_cast<uint8_t>(pid));
        packets.push_back(static_cast<uint8_t>(0x10U | counter));
        counter = (counter + 1) & 0x0F;
        if (first) {
            packets.push_back(0);  // the section begins at once
        }
        const size_t room = begin + kTsPacketSize - packets.size();
        const size_t part = std::min(room, section.size() - taken);
        const auto from = section.begin() + static_cast<ptrdiff_t>(taken);
        packets.insert(packets.end(), from, from + static_cast<ptrdiff_t>(part));
        packets.resize(begin + kTsPacketSize, 0xFF);
        taken += part;
    }
}

uint32_t sectionChecksum(const uint8_t* bytes, size_t size) {
    uint32_t sum = 0xFFFFFFFF;
    for (size_t i = 0; i < size; ++i) {
        sum ^= uint32_t{bytes[i]} << 24;
        for (int bit = 0; bit < 8; ++bit) {
            sum = (sum & 0x80000000) != 0 ? sum << 1 ^ 0x04C11DB7 : sum << 1;
        }
    }
    return sum;
}

}  // namespace relay
