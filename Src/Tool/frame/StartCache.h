// StartCache: at which of the kept frames a client that comes can begin at once.
#pragma once

#include <cstdint>

#include "Tool/frame/ChannelBook.h"
#include "Tool/frame/MediaFrame.h"

namespace Orvex::Reticor {

/// Knows of each channel the newest key frame, and holds the oldest frame that a client needs from there on,
/// so that this one and all younger ones stay on the kept line. A key frame of a channel that predicts has a
/// lead-in: of each channel that follows, like sound, the last frame before it, so that neither begins
/// without the other.
///
/// Beyond its bounds of time and bytes a channel's group goes whole, and the next key frame begins anew.
///
/// Thread safety: none of its own; guarded by the mutex of the buffer. Frames that it knows must not go away
/// before it lets them go or forgets them.
class StartCache {
public:
    static constexpr int CHANNELS = 8;
    /// What follows and is older than that before a key frame does not belong to it.
    static constexpr uint64_t LEAD_IN_US = 1000000;

    /// In microseconds and bytes; without either it is off, and holds nothing.
    void set_bounds(uint64_t keep_us, uint64_t most_bytes);
    bool on() const { return m_most_bytes != 0; }

    /// A frame is the youngest one of the kept line, and in the book.
    void enter(CFrame& frame, const ChannelBook& book);
    /// Lets go what is beyond the bounds. `kept_total`: the bytes of all frames that were ever kept.
    void trim(uint64_t now_us, uint64_t kept_total, const ChannelBook& book);
    /// Lets go all.
    void forget();

    /// The oldest frame that it needs; null if there is none.
    CFrame* from() const { return m_from; }
    /// Where a client with these channels begins; null if there is nothing for it. It waits for a key frame
    /// of each channel, and finds the newest one of each.
    CFrame* start(uint8_t mask, const ChannelBook& book) const;
    /// The same at this key frame of a channel that such a client begins with; null if it is not one.
    CFrame* start_at(const CFrame& key, uint8_t mask, const ChannelBook& book) const;

    uint64_t drops() const { return m_drops; }

private:
    struct Entry {
        CFrame* key = nullptr;
        CFrame* from = nullptr;  ///< With its lead-in; not younger.
    };

    static uint8_t first_channels(uint8_t mask, const ChannelBook& book);
    CFrame* oldest(uint8_t mask) const;
    void hold_oldest(const ChannelBook& book);
    void hold(CFrame* from);

    Entry m_entries[CHANNELS];
    CFrame* m_from = nullptr;
    uint64_t m_keep_us = 0;
    uint64_t m_most_bytes = 0;
    uint64_t m_drops = 0;  ///< How many groups went because of the bounds.
};

}  // namespace Orvex::Reticor
