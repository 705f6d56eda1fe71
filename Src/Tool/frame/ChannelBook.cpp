// ChannelBook: entries.
#include "Tool/frame/ChannelBook.h"

namespace Orvex::Reticor {

void ChannelBook::enter(CFrame& frame) {
    const unsigned bit = frame.channel_bit();
    const bool key = frame.is_key();
    Channel& channel = m_channels[frame.channel()];
    const bool disposable = is_disposable(frame);
    frame.place_among_needed(channel.needed, disposable);
    channel.needed += disposable ? 0 : 1;
    m_all_keys = key && channel.last_key ? m_all_keys | bit : m_all_keys & ~bit;
    channel.last_key = key;
    channel.last = ++m_frames;
    if (key) {
        channel.group_us = channel.key_ordinal != 0 ? frame.m_complete_us - channel.key_us : 0;
        channel.key_ordinal = frame.m_ordinal;
        channel.key_us = frame.m_complete_us;
    }
    look_for_predicting();
}

void ChannelBook::look_for_predicting() {
    m_predicting = 0;
    for (int i = 0; i < CHANNELS; ++i) {
        const unsigned bit = 1U << i;
        const uint64_t last = m_channels[i].last;
        if (last != 0 && m_frames - last < RECENT_FRAMES && (m_all_keys & bit) == 0) {
            m_predicting |= bit;
        }
    }
}

void ChannelBook::forget() {
    const int level = m_disposable_level;
    *this = ChannelBook();
    m_disposable_level = level;
}

}  // namespace Orvex::Reticor
