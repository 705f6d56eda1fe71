// ResumePolicy: at which frames a sender may go on that begins nothing above its limit of lag.
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

}  // namespace Orvex::Reticor
