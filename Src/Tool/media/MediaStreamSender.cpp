// CMediaStreamSender: life, settings and counters. The sending of frames is in MediaSending.cpp, what becomes
// of a sender whose frame goes away in MediaSenderState.cpp.
#include "Tool/media/MediaStreamSender.h"

#include <cassert>
#include <cstring>
#include <new>

namespace Orvex::Reticor {

CMediaStreamSender* CMediaStreamSender::Create() {
    return new CMediaStreamSender;
}

CMediaStreamSender::CMediaStreamSender() : m_state(new MediaSenderState(*this)) {}

CMediaStreamSender::~CMediaStreamSender() {
    if (const std::shared_ptr<MediaCore> core = m_state->core()) {
        const CoreGuard guard(*core);
        m_state->leave_frame();
    }
    delete m_state->m_send_proc;
    delete m_state;
}

int CMediaStreamSender::handle_close(CNetHandler*) {
    delete this;
    return 0;
}

int CMediaStreamSender::Attach(CSock* stream) {
    Infra::relaxedStore(m_state->m_stream, stream);
    return 0;
}

CSock* CMediaStreamSender::Detach() {
    CSock* const stream = Infra::relaxedLoad(m_state->m_stream);
    Infra::relaxedStore(m_state->m_stream, nullptr);
    return stream;
}

// Settings.

void CMediaStreamSender::SetSendTimeout(unsigned int seconds) {
    Infra::relaxedStore(m_state->m_send_timeout, seconds);
}

void CMediaStreamSender::SetSendChannel(int channel) {
    assert(channel <= 7);
    uint8_t mask = MediaSenderState::ALL_CHANNELS;
    if (channel >= 0) {
        mask = Infra::relaxedLoad(m_state->m_channel_mask);
        mask = mask == MediaSenderState::ALL_CHANNELS ? uint8_t{0} : mask;
        mask = static_cast<uint8_t>(mask | 1U << channel);
    }
    Infra::relaxedStore(m_state->m_channel_mask, mask);
}

void CMediaStreamSender::DisableSendChannel(int channel) {
    assert(channel <= 7 && channel >= 0);
    const uint8_t mask = Infra::relaxedLoad(m_state->m_channel_mask);
    Infra::relaxedStore(m_state->m_channel_mask, mask & ~(1U << channel));
}

void CMediaStreamSender::WaitException(long id) {
    Infra::relaxedStore(m_state->m_exception_id, id);
}

void CMediaStreamSender::SetResumePolicy(unsigned max_lag_ms) {
    Infra::relaxedStore(m_state->m_max_lag_us, uint64_t{max_lag_ms} * 1000);
}

void CMediaStreamSender::WaitSkip(long id, unsigned int msg) {
    Infra::relaxedStore(m_state->m_skip_msg, msg);
    Infra::relaxedStore(m_state->m_skip_id, id);
}

void CMediaStreamSender::SendOtherData(const char* data, int len) {
    if (data == nullptr || len < 1) {
        return;
    }
    MediaSenderState& state = *m_state;
    Infra::CGuard guard(state.m_other_mutex);
    if (int64_t{state.m_other_len} + len > MediaSenderState::OTHER_SIZE) {
        return;
    }
    if (!state.m_other_data) {
        state.m_other_data.reset(new char[MediaSenderState::OTHER_SIZE]);
    }
    std::memcpy(state.m_other_data.get() + state.m_other_len, data, static_cast<size_t>(len));
    Infra::relaxedStore(state.m_other_len, state.m_other_len + len);
}

bool CMediaStreamSender::AttachSendProc(Infra::TFunction3<void, CMediaPacket*, int, int> proc) {
    using Proc = Infra::TFunction3<void, CMediaPacket*, int, int>;
    auto* const copy = new (std::nothrow) Proc(proc);
    Infra::CGuard guard(m_state->m_other_mutex);
    delete m_state->m_send_proc;
    Infra::relaxedStore(m_state->m_send_proc, copy);
    return copy != nullptr;
}

bool CMediaStreamSender::DetachSendProc() {
    Infra::CGuard guard(m_state->m_other_mutex);
    delete m_state->m_send_proc;
    Infra::relaxedStore(m_state->m_send_proc, nullptr);
    return true;
}

int CMediaStreamSender::GetTailPacket(char* buffer, int len) {
    MediaSenderState& state = *m_state;
    const std::shared_ptr<MediaCore> core = state.enter_core();
    if (!core) {
        return 0;
    }
    const MediaStep step(core, MediaStep::ENTERED);
    if (state.m_frame == nullptr || state.m_iovec_offset == 0) {
        return 0;
    }
    CFrame& frame = *state.m_frame;
    const iovec& entry = frame.m_iovec[state.m_iovec_index];
    const auto tail = static_cast<int64_t>(entry.iov_len) - state.m_iovec_offset;
    if (tail > len) {
        return -1;
    }
    std::memcpy(buffer, static_cast<const char*>(entry.iov_base) + state.m_iovec_offset,
                static_cast<size_t>(tail));
    ++state.m_iovec_index;
    state.m_frame_left -= static_cast<uint64_t>(tail);
    state.m_iovec_offset = 0;
    state.m_send_total += static_cast<uint64_t>(tail);
    frame.m_sent_len += tail;
    if (state.m_frame_left == 0) {
        frame.m_sent_len -= frame.m_frame_len;
        state.uncount();
        state.m_iovec_index = 0;
        end_frame();
        state.m_frame = get_next_frame(frame.m_next);
        state.m_frame_left = state.m_frame != nullptr ? static_cast<uint64_t>(state.m_frame->m_frame_len) : 0;
    }
    state.settle();
    return static_cast<int>(tail);
}

MediaSenderStats CMediaStreamSender::GetStats() {
    MediaSenderState& state = *m_state;
    const std::shared_ptr<MediaCore> core = state.enter_core();
    if (!core) {
        return MediaSenderStats();
    }
    const MediaStep step(core, MediaStep::ENTERED);
    MediaSenderStats stats = state.m_stats;
    const uint64_t now_us = Infra::CTime::getCurrentMicroSecond();
    stats.joined = state.m_joined;
    stats.listed = state.m_list != nullptr;
    if (stats.joined && stats.listed && core->m_byte_total > state.m_send_total) {
        stats.backlog_bytes = core->m_byte_total - state.m_send_total;
    }
    if (state.m_frame != nullptr && state.m_frame != state.m_tail && state.m_frame->m_complete_us != 0) {
        stats.lag_us = now_us - state.m_frame->m_complete_us;
    }
    if (state.m_block_time != 0) {
        stats.blocked_us = now_us - state.m_block_time;
    }
    return stats;
}

}  // namespace Orvex::Reticor
