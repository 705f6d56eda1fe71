// CMediaBuffer: the lists of senders and taps, life and end. What a packet sets off is in
// MediaBufferStep.cpp.
#include "Tool/media/MediaBuffer.h"

#include <algorithm>
#include <cassert>
#include <utility>
#include <vector>

#include <Infra/LockClasses.h>
#include <Infra/Log.h>

#include "Tool/media/TargetStepMark.h"

namespace Orvex::Reticor {

namespace {

/// All taps that are on a list, since a tap itself cannot tell on which. Few, and rarely changed.
struct TapRegistry {
    Infra::CMutex m_mutex{Infra::LockClass::MEDIA_TAPS};
    std::vector<const CLevel2Buffer_IF*> m_taps INFRA_GUARDED_BY(m_mutex);

    /// False if it was there before.
    bool enter(const CLevel2Buffer_IF* tap) {
        Infra::CGuard guard(m_mutex);
        if (std::find(m_taps.begin(), m_taps.end(), tap) != m_taps.end()) {
            return false;
        }
        m_taps.push_back(tap);
        return true;
    }
    void leave(const CLevel2Buffer_IF* tap) {
        Infra::CGuard guard(m_mutex);
        m_taps.erase(std::remove(m_taps.begin(), m_taps.end(), tap), m_taps.end());
    }
};

TapRegistry& tapRegistry() {
    static auto& registry = *new TapRegistry;
    return registry;
}

}  // namespace

void MediaBufferState::drop_leaving() {
    for (CMediaStreamSender* sender = m_sender_header; sender != nullptr;) {
        const MediaSenderState& state = MediaSenderState::of(*sender);
        CMediaStreamSender* const next = state.m_next;
        if (state.m_leaving) {
            m_owner.del_sender(sender);
        }
        sender = next;
    }
}

/// Nobody is told.
void MediaBufferState::empty_lists() {
    while (CMediaStreamSender* const sender = m_sender_header) {
        m_sender_header = MediaSenderState::of(*sender).m_next;
        m_owner.unlink_sender(sender);
    }
    while (m_buffer_header != nullptr) {
        m_owner.del_level2_buffer(m_buffer_header);
    }
}

bool MediaBufferState::is_held(const CFrame& frame) const {
    for (const MediaSenderState* sender = frame.m_standing; sender != nullptr;
         sender = sender->m_standing_next) {
        if (sender->m_list == m_core.get()) {
            return true;
        }
    }
    return false;
}

CMediaBuffer::CMediaBuffer() : m_state(new MediaBufferState(*this)) {
    std::fill(std::begin(m_state->m_min_level), std::end(m_state->m_min_level),
              MediaBufferState::LEVEL_LEAST);
    m_state->m_frame_header = m_state->m_store.make();
    m_state->m_frame_header->Clear();
    m_state->m_current_frame = m_state->m_frame_header;
}

CMediaBuffer::~CMediaBuffer() {
    TargetStepMark::assert_none();
    Clear();
    DisableAutoSend();
    // Whatever calls raced before, after this no record of the timer's list names this buffer.
    CSenderHandler::Remove(0, m_state);
    {
        MediaStep step(m_state->m_core);
        while (m_state->m_frame_header != nullptr) {
            delete_frame(unlink_head());
        }
        m_state->empty_lists();  // What came inside the releases.
        m_state->m_core->m_end = nullptr;
    }
    delete m_state;
}

int CMediaBuffer::PutFrameInfo(CMediaPacket* packet, int arg) {
    MediaStep step(m_state->m_core);
    if (m_state->m_frame_header == nullptr) {
        begin_list();
    }
    if (packet != nullptr) {
        m_state->m_current_frame->PutInfo(packet, arg);
    }
    return 0;
}

void CMediaBuffer::begin_list() {
    m_state->m_frame_header = m_state->m_store.make();
    m_state->m_current_frame = m_state->m_frame_header;
    ++m_state->m_frame_num;
}

// Senders.

// A sender that was on another buffer's list before brings along what it needs of that buffer's frames, under
// that buffer's lock. Inside a call-back, with a lock held already, it comes when the thread holds none any
// more.
void CMediaBuffer::AddSender(CMediaStreamSender* sender) {
    MediaSenderState& state = *sender->m_state;
    const std::shared_ptr<MediaCore> before = state.core();
    const bool moves = before && before != m_state->m_core;
    if (m_state->m_core->steps_on_this_thread() || (moves && TargetStepMark::inside())) {
        if (!state.m_coming.note(m_state->m_core)) {
            INFRA_LOG(3, "CMediaBuffer::AddSender, sender:%p is on the list already\n",
                      static_cast<void*>(sender));
        }
        return;
    }
    state.move_to(m_state->m_core);
    MediaStep step(m_state->m_core);
    add_sender(sender);
}

void CMediaBuffer::add_sender(CMediaStreamSender* sender) {
    MediaSenderState& state = *sender->m_state;
    if (state.m_list == m_state->m_core.get()) {
        INFRA_LOG(3, "CMediaBuffer::AddSender, sender:%p is on the list already\n",
                  static_cast<void*>(sender));
        return;
    }
    assert(state.m_list == nullptr && "a sender can be on the list of one buffer only");
    sender->AddRef();
    state.m_list = m_state->m_core.get();
    state.m_leaving = false;
    state.m_failed = false;
    state.m_next = m_state->m_sender_header;
    state.m_next_state = state.m_next != nullptr ? state.m_next->m_state : nullptr;
    m_state->m_sender_header = sender;
    m_state->m_has_sender = true;
}

// A call-back may be inside this sender's own sending, or in the walk over the list, so its wish waits; but
// as the socket may be closed as soon as this call returns, nothing is written to it any more.
void CMediaBuffer::DelSender(CMediaStreamSender* sender) {
    MediaStep step(m_state->m_core);
    sender->m_state->m_coming.take_back(*m_state->m_core);
    if (!step.nested()) {
        del_sender(sender);
    } else if (on_list(sender)) {
        sender->m_state->m_leaving = true;
        m_state->m_core->m_some_leave = true;
    }
}

bool CMediaBuffer::on_list(const CMediaStreamSender* sender) const {
    const CMediaStreamSender* entry = m_state->m_sender_header;
    while (entry != nullptr && entry != sender) {
        entry = entry->m_state->m_next;
    }
    return entry != nullptr;
}

void CMediaBuffer::del_sender(CMediaStreamSender* sender) {
    CMediaStreamSender* before = nullptr;
    CMediaStreamSender* entry = m_state->m_sender_header;
    while (entry != nullptr && entry != sender) {
        before = std::exchange(entry, entry->m_state->m_next);
    }
    if (entry != nullptr) {
        const MediaSenderState& state = *sender->m_state;
        (before != nullptr ? before->m_state->m_next : m_state->m_sender_header) = state.m_next;
        if (before != nullptr) {
            before->m_state->m_next_state = state.m_next_state;
        }
        unlink_sender(sender);
    }
    if (m_state->m_sender_header != nullptr || !m_state->m_has_sender) {
        return;
    }
    m_state->m_has_sender = false;
    drop_complete_frames();
}

/// What every way off the list comes to. Where the sender stands stays with it, should it come back.
void CMediaBuffer::unlink_sender(CMediaStreamSender* sender) {
    MediaSenderState& state = *sender->m_state;
    state.m_next = nullptr;
    state.m_next_state = nullptr;
    state.m_list = nullptr;
    state.m_leaving = false;
    state.uncount();
    state.forget_order();
    m_state->m_core->m_gone.push_back(sender);
}

// Taps. Call-backs may change this list at once, since the walk over it keeps its place in the state.

void CMediaBuffer::AddLevel2Buffer(CLevel2Buffer_IF* tap) {
    MediaStep step(m_state->m_core);
    for (const CLevel2Buffer_IF* entry = m_state->m_buffer_header; entry != nullptr; entry = entry->m_next) {
        if (entry == tap) {
            INFRA_LOG(3, "CMediaBuffer::AddLevel2Buffer, tap:%p is on the list already\n",
                      static_cast<void*>(tap));
            return;
        }
    }
    const bool entered = tapRegistry().enter(tap);
    assert(entered && "a tap can be on the list of one buffer only");
    static_cast<void>(entered);
    tap->m_next = m_state->m_buffer_header;
    m_state->m_buffer_header = tap;
}

void CMediaBuffer::DelLevel2Buffer(CLevel2Buffer_IF* tap) {
    MediaStep step(m_state->m_core);
    del_level2_buffer(tap);
}

void CMediaBuffer::del_level2_buffer(CLevel2Buffer_IF* tap) {
    CLevel2Buffer_IF** link = &m_state->m_buffer_header;
    while (*link != nullptr && *link != tap) {
        link = &(*link)->m_next;
    }
    if (*link == nullptr) {
        return;
    }
    *link = tap->m_next;
    if (m_state->m_tap_next == tap) {
        m_state->m_tap_next = tap->m_next;
    }
    tap->m_next = nullptr;
    tapRegistry().leave(tap);
}

// Frames that go.

/// The one way in which a frame ends. It is unlinked already; senders that still stand on it, on the list or
/// not, are taken care of first.
void CMediaBuffer::delete_frame(CFrame* frame) {
    while (frame->m_standing != nullptr) {
        frame->m_standing->rescue_frame();
    }
    if (frame->m_ordinal != 0 && frame->m_frame_len < 1) {
        --m_state->m_hollow_num;
    }
    m_state->m_store.end(frame);
}

CFrame* CMediaBuffer::unlink_head() {
    CFrame* const head = m_state->m_frame_header;
    m_state->m_frame_header = head->m_next;
    --m_state->m_frame_num;
    return head;
}

/// Nobody is left to be sent anything: only a frame that is being filled stays, and the stream begins anew.
void CMediaBuffer::drop_complete_frames() {
    while (m_state->m_frame_header != nullptr && m_state->m_frame_header->m_mark != 0) {
        delete_frame(unlink_head());
    }
    m_state->m_current_frame = m_state->m_frame_header;
    const CFrame* const current = m_state->m_current_frame;
    m_state->m_core->m_byte_total = current != nullptr ? static_cast<uint64_t>(current->m_frame_len) : 0;
    m_state->m_byte_discard = 0;
}

void CMediaBuffer::Clear() {
    MediaStep step(m_state->m_core);
    assert(!step.nested() && "Clear inside a call-back of the same media buffer");
    if (m_state->m_sender_header != nullptr) {
        INFRA_LOG(3, "%s:%d %s m_sender_header:%p not null\n", __FILE__, __LINE__, INFRA_FUNCTION,
                  static_cast<void*>(m_state->m_sender_header));
    }
    if (m_state->m_buffer_header != nullptr) {
        INFRA_LOG(3, "%s:%d %s m_buffer_header:%p not null\n", __FILE__, __LINE__, INFRA_FUNCTION,
                  static_cast<void*>(m_state->m_buffer_header));
    }
    m_state->empty_lists();
    while (m_state->m_frame_header != nullptr) {
        INFRA_LOG_PLAIN(3, "%s:%d %s CMediaBuffer::Clear,m_frame_header:%p\n", __FILE__, __LINE__,
                        INFRA_FUNCTION, static_cast<void*>(m_state->m_frame_header));
        delete_frame(unlink_head());
    }
    m_state->m_current_frame = nullptr;
    m_state->m_core->m_byte_total = 0;
    m_state->m_byte_discard = 0;
}

// The shared timer.

void CMediaBuffer::EnableAutoSend() {
    EnableAutoSend(100);
}

void CMediaBuffer::EnableAutoSend(unsigned long long interval) {
    TargetStepMark::assert_none();
    Infra::CGuard switching(m_state->m_auto_mutex);
    {
        const CoreGuard guard(*m_state->m_core);
        if (std::exchange(m_state->m_auto_send, true)) {
            return;
        }
    }
    // The list's lock comes before the buffer's.
    CSenderHandler::Add(0, m_state, interval);
}

void CMediaBuffer::DisableAutoSend() {
    TargetStepMark::assert_none();
    Infra::CGuard switching(m_state->m_auto_mutex);
    {
        const CoreGuard guard(*m_state->m_core);
        if (!std::exchange(m_state->m_auto_send, false)) {
            return;
        }
    }
    CSenderHandler::Remove(0, m_state);
}

// Getters.

int CMediaBuffer::GetBufferNum() {
    return static_cast<int>(m_state->m_valid_num.load(std::memory_order_relaxed));
}

unsigned long long CMediaBuffer::GetBufferSize() {
    const CoreGuard guard(*m_state->m_core);
    unsigned long long size = 0;
    for (const CFrame* frame = m_state->m_frame_header; frame != nullptr && frame->m_frame_len >= 1;
         frame = frame->m_next) {
        size += static_cast<unsigned long long>(frame->m_frame_len);
    }
    return size;
}

MediaBufferStats CMediaBuffer::GetStats() {
    const CoreGuard guard(*m_state->m_core);
    MediaBufferStats stats;
    stats.byte_total = m_state->byte_total();
    stats.expired_frames = m_state->m_expired_frames;
    stats.expired_bytes = m_state->m_expired_bytes;
    for (const CFrame* frame = m_state->m_frame_header; frame != nullptr; frame = frame->m_next) {
        if (frame->m_valid == 0) {
            continue;
        }
        ++stats.frames;
        stats.bytes += static_cast<uint64_t>(frame->m_frame_len);
        if (frame->m_sender_count != 0 && !m_state->m_policy_only && !m_state->is_held(*frame)) {
            ++stats.pinned_frames;
            stats.pinned_bytes += static_cast<uint64_t>(frame->m_frame_len);
        }
    }
    uint64_t slowest = m_state->m_byte_discard;
    for (CMediaStreamSender* sender = m_state->m_sender_header; sender != nullptr;) {
        const MediaSenderState& state = *sender->m_state;
        ++stats.senders;
        if (state.m_joined) {
            slowest = std::min(slowest, state.m_send_total);
        }
        sender = state.m_next;
    }
    stats.debt_bytes = m_state->m_byte_discard - slowest;
    return stats;
}

}  // namespace Orvex::Reticor
