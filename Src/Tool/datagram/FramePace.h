// FramePace: how fast the datagrams of a frame follow each other.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>

namespace Orvex::Reticor {

/// A socket for datagrams hardly ever is full, and what a receiver has no room for is lost: a key frame that
/// goes out at once is more than its buffer takes. So a frame has half the time until the next one of its
/// channel, as that was last, from when it was complete; some may go at once in any case. Whoever is later
/// than that goes on without a pause.
///
/// Thread safety: none; its owner's lock guards it.
class FramePace {
public:
    static constexpr size_t AT_ONCE = 16;  ///< Datagrams.
    static constexpr uint64_t PAUSE_US = 5000;
    static constexpr uint64_t FIRST_SPREAD_US = 20000;  ///< While the time between frames is not known.
    static constexpr uint64_t MOST_SPREAD_US = 50000;

    void set_on(bool on) { m_on = on; }

    /// A frame of a channel, 0 to 7, begins.
    void begin(int channel, uint64_t complete_us, size_t datagrams) {
        uint64_t& last_us = m_last_us[static_cast<size_t>(channel)];
        m_spread_us = last_us == 0 || complete_us < last_us
                          ? FIRST_SPREAD_US
                          : std::min((complete_us - last_us) / 2, MOST_SPREAD_US);
        last_us = complete_us;
        m_begin_us = complete_us;
        m_datagrams = datagrams;
    }

    /// How many of the frame's datagrams may have gone by now.
    size_t due(uint64_t now_us) const {
        const uint64_t age_us = now_us > m_begin_us ? now_us - m_begin_us : 0;
        if (!m_on || age_us >= m_spread_us) {
            return m_datagrams;
        }
        return std::min(AT_ONCE + static_cast<size_t>(m_datagrams * age_us / m_spread_us), m_datagrams);
    }
    /// When to look again, after all that was due has gone.
    uint64_t next_us(uint64_t now_us) const {
        return std::min(now_us + PAUSE_US, std::max(m_begin_us + m_spread_us, now_us + 1));
    }

private:
    std::array<uint64_t, 8> m_last_us{};  ///< When the last frame of each channel was complete; 0: none was.
    uint64_t m_begin_us = 0;
    uint64_t m_spread_us = 0;
    size_t m_datagrams = 0;
    bool m_on = true;
};

}  // namespace Orvex::Reticor
