// Thinning: the disposable frames that a sender leaves out, and when that is over.
#pragma once

#include <algorithm>
#include <cstdint>
#include <utility>

namespace Orvex::Reticor {

/// Frames are left out one by one, for as long as the link is too slow for all: an episode, of which the
/// product is told once.
class Thinning {
public:
    /// Without one left out for so long, and not for less than the limit of lag, it is over.
    static constexpr uint64_t QUIET_US = 1000000;

    struct Sum {
        uint64_t frames = 0;
        uint64_t bytes = 0;
    };

    void leave_out(int64_t bytes, uint64_t now_us) {
        m_episodes += m_now.frames == 0 ? 1 : 0;
        m_last_us = now_us;
        m_now.frames += 1;
        m_now.bytes += static_cast<uint64_t>(bytes);
        m_all.frames += 1;
        m_all.bytes += static_cast<uint64_t>(bytes);
    }
    /// What was left out in the episode that is over by now; no frames if none is.
    Sum take_over(uint64_t now_us, uint64_t max_lag_us) {
        const bool over = m_now.frames != 0 && now_us - m_last_us >= std::max(QUIET_US, max_lag_us);
        return over ? std::exchange(m_now, {}) : Sum{};
    }

    const Sum& all() const { return m_all; }
    uint64_t episodes() const { return m_episodes; }

private:
    Sum m_now;
    Sum m_all;
    uint64_t m_episodes = 0;
    uint64_t m_last_us = 0;
};

}  // namespace Orvex::Reticor
