// FrameChoice: which frames a sender is to get.
#pragma once

#include "Tool/frame/StepAhead.h"
#include "Tool/media/SenderRecord.h"

namespace Orvex::Reticor {

/// The strict mode, a function of the sender's place and the frame alone. After a gap, and above the limit of
/// lag, only a key frame within the limit will do.
class ResumePolicy {
public:
    static FrameDecision decide(const SenderRecord& record, const CFrame& frame, uint64_t now_us)
        INFRA_REQUIRES(CORE_MUTEX) {
        const bool late = now_us > frame.m_complete_us + record.max_lag_us();
        if (!late && record.m_courses.follows(frame) && (record.m_lost_mask & frame.channel_bit()) == 0) {
            return {true, false};
        }
        const bool resumes = !late && frame.is_key();
        return {resumes, !resumes};
    }
};

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
