// FrameChoice: which frames a sender is to get.
#pragma once

#include "Tool/media/ResumePolicy.h"

namespace Orvex::Reticor {

/// A function of the sender's place, the frame, and the book of the channels alone.
class FrameChoice {
public:
    static FrameDecision decide(const SenderRecord& record, const CFrame& frame, uint64_t now_us)
        INFRA_REQUIRES(CORE_MUTEX) {
        return record.has_policy() ? by_policy(record, frame, now_us) : plain(record, frame);
    }
    /// With a resume policy; the common case is to pay nothing for it.
    static FrameDecision by_policy(const SenderRecord& record, const CFrame& frame, uint64_t now_us)
        INFRA_REQUIRES(CORE_MUTEX);
    /// Without one, a key frame ends the wait of its channel, also of one that was given up meanwhile.
    static FrameDecision plain(const SenderRecord& record, const CFrame& frame) INFRA_REQUIRES(CORE_MUTEX) {
        const uint8_t bit = frame.channel_bit();
        if ((record.m_lost_mask & bit) != 0 && !frame.is_key()) {
            return {false, true};
        }
        return {(Infra::relaxedLoad(record.m_channel_mask) & bit) != 0, false};
    }

private:
    static FrameDecision ahead(const SenderRecord& record, const CFrame& frame, uint64_t now_us)
        INFRA_REQUIRES(CORE_MUTEX);
};

}  // namespace Orvex::Reticor
