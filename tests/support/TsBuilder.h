// TsBuilder: access units of a transport stream, made by hand.
#pragma once

#include <cstdint>
#include <vector>

#include "media_relay/mpegts/PesUnit.h"
#include "media_relay/mpegts/TsDemuxer.h"

namespace Orvex::Testing {

using Bytes = std::vector<uint8_t>;

inline Bytes bytesOf(const char* hex) {
    Bytes bytes;
    const auto digit = [](char one) { return static_cast<uint8_t>(one <= '9' ? one - '0' : one - 'a' + 10); };
    for (; hex[0] != 0 && hex[1] != 0; hex += 2) {
        bytes.push_back(static_cast<uint8_t>(digit(hex[0]) << 4 | digit(hex[1])));
    }
    return bytes;
}

inline Bytes operator+(Bytes a, const Bytes& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

/// An elementary stream's packet with both time stamps.
inline Bytes pesOf(uint8_t stream, uint64_t presented, uint64_t decoded, const Bytes& payload) {
    Bytes pes{0, 0, 1, stream, 0, 0, 0x80, 0xC0, 10};
    pes.resize(19);
    pes[9] = 0x30;
    pes[14] = 0x10;
    relay::writeStamp(&pes[9], presented);
    relay::writeStamp(&pes[14], decoded);
    return pes + payload;
}

/// Packets that carry these bytes; the last one is filled up within its head.
inline Bytes packetsOf(unsigned pid, const Bytes& bytes, unsigned counter = 0) {
    Bytes packets;
    for (size_t at = 0; at < bytes.size();) {
        const size_t part = bytes.size() - at < 184 ? bytes.size() - at : 184;
        packets = packets + Bytes{0x47, static_cast<uint8_t>((at == 0 ? 0x40U : 0U) | pid >> 8),
                                  static_cast<uint8_t>(pid),
                                  static_cast<uint8_t>((part < 184 ? 0x30U : 0x10U) | (counter++ & 15))};
        if (part < 184) {
            Bytes filling(184 - part, 0xFF);
            filling[0] = static_cast<uint8_t>(183 - part);
            if (filling.size() > 1) {
                filling[1] = 0;
            }
            packets = packets + filling;
        }
        const auto from = bytes.begin() + static_cast<ptrdiff_t>(at);
        packets.insert(packets.end(), from, from + static_cast<ptrdiff_t>(part));
        at += part;
    }
    return packets;
}

}  // namespace Orvex::Testing
