// Ladder: down at once, up after a while.

#include "media_relay/Ladder.h"

namespace relay {

using Orvex::Reticor::MediaOffer;
using Orvex::Reticor::MediaVerdict;

namespace {

constexpr unsigned kPromptKeys = 50;

}  // namespace

// The low quality of a picture is the first that is asked about, so the other one finds it decided.
MediaVerdict Ladder::choose(const MediaOffer& offer) {
    const auto channel = static_cast<unsigned>(offer.channel);
    if (channel == kLowChannel && offer.key) {
        const bool late = m_missed.exchange(false, std::memory_order_relaxed) || offer.age_us > m_late_us;
        m_prompt = !late && offer.age_us < m_late_us / 4 ? m_prompt + 1 : 0;
        m_low.store(late || (isLow() && m_prompt < kPromptKeys), std::memory_order_relaxed);
    }
    return channel == (isLow() ? kHighChannel : kLowChannel) ? MediaVerdict::WAIT_KEY : MediaVerdict::SEND;
}

}  // namespace relay
