// PesUnit: heads, time stamps and payloads.

#include "media_relay/mpegts/PesUnit.h"

namespace relay {

namespace {

constexpr size_t kFixedHead = 9;  // start code, stream, length, two bytes of flags, length of the rest

}  // namespace

uint64_t readStamp(const uint8_t* at) {
    const uint64_t high = at[0] >> 1U & 7U;
    const uint64_t middle = (at[1] * 256U + at[2]) >> 1U;
    const uint64_t low = (at[3] * 256U + at[4]) >> 1U;
    return high << 30 | middle << 15 | low;
}

void writeStamp(uint8_t* at, uint64_t stamp) {
    at[0] = static_cast<uint8_t>((at[0] & 0xF0) | (stamp >> 30 & 7) << 1 | 1);
    at[1] = static_cast<uint8_t>(stamp >> 22);
    at[2] = static_cast<uint8_t>((stamp >> 15 & 0x7F) << 1 | 1);
    at[3] = static_cast<uint8_t>(stamp >> 7);
    at[4] = static_cast<uint8_t>((stamp & 0x7F) << 1 | 1);
}

bool hasStampHead(uint8_t stream) {
    return stream == 0xBD || (stream >= 0xC0 && stream <= 0xEF) || stream == 0xFD;
}

bool readPesHead(const uint8_t* bytes, size_t size, PesHead& head) {
    head = PesHead();
    if (size < kFixedHead || bytes[0] != 0 || bytes[1] != 0 || bytes[2] != 1 || !hasStampHead(bytes[3])) {
        return false;
    }
    head.size = kFixedHead + bytes[8];
    if (head.size > size) {
        return false;
    }
    const unsigned stamps = bytes[7] >> 6U;  // 2: one for both, 3: two of them
    head.hasStamp = stamps >= 2 && bytes[8] >= (stamps == 3 ? 10 : 5);
    if (head.hasStamp) {
        head.presented = readStamp(bytes + kFixedHead);
        head.decoded = stamps == 3 ? readStamp(bytes + kFixedHead + 5) : head.presented;
    }
    return true;
}

size_t statedSize(const uint8_t* bytes, size_t size) {
    if (size < 6 || bytes[0] != 0 || bytes[1] != 0 || bytes[2] != 1) {
        return 0;
    }
    const size_t stated = bytes[4] * 256U + bytes[5];
    return stated == 0 ? 0 : stated + 6;
}

bool readPesUnit(const std::vector<uint8_t>& packets, PesHead& head, std::vector<uint8_t>& payload) {
    payload.clear();
    payload.reserve(packets.size());
    for (size_t at = 0; at + kTsPacketSize <= packets.size(); at += kTsPacketSize) {
        const TsPacket packet(packets.data() + at);
        payload.insert(payload.end(), packet.payload(), packet.payload() + packet.payloadSize());
    }
    if (!readPesHead(payload.data(), payload.size(), head)) {
        return false;
    }
    const size_t stated = payload[4] * 256U + payload[5];  // 0: up to the next one
    if (stated != 0 && stated + 6 >= head.size && stated + 6 < payload.size()) {
        payload.resize(stated + 6);
    }
    payload.erase(payload.begin(), payload.begin() + static_cast<ptrdiff_t>(head.size));
    return true;
}

}  // namespace relay
