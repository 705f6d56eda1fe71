// LevelRing: which level the last frames of each channel had.
#pragma once

#include <cstddef>
#include <cstdint>

#include <Reticor/MediaDrops.h>

#include "Tool/frame/MediaFrame.h"

namespace Orvex::Reticor {

/// A sender sees that frames are gone by the numbers that are missing. What they were is known here alone.
///
/// Thread safety: none of its own; guarded by the mutex of the buffer.
class LevelRing {
public:
    static constexpr uint64_t FRAMES = 1024;

    /// The frame is complete, and the newest one of its channel.
    void enter(const CFrame& frame) {
        Channel& channel = m_channels[static_cast<size_t>(frame.channel())];
        channel.newest = frame.m_ordinal;
        channel.levels[frame.m_ordinal % FRAMES] = place_of(frame.level());
    }
    /// The number of the oldest frame of the channel whose level is known.
    uint64_t oldest(size_t channel) const {
        const uint64_t newest = m_channels[channel].newest;
        return newest >= FRAMES ? newest - FRAMES + 1 : 1;
    }
    /// The level of the frame with that number, not older than that; 0 for one that has none of 1 to 10.
    uint8_t level(size_t channel, uint64_t ordinal) const {
        return m_channels[channel].levels[ordinal % FRAMES];
    }

    /// Where frames of a level are counted.
    static constexpr uint8_t place_of(int level) {
        return level >= 1 && level < static_cast<int>(MEDIA_DROP_LEVELS) ? static_cast<uint8_t>(level) : 0;
    }

private:
    struct Channel {
        uint64_t newest = 0;  ///< Its number.
        uint8_t levels[FRAMES] = {};
    };

    Channel m_channels[MEDIA_DROP_CHANNELS];
};

}  // namespace Orvex::Reticor
