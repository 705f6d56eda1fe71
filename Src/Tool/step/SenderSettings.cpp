// SenderSettings.
#include "Tool/step/SenderSettings.h"

namespace Orvex::Reticor {

void SenderSettings::attach(CSock* stream) {
    Infra::relaxedStore(m_stream, stream);
    if (m_kernel_lag.on()) {
        m_kernel_lag.forget();
        KernelLag::apply(*stream, KernelLag::LEAST_BYTES);
    }
}

// Until the rate is known, the least.
void SenderSettings::set_kernel_lag(unsigned limit_ms) {
    m_kernel_lag.set_limit(limit_ms);
    if (CSock* const stream = Infra::relaxedLoad(m_stream)) {
        KernelLag::apply(*stream, limit_ms != 0 ? KernelLag::LEAST_BYTES : 0);
    }
}

CSock* SenderSettings::detach() {
    return __atomic_exchange_n(&m_stream, nullptr, __ATOMIC_RELAXED);
}

void SenderSettings::set_policy(unsigned max_lag_ms, MediaResume mode, unsigned hard_lag_ms) {
    Infra::relaxedStore(m_hard_lag_us, uint64_t{hard_lag_ms} * 1000);
    Infra::relaxedStore(m_max_lag_us, uint64_t{max_lag_ms} * 1000);
    set_wish(WISH_KEEP, max_lag_ms != 0 && mode == MediaResume::AHEAD);
}

void SenderSettings::set_wish(uint8_t wish, bool on) {
    if (on) {
        __atomic_fetch_or(&m_wishes, wish, __ATOMIC_RELAXED);
    } else {
        __atomic_fetch_and(&m_wishes, static_cast<uint8_t>(~wish), __ATOMIC_RELAXED);
    }
}

void SenderSettings::choose_channel(int channel) {
    uint8_t mask = ALL_CHANNELS;
    if (channel >= 0) {
        mask = Infra::relaxedLoad(m_channel_mask);
        mask = mask == ALL_CHANNELS ? uint8_t{0} : mask;
        mask = static_cast<uint8_t>(mask | 1U << channel);
    }
    Infra::relaxedStore(m_channel_mask, mask);
}

void SenderSettings::give_up_channel(int channel) {
    const uint8_t mask = Infra::relaxedLoad(m_channel_mask);
    Infra::relaxedStore(m_channel_mask, mask & ~(1U << channel));
}

}  // namespace Orvex::Reticor
