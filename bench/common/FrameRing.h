// FrameRing: the newest frames, shared by all clients of one delivery thread of a peer.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "common/Fanout.h"

namespace Bench {

class FrameRing;

// A frame and those who hold it: the ring, and clients that stand in the middle of it.
struct Frame {
    FrameRing* ring = nullptr;
    std::uint64_t sequence = 0;
    bool key = false;
    unsigned holders = 0;
    unsigned char header[FrameHeader::kSize] = {};
    const char* payload = nullptr;  // a window of the table, not owned
};

// Belongs to one thread. A client keeps the number of the frame that it wants next; there is no queue per
// client.
class FrameRing {
public:
    FrameRing(const FanoutOptions& options, const PayloadTable& table)
        : m_options(options), m_table(table), m_slots(mostLag(options)) {}

    std::size_t frameSize() const { return FrameHeader::kSize + m_options.frameBytes; }

    // Makes the next frame; it takes the place of the oldest one.
    Frame& make();
    // The number of the frame that will be made next.
    std::uint64_t end() const { return m_end; }
    bool contains(std::uint64_t sequence) const {
        return sequence < m_end && m_end - sequence <= m_slots.size();
    }
    Frame& at(std::uint64_t sequence) { return *m_slots[sequence % m_slots.size()]; }

    // The first key frame that is not made yet: where a new client begins.
    std::uint64_t nextKey() const { return (m_end + m_options.gop - 1) / m_options.gop * m_options.gop; }
    // Where a client at a frame boundary goes on that wants this frame: there, or if the frame has gone at
    // the next key frame.
    std::uint64_t resume(std::uint64_t wanted) const {
        return wanted >= m_end || contains(wanted) ? wanted : nextKey();
    }

    void hold(Frame& frame) { ++frame.holders; }
    void drop(Frame& frame);

private:
    Frame* take();

    const FanoutOptions m_options;
    const PayloadTable& m_table;
    std::uint64_t m_end = 0;
    std::vector<Frame*> m_slots;
    std::vector<Frame*> m_free;
    std::vector<std::unique_ptr<Frame>> m_frames;
};

}  // namespace Bench
