// CMediaStreamSender: its operations, and its lines.
#include "Tool/media/MediaStreamSender.h"

#include <cassert>
#include <cstdio>
#include <new>
#include <optional>

#include <Infra/Log.h>

namespace Orvex::Reticor {

namespace {

constexpr uint32_t WARNING_EVERY = 100;

/// The names by which the lines of senders are known. They are a part of the lines.
constexpr const char* BLOCKED_NAME = "void Orvex::Reticor::CMediaStreamSender::socket_blocked(const char*)";
constexpr const char* FAILED_NAME = "void Orvex::Reticor::CMediaStreamSender::socket_failed(const char*)";

/// Told once: whoever wants to know more asks again.
void tell(SenderRecord& record, const char* name, const char* format, const char* where) {
    const long id = Infra::relaxedLoad(record.m_exception_id);
    if (id == 0) {
        return;
    }
    if (Infra::logEnabled(3)) {
        char text[128];
        std::snprintf(text, sizeof text, format, where);
        Infra::Detail::logMember(3, __FILE__, name, __LINE__, record.m_owner, "%s", text);
    }
    record.notify(id, MEDIA_MSG_SOCKET_FAILED, 0);
    Infra::relaxedStore(record.m_exception_id, 0);
}

}  // namespace

void reportTurn(SenderRecord& record, TurnEnd end) {
    const bool other = end == TurnEnd::OTHER_BLOCKED || end == TurnEnd::OTHER_FAILED;
    const char* const where = other ? "check_other_data" : "Send";
    if (isFailure(end)) {
        tell(record, FAILED_NAME, "MediaStreamSender %s socket exception!\n", where);
    } else if (end != TurnEnd::DONE) {
        if (record.has_stalled()) {
            tell(record, BLOCKED_NAME, "MediaStreamSender %s socket exception for timeout!\n", where);
        }
        if (record.m_block_count % WARNING_EVERY == 0 && Infra::logEnabled(3)) {
            Infra::Detail::logMember(3, __FILE__, BLOCKED_NAME, __LINE__, record.m_owner,
                                     "MediaStreamSender net warnning %d!\n",
                                     static_cast<int>(record.m_block_count));
        }
    }
}

CMediaStreamSender* CMediaStreamSender::Create() {
    return new CMediaStreamSender;
}

CMediaStreamSender::CMediaStreamSender() : m_state(new SenderRecord(*this)) {}

CMediaStreamSender::~CMediaStreamSender() {
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
    Infra::relaxedStore(m_state->m_stream, stream);
    return 0;
}

CSock* CMediaStreamSender::Detach() {
    CSock* const stream = Infra::relaxedLoad(m_state->m_stream);
    Infra::relaxedStore(m_state->m_stream, nullptr);
    return stream;
}

// A sender that has never been on a list has no core, and is its caller's alone.
long long CMediaStreamSender::Send(CFrame* frame, unsigned long long) INFRA_NO_THREAD_SAFETY_ANALYSIS {
    const std::shared_ptr<MediaCore> core = m_state->enter_core();
    std::optional<MediaStep> step;
    if (core) {
        step.emplace(core, MediaStep::ENTERED);
    }
    const TurnEnd end = MediaSending(*m_state).run(frame);
    reportTurn(*m_state, end);
    return isFailure(end) ? -1 : static_cast<long long>(m_state->m_send_total);
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
    m_state->m_other.add(data, len);
}

bool CMediaStreamSender::AttachSendProc(Infra::TFunction3<void, CMediaPacket*, int, int> proc) {
    auto* const copy = new (std::nothrow) Infra::TFunction3<void, CMediaPacket*, int, int>(proc);
    m_state->set_procedure(copy);
    return copy != nullptr;
}

bool CMediaStreamSender::DetachSendProc() {
    m_state->set_procedure(nullptr);
    return true;
}

void CMediaStreamSender::SetSendTimeout(unsigned int seconds) {
    Infra::relaxedStore(m_state->m_send_timeout, seconds);
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
    Infra::relaxedStore(m_state->m_exception_id, id);
}

void CMediaStreamSender::SetResumePolicy(unsigned max_lag_ms) {
    Infra::relaxedStore(m_state->m_max_lag_us, uint64_t{max_lag_ms} * 1000);
}

void CMediaStreamSender::WaitSkip(long id, unsigned int msg) {
    Infra::relaxedStore(m_state->m_skip_msg, msg);
    Infra::relaxedStore(m_state->m_skip_id, id);
}

}  // namespace Orvex::Reticor
