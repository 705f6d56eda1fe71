// LanePacket, LanePacketStore: a producer's packet that several media buffers share.
#pragma once

#include <Reticor/MediaPacket.h>

#include <atomic>
#include <cstdint>

namespace Orvex::Reticor {

class LanePacketStore;

/// Stands in each lane's buffer for one packet of the producer, which is asked for its bytes once, and
/// released once, by whichever lane is last. The packets of a frame are linked in their order.
///
/// Thread safety: filled by the producer before any lane knows it, and constant until the last Release, which
/// may come on any thread, as may the others.
class LanePacket final : public CMediaPacket {
public:
    /// Of one packet, as it was put.
    struct Parts {
        CMediaPacket* packet = nullptr;
        int len = 0;
        int mark = 0;
        int level = 0;
    };

    explicit LanePacket(LanePacketStore& store) : m_store(store) {}
    LanePacket(const LanePacket&) = delete;
    LanePacket& operator=(const LanePacket&) = delete;
    ~LanePacket() override;

    /// Takes the producer's packet, and asks it for its bytes if `asks`. As many calls of Release as there
    /// are `holders` let it go.
    void fill(const Parts& parts, uint32_t holders, bool asks);
    /// It is the first one of a frame of that length, complete at that time. `info` may be null.
    void set_frame(uint64_t bytes, uint64_t complete_us, uint32_t packets, LanePacket* info, int info_arg);
    void link(LanePacket* next) { m_next = next; }

    /// One holder lets it go. Always 0.
    int Release() override;
    /// The producer's bytes.
    char* GetBuffer() override { return m_bytes; }

    /// Every packet of the frame is let go once, the information packet included. This one is the first.
    void release_frame();

    CMediaPacket* packet() const { return m_parts.packet; }
    int len() const { return m_parts.len; }
    int mark() const { return m_parts.mark; }
    int level() const { return m_parts.level; }
    LanePacket* next() const { return m_next; }
    /// Of the frame's first one alone.
    uint64_t frame_bytes() const { return m_frame_bytes; }
    uint64_t complete_us() const { return m_complete_us; }
    uint32_t packets() const { return m_packets; }
    LanePacket* info() const { return m_info; }
    int info_arg() const { return m_info_arg; }
    /// The level word of a frame is that of its last packet.
    int frame_level() const;

private:
    friend class LanePacketStore;

    LanePacketStore& m_store;
    Parts m_parts;
    char* m_bytes = nullptr;
    LanePacket* m_next = nullptr;  ///< Of the frame, or of the store.
    std::atomic<uint32_t> m_holders{0};
    uint64_t m_frame_bytes = 0;
    uint64_t m_complete_us = 0;
    uint32_t m_packets = 0;
    int m_info_arg = 0;
    LanePacket* m_info = nullptr;
};

/// Keeps the packets that nobody holds, so that memory is taken only while there are more of them at a time
/// than ever before. Outlives its packets' use.
///
/// Thread safety: `take` on one thread at a time, `give_back` on any. No lock: what is given back is a chain
/// that `take` takes whole.
class LanePacketStore {
public:
    LanePacketStore() = default;
    LanePacketStore(const LanePacketStore&) = delete;
    LanePacketStore& operator=(const LanePacketStore&) = delete;
    ~LanePacketStore();

    /// Null if there is no memory.
    LanePacket* take();
    void give_back(LanePacket& packet);
    /// Packets that were ever made.
    uint64_t made() const { return m_made.load(std::memory_order_relaxed); }

private:
    static void end(LanePacket* chain);

    LanePacket* m_own = nullptr;  ///< Of the thread that takes.
    std::atomic<LanePacket*> m_back{nullptr};
    std::atomic<uint64_t> m_made{0};
};

}  // namespace Orvex::Reticor
