// ChannelBook: what senders that step ahead need to know of the channels of a buffer.
#pragma once

#include <cstdint>

#include "Tool/frame/MediaFrame.h"

namespace Orvex::Reticor {

/// Keeps book of complete frames, in their order. Of each channel it knows the newest key frame, so that
/// nobody has to look for it, and whether it predicts or follows: a channel of key frames alone, like sound,
/// follows the channels whose frames refer to each other.
///
/// Thread safety: none of its own; guarded by the mutex of the buffer.
class ChannelBook {
public:
    static constexpr int CHANNELS = 8;
    /// Without a frame among this number of them, a channel does not predict any more.
    static constexpr uint64_t RECENT_FRAMES = 1024;

    /// Frames of this level and above are disposable; 0, as at the start: none is. From the next frame on.
    void set_disposable_level(int level) { m_disposable_level = level; }
    int disposable_level() const { return m_disposable_level; }

    /// The frame is complete, with its time. It learns its place among the frames that others need.
    void enter(CFrame& frame);

    /// The frame is complete, and was lost before it came. It counts among those that others need, and
    /// nothing is known of it as a key frame, since nobody can begin with it.
    void enter_lost(const CFrame& frame) {
        m_channels[frame.channel()].needed += is_disposable(frame) ? 0 : 1;
        m_channels[frame.channel()].last = ++m_frames;
    }

    /// Whether there is a younger key frame of the frame's channel.
    bool has_newer_key(const CFrame& frame) const {
        return m_channels[frame.channel()].key_ordinal > frame.m_ordinal;
    }
    /// us from the last key frame of the channel but one to the last one; 0: not known.
    uint64_t group_us(int channel) const { return m_channels[channel].group_us; }
    /// Whether the channel, whose last two frames were key frames, follows another one among those of the
    /// mask.
    bool follows(int channel, uint8_t mask) const {
        const unsigned bit = 1U << channel;
        return (m_all_keys & bit) != 0 && (m_predicting & mask & ~bit) != 0;
    }
    /// Another number whenever other channels follow or predict.
    unsigned roles() const { return m_all_keys << CHANNELS | m_predicting; }
    /// The channels of the mask whose frames refer to each other.
    uint8_t predicting(uint8_t mask) const { return static_cast<uint8_t>(m_predicting & mask); }
    /// Forgets all frames; the level stays.
    void forget();

private:
    struct Channel {
        uint64_t key_ordinal = 0;  ///< Of the newest key frame.
        uint64_t key_us = 0;       ///< When that was complete.
        uint64_t group_us = 0;
        uint64_t needed = 0;    ///< Frames so far that others need.
        uint64_t last = 0;      ///< The number of its last frame, among all.
        bool last_key = false;  ///< That was a key frame.
    };

    void look_for_predicting();
    bool is_disposable(const CFrame& frame) const {
        return !frame.is_key() && m_disposable_level != 0 && frame.level() >= m_disposable_level;
    }

    Channel m_channels[CHANNELS];
    uint64_t m_frames = 0;
    unsigned m_all_keys = 0;    ///< Channels whose last two frames were key frames.
    unsigned m_predicting = 0;  ///< The others, if they have had a frame of late.
    int m_disposable_level = 0;
};

}  // namespace Orvex::Reticor
