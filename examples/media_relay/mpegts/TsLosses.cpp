// TsLosses: counters that move on by one, stay, or may jump.

#include "media_relay/mpegts/TsLosses.h"

namespace relay {

void TsLosses::put(const TsPacket& packet) {
    const unsigned pid = packet.pid();
    if (pid == kTsNullPid) {  // its counter means nothing
        return;
    }
    const auto counter = static_cast<uint8_t>(packet.counter());
    const uint8_t last = m_last[pid];
    m_last[pid] = counter;
    if (last == kNone || packet.isDiscontinuity() || !packet.hasPayload()) {
        return;  // without a payload it stays as it was
    }
    if (counter != last) {  // a packet may be sent twice
        m_lost += (counter - last - 1U) & 0x0FU;
    }
}

}  // namespace relay
