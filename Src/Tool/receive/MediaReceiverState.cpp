// The pace of a CMediaStreamReceiver.
#include "Tool/receive/MediaReceiverState.h"

namespace Orvex::Reticor {

const ObjectKind MediaReceiverState::KIND{"receiver",
                                          {{{"calls", "Calls of receivers by their threads.", true},
                                            {"running", "Receivers that are called.", false}}}};

ObjectValues MediaReceiverState::figures(const void* object) {
    const auto& receiver = *static_cast<const MediaReceiverState*>(object);
    const bool runs = receiver.m_state.load(std::memory_order_relaxed) == RECEIVER_RUNNING;
    return {receiver.m_calls.Get(), runs ? 1U : 0U};
}

int64_t scale_media_time(long long media_us, float speed) {
    // Single precision is part of the interface: it limits the resolution of media clocks.
    const float scaled = static_cast<float>(media_us) / speed;
    constexpr float LIMIT = 9223372036854775808.0F;
    return scaled >= -LIMIT && scaled < LIMIT ? static_cast<int64_t>(scaled) : INT64_MIN;
}

void MediaReceiverState::pace(long long media_us, uint64_t now_us, int64_t period_us) {
    const auto scaled = static_cast<uint64_t>(scale_media_time(media_us, m_speed));
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
