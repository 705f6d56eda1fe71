// FrameChoice: which frames a sender is to get.
#pragma once

#include "Tool/media/ResumePolicy.h"

namespace Orvex::Reticor {

/// A function of the sender's place and the frame alone.
class FrameChoice {
public:
    /// `now_us` counts for a sender with a resume policy only. Without one, a key frame ends the wait of its
    /// channel, also of one that was given up meanwhile.
    static FrameDecision decide(const SenderRecord& record, const CFrame& frame, uint64_t now_us)
        INFRA_REQUIRES(CORE_MUTEX) {
        const uint8_t bit = frame.channel_bit();
        const bool wanted = (Infra::relaxedLoad(record.m_channel_mask) & bit) != 0;
        if (wanted && record.has_policy()) {
            return ResumePolicy::decide(record, frame, now_us);
        }
        if ((record.m_lost_mask & bit) != 0 && !frame.is_key()) {
            return {false, true};
        }
        return {wanted, false};
    }
};

}  // namespace Orvex::Reticor
