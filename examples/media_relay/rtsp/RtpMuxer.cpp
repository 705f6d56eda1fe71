// RtpMuxer: which track, and what its clock says.

#include "media_relay/rtsp/RtpMuxer.h"

#include <cstdlib>
#include <random>
#include <utility>

namespace relay {

namespace {

constexpr int64_t kSecond = 90000;
constexpr int64_t kLongestPicture = 10 * kSecond;
constexpr int64_t kLoose_per_s = 50;  // sound may be off by a fiftieth of a second before its clock jumps

const StreamEntry* firstOf(const ProgramMap& map, StreamKind kind) {
    for (const StreamEntry& entry : map.streams) {
        if (entry.kind == kind) {
            return &entry;
        }
    }
    return nullptr;
}

StreamEntry entryOf(const ProgramMap& map, StreamKind kind, Codec codec) {
    for (const StreamEntry& entry : map.streams) {
        if (entry.kind == kind && entry.codec == codec) {
            return entry;
        }
    }
    return {};
}

}  // namespace

void RtpMuxer::addTrack(unsigned type) {
    std::random_device random;
    const auto channel = static_cast<unsigned>(2 * m_tracks.size());  // the next one is that of its reports
    m_tracks.push_back({RtpTrack(channel, type, random(), static_cast<uint16_t>(random())), random()});
}

void RtpMuxer::begin(const ProgramMap& map) {
    const StreamEntry video = entryOf(map, StreamKind::Video, Codec::H264);
    const StreamEntry sound = entryOf(map, StreamKind::Audio, Codec::Aac);
    const bool otherVideo = video.codec == Codec::Other && firstOf(map, StreamKind::Video) != nullptr;
    const bool whole = otherVideo || (video.codec == Codec::Other && sound.codec == Codec::Other);
    if (m_begun && whole == m_whole && video.pid == m_videoEntry.pid && video.codec == m_videoEntry.codec &&
        sound.pid == m_soundEntry.pid && sound.codec == m_soundEntry.codec) {
        return;
    }
    const bool sameTracks =
        m_begun && whole == m_whole &&
        (whole || (video.codec == m_videoEntry.codec && sound.codec == m_soundEntry.codec));
    m_begun = true;
    m_whole = whole;
    m_videoEntry = video;
    m_soundEntry = sound;
    m_sets = ParameterSets(video.codec);
    m_cutter = SoundCutter(sound.codec, 0);
    m_open = false;
    m_soundRuns = false;
    if (sameTracks) {
        return;
    }
    m_sound = SoundFormat();
    m_tracks.clear();
    if (whole) {
        addTrack(SdpTrack::TRANSPORT_TYPE);
    }
    if (!whole && video.codec != Codec::Other) {
        addTrack(SdpTrack::H264_TYPE);
    }
    if (!whole && sound.codec != Codec::Other) {
        addTrack(SdpTrack::AAC_TYPE);
    }
}

bool RtpMuxer::isKnown() const {
    VideoFormat video;
    return m_begun && (m_whole || ((m_videoEntry.codec == Codec::Other || m_sets.makeFormat(video)) &&
                                   (m_soundEntry.codec == Codec::Other || m_cutter.hasFormat())));
}

std::vector<SdpTrack> RtpMuxer::describe() const {
    std::vector<SdpTrack> tracks;
    if (m_whole) {
        tracks.emplace_back();
        return tracks;
    }
    if (m_videoEntry.codec != Codec::Other) {
        VideoFormat video;
        m_sets.makeFormat(video);
        tracks.push_back(h264Track(video));
    }
    if (m_cutter.hasFormat()) {
        tracks.push_back(aacTrack(m_cutter.format()));
    }
    return tracks;
}

std::vector<uint32_t> RtpMuxer::sources() const {
    std::vector<uint32_t> sources;
    for (const Track& track : m_tracks) {
        sources.push_back(track.rtp.source());
    }
    return sources;
}

std::vector<RtpPacket> RtpMuxer::makeReports(uint64_t now_us, const char* name) const {
    std::vector<RtpPacket> reports;
    for (const Track& track : m_tracks) {
        const bool sound = m_soundEntry.codec != Codec::Other && &track == &m_tracks.back();
        if (sound && m_sound.rate == 0) {
            continue;
        }
        const int64_t time = sound ? m_time * m_sound.rate / kSecond : m_time;
        reports.push_back(track.rtp.makeReport(now_us, track.base + static_cast<uint32_t>(time), name));
    }
    return reports;
}

void RtpMuxer::put(const AccessUnit& unit) {
    if (m_whole) {
        putWhole(unit);
    } else if (m_videoEntry.codec != Codec::Other && unit.pid == m_videoEntry.pid) {
        putPicture(unit);
    } else if (m_soundEntry.codec != Codec::Other && unit.pid == m_soundEntry.pid) {
        putSound(unit);
    }
}

void RtpMuxer::hand(RtpUnit&& unit) {
    if (!unit.packets.empty()) {
        m_sink.onPackets(std::move(unit));
    }
}

void RtpMuxer::putWhole(const AccessUnit& unit) {
    PesHead head;
    std::vector<uint8_t> bytes;
    if (readPesUnit(unit.packets, head, bytes) && head.hasStamp) {
        m_time = m_timeline.put(Timeline::VIDEO, head.decoded, m_lastStep);
    }
    m_open = m_open || unit.key;
    if (!m_open) {
        return;
    }
    Track& track = m_tracks.front();
    const uint32_t time = track.base + static_cast<uint32_t>(m_time);
    RtpUnit out;
    out.kind = unit.kind;
    out.key = unit.key;
    out.disposable = unit.disposable;
    packTransport(unit.tables, time, track.rtp, out.packets);
    packTransport(unit.packets, time, track.rtp, out.packets);
    hand(std::move(out));
}

void RtpMuxer::putPicture(const AccessUnit& unit) {
    PesHead head;
    std::vector<uint8_t> bytes;
    if (!readPesUnit(unit.packets, head, bytes) || !head.hasStamp) {
        return;
    }
    ByteString rest;
    m_sets.take(bytes, unit.key, rest);
    const int64_t time = m_timeline.put(Timeline::VIDEO, head.decoded, m_lastStep);
    m_open = m_open || unit.key;
    if (!m_open) {
        return;
    }
    const int64_t step = unit.hasNext ? stampDistance(head.decoded, unit.next) : 0;
    m_lastStep = step > 0 && step < kLongestPicture ? step : m_lastStep;
    m_time = time;
    Track& track = m_tracks.front();
    RtpUnit out;
    out.key = unit.key;
    out.disposable = unit.disposable;
    const int64_t shown = time + stampDistance(head.decoded, head.presented);
    packH264(cutNalUnits(bytes), track.base + static_cast<uint32_t>(shown), track.rtp, out.packets);
    hand(std::move(out));
}

void RtpMuxer::putSound(const AccessUnit& unit) {
    PesHead head;
    std::vector<uint8_t> bytes;
    std::vector<SoundFrame> frames;
    size_t before = 0;
    if (!readPesUnit(unit.packets, head, bytes)) {
        return;
    }
    m_cutter.put(bytes, frames, before);
    if (m_sound.rate == 0 && m_cutter.hasFormat()) {
        m_sound = m_cutter.format();
    }
    const bool alone = m_videoEntry.codec == Codec::Other;
    if (frames.empty() || !(m_open || alone) || !(m_cutter.format() == m_sound)) {
        m_soundRuns = false;  // what was described is what goes out
        return;
    }
    const auto rate = static_cast<int64_t>(m_sound.rate);
    int64_t lasted = 0;
    for (size_t i = 0; i < frames.size() && i < before; ++i) {
        lasted += frames[i].samples;
    }
    if (head.hasStamp) {
        const int64_t step = kSecond * frames.back().samples / rate;
        const int64_t ticks = m_timeline.put(Timeline::SOUND, head.decoded, step);
        const int64_t stamped = (ticks * rate + kSecond / 2) / kSecond - lasted;
        if (!m_soundRuns || std::abs(stamped - m_nextSound) > rate / kLoose_per_s) {
            m_nextSound = stamped;
        }
        m_time = alone ? ticks : m_time;
    } else if (!m_soundRuns) {
        return;
    }
    m_soundRuns = true;
    Track& track = m_tracks.back();
    RtpUnit out;
    out.track = m_tracks.size() - 1;
    out.kind = StreamKind::Audio;
    out.key = alone;
    packAac(frames, track.base + static_cast<uint32_t>(m_nextSound), track.rtp, out.packets);
    for (const SoundFrame& frame : frames) {
        m_nextSound += frame.samples;
    }
    hand(std::move(out));
}

}  // namespace relay
