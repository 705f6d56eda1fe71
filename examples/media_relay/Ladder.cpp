// Ladder: down at once, up after a while.

#include "media_relay/Ladder.h"

namespace relay {

using Orvex::Reticor::MediaOffer;
using Orvex::Reticor::MediaVerdict;

// The low quality of a picture is the first that is asked about, so the other one finds it decided. Of a
// client that has not come to the newest picture it is not: a channel that waits goes on at its newest key
// frame, and whoever is late gets there only by leaving the high one.
MediaVerdict Ladder::choose(const MediaOffer& offer) {
    const auto channel = static_cast<unsigned>(offer.channel);
    if (offer.key) {
        if (channel == kLowChannel || !m_decided) {
            decide(offer.age_us);
        }
        m_decided = channel == kLowChannel;
    }
    return channel == (isLow() ? kHighChannel : kLowChannel) ? MediaVerdict::WAIT_KEY : MediaVerdict::SEND;
}

void Ladder::decide(uint64_t age_us) {
    const bool late = m_missed.exchange(false, std::memory_order_relaxed) || age_us > m_late_us;
    m_prompt = !late && age_us < m_late_us / 4 ? m_prompt + 1 : 0;
    m_low.store(late || (isLow() && m_prompt < m_prompt_keys), std::memory_order_relaxed);
}

}  // namespace relay
