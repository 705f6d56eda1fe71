// LaneFeed: the frame that is being filled for the lanes.
#pragma once

#include <cstdint>

#include "Tool/lane/LanePacket.h"
#include "Tool/step/MediaStep.h"

namespace Orvex::Reticor {

/// Links packets to frames, which go to the lanes whole, so that no lane ever has a part of one.
///
/// Thread safety: none of its own; guarded by the mutex of the lanes' core. Its packets come back from any
/// thread.
class LaneFeed {
public:
    LaneFeed() = default;
    ~LaneFeed();
    LaneFeed(const LaneFeed&) = delete;
    LaneFeed& operator=(const LaneFeed&) = delete;

    /// Each packet is to be released by so many lanes.
    void open(uint32_t holders) INFRA_REQUIRES(CORE_MUTEX) { m_holders = holders; }

    /// Takes the memory for one packet more. False if there is none.
    bool make_room() INFRA_REQUIRES(CORE_MUTEX);
    /// Takes a packet, and its bytes. After make_room.
    void add(const LanePacket::Parts& parts) INFRA_REQUIRES(CORE_MUTEX);
    /// Takes the frame's information packet in place of an earlier one. After make_room.
    void set_info(CMediaPacket& packet, int arg) INFRA_REQUIRES(CORE_MUTEX);
    /// A packet of the frame is missing: it goes to nobody.
    void spoil() INFRA_REQUIRES(CORE_MUTEX) { m_spoiled = true; }

    /// Packets have come, and the last one has not.
    bool is_filling() const INFRA_REQUIRES(CORE_MUTEX) { return m_first != nullptr || m_spoiled; }
    bool is_spoiled() const INFRA_REQUIRES(CORE_MUTEX) { return m_spoiled; }
    uint64_t bytes() const INFRA_REQUIRES(CORE_MUTEX) { return m_bytes; }
    /// The frame is complete at that time, and the lanes' from now on. The next one begins.
    LanePacket& complete(uint64_t now_us) INFRA_REQUIRES(CORE_MUTEX);
    /// All of it is let go. Runs products' code.
    void drop() INFRA_REQUIRES(CORE_MUTEX);

    /// For the tests.
    uint64_t made() const { return m_store.made(); }

private:
    void release(LanePacket* first) const INFRA_REQUIRES(CORE_MUTEX);
    LanePacket* take_spare() INFRA_REQUIRES(CORE_MUTEX);

    LanePacketStore m_store;
    LanePacket* m_spare INFRA_GUARDED_BY(CORE_MUTEX) = nullptr;
    uint32_t m_holders INFRA_GUARDED_BY(CORE_MUTEX) = 0;
    LanePacket* m_first INFRA_GUARDED_BY(CORE_MUTEX) = nullptr;
    LanePacket* m_last INFRA_GUARDED_BY(CORE_MUTEX) = nullptr;
    LanePacket* m_info INFRA_GUARDED_BY(CORE_MUTEX) = nullptr;
    int m_info_arg INFRA_GUARDED_BY(CORE_MUTEX) = 0;
    uint64_t m_bytes INFRA_GUARDED_BY(CORE_MUTEX) = 0;
    uint32_t m_packets INFRA_GUARDED_BY(CORE_MUTEX) = 0;
    bool m_spoiled INFRA_GUARDED_BY(CORE_MUTEX) = false;
};

}  // namespace Orvex::Reticor
