// TsDemuxer: tables, streams, and the bounds of access units.

#include "media_relay/mpegts/TsDemuxer.h"

#include <algorithm>
#include <utility>

#include "media_relay/mpegts/PesUnit.h"

namespace relay {

namespace {

constexpr unsigned kAssociationPid = 0;
constexpr size_t kMaxUnit = 8 << 20;  // bytes; more is not a picture
constexpr uint64_t kLongestGroup_us =
    10000000;  // without a key frame for so long, any picture is taken for one
constexpr uint64_t kSoundKeyInterval_us = 500000;  // sound alone can be entered everywhere; tables cost bytes

}  // namespace

void TsDemuxer::put(const TsPacket& packet, uint64_t time_us) {
    m_time_us = time_us;
    const unsigned pid = packet.pid();
    if (pid == kAssociationPid) {
        m_associationReader.put(packet,
                                [this](const std::vector<uint8_t>& section) { onAssociation(section); });
        return;
    }
    if (pid == m_mapPid) {
        m_mapReader.put(packet, [this](const std::vector<uint8_t>& section) { onMap(section); });
        return;
    }
    const auto found = m_streams.find(pid);
    if (found != m_streams.end()) {
        putStream(found->second, packet);
    } else if (isClock(packet)) {
        putClock(packet);
    }
}

void TsDemuxer::onAssociation(const std::vector<uint8_t>& section) {
    unsigned program = 0;
    unsigned mapPid = kTsNullPid;
    if (!parseAssociation(section, program, mapPid, m_wanted) ||
        (program == m_program && mapPid == m_mapPid)) {
        return;
    }
    flush();
    m_streams.clear();
    m_hasMap = false;
    m_mapReader.reset();
    m_mapSection.clear();
    m_program = program;
    m_mapPid = mapPid;
    m_association = makeAssociation(program, mapPid);
}

void TsDemuxer::onMap(const std::vector<uint8_t>& section) {
    ProgramMap map;
    if (section == m_mapSection || !parseProgramMap(section, m_program, map)) {
        return;
    }
    flush();
    m_mapSection = section;
    m_map = map;
    m_hasMap = true;
    m_streams.clear();
    m_hasVideo = false;
    m_hasSound = false;
    for (const StreamEntry& entry : map.streams) {
        m_streams[entry.pid].entry = entry;
        m_hasSound = m_hasSound || entry.kind == StreamKind::Audio;
        m_hasVideo = m_hasVideo || entry.kind == StreamKind::Video;
    }
    m_anyKey = false;
    m_lastKey_us = m_time_us;
    m_sink.onProgram(m_map);
}

void TsDemuxer::putStream(Stream& stream, const TsPacket& packet) {
    if (packet.startsUnit()) {
        finish(stream, &packet);
        stream.open = true;
        stream.whole = false;
        stream.key = packet.isRandomAccess();
        stream.finder.begin(stream.entry.codec);
    }
    if (stream.whole && packet.hasPayload()) {
        stream.strays = true;
    } else if (stream.open || stream.whole) {  // what comes before the first start has no beginning
        append(stream, packet);
    }
    if (stream.open && isWhole(stream, packet)) {
        finish(stream);
        stream.whole = true;
    }
}

/// Whether the unit under way ends with this packet, by what its head says. Where that once was too little,
/// it is not believed any more.
bool TsDemuxer::isWhole(Stream& stream, const TsPacket& packet) const {
    if (!m_byLength || stream.entry.kind == StreamKind::Video || stream.strays) {
        return false;
    }
    const size_t size = packet.payloadSize();
    if (packet.startsUnit()) {
        stream.missing = statedSize(packet.payload(), size);
    }
    const bool ends = stream.missing != 0 && size >= stream.missing;
    stream.missing -= std::min(size, stream.missing);
    return ends;
}

/// The clock has a PID of its own: its packets travel with the pictures.
void TsDemuxer::putClock(const TsPacket& packet) {
    for (auto& [pid, stream] : m_streams) {
        if ((stream.open || stream.whole) && (stream.entry.kind == StreamKind::Video || !m_hasVideo)) {
            append(stream, packet);
            return;
        }
    }
}

void TsDemuxer::append(Stream& stream, const TsPacket& packet) {
    if (stream.packets.size() + kTsPacketSize > kMaxUnit) {
        ++m_givenUp;
        stream.open = stream.whole = false;
        stream.packets = std::vector<uint8_t>();
        return;
    }
    stream.packets.insert(stream.packets.end(), packet.bytes(), packet.bytes() + kTsPacketSize);
    stream.finder.put(packet.payload(), packet.payloadSize());
}

/// Without pictures that are known as such a client begins with sound, and without sound with any unit:
/// motion JPEG and what else goes as private data needs nothing that comes before it.
bool TsDemuxer::isKey(const Stream& stream) {
    const uint64_t since_us = m_time_us - m_lastKey_us;
    if (!m_hasVideo) {
        const bool leads = stream.entry.kind == StreamKind::Audio || !m_hasSound;
        return leads && (!m_anyKey || since_us >= kSoundKeyInterval_us);
    }
    return stream.entry.kind == StreamKind::Video &&
           (stream.key || stream.finder.isKeyFrame() || since_us >= kLongestGroup_us);
}

/// `next` is the packet that the stream's next unit begins with.
void TsDemuxer::finish(Stream& stream, const TsPacket* next) {
    if (!stream.open) {
        return;
    }
    stream.open = false;
    AccessUnit unit;
    unit.kind = stream.entry.kind;
    unit.pid = stream.entry.pid;
    unit.key = isKey(stream);
    unit.disposable = !unit.key && unit.kind == StreamKind::Video && stream.finder.isDisposable();
    unit.packets = std::move(stream.packets);
    stream.packets = std::vector<uint8_t>();
    if (unit.key) {
        m_anyKey = true;
        m_lastKey_us = m_time_us;
        unit.tables = tables();
    }
    PesHead head;
    if (next != nullptr && readPesHead(next->payload(), next->payloadSize(), head)) {
        unit.hasNext = head.hasStamp;
        unit.next = head.decoded;
    }
    m_sink.onUnit(std::move(unit));
}

void TsDemuxer::flush() {
    for (auto& [pid, stream] : m_streams) {
        finish(stream);
    }
}

void TsDemuxer::giveUpUnits() {
    for (auto& [pid, stream] : m_streams) {
        m_givenUp += stream.open ? 1 : 0;
        stream.open = stream.whole = false;
        stream.packets = std::vector<uint8_t>();
    }
}

std::vector<uint8_t> TsDemuxer::tables() {
    std::vector<uint8_t> packets;
    appendSection(packets, kAssociationPid, m_associationCounter, m_association);
    appendSection(packets, m_mapPid, m_mapCounter, m_mapSection);
    return packets;
}

}  // namespace relay
