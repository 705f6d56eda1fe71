// CMediaBuffer: its operations, each a step under the core's lock, and its lines.
#include <Reticor/MediaBuffer.h>

#include <cassert>

#include <Infra/Log.h>

#include "Tool/frame/MediaTrace.h"
#include "Tool/media/MediaBufferState.h"

namespace Orvex::Reticor {

namespace {

constexpr unsigned long long DEFAULT_INTERVAL_MS = 100;

/// The state, with the ways back to the buffer: of the shared timer, and of senders that call-backs have
/// added.
struct State final : MediaBufferState {
    using MediaBufferState::MediaBufferState;
    void do_send() override { m_owner.do_send(); }
    void come(CMediaStreamSender& sender) override INFRA_REQUIRES(CORE_MUTEX) { m_owner.AddSender(&sender); }
};

}  // namespace

CMediaBuffer::CMediaBuffer() : m_state(new State(*this)) {}

CMediaBuffer::~CMediaBuffer() {
    TargetStepMark::assert_none();
    Clear();
    DisableAutoSend();
    // Whatever calls raced before, after this no record of the timer's list names this buffer.
    CSenderHandler::Remove(0, m_state);
    {
        const MediaStep step(m_state->m_core);
        while (m_state->m_frames.head() != nullptr) {
            m_state->m_frames.drop_head();
        }
        m_state->m_senders.clear();  // What came inside the releases.
        m_state->m_taps.clear();
        m_state->m_core->m_end = nullptr;
    }
    delete m_state;
}

int CMediaBuffer::Put(CMediaPacket* packet, int len, int mark, int level) {
    return put(packet, len, mark, level, false);
}

void CMediaBuffer::do_send() {
    if (MediaTrace::on()) {
        MediaTrace::do_send(this);
    }
    put(nullptr, 0, MEDIA_MARK_LAST, 0, true);
}

int CMediaBuffer::put(CMediaPacket* packet, int len, int mark, int level, bool force_remark) {
    MediaBufferState& state = *m_state;
    const MediaStep step(state.m_core);
    assert(!step.nested() && "Put or do_send inside a call-back of the same media buffer");
    if (packet != nullptr) {
        assert(len >= 0);
        const int level_word = state.accept(packet, len, mark, level);
        if (mark == MEDIA_MARK_LAST) {
            const int channel = channelOf(level_word);
            assert(channel <= 7 && channel >= 0);
            static_cast<void>(channel);
            state.complete(level_word);
        }
    }
    // Clear while a frame is half filled: the timer must not send half a frame.
    if (!state.m_send_ready) {
        return 0;
    }
    const uint64_t discard_byte = state.send_packet();
    if (discard_byte != 0) {
        INFRA_LOG(3, "CMediaBuffer::send_packet, unexcepted result, discard_byte =%ju \n",
                  static_cast<uintmax_t>(discard_byte));
        assert(discard_byte == 0);
    }
    state.after_sending(packet != nullptr, len != 0 || force_remark);
    if (state.m_frames.has_hollow()) {
        const CFrame* frame = nullptr;
        while ((frame = state.m_frames.age_hollow(frame)) != nullptr) {
            INFRA_LOG(3, "CMediaBuffer, frame:%p without a byte is let go\n",
                      static_cast<const void*>(frame));
        }
    }
    state.m_frames.drop_expired();
    return 0;
}

int CMediaBuffer::PutFrameInfo(CMediaPacket* packet, int arg) {
    const MediaStep step(m_state->m_core);
    m_state->m_frames.begin_if_empty();
    if (packet != nullptr) {
        m_state->m_frames.current()->PutInfo(packet, arg);
    }
    return 0;
}

// A sender that was on another buffer's list before brings along what it needs of that buffer's frames, under
// that buffer's lock. Inside a call-back, with a lock held already, it comes when the thread holds none any
// more.
void CMediaBuffer::AddSender(CMediaStreamSender* sender) {
    SenderRecord& state = SenderRecord::of(*sender);
    const std::shared_ptr<MediaCore> before = state.core();
    const bool moves = before && before != m_state->m_core;
    bool here_already = false;
    if (m_state->m_core->steps_on_this_thread() || (moves && TargetStepMark::inside())) {
        here_already = !state.m_coming.note(m_state->m_core);
    } else {
        state.move_to(m_state->m_core);
        const MediaStep step(m_state->m_core);
        here_already = state.m_list == m_state->m_core.get();
        if (!here_already) {
            assert(state.m_list == nullptr && "a sender can be on the list of one buffer only");
            m_state->m_senders.add(state);
        }
    }
    if (here_already) {
        INFRA_LOG(3, "CMediaBuffer::AddSender, sender:%p is on the list already\n",
                  static_cast<void*>(sender));
    }
}

// A call-back may be inside this sender's own sending, or in the walk over the list, so its wish waits; but
// as the socket may be closed as soon as this call returns, nothing is written to it any more.
void CMediaBuffer::DelSender(CMediaStreamSender* sender) {
    SenderRecord& state = SenderRecord::of(*sender);
    const MediaStep step(m_state->m_core);
    state.m_coming.take_back(*m_state->m_core);
    if (!step.nested()) {
        m_state->del_sender(state);
    } else if (m_state->m_senders.holds(state)) {
        state.set_leaving();
        m_state->m_core->m_some_leave = true;
    }
}

void CMediaBuffer::AddLevel2Buffer(CLevel2Buffer_IF* tap) {
    const MediaStep step(m_state->m_core);
    const TapLine::Added added = m_state->m_taps.add(*tap);
    if (added == TapLine::Added::HERE_ALREADY) {
        INFRA_LOG(3, "CMediaBuffer::AddLevel2Buffer, tap:%p is on the list already\n",
                  static_cast<void*>(tap));
        return;
    }
    const bool entered = added == TapLine::Added::YES;
    assert(entered && "a tap can be on the list of one buffer only");
    static_cast<void>(entered);
}

void CMediaBuffer::DelLevel2Buffer(CLevel2Buffer_IF* tap) {
    const MediaStep step(m_state->m_core);
    m_state->m_taps.remove(tap);
}

void CMediaBuffer::Clear() {
    MediaBufferState& state = *m_state;
    const MediaStep step(state.m_core);
    assert(!step.nested() && "Clear inside a call-back of the same media buffer");
    if (const SenderRecord* const first = state.m_senders.first()) {
        INFRA_LOG(3, "%s:%d %s m_sender_header:%p not null\n", __FILE__, __LINE__, INFRA_FUNCTION,
                  static_cast<void*>(first->m_owner));
    }
    if (const CLevel2Buffer_IF* const first = state.m_taps.first()) {
        INFRA_LOG(3, "%s:%d %s m_buffer_header:%p not null\n", __FILE__, __LINE__, INFRA_FUNCTION,
                  static_cast<const void*>(first));
    }
    state.m_senders.clear();
    state.m_taps.clear();
    while (const CFrame* const head = state.m_frames.head()) {
        INFRA_LOG_PLAIN(3, "%s:%d %s CMediaBuffer::Clear,m_frame_header:%p\n", __FILE__, __LINE__,
                        INFRA_FUNCTION, static_cast<const void*>(head));
        state.m_frames.drop_head();
    }
    state.m_frames.reset();
}

void CMediaBuffer::EnableAutoSend() {
    EnableAutoSend(DEFAULT_INTERVAL_MS);
}

void CMediaBuffer::EnableAutoSend(unsigned long long interval) {
    m_state->m_auto_send.enable(interval);
}

void CMediaBuffer::DisableAutoSend() {
    m_state->m_auto_send.disable();
}

int CMediaBuffer::GetBufferNum() {
    return static_cast<int>(m_state->m_frames.valid_num());
}

unsigned long long CMediaBuffer::GetBufferSize() {
    const CoreGuard guard(*m_state->m_core);
    return m_state->m_frames.size();
}

MediaBufferStats CMediaBuffer::GetStats() {
    const CoreGuard guard(*m_state->m_core);
    MediaBufferStats stats;
    m_state->m_frames.add_stats(stats);
    m_state->m_senders.add_stats(stats, m_state->m_frames.byte_discard());
    return stats;
}

}  // namespace Orvex::Reticor
