// CMediaBuffer: its operations, each a step under the core's lock, and its lines.
#include <Reticor/MediaBuffer.h>

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <memory>
#include <new>
#include <utility>

#include <Infra/Log.h>

#include "Socket/address/SockError.h"
#include "Tool/batch/WriteRing.h"
#include "Tool/frame/MediaTrace.h"
#include "Tool/media/MediaBufferState.h"

namespace Orvex::Reticor {

namespace {

/// Null if there is no memory.
MediaBufferState* make_state(CMediaBuffer& owner) {
    try {
        return new OwnedBufferState(owner);
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

}  // namespace

CMediaBuffer::CMediaBuffer() : m_state(make_state(*this)) {
    if (m_state == nullptr) {
        INFRA_LOG(2, "CMediaBuffer, no memory, the buffer takes nothing\n");
    }
}

CMediaBuffer::~CMediaBuffer() {
    TargetStepMark::assert_none();
    if (m_state == nullptr) {
        return;
    }
    Clear();
    m_state->retire();
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
    if (m_state == nullptr) {
        return -1;
    }
    MediaBufferState& state = *m_state;
    const MediaStep step(state.m_core);
    assert(!step.nested() && "Put or do_send inside a call-back of the same media buffer");
    if (!state.m_frames.make_room(packet != nullptr)) {
        INFRA_LOG(2, "CMediaBuffer, no memory for a packet or a frame\n");
        return -1;
    }
    if (packet != nullptr) {
        assert(len >= 0);
        const int channel = state.accept(packet, len, mark, level);
        if (mark == MEDIA_MARK_LAST) {
            assert(channel <= 7 && channel >= 0);
            state.complete();
        }
    }
    if (!state.sends()) {
        return 0;
    }
    const uint64_t discard_byte = state.send_packet(packet != nullptr, len != 0 || force_remark);
    if (discard_byte != 0) {
        INFRA_LOG(3, "CMediaBuffer::send_packet, unexcepted result, discard_byte =%ju \n",
                  static_cast<uintmax_t>(discard_byte));
        assert(discard_byte == 0);
    }
    for (const CFrame* frame = nullptr; (frame = state.m_frames.age_hollow(frame)) != nullptr;) {
        if (Infra::logEnabled(3)) {
            // The function by which the line is known is a part of it.
            constexpr const char* HOLLOW_NAME = "void Orvex::Reticor::CMediaBuffer::expire_hollow_frames()";
            Infra::Detail::logMember(3, __FILE__, HOLLOW_NAME, __LINE__, this,
                                     "CMediaBuffer, frame:%p without a byte is let go\n",
                                     static_cast<const void*>(frame));
        }
    }
    state.m_frames.drop_expired();
    state.m_frames.trim_kept();
    return 0;
}

int CMediaBuffer::PutFrameInfo(CMediaPacket* packet, int arg) {
    if (m_state == nullptr) {
        return -1;
    }
    const MediaStep step(m_state->m_core);
    if (!m_state->m_frames.make_room(false)) {
        INFRA_LOG(2, "CMediaBuffer, no memory for a packet or a frame\n");
        return -1;
    }
    m_state->m_frames.put_info(packet, arg);
    return 0;
}

void CMediaBuffer::AddSender(CMediaStreamSender* sender) {
    if (m_state == nullptr) {
        return;
    }
    const SenderEntry state = m_state->add_sender(SenderRecord::of(*sender));
    assert(state.m_list == nullptr && "a sender can be on the list of one buffer only");
    if (state.m_no_memory) {
        INFRA_LOG(2, "CMediaBuffer::AddSender, no memory for sender:%p\n", static_cast<void*>(sender));
    }
    if (state.m_here_already) {
        INFRA_LOG(3, "CMediaBuffer::AddSender, sender:%p is on the list already\n",
                  static_cast<void*>(sender));
    }
}

void CMediaBuffer::DelSender(CMediaStreamSender* sender) {
    if (m_state == nullptr) {
        return;
    }
    const MediaStep step(m_state->m_core);
    m_state->take_off(SenderRecord::of(*sender), step.nested());
}

bool CMediaBuffer::MoveSender(CMediaBuffer& to, CMediaStreamSender* sender, MediaMove when) {
    if (m_state == nullptr || to.m_state == nullptr) {
        return false;
    }
    return m_state->move(SenderRecord::of(*sender), *to.m_state, when == MediaMove::NEXT_KEY);
}

void CMediaBuffer::AddLevel2Buffer(CLevel2Buffer_IF* tap) {
    if (m_state == nullptr) {
        return;
    }
    const MediaStep step(m_state->m_core);
    const auto [entered, here_already, no_memory] = m_state->m_taps.add(*tap);
    assert(entered && "a tap can be on the list of one buffer only");
    if (no_memory) {
        INFRA_LOG(2, "CMediaBuffer::AddLevel2Buffer, no memory for tap:%p\n", static_cast<void*>(tap));
    }
    if (here_already) {
        INFRA_LOG(3, "CMediaBuffer::AddLevel2Buffer, tap:%p is on the list already\n",
                  static_cast<void*>(tap));
    }
}

void CMediaBuffer::DelLevel2Buffer(CLevel2Buffer_IF* tap) {
    if (m_state == nullptr) {
        return;
    }
    const MediaStep step(m_state->m_core);
    m_state->m_taps.remove(tap);
}

void CMediaBuffer::Clear() {
    if (m_state == nullptr) {
        return;
    }
    const MediaStep step(m_state->m_core);
    assert(!step.nested() && "Clear inside a call-back of the same media buffer");
    if (const SenderRecord* const first = m_state->m_senders.any()) {
        INFRA_LOG(3, "%s:%d %s m_sender_header:%p not null\n", __FILE__, __LINE__, INFRA_FUNCTION,
                  static_cast<void*>(first->m_owner));
    }
    if (const CLevel2Buffer_IF* const first = m_state->m_taps.first()) {
        INFRA_LOG(3, "%s:%d %s m_buffer_header:%p not null\n", __FILE__, __LINE__, INFRA_FUNCTION,
                  static_cast<const void*>(first));
    }
    m_state->m_senders.clear();
    m_state->m_taps.clear();
    while (const CFrame* const head = m_state->m_frames.head()) {
        INFRA_LOG_PLAIN(3, "%s:%d %s CMediaBuffer::Clear,m_frame_header:%p\n", __FILE__, __LINE__,
                        INFRA_FUNCTION, static_cast<const void*>(head));
        m_state->m_frames.drop_head();
    }
    m_state->m_frames.reset();
}

void CMediaBuffer::Hold() {
    if (m_state != nullptr) {
        const CoreGuard guard(*m_state->m_core);
        m_state->set_hold(true);
    }
}

void CMediaBuffer::Flush() {
    if (m_state == nullptr) {
        return;
    }
    {
        const CoreGuard guard(*m_state->m_core);
        m_state->set_hold(false);
    }
    put(nullptr, 0, MEDIA_MARK_LAST, 0, false);
}

int CMediaBuffer::SetWriteBatch(unsigned least) {
    if (m_state == nullptr) {
        return fail_with(ENOMEM);
    }
    std::unique_ptr<StepBatch::Room> room;
    if (least != 0) {
        std::unique_ptr<BatchWriter_IF> ring = WriteRing::make();
        if (ring == nullptr) {
            return -1;
        }
        room.reset(new (std::nothrow) StepBatch::Room{std::move(ring)});
        if (room == nullptr) {
            return fail_with(ENOMEM);
        }
    }
    const CoreGuard guard(*m_state->m_core);
    m_state->m_batch.set(room, least);
    return 0;
}

void CMediaBuffer::EnableAutoSend() {
    EnableAutoSend(CSenderHandler::DEFAULT_INTERVAL_MS);
}

void CMediaBuffer::EnableAutoSend(unsigned long long interval) {
    if (m_state != nullptr && !m_state->m_auto_send.enable(interval)) {
        INFRA_LOG(2, "CMediaBuffer::EnableAutoSend, no memory\n");
    }
}

void CMediaBuffer::DisableAutoSend() {
    if (m_state != nullptr) {
        m_state->m_auto_send.disable();
    }
}

void CMediaBuffer::SetDisposableLevel(int level) {
    const CoreGuard guard(*m_state->m_core);
    m_state->set_disposable_level(level);
}

void CMediaBuffer::SetKeepLimits(unsigned keep_ms, unsigned long long most_bytes) {
    const CoreGuard guard(*m_state->m_core);
    m_state->m_frames.set_keep_bounds(uint64_t{keep_ms} * 1000, most_bytes);
}

void CMediaBuffer::SetStartCache(unsigned keep_ms, unsigned long long most_bytes) {
    if (m_state != nullptr) {
        const MediaStep step(m_state->m_core);
        m_state->set_start_cache(uint64_t{keep_ms} * 1000, most_bytes);
    }
}

bool CMediaBuffer::GetStartStats(MediaStartStats* stats) {
    const uint32_t size = stats->size;
    if (m_state == nullptr || size < offsetof(MediaStartStats, frames)) {
        return false;
    }
    MediaStartStats all = m_state->start_stats();
    all.size = size;
    std::memcpy(static_cast<void*>(stats), &all, std::min<size_t>(size, sizeof all));
    return true;
}

int CMediaBuffer::GetBufferNum() {
    return m_state != nullptr ? static_cast<int>(m_state->m_frames.valid_num()) : 0;
}

unsigned long long CMediaBuffer::GetBufferSize() {
    if (m_state == nullptr) {
        return 0;
    }
    const CoreGuard guard(*m_state->m_core);
    return m_state->m_frames.size();
}

MediaBufferStats CMediaBuffer::GetStats() {
    return m_state != nullptr ? m_state->stats() : MediaBufferStats();
}

}  // namespace Orvex::Reticor
