// QualityLadder: two qualities of one picture in a buffer, and the ladder of media_relay between them.
#pragma once

#include <cstdint>

#include <Reticor/MediaStreamSender.h>

#include "common/ViewerModel.h"
#include "media_relay/Ladder.h"

namespace Bench {

static_assert(PICTURES == static_cast<int>(relay::Ladder::kHighChannel));
static_assert(LOW_PICTURES == static_cast<int>(relay::Ladder::kLowChannel));

/// The filter of a sender. As in the relay, half the limit of its policy is late.
class QualityLadder {
public:
    QualityLadder(Orvex::Reticor::CMediaStreamSender& sender, unsigned max_lag_ms, unsigned prompt_keys)
        : m_sender(sender), m_ladder(max_lag_ms / 2, prompt_keys) {
        m_sender.AttachFilter({&relay::Ladder::choose, &m_ladder});
    }

    /// Call it after each frame: tells the ladder of missed pictures. The relay hears of them by WaitSkip.
    void look() {
        const std::uint64_t skips = m_sender.GetStats().skips;
        if (skips != m_skips) {
            m_skips = skips;
            m_ladder.missed();
        }
    }

private:
    Orvex::Reticor::CMediaStreamSender& m_sender;
    relay::Ladder m_ladder;
    std::uint64_t m_skips = 0;
};

/// The same for the model.
class ModelLadder : public ViewerFilter {
public:
    ModelLadder(unsigned max_lag_ms, unsigned prompt_keys) : m_ladder(max_lag_ms / 2, prompt_keys) {}

    bool sends(const StreamFrame& frame, std::int64_t age_us) override {
        Orvex::Reticor::MediaOffer offer;
        offer.channel = frame.channel;
        offer.level = frame.level;
        offer.key = frame.key;
        offer.bytes = frame.bytes;
        offer.age_us = static_cast<std::uint64_t>(age_us);
        return m_ladder.choose(offer) == Orvex::Reticor::MediaVerdict::SEND;
    }
    void missed() override { m_ladder.missed(); }

private:
    relay::Ladder m_ladder;
};

}  // namespace Bench
