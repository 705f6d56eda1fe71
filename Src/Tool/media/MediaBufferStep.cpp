// CMediaBuffer: what a packet or a tick sets off. The rest of the class is in MediaBuffer.cpp.
#include <algorithm>
#include <cassert>
#include <utility>

#include <Infra/Log.h>

#include "Tool/frame/MediaTrace.h"
#include "Tool/media/MediaBuffer.h"

namespace Orvex::Reticor {

namespace {

constexpr int LEVEL_MOST = 1;
constexpr int STEPS_PER_LEVEL = 10;

int clampLevel(int level_word) {
    const int level = std::clamp(levelOf(level_word), LEVEL_MOST, MediaBufferState::LEVEL_LEAST);
    return static_cast<int>((static_cast<uint32_t>(level_word) & 0xFF000000U) | static_cast<uint32_t>(level));
}

}  // namespace

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
    MediaStep step(m_state->m_core);
    assert(!step.nested() && "Put or do_send inside a call-back of the same media buffer");
    if (packet != nullptr) {
        assert(len >= 0);
        accept(packet, len, mark, level);
    }
    // Clear while a frame is half filled: the timer must not send half a frame.
    if (m_state->m_send_ready) {
        sending_step(packet != nullptr, len != 0 || force_remark);
    }
    return 0;
}

void CMediaBuffer::accept(CMediaPacket* packet, int len, int mark, int level) {
    m_state->m_send_ready = false;
    show_taps(packet, len, mark, level);
    if (m_state->m_frame_header == nullptr) {
        begin_list();
    }
    if (MediaTrace::on()) {
        MediaTrace::packet_taken(this, packet, len, mark, level);
    }
    const int level_word = clampLevel(level);
    m_state->m_current_frame->Put(packet, len, mark, level_word);
    m_state->m_core->m_byte_total += static_cast<uint64_t>(int64_t{len});
    if (mark == MEDIA_MARK_LAST) {
        complete_frame(level_word);
    }
}

void CMediaBuffer::show_taps(CMediaPacket* packet, int len, int mark, int level) {
    CLevel2Buffer_IF* tap = m_state->m_buffer_header;
    while (tap != nullptr) {
        m_state->m_tap_next = tap->m_next;
        if (tap->Put(packet, len, mark, level) < 0) {
            del_level2_buffer(tap);
        }
        tap = std::exchange(m_state->m_tap_next, nullptr);
    }
}

void CMediaBuffer::complete_frame(int level_word) {
    const int channel = channelOf(level_word);
    assert(channel <= 7 && channel >= 0);
    CFrame& frame = *m_state->m_current_frame;
    int32_t& min_level = m_state->m_min_level[channel];
    min_level = std::min(min_level, levelOf(level_word));
    if (min_level == levelOf(level_word)) {
        frame.m_key_mask = static_cast<uint8_t>(1U << channel);
    }
    frame.m_ordinal = ++m_state->m_ordinal[channel];
    frame.m_begin = m_state->byte_total() - static_cast<uint64_t>(frame.m_frame_len);
    frame.m_channel_begin = m_state->m_channel_bytes[channel];
    m_state->m_channel_bytes[channel] += static_cast<uint64_t>(frame.m_frame_len);
    if (frame.m_frame_len < 1) {
        ++m_state->m_hollow_num;
    }
    if (!m_state->m_has_sender) {
        drop_complete_frames();
        return;
    }
    frame.m_complete_us = m_state->m_core->now();
    m_state->m_send_ready = true;
}

void CMediaBuffer::sending_step(bool has_packet, bool ages) {
    if (m_state->m_current_frame == nullptr) {
        begin_list();
    }
    send_packet();
    if (ages) {
        remark_all_frames();
    }
    if (m_state->m_current_frame == nullptr) {
        begin_list();
    } else if (has_packet) {
        CFrame* const next = m_state->m_store.make();
        m_state->m_current_frame->m_next = next;
        m_state->m_current_frame = next;
        ++m_state->m_frame_num;
    }
    check_valid_frames();
    if (m_state->m_hollow_num != 0) {
        expire_hollow_frames();
    }
    if (std::exchange(m_state->m_expired_now, 0) != 0) {
        rebuild_frame_list();
    }
}

int CMediaBuffer::send_packet() {
    uint64_t should_discard = m_state->m_byte_discard;
    uint64_t min_discard = m_state->byte_total();
    const bool printing = MediaTrace::on();
    if (printing) {
        MediaTrace::walk_begins(this, should_discard, min_discard);
    }
    m_state->m_policy_only = m_state->m_sender_header != nullptr;
    CMediaStreamSender* sender = m_state->m_sender_header;
    while (sender != nullptr) {
        const MediaSenderState& state = *sender->m_state;
        state.fetch_next();
        m_state->m_policy_only = m_state->m_policy_only && state.has_policy();
        if (state.m_leaving || !join(sender)) {
            sender = state.m_next;
            continue;
        }
        if (printing) {
            MediaTrace::sender_begins(this, sender, m_state->m_current_frame);
        }
        const long long total = sender->send(m_state->m_current_frame);
        if (printing) {
            MediaTrace::sender_ends(this, sender, total);
        }
        CMediaStreamSender* const next = state.m_next;
        if (total < 0) {
            drop_failed(sender);
            if (!m_state->m_has_sender) {
                return 0;
            }
        } else if (static_cast<uint64_t>(total) <= min_discard) {
            min_discard = static_cast<uint64_t>(total);
            should_discard = min_discard;
        }
        sender = next;
    }
    discard_passed(should_discard);
    return 0;
}

/// Gives a sender that has no place in the stream yet its place, at the frame on offer, if that is a key
/// frame of its channel. False if it has to wait for another one. Between two frames the frame on offer is
/// the empty one, which looks like a key frame of channel 0; the resume policy does not take it for one.
bool CMediaBuffer::join(CMediaStreamSender* sender) {
    MediaSenderState& state = *sender->m_state;
    const bool has_policy = state.has_policy();
    if (has_policy ? state.m_joined : state.m_send_total != 0) {
        return true;
    }
    CFrame* const frame = m_state->m_current_frame;
    if (state.m_frame != nullptr || !state.at_boundary()) {
        state.leave_frame();
    }
    if (frame->level() > m_state->m_min_level[frame->channel()] || (has_policy && frame->m_valid == 0)) {
        return false;
    }
    state.m_send_total = m_state->byte_total() - static_cast<uint64_t>(frame->m_frame_len);
    state.take_frame(frame);
    state.m_joined = true;
    return true;
}

void CMediaBuffer::drop_failed(CMediaStreamSender* sender) {
    if (MediaTrace::on()) {
        MediaTrace::sender_failed(this, sender->m_state->m_next);
    }
    sender->m_state->m_failed = true;
    del_sender(sender);
}

/// Lets frames go, from the oldest on, that all joined senders have passed. Positions can run ahead of the
/// cursor, when the stream began anew under a sender; a frame on which one stands stays in any case.
void CMediaBuffer::discard_passed(uint64_t should_discard) {
    uint64_t discard_byte =
        should_discard > m_state->m_byte_discard ? should_discard - m_state->m_byte_discard : 0;
    if (MediaTrace::on()) {
        MediaTrace::walk_ends(this, should_discard, m_state->m_byte_discard);
    }
    while (const CFrame* const head = m_state->m_frame_header) {
        const auto length = static_cast<uint64_t>(head->m_frame_len);
        if (head->m_frame_len < 1 || discard_byte == 0 || discard_byte < length || m_state->is_held(*head)) {
            return;
        }
        CFrame* const frame = unlink_head();
        discard_byte -= length;
        m_state->m_byte_discard += length;
        if (MediaTrace::on()) {
            MediaTrace::frame_passed(this, frame, frame->m_frame_len);
        }
        delete_frame(frame);
    }
    if (discard_byte != 0) {
        INFRA_LOG(3, "CMediaBuffer::send_packet, unexcepted result, discard_byte =%ju \n",
                  static_cast<uintmax_t>(discard_byte));
        assert(discard_byte == 0);
    }
    m_state->m_current_frame = nullptr;
}

/// One tick for every complete frame. A frame of level L expires at (11 - L) * 10 ticks, unless a sender is
/// at work on it.
void CMediaBuffer::remark_all_frames() {
    for (CFrame* frame = m_state->m_frame_header; frame != nullptr && frame->m_frame_len >= 1;
         frame = frame->m_next) {
        if (frame->m_valid == 1) {
            ++frame->m_age;
        }
        if (frame->level() <= 10 - frame->m_age / 10) {
            continue;
        }
        const bool counted = frame->m_sender_count != 0 && !m_state->m_policy_only;
        if (!counted && !m_state->is_held(*frame)) {
            frame->m_valid = 0;
            frame->m_age = CFrame::AGE_EXPIRED;
            ++m_state->m_expired_now;
            ++m_state->m_expired_frames;
            m_state->m_expired_bytes += static_cast<uint64_t>(frame->m_frame_len);
        }
    }
}

void CMediaBuffer::check_valid_frames() {
    uint32_t count = 0;
    for (const CFrame* frame = m_state->m_frame_header; frame != nullptr && frame->m_frame_len >= 1;
         frame = frame->m_next) {
        if (frame->m_valid == 1 || frame->m_sent_len > 0) {
            ++count;
        }
    }
    m_state->m_valid_num.store(count, std::memory_order_relaxed);
    if (MediaTrace::on() && count >= 2) {
        MediaTrace::valid_frames(this, count, m_state->m_frame_num - count);
    }
}

/// All walks stop at a complete frame without a byte, so nothing behind it would ever be let go, and neither
/// would it. It goes after as many sending steps as a frame of its level has ticks.
void CMediaBuffer::expire_hollow_frames() {
    for (CFrame* frame = m_state->m_frame_header; frame != nullptr; frame = frame->m_next) {
        if (!frame->is_hollow() || frame == m_state->m_current_frame) {
            continue;
        }
        const auto limit = static_cast<uint32_t>((11 - frame->level()) * STEPS_PER_LEVEL);
        if (++frame->m_hollow_steps >= limit && !m_state->is_held(*frame)) {
            INFRA_LOG(3, "CMediaBuffer, frame:%p without a byte is let go\n", static_cast<void*>(frame));
            frame->m_valid = 0;
            frame->m_age = CFrame::AGE_EXPIRED;
            ++m_state->m_expired_now;
        }
    }
}

/// Takes out what has expired, wherever it stands. The frame that is being filled is no valid one either, and
/// stays.
void CMediaBuffer::rebuild_frame_list() {
    CFrame* frame = std::exchange(m_state->m_frame_header, nullptr);
    CFrame** link = &m_state->m_frame_header;
    while (frame != nullptr) {
        CFrame* const next = frame->m_next;
        if (frame->m_valid != 0 || frame == m_state->m_current_frame) {
            frame->m_next = nullptr;
            *link = frame;
            link = &frame->m_next;
        } else {
            if (MediaTrace::on()) {
                MediaTrace::frame_expired(this, frame, frame->m_frame_len, m_state->m_byte_discard);
            }
            --m_state->m_frame_num;
            m_state->m_byte_discard += static_cast<uint64_t>(frame->m_frame_len);
            delete_frame(frame);
        }
        frame = next;
    }
    if (m_state->m_frame_header == nullptr) {
        m_state->m_frame_header = m_state->m_current_frame;
    }
}

}  // namespace Orvex::Reticor
