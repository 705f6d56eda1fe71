// The pace of a CMediaStreamReceiver.
#include "Tool/receive/MediaReceiverState.h"

namespace Orvex::Reticor {

int64_t scaleMediaTime(long long media_us, float speed) {
    // Single precision is what media clocks of this library have always had: it limits their resolution.
    const float scaled = static_cast<float>(media_us) / speed;
    constexpr float limit = 9223372036854775808.0F;
    return scaled >= -limit && scaled < limit ? static_cast<int64_t>(scaled) : INT64_MIN;
}

void MediaReceiverState::pace(long long media_us, uint64_t now_us, int64_t period_us) {
    const auto scaled = static_cast<uint64_t>(scaleMediaTime(media_us, m_speed));
    if (m_first_time == NOT_SEEN) {
        m_first_time = scaled;
        m_start_time = now_us;
    }
    m_elapsed = now_us + static_cast<uint64_t>(m_start_offset) - m_start_time;
    // Without signs up to the division, since any number can come from a media clock.
    const uint64_t ahead = scaled - m_first_time + static_cast<uint64_t>(period_us) - m_elapsed;
    m_wait_ticks = static_cast<int32_t>(static_cast<int64_t>(ahead) / period_us);
}

}  // namespace Orvex::Reticor
