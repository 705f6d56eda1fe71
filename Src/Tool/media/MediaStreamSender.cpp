// CMediaStreamSender: its operations.
#include <Reticor/MediaStreamSender.h>

#include <cassert>
#include <new>
#include <optional>

#include <Infra/Log.h>

#include "Core/handle/HandlerInternal.h"
#include "Tool/media/MediaSending.h"

namespace Orvex::Reticor {

CMediaStreamSender* CMediaStreamSender::Create() {
    auto* const sender = new (std::nothrow) CMediaStreamSender;
    if (sender != nullptr && sender->m_state != nullptr) {
        return sender;
    }
    if (sender == nullptr || sender->GetID() != 0) {  // else the handler has told of itself
        INFRA_LOG_STATIC(2, "CMediaStreamSender::Create no memory!\n");
    }
    if (sender != nullptr) {
        HandlerInternal::Discard(sender);
    }
    return nullptr;
}

CMediaStreamSender::CMediaStreamSender()
    : m_state(GetID() != 0 ? new (std::nothrow) SenderRecord(*this) : nullptr) {}

CMediaStreamSender::~CMediaStreamSender() {
    if (m_state == nullptr) {
        return;
    }
    if (const std::shared_ptr<MediaCore> core = m_state->core()) {
        const CoreGuard guard(*core);
        m_state->leave_frame();
    }
    delete m_state;
}

int CMediaStreamSender::handle_close(CNetHandler*) {
    delete this;
    return 0;
}

int CMediaStreamSender::Attach(CSock* stream) {
    m_state->attach(stream);
    return 0;
}

CSock* CMediaStreamSender::Detach() {
    return m_state->detach();
}

// A sender that has never been on a list has no core, and is its caller's alone.
long long CMediaStreamSender::Send(CFrame* frame, unsigned long long) INFRA_NO_THREAD_SAFETY_ANALYSIS {
    const std::shared_ptr<MediaCore> core = m_state->enter_core();
    std::optional<MediaStep> step;
    if (core) {
        step.emplace(core, MediaStep::ENTERED);
    }
    MediaSending turn(*m_state);
    const TurnEnd end = turn.run(frame);
    turn.report();
    return is_failure(end) ? -1 : static_cast<long long>(m_state->m_send_total);
}

int CMediaStreamSender::GetTailPacket(char* buffer, int len) {
    const std::shared_ptr<MediaCore> core = m_state->enter_core();
    if (!core) {
        return 0;
    }
    const MediaStep step(core, MediaStep::ENTERED);
    return MediaSending(*m_state).take_tail(buffer, len);
}

MediaSenderStats CMediaStreamSender::GetStats() {
    const std::shared_ptr<MediaCore> core = m_state->enter_core();
    if (!core) {
        return MediaSenderStats();
    }
    const MediaStep step(core, MediaStep::ENTERED);
    return m_state->stats();
}

void CMediaStreamSender::SendOtherData(const char* data, int len) {
    if (!m_state->m_other.add(data, len)) {
        INFRA_LOG(2, "CMediaStreamSender::SendOtherData no memory!\n");
    }
}

bool CMediaStreamSender::AttachSendProc(Infra::TFunction3<void, CMediaPacket*, int, int> proc) {
    if (!m_state->set_procedure(proc)) {
        INFRA_LOG(2, "CMediaStreamSender::AttachSendProc no memory!\n");
        return false;
    }
    return true;
}

bool CMediaStreamSender::DetachSendProc() {
    m_state->drop_procedure();
    return true;
}

void CMediaStreamSender::SetSendTimeout(unsigned int seconds) {
    m_state->set_send_timeout(seconds);
}

void CMediaStreamSender::SetSendChannel(int channel) {
    assert(channel <= 7);
    m_state->choose_channel(channel);
}

void CMediaStreamSender::DisableSendChannel(int channel) {
    assert(channel <= 7 && channel >= 0);
    m_state->give_up_channel(channel);
}

void CMediaStreamSender::WaitException(long id) {
    m_state->wait_failure(id);
}

void CMediaStreamSender::SetResumePolicy(unsigned max_lag_ms, MediaResume mode, unsigned hard_lag_ms) {
    m_state->set_policy(max_lag_ms, mode, hard_lag_ms);
}

void CMediaStreamSender::SetKernelLag(unsigned int limit_ms) {
    m_state->set_kernel_lag(limit_ms);
}

void CMediaStreamSender::SetStallFloor(unsigned int bytes) {
    m_state->set_stall_floor(bytes);
}

void CMediaStreamSender::SetStartMode(MediaStart mode) {
    m_state->start_at_key(mode == MediaStart::NEXT_KEY);
}

void CMediaStreamSender::WaitSkip(long id, unsigned int msg) {
    m_state->wait_skip(id, msg);
}

}  // namespace Orvex::Reticor
