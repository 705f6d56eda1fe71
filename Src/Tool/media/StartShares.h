// StartShares: how much those that begin with the start cache are sent in one step, so that the others do not
// wait for long.
#pragma once

#include <cstdint>

#include "Tool/media/SenderRecord.h"

namespace Orvex::Reticor {

/// In a step as many of them have a turn as the step's bytes allow; those that had none come first in the
/// next one.
///
/// Thread safety: none of its own; guarded by the mutex of the buffer.
class StartShares {
public:
    /// After so many bytes a sender begins no other frame in that turn.
    static constexpr uint64_t SENDER_BYTES = 512 * 1024;
    static constexpr uint64_t STEP_BYTES = 8 * 1024 * 1024;

    void begin_step() {
        m_round += m_refused ? 0 : 1;
        m_refused = false;
        m_left = STEP_BYTES / SENDER_BYTES;
    }
    /// Whether it has its turn. One that has caught up always has.
    bool admit(SenderRecord& record) INFRA_REQUIRES(CORE_MUTEX) {
        if (!record.m_start.m_runs) {
            return true;
        }
        if (m_left == 0) {
            m_refused = true;
            return false;
        }
        if (record.m_start.m_round == m_round) {
            return false;
        }
        record.set_round(m_round);
        --m_left;
        return true;
    }

private:
    uint64_t m_round = 1;
    uint64_t m_left = 0;  ///< Turns in this step.
    bool m_refused = false;
};

}  // namespace Orvex::Reticor
