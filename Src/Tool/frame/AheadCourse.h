// AheadCourse: how far a sender that keeps frames has come on one channel, by what frames need of each other.
#pragma once

#include <algorithm>
#include <cstdint>
#include <utility>

#include "Tool/frame/MediaFrame.h"
#include "Tool/frame/Thinning.h"

namespace Orvex::Reticor {

/// Thread safety: none of its own; the lock of the sender's buffer guards it.
class AheadCourse {
public:
    /// The sender has begun this frame: what was left out before it is past.
    void begin(const CFrame& frame) {
        m_needed = frame.m_needed_before + (frame.m_disposable ? 0 : 1);
        m_left = {};
        if (frame.level() <= m_left_level) {
            m_left_level = 0;
        }
    }
    /// A key frame has gone out whole, in so long a time.
    void end_key(const CFrame& frame, uint64_t took_us) {
        m_key_took_us = took_us;
        m_key_made_us = frame.m_complete_us;
    }
    /// A disposable frame was left out.
    void leave_out(const CFrame& frame) {
        m_left.frames += 1;
        m_left.bytes += static_cast<uint64_t>(frame.m_frame_len);
        m_left_level = m_left_level == 0 ? frame.level() : std::min(m_left_level, frame.level());
    }
    /// The sender is past a frame that it did not send, and that does not count as missing, whatever its
    /// level says.
    void pass_needless(const CFrame& frame) { m_needed += knows_needed() && !frame.m_disposable ? 1 : 0; }
    /// A frame passed while the sender had not chosen the channel: what it has of it is not known any more.
    void pass_unwanted() { m_needed = NOT_KNOWN; }

    bool knows_needed() const { return m_needed != NOT_KNOWN; }
    /// Whether a frame that others need is missing before this one.
    bool misses_needed(const CFrame& frame) const { return frame.m_needed_before != m_needed; }
    /// Whether a frame of that level may refer to one that was left out.
    bool may_refer_to_left(int level) const { return m_left_level != 0 && level > m_left_level; }

    /// Left out since the last frame begun; and the same, to be counted anew.
    const Thinning::Sum& left_out() const { return m_left; }
    Thinning::Sum take_left_out() { return std::exchange(m_left, {}); }
    uint64_t key_took_us() const { return m_key_took_us; }
    uint64_t key_made_us() const { return m_key_made_us; }

private:
    static constexpr uint64_t NOT_KNOWN = ~uint64_t{0};

    uint64_t m_needed = NOT_KNOWN;  ///< Frames that others need, up to and with the last one begun.
    Thinning::Sum m_left;
    uint64_t m_key_took_us = 0;  ///< To write the last key frame.
    uint64_t m_key_made_us = 0;  ///< When that was complete.
    int32_t m_left_level = 0;    ///< Frames above it may refer to one that was left out; 0: none.
};

}  // namespace Orvex::Reticor
