// LaneFeed: a chain of packets, and the packet that the next one takes.
#include "Tool/lane/LaneFeed.h"

#include <utility>

namespace Orvex::Reticor {

LaneFeed::~LaneFeed() {
    if (m_spare != nullptr) {
        m_store.give_back(*m_spare);
    }
}

bool LaneFeed::make_room() {
    if (m_spare == nullptr) {
        m_spare = m_store.take();
    }
    return m_spare != nullptr;
}

LanePacket* LaneFeed::take_spare() {
    return std::exchange(m_spare, nullptr);
}

void LaneFeed::add(const LanePacket::Parts& parts) {
    LanePacket* const packet = take_spare();
    packet->fill(parts, m_holders, true);
    if (m_first == nullptr) {
        m_first = packet;
    } else {
        m_last->link(packet);
    }
    m_last = packet;
    m_bytes += static_cast<uint64_t>(parts.len);
    ++m_packets;
}

void LaneFeed::set_info(CMediaPacket& packet, int arg) {
    LanePacket* const info = take_spare();
    info->fill({&packet, 0, 0, 0}, m_holders, false);
    LanePacket* const earlier = std::exchange(m_info, info);
    m_info_arg = arg;
    if (earlier != nullptr) {
        release(earlier);
    }
}

LanePacket& LaneFeed::complete(uint64_t now_us) {
    LanePacket& frame = *std::exchange(m_first, nullptr);
    frame.set_frame(std::exchange(m_bytes, 0), now_us, std::exchange(m_packets, 0),
                    std::exchange(m_info, nullptr), std::exchange(m_info_arg, 0));
    m_last = nullptr;
    return frame;
}

// What it knew is forgotten first: Release is a product's.
void LaneFeed::drop() {
    LanePacket* const first = std::exchange(m_first, nullptr);
    LanePacket* const info = std::exchange(m_info, nullptr);
    m_last = nullptr;
    m_info_arg = 0;
    m_bytes = 0;
    m_packets = 0;
    m_spoiled = false;
    for (LanePacket* const chain : {first, info}) {
        if (chain != nullptr) {
            release(chain);
        }
    }
}

// For each of the lanes, none of which knows it.
void LaneFeed::release(LanePacket* first) const {
    for (uint32_t i = 0; i < m_holders; ++i) {
        first->release_frame();
    }
}

}  // namespace Orvex::Reticor
