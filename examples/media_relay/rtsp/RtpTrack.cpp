// RtpTrack: heads, and reports both ways.

#include "media_relay/rtsp/RtpTrack.h"

#include <algorithm>
#include <cstring>

namespace relay {

namespace {

constexpr unsigned kVersion = 0x80;
constexpr unsigned kMarker = 0x80;
constexpr unsigned kSenderReport = 200;
constexpr unsigned kReceiverReport = 201;
constexpr unsigned kDescription = 202;
constexpr uint64_t kFrom1900_s = 2208988800;  // to 1970
constexpr size_t kBlock = 24;                 // bytes that a receiver writes about a source
constexpr size_t kMostName = 255;

void put16(RtpPacket& out, unsigned value) {
    out.push_back(static_cast<uint8_t>(value >> 8U));
    out.push_back(static_cast<uint8_t>(value));
}

void put32(RtpPacket& out, uint32_t value) {
    put16(out, value >> 16U);
    put16(out, value & 0xFFFFU);
}

uint32_t word(const uint8_t* at) {
    return uint32_t{at[0]} << 24U | uint32_t{at[1]} << 16U | uint32_t{at[2]} << 8U | at[3];
}

RtpPacket framed(unsigned channel, size_t size) {
    RtpPacket out;
    out.reserve(RtpTrack::FRAMING + size);
    out.push_back('$');
    out.push_back(static_cast<uint8_t>(channel));
    put16(out, static_cast<unsigned>(size));
    return out;
}

}  // namespace

RtpPacket RtpTrack::make(uint32_t time, bool marker, std::initializer_list<RtpPiece> payload) {
    constexpr size_t HEAD = 12;
    size_t size = 0;
    for (const RtpPiece& piece : payload) {
        size += piece.size;
    }
    RtpPacket out = framed(m_channel, HEAD + size);
    out.push_back(kVersion);
    out.push_back(static_cast<uint8_t>((marker ? kMarker : 0U) | m_type));
    put16(out, m_next++);
    put32(out, time);
    put32(out, m_source);
    for (const RtpPiece& piece : payload) {
        out.insert(out.end(), piece.bytes, piece.bytes + piece.size);
    }
    ++m_packets;
    m_bytes += static_cast<uint32_t>(size);
    return out;
}

RtpPacket RtpTrack::makeReport(uint64_t now_us, uint32_t time, const char* name) const {
    constexpr size_t REPORT = 28;
    const size_t nameSize = std::min(std::strlen(name), kMostName);
    const size_t items =
        (4 + 2 + nameSize + 1 + 3) / 4 * 4;  // at least one zero ends them, up to a whole word
    RtpPacket out = framed(m_channel + 1, REPORT + 4 + items);
    out.push_back(kVersion);
    out.push_back(kSenderReport);
    put16(out, REPORT / 4 - 1);
    put32(out, m_source);
    put32(out, static_cast<uint32_t>(now_us / 1000000 + kFrom1900_s));
    put32(out, static_cast<uint32_t>(((now_us % 1000000) << 32U) / 1000000));
    put32(out, time);
    put32(out, m_packets);
    put32(out, m_bytes);
    const size_t begin = out.size();
    out.push_back(kVersion | 1U);
    out.push_back(kDescription);
    put16(out, static_cast<unsigned>(items / 4));
    put32(out, m_source);
    out.push_back(1);  // the name
    out.push_back(static_cast<uint8_t>(nameSize));
    out.insert(out.end(), name, name + nameSize);
    out.resize(begin + 4 + items);
    return out;
}

std::vector<RtpReception> readReceptions(const uint8_t* bytes, size_t size) {
    constexpr size_t HEAD = 8;
    std::vector<RtpReception> found;
    while (size >= HEAD && bytes[0] >> 6U == 2) {
        const size_t length = 4 * (size_t{bytes[2]} << 8U | bytes[3]) + 4;
        if (length > size) {
            break;
        }
        // Whoever sends too has a report of its own in front of the same blocks.
        const size_t first = bytes[1] == kReceiverReport ? HEAD
                             : bytes[1] == kSenderReport ? HEAD + 20
                                                         : length;
        const unsigned count = bytes[0] & 0x1FU;
        for (unsigned i = 0; i < count && first + (i + 1) * kBlock <= length; ++i) {
            const uint8_t* const block = bytes + first + i * kBlock;
            RtpReception one;
            one.source = word(block);
            one.lost = block[4] / 256.0;
            const uint32_t lost = word(block + 4) & 0xFFFFFFU;
            one.lostInAll = static_cast<int32_t>(lost << 8U) / 256;
            one.jitter = word(block + 12);
            found.push_back(one);
        }
        bytes += length;
        size -= length;
    }
    return found;
}

}  // namespace relay
