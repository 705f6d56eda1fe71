// FrameFilter: a copy is asked, since the original can be replaced at any time.
#include "Tool/step/FrameFilter.h"

#include <new>

#include <Infra/HeldLocks.h>

namespace Orvex::Reticor {

bool FrameFilter::set(const Function& function) {
    auto* const copy = new (std::nothrow) Function(function);
    change(copy);
    return copy != nullptr;
}

void FrameFilter::drop() {
    change(nullptr);
}

void FrameFilter::change(Function* function) {
    Infra::CGuard guard(m_mutex);
    delete m_function;
    m_function = function;
}

// What is known of the frame is set before the call: a call-back inside may look at the sender.
MediaVerdict FrameFilter::judge(const CFrame& frame, uint64_t now_us) {
    if (knows(frame)) {
        return m_verdict;
    }
    if (has_wait(frame) && !frame.is_key()) {
        return MediaVerdict::WAIT_KEY;  // The resume policy lets what follows another channel go on.
    }
    m_ordinal = frame.m_ordinal;
    m_channel = frame.channel();
    m_verdict = MediaVerdict::SEND;
    m_waits = static_cast<uint8_t>(m_waits & ~frame.channel_bit());
    MediaOffer offer;
    offer.channel = frame.channel();
    offer.level = frame.level();
    offer.key = frame.is_key();
    offer.bytes = static_cast<uint64_t>(frame.m_frame_len);
    offer.age_us = now_us > frame.m_complete_us ? now_us - frame.m_complete_us : 0;
    offer.info = frame.m_info_shown;
    offer.info_arg = frame.m_info_arg;
    ++m_stats.asked;
    m_verdict = ask(offer);
    if (m_verdict == MediaVerdict::WAIT_KEY) {
        m_waits = static_cast<uint8_t>(m_waits | frame.channel_bit());
    }
    return m_verdict;
}

MediaVerdict FrameFilter::ask(const MediaOffer& offer) {
    Function copy;
    {
        Infra::CGuard guard(m_mutex);
        if (m_function == nullptr) {
            return MediaVerdict::SEND;
        }
        copy = *m_function;
    }
    INFRA_PROMISE(FRAME_FILTER);
    return copy(offer);
}

}  // namespace Orvex::Reticor
