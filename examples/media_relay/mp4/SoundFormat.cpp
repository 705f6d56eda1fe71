// SoundFormat: ADTS heads (ISO/IEC 14496-3, 1.A.2), Opus in transport streams (ETSI TS 103 491, annex B).

#include "media_relay/mp4/SoundFormat.h"

#include <algorithm>

#include "media_relay/mp4/Box.h"

namespace relay {

namespace {

constexpr unsigned kRates[] = {96000, 88200, 64000, 48000, 44100, 32000, 24000,
                               22050, 16000, 12000, 11025, 8000,  7350};
constexpr unsigned kOpusRate = 48000;
constexpr unsigned kOpusLongest = 5760;  // samples, 120 ms
constexpr unsigned kAacSamples = 1024;
constexpr size_t kAdtsHead = 7;
constexpr size_t kMaxRest = 8192;  // an ADTS frame has a length of thirteen bits

/// How long an Opus packet lasts, by its first bytes (RFC 6716, 3.1); 0 if it is not sound.
unsigned opusSamples(const std::vector<uint8_t>& packet) {
    const unsigned configuration = packet[0] >> 3U;
    const unsigned step = configuration & 3U;
    unsigned samples = 0;
    if (configuration < 12) {
        samples = step == 3 ? 2880 : 480U << step;
    } else if (configuration < 16) {
        samples = 480U << (configuration & 1U);
    } else {
        samples = 120U << step;
    }
    const unsigned code = packet[0] & 3U;
    const unsigned count = code == 0 ? 1 : code < 3 ? 2 : packet.size() > 1 ? packet[1] & 0x3FU : 0U;
    return samples * count <= kOpusLongest ? samples * count : 0;
}

/// A descriptor whose length is written in four bytes.
size_t beginDescriptor(BoxWriter& box, unsigned tag) {
    box.u8(tag).u32(0x80808000);
    return box.size();
}

}  // namespace

SoundCutter::SoundCutter(Codec codec, unsigned channels) : m_codec(codec), m_channels(channels) {}

void SoundCutter::put(const std::vector<uint8_t>& unit, std::vector<SoundFrame>& frames, size_t& before) {
    const size_t old = m_rest.size();
    before = 0;
    m_rest.insert(m_rest.end(), unit.begin(), unit.end());
    size_t at = 0;
    while (at < m_rest.size()) {
        SoundFrame frame;
        const size_t begin = at;
        if (!(m_codec == Codec::Aac ? cutAac(at, frame) : cutOpus(at, frame))) {
            break;
        }
        if (frame.samples > 0) {
            before += begin < old ? 1 : 0;
            frames.push_back(std::move(frame));
        }
    }
    m_rest.erase(m_rest.begin(), m_rest.begin() + static_cast<ptrdiff_t>(at));
    if (m_codec == Codec::Opus || m_rest.size() > kMaxRest) {
        m_rest.clear();  // an Opus packet does not go on in the next unit
    }
}

/// False if more bytes are needed; a frame of no samples is a byte that was skipped.
bool SoundCutter::cutAac(size_t& at, SoundFrame& frame) {
    const size_t left = m_rest.size() - at;
    const uint8_t* const head = m_rest.data() + at;
    if (left < kAdtsHead) {
        return false;
    }
    const size_t size = (head[3] & 3U) << 11 | unsigned{head[4]} << 3 | head[5] >> 5U;
    const size_t headSize = (head[1] & 1) != 0 ? kAdtsHead : kAdtsHead + 2;
    const unsigned rate = head[2] >> 2U & 0xFU;
    const bool sound =
        head[0] == 0xFF && (head[1] & 0xF6) == 0xF0 && size > headSize && rate < std::size(kRates);
    if (!sound) {
        ++at;
        return true;
    }
    if (left < size) {
        return false;
    }
    const unsigned channels = (head[2] & 1U) << 2 | head[3] >> 6U;
    const unsigned blocks = head[6] & 3U;
    if (blocks == 0 && channels != 0) {  // others, which nobody makes, have no box to be described in
        readAac(head);
        frame.bytes.assign(head + headSize, head + size);
        frame.samples = kAacSamples;
    }
    at += size;
    return true;
}

void SoundCutter::readAac(const uint8_t* head) {
    const unsigned bits = (head[2] & 0xFDU) << 2 | head[3] >> 6U;  // without the private one
    if (hasFormat() && bits == m_lastHead) {
        return;
    }
    m_lastHead = bits;
    const unsigned type = (head[2] >> 6U) + 1;
    const unsigned rate = head[2] >> 2U & 0xFU;
    m_format = SoundFormat();
    m_format.codec = Codec::Aac;
    m_format.rate = kRates[rate];
    m_format.channels = (head[2] & 1U) << 2 | head[3] >> 6U;
    m_format.name = "mp4a.40." + std::to_string(type);
    BoxWriter box(m_format.configuration);
    const size_t begin = box.begin("esds", 0, 0);
    const auto end = [&](size_t at) { box.patch(at - 4, 0x80808000 | (box.size() - at)); };
    const size_t stream = beginDescriptor(box, 3);
    box.u16(0).u8(0);
    const size_t decoder = beginDescriptor(box, 4);
    box.u8(0x40).u8(0x15).zeros(11);  // sound of ISO/IEC 14496-3; sizes and rates are not told
    const size_t specific = beginDescriptor(box, 5);
    box.u16(type << 11 | rate << 7 | m_format.channels << 3);
    end(specific);
    end(decoder);
    const size_t layer = beginDescriptor(box, 6);
    box.u8(2);
    end(layer);
    end(stream);
    box.end(begin);
}

/// A control header gives the length of the packet after it. False at what is none: the rest of the unit is
/// lost.
bool SoundCutter::cutOpus(size_t& at, SoundFrame& frame) {
    const auto has = [&](size_t count) { return m_rest.size() - at >= count; };
    if (!has(2) || m_rest[at] != 0x7F || (m_rest[at + 1] & 0xE0) != 0xE0) {
        return false;
    }
    const unsigned flags = m_rest[at + 1];
    at += 2;
    size_t size = 0;
    uint8_t part = 255;
    while (part == 255 && has(1)) {
        part = m_rest[at++];
        size += part;
    }
    size_t skipped = ((flags & 0x10) != 0 ? 2U : 0U) + ((flags & 0x08) != 0 ? 2U : 0U);
    if ((flags & 0x04) != 0) {
        if (!has(skipped + 1)) {
            return false;
        }
        skipped += 1U + m_rest[at + skipped];
    }
    if (!has(skipped + size) || size == 0) {
        return false;
    }
    at += skipped;
    frame.bytes.assign(m_rest.begin() + static_cast<ptrdiff_t>(at),
                       m_rest.begin() + static_cast<ptrdiff_t>(at + size));
    frame.samples = opusSamples(frame.bytes);
    at += size;
    if (frame.samples > 0 && !hasFormat()) {
        readOpus();
    }
    return true;
}

void SoundCutter::readOpus() {
    m_format.codec = Codec::Opus;
    m_format.rate = kOpusRate;
    m_format.channels = m_channels;
    m_format.name = "opus";
    BoxWriter box(m_format.configuration);
    const size_t begin = box.begin("dOps");
    box.u8(0).u8(m_channels).u16(0).u32(kOpusRate).u16(0).u8(0);
    box.end(begin);
}

}  // namespace relay
