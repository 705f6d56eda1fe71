// PesUnit: what the packets of an access unit carry (ISO/IEC 13818-1, 2.4.3.6).
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "media_relay/mpegts/TsPacket.h"

namespace relay {

constexpr uint64_t kStampWrap = uint64_t{1} << 33;  // time stamps, in ticks of 90 kHz, come back to 0 here

/// A time stamp in five bytes, with marker bits between its parts.
uint64_t readStamp(const uint8_t* at);
void writeStamp(uint8_t* at, uint64_t stamp);

/// Whether the head of an elementary stream's packet holds flags and time stamps.
bool hasStampHead(uint8_t stream);

struct PesHead {
    size_t size = 0;  // bytes before the payload
    bool hasStamp = false;
    uint64_t presented = 0;  // ticks of 90 kHz
    uint64_t decoded = 0;
};

/// Reads the head that these bytes begin with. False if there is none, or not all of it.
bool readPesHead(const uint8_t* bytes, size_t size, PesHead& head);

/// How long the unit is that these bytes begin with, its head included; 0 if it does not say it.
size_t statedSize(const uint8_t* bytes, size_t size);

/// Takes the payloads of whole packets together, and the head off them. False if there is no head.
bool readPesUnit(const std::vector<uint8_t>& packets, PesHead& head, std::vector<uint8_t>& payload);

}  // namespace relay
