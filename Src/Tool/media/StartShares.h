// StartShares: how much those that begin with the start cache are sent in one step, so that the others do not
// wait for long.
#pragma once

#include <algorithm>
#include <cstdint>

#include "Tool/media/SenderRecord.h"

namespace Orvex::Reticor {

/// They come after all others, and in a step as many of them have a turn as the step's bytes allow; those
/// that had none come first in the next one. Those that wait for room go on between two steps as well, on
/// workers, for as many bytes again.
///
/// Thread safety: none of its own; guarded by the mutex of the buffer.
class StartShares {
public:
    /// After so many bytes a sender begins no other frame in that turn.
    static constexpr uint64_t SENDER_BYTES = 512 * 1024;
    /// After so many bytes nobody begins a turn in that step; nor on a worker before the next one.
    static constexpr uint64_t STEP_BYTES = 4 * 1024 * 1024;

    void begin_step() {
        m_round += m_refused ? 0 : 1;
        m_refused = false;
        m_left = STEP_BYTES;
        m_left_between = STEP_BYTES;
    }
    /// Whether it has its turn in the step.
    bool admit(SenderRecord& record) INFRA_REQUIRES(CORE_MUTEX) {
        if (m_left == 0) {
            m_refused = true;
            return false;
        }
        if (record.m_start.m_round == m_round) {
            return false;
        }
        record.set_round(m_round);
        return true;
    }
    /// What a turn has come to.
    void count(uint64_t bytes) { m_left -= std::min(m_left, bytes); }

    /// Whether a worker may give a turn before the next step, and what one has come to.
    bool any_between() const { return m_left_between != 0; }
    void count_between(uint64_t bytes) { m_left_between -= std::min(m_left_between, bytes); }

private:
    uint64_t m_round = 1;
    uint64_t m_left = 0;                   ///< Bytes of this step.
    uint64_t m_left_between = STEP_BYTES;  ///< Bytes from this step to the next one.
    bool m_refused = false;
};

}  // namespace Orvex::Reticor
