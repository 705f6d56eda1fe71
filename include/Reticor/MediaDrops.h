// MediaDrops: frames that a client did not get, counted by level and by channel.
#pragma once

#include <cstddef>
#include <cstdint>

namespace Orvex::Reticor {

/// Places for levels in a `MediaDrops`: 1 to 10, and 0 for what is not one of these or is not known.
constexpr size_t MEDIA_DROP_LEVELS = 11;
/// Places for channels in a `MediaDrops`.
constexpr size_t MEDIA_DROP_CHANNELS = 8;

/// The frames that one cause has kept from a client. Each stands once under its level and once under its
/// channel. Counters only rise, from Create of the sender on. This structure does not grow.
struct MediaDrops {
    uint32_t by_level[MEDIA_DROP_LEVELS] = {};      ///< The level is the place.
    uint32_t by_channel[MEDIA_DROP_CHANNELS] = {};  ///< The channel is the place.

    /// All of them.
    uint64_t GetCount() const {
        uint64_t all = 0;
        for (const uint32_t one : by_channel) {
            all += one;
        }
        return all;
    }
};

}  // namespace Orvex::Reticor
