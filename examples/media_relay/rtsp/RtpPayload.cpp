// RtpPayload: who may share a packet, and what stands before a piece.

#include "media_relay/rtsp/RtpPayload.h"

#include <algorithm>

#include "media_relay/mpegts/TsPacket.h"

namespace relay {

namespace {

constexpr size_t kMost = RtpTrack::MOST_PAYLOAD;

constexpr unsigned kSeparator = 9;  // kinds of units
constexpr unsigned kFilling = 12;
constexpr unsigned kPiece = 28;

bool isContent(const NalUnit& unit) {
    const unsigned kind = unit.bytes[0] & 0x1FU;
    return kind != kSeparator && kind != kFilling;
}

/// A unit that is longer than a packet. Its first byte is told by the two in front of each piece.
void packPieces(const NalUnit& unit, bool last, uint32_t time, RtpTrack& track, RtpPackets& packets) {
    constexpr size_t MOST_OF_IT = kMost - 2;
    const unsigned kind = unit.bytes[0] & 0x1FU;
    for (size_t at = 1; at < unit.size; at += MOST_OF_IT) {
        const size_t size = std::min(MOST_OF_IT, unit.size - at);
        const bool first = at == 1;
        const bool end = at + size == unit.size;
        const uint8_t head[] = {static_cast<uint8_t>((unit.bytes[0] & 0xE0U) | kPiece),
                                static_cast<uint8_t>((first ? 0x80U : 0U) | (end ? 0x40U : 0U) | kind)};
        packets.push_back(track.make(time, last && end, {{head, sizeof head}, {unit.bytes + at, size}}));
    }
}

/// A list of this many sizes, whose length is told in bits.
ByteString beginSizes(size_t count) {
    const size_t bits = count * 16;
    return {static_cast<uint8_t>(bits >> 8U), static_cast<uint8_t>(bits)};
}

void appendSize(ByteString& sizes, size_t size) {
    sizes.push_back(static_cast<uint8_t>(size >> 5U));  // thirteen bits, and three of an index, which is 0
    sizes.push_back(static_cast<uint8_t>(size << 3U));
}

/// A frame that is longer than a packet: each piece tells the size of the whole.
void packLongFrame(const ByteString& frame, uint32_t time, RtpTrack& track, RtpPackets& packets) {
    ByteString sizes = beginSizes(1);
    appendSize(sizes, frame.size());
    const size_t most = kMost - sizes.size();
    for (size_t at = 0; at < frame.size(); at += most) {
        const size_t size = std::min(most, frame.size() - at);
        packets.push_back(track.make(time, at + size == frame.size(),
                                     {{sizes.data(), sizes.size()}, {frame.data() + at, size}}));
    }
}

}  // namespace

void packH264(const std::vector<NalUnit>& units, uint32_t time, RtpTrack& track, RtpPackets& packets) {
    const auto end = std::find_if(units.rbegin(), units.rend(), isContent).base();
    for (auto unit = units.begin(); unit != end; ++unit) {
        if (!isContent(*unit)) {
            continue;
        }
        const bool last = unit + 1 == end;
        if (unit->size > kMost) {
            packPieces(*unit, last, time, track, packets);
        } else {
            packets.push_back(track.make(time, last, {{unit->bytes, unit->size}}));
        }
    }
}

void packAac(const std::vector<SoundFrame>& frames, uint32_t time, RtpTrack& track, RtpPackets& packets) {
    for (auto first = frames.begin(); first != frames.end();) {
        auto end = first;
        size_t size = 2;
        uint32_t samples = 0;
        while (end != frames.end() && size + 2 + end->bytes.size() <= kMost) {
            size += 2 + end->bytes.size();
            samples += end->samples;
            ++end;
        }
        if (end == first) {
            packLongFrame(first->bytes, time, track, packets);
            time += first->samples;
            ++first;
            continue;
        }
        ByteString sizes = beginSizes(static_cast<size_t>(end - first));
        ByteString sound;
        for (; first != end; ++first) {
            appendSize(sizes, first->bytes.size());
            sound.insert(sound.end(), first->bytes.begin(), first->bytes.end());
        }
        packets.push_back(
            track.make(time, true, {{sizes.data(), sizes.size()}, {sound.data(), sound.size()}}));
        time += samples;
    }
}

void packTransport(const std::vector<uint8_t>& bytes, uint32_t time, RtpTrack& track, RtpPackets& packets) {
    constexpr size_t MOST_OF_IT = kMost / kTsPacketSize * kTsPacketSize;
    for (size_t at = 0; at < bytes.size(); at += MOST_OF_IT) {
        packets.push_back(
            track.make(time, false, {{bytes.data() + at, std::min(MOST_OF_IT, bytes.size() - at)}}));
    }
}

}  // namespace relay
