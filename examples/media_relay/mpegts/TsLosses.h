// TsLosses: how many packets of a transport stream are missing.
#pragma once

#include <array>
#include <cstdint>

#include "media_relay/mpegts/TsPacket.h"

namespace relay {

/// Counts the holes in the continuity counters (ISO/IEC 13818-1, 2.4.3.3). A counter has four bits: of 16
/// packets in a row that are missing, or any multiple, it tells nothing.
class TsLosses {
public:
    TsLosses() { restart(); }

    /// Takes a packet that is sound, in the order of the input.
    void put(const TsPacket& packet);

    /// What comes next does not follow what came last.
    void restart() { m_last.fill(kNone); }

    uint64_t lost() const { return m_lost; }

private:
    static constexpr uint8_t kNone = 0xFF;

    std::array<uint8_t, kTsPids> m_last{};
    uint64_t m_lost = 0;
};

}  // namespace relay
