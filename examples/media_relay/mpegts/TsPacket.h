// TsPacket: one packet of an MPEG transport stream (ISO/IEC 13818-1, 2.4.3), seen in place.
#pragma once

#include <cstddef>
#include <cstdint>

namespace relay {

constexpr size_t kTsPacketSize = 188;
constexpr uint8_t kTsSync = 0x47;
constexpr unsigned kTsPids = 8192;
constexpr unsigned kTsNullPid = 0x1FFF;
constexpr uint64_t kTsClock = 27000000;                       // ticks of a PCR in a second
constexpr uint64_t kTsClockWrap = (uint64_t{1} << 33) * 300;  // a PCR comes back to 0 here, after 26.5 hours

/// A view: the 188 bytes stay the caller's. Ask nothing but `isSound` of a packet that is not sound.
class TsPacket {
public:
    explicit TsPacket(const uint8_t* bytes) : m_bytes(bytes) {}

    const uint8_t* bytes() const { return m_bytes; }

    /// Whether the lengths inside fit, and the receiver of the signal marked no error.
    bool isSound() const {
        if (m_bytes[0] != kTsSync || (m_bytes[1] & 0x80) != 0 || (m_bytes[3] & 0x30) == 0) {
            return false;
        }
        return !hasAdaptation() || m_bytes[4] <= (hasPayload() ? 182 : 183);
    }

    unsigned pid() const { return (m_bytes[1] & 0x1FU) << 8 | m_bytes[2]; }
    bool startsUnit() const { return (m_bytes[1] & 0x40) != 0; }
    unsigned counter() const { return m_bytes[3] & 0x0FU; }
    bool hasPayload() const { return (m_bytes[3] & 0x10) != 0; }
    bool hasAdaptation() const { return (m_bytes[3] & 0x20) != 0; }

    size_t payloadOffset() const { return hasAdaptation() ? 5U + m_bytes[4] : 4U; }
    const uint8_t* payload() const { return m_bytes + payloadOffset(); }
    size_t payloadSize() const { return hasPayload() ? kTsPacketSize - payloadOffset() : 0; }

    bool isDiscontinuity() const { return (adaptationFlags() & 0x80) != 0; }
    bool isRandomAccess() const { return (adaptationFlags() & 0x40) != 0; }
    bool hasPcr() const { return (adaptationFlags() & 0x10) != 0 && m_bytes[4] >= 7; }

    /// The programme's clock, in ticks of 27 MHz. Only if there is one.
    uint64_t pcr() const {
        const uint64_t base = uint64_t{m_bytes[6]} << 25 | uint64_t{m_bytes[7]} << 17 |
                              uint64_t{m_bytes[8]} << 9 | uint64_t{m_bytes[9]} << 1 | m_bytes[10] >> 7;
        return base * 300 + ((m_bytes[10] & 1U) << 8 | m_bytes[11]);
    }

private:
    unsigned adaptationFlags() const { return hasAdaptation() && m_bytes[4] > 0 ? m_bytes[5] : 0U; }

    const uint8_t* m_bytes;
};

}  // namespace relay
