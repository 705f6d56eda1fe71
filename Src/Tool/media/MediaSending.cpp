// CMediaStreamSender: the sending of frames, all of it under the mutex of the buffer. The rest of the class
// is in MediaStreamSender.cpp.
#include <algorithm>
#include <cassert>
#include <cstring>
#include <utility>

#include <Infra/Log.h>

#include "Socket/socket/SocketWriter.h"
#include "Tool/frame/MediaTrace.h"
#include "Tool/media/MediaStreamSender.h"

namespace Orvex::Reticor {

namespace {

constexpr uint32_t WARNING_EVERY = 100;
constexpr uint64_t SECOND_US = 1000000;

/// The rest of a frame from a cursor on. The gather list is shared by all senders, so a cursor inside an
/// entry is worked into the list for the time of one write, under the buffer's mutex, and taken out again.
int writeRest(CSock* stream, CFrame& frame, int32_t index, int32_t offset) {
    iovec* const entries = frame.m_iovec + index;
    const int count = static_cast<int>(frame.m_packet_num) - index;
    if (offset == 0) {
        return SocketWriter(*stream).write_v(entries, count);
    }
    const iovec whole = entries[0];
    entries[0].iov_base = static_cast<char*>(whole.iov_base) + offset;
    entries[0].iov_len = whole.iov_len - static_cast<size_t>(offset);
    const int written = SocketWriter(*stream).write_v(entries, count);
    entries[0] = whole;
    return written;
}

long packSkip(uint64_t frames, uint64_t bytes) {
    static_assert(sizeof(long) == 8, "an attachment holds both numbers");
    constexpr uint64_t FRAMES_LIMIT = (1ULL << 23) - 1;
    constexpr uint64_t BYTES_LIMIT = (1ULL << 40) - 1;
    return static_cast<long>(std::min(frames, FRAMES_LIMIT) << 40 | std::min(bytes, BYTES_LIMIT));
}

}  // namespace

long long CMediaStreamSender::Send(CFrame* frame, unsigned long long) {
    const std::shared_ptr<MediaCore> core = m_state->enter_core();
    if (!core) {
        return send(frame);
    }
    const MediaStep step(core, MediaStep::ENTERED);
    return send(frame);
}

long long CMediaStreamSender::send(CFrame* frame) {
    MediaSenderState& state = *m_state;
    CSock* const m_stream = Infra::relaxedLoad(state.m_stream);
    assert(m_stream != NULL);
    if (MediaTrace::on()) {
        MediaTrace::turn_begins(this, frame);
    }
    Progress progress = state.at_boundary() ? choose_frame(m_stream, frame) : Progress::more;
    while (progress == Progress::more) {
        progress = write_frame(m_stream);
    }
    state.settle();
    if (progress == Progress::failed) {
        return -1;
    }
    if (state.m_frame == nullptr && state.has_policy() && state.m_joined && state.m_list != nullptr) {
        // Nothing before the end of the stream will be sent to it any more.
        state.m_send_total = state.m_list->m_byte_total;
    }
    return static_cast<long long>(state.m_send_total);
}

CMediaStreamSender::Progress CMediaStreamSender::choose_frame(CSock* stream, CFrame* frame) {
    MediaSenderState& state = *m_state;
    const int waiting = check_other_data(stream);
    if (waiting != 0) {
        return waiting < 0 ? Progress::failed : Progress::done;
    }
    if (state.m_frame != nullptr || frame == nullptr || frame->m_frame_len == 0) {
        CFrame* const before = state.m_frame;
        CFrame* const next = get_next_frame(before);
        if (next != before) {
            state.uncount();
            state.m_frame = next;
            state.m_counted = false;
            if (next != nullptr) {
                state.take_frame(next);
            }
        }
        if (next == nullptr) {
            return Progress::done;
        }
        state.m_frame_left = static_cast<uint64_t>(next->m_frame_len);
        return Progress::more;
    }
    CFrame* const chosen = need_send(frame) ? frame : get_next_frame(frame);
    if (chosen == nullptr) {
        return Progress::done;
    }
    state.take_frame(chosen);
    return Progress::more;
}

CMediaStreamSender::Progress CMediaStreamSender::write_frame(CSock* stream) {
    MediaSenderState& state = *m_state;
    CFrame& frame = *state.m_frame;
    if (static_cast<int>(frame.m_packet_num) - state.m_iovec_index < 1) {
        return Progress::done;
    }
    const int written = writeRest(stream, frame, state.m_iovec_index, state.m_iovec_offset);
    if (written == 0) {
        socket_blocked("Send");
        return Progress::done;
    }
    if (written < 0) {
        socket_failed("Send");
        frame.m_sent_len += static_cast<int64_t>(state.m_frame_left) - frame.m_frame_len;
        return Progress::failed;
    }
    state.m_block_count = 0;
    if (state.at_boundary()) {
        begin_frame();
    }
    const auto bytes = static_cast<uint64_t>(written);
    state.m_send_total += bytes;
    state.m_stats.bytes += bytes;
    frame.m_sent_len += written;
    if (bytes == state.m_frame_left) {
        return finish_frame(stream);
    }
    pass_written(bytes);
    return Progress::done;
}

/// Moves the cursor over what a partial write took.
void CMediaStreamSender::pass_written(uint64_t written) {
    MediaSenderState& state = *m_state;
    const iovec* const entries = state.m_frame->m_iovec;
    state.m_frame_left -= written;
    const uint64_t first = entries[state.m_iovec_index].iov_len - static_cast<uint64_t>(state.m_iovec_offset);
    if (written < first) {
        state.m_iovec_offset += static_cast<int32_t>(written);
        return;
    }
    written -= first;
    ++state.m_iovec_index;
    while (written >= entries[state.m_iovec_index].iov_len) {
        written -= entries[state.m_iovec_index].iov_len;
        ++state.m_iovec_index;
    }
    state.m_iovec_offset = static_cast<int32_t>(written);
}

CMediaStreamSender::Progress CMediaStreamSender::finish_frame(CSock* stream) {
    MediaSenderState& state = *m_state;
    CFrame& frame = *state.m_frame;
    frame.m_sent_len -= frame.m_frame_len;
    if (state.m_counted || !state.has_policy()) {
        --frame.m_sender_count;
    }
    state.m_iovec_index = 0;
    state.m_iovec_offset = 0;
    state.m_block_time = 0;
    end_frame();
    state.m_frame = nullptr;
    state.m_frame_left = 0;
    if (CFrame* const next = get_next_frame(frame.m_next)) {
        state.take_frame(next);
    }
    if (state.m_leaving) {
        return Progress::done;  // The procedure has taken this sender off, and its socket may be gone.
    }
    const int waiting = check_other_data(stream);
    if (waiting < 0) {
        return Progress::failed;
    }
    return waiting > 0 || state.m_frame == nullptr ? Progress::done : Progress::more;
}

void CMediaStreamSender::end_frame() {
    ++m_state->m_stats.frames;
    m_state->m_counted = false;
    call_send_proc(m_state->m_frame);
}

/// The first bytes of a frame have gone out: from here on it is the last one of its channel.
void CMediaStreamSender::begin_frame() {
    MediaSenderState& state = *m_state;
    const CFrame& frame = *state.m_frame;
    const int channel = frame.channel();
    MediaSenderState::Course& course = state.m_course[channel];
    if (frame.m_ordinal != course.m_last_ordinal + 1) {
        count_gap(channel);
    }
    course.m_last_ordinal = frame.m_ordinal;
    course.m_end = frame.m_channel_begin + static_cast<uint64_t>(frame.m_frame_len);
    if (state.has_policy()) {
        state.m_send_total = frame.m_begin;
    }
}

void CMediaStreamSender::count_gap(int channel) {
    MediaSenderState& state = *m_state;
    const CFrame& frame = *state.m_frame;
    MediaSenderState::Course& course = state.m_course[channel];
    const uint64_t stepped_frames = std::exchange(course.m_stepped_frames, 0);
    const uint64_t stepped_bytes = std::exchange(course.m_stepped_bytes, 0);
    if (course.m_last_ordinal == 0 || frame.m_ordinal <= course.m_last_ordinal) {
        return;  // It begins with this channel: what came before was never meant for it.
    }
    const uint64_t frames = frame.m_ordinal - course.m_last_ordinal - 1;
    const uint64_t bytes = frame.m_channel_begin - course.m_end;
    MediaSenderStats& stats = state.m_stats;
    stats.skipped_frames += stepped_frames;
    stats.skipped_bytes += stepped_bytes;
    if (frames > stepped_frames) {
        ++stats.holes;
        stats.hole_frames += frames - stepped_frames;
        stats.hole_bytes += bytes - stepped_bytes;
    }
    if (state.has_policy()) {
        ++stats.skips;
        if (const long id = Infra::relaxedLoad(state.m_skip_id)) {
            Notify(id, Infra::relaxedLoad(state.m_skip_msg), packSkip(frames, bytes));
        }
    }
}

void CMediaStreamSender::socket_blocked(const char* where) {
    MediaSenderState& state = *m_state;
    ++state.m_block_count;
    const uint64_t now_us = state.now();
    if (state.m_block_time == 0) {
        state.m_block_time = now_us;
    }
    if (now_us - state.m_block_time >= Infra::relaxedLoad(state.m_send_timeout) * SECOND_US) {
        if (const long id = Infra::relaxedLoad(state.m_exception_id)) {
            INFRA_LOG(3, "MediaStreamSender %s socket exception for timeout!\n", where);
            Notify(id, MEDIA_MSG_SOCKET_FAILED, 0);
            Infra::relaxedStore(state.m_exception_id, 0);
        }
    }
    if (state.m_block_count % WARNING_EVERY == 0) {
        INFRA_LOG(3, "MediaStreamSender net warnning %d!\n", static_cast<int>(state.m_block_count));
    }
}

void CMediaStreamSender::socket_failed(const char* where) {
    if (const long id = Infra::relaxedLoad(m_state->m_exception_id)) {
        INFRA_LOG(3, "MediaStreamSender %s socket exception!\n", where);
        Notify(id, MEDIA_MSG_SOCKET_FAILED, 0);
        Infra::relaxedStore(m_state->m_exception_id, 0);
    }
}

/// Negative: the socket failed; 0: nothing waits; above 0: that many bytes still wait, and go before frames.
int CMediaStreamSender::check_other_data(CSock* stream) {
    MediaSenderState& state = *m_state;
    if (Infra::relaxedLoad(state.m_other_len) < 1) {
        return 0;  // The usual case costs no lock; bytes that arrive just now go at the next boundary.
    }
    Infra::CGuard guard(state.m_other_mutex);
    const int written =
        SocketWriter(*stream).send(state.m_other_data.get(), static_cast<unsigned>(state.m_other_len));
    if (written == 0) {
        socket_blocked("check_other_data");
        return state.m_other_len;
    }
    if (written < 0) {
        socket_failed("check_other_data");
        return written;
    }
    const int left = state.m_other_len - written;
    std::memmove(state.m_other_data.get(), state.m_other_data.get() + written, static_cast<size_t>(left));
    Infra::relaxedStore(state.m_other_len, left);
    state.m_block_count = 0;
    state.m_block_time = 0;
    return left;
}

// The choice of frames.

/// From `frame` on, the first one that this sender is to get; null if it has caught up. What is stepped over
/// counts as passed, so that it does not keep frames from being let go. A frame that is being filled is the
/// end of the list: its bytes are counted when it is complete.
CFrame* CMediaStreamSender::get_next_frame(CFrame* frame) {
    while (frame != nullptr && frame->m_frame_len >= 1 && !frame->is_filling()) {
        if (frame->m_valid != 0 && need_send(frame)) {
            return frame;
        }
        step_over(frame);
        frame = frame->m_next;
    }
    return nullptr;
}

void CMediaStreamSender::step_over(CFrame* frame) {
    MediaSenderState& state = *m_state;
    const uint8_t bit = frame->channel_bit();
    if (frame->m_valid == 0) {
        state.m_lost_mask = static_cast<uint8_t>(state.m_lost_mask | bit);
    }
    state.m_send_total += static_cast<uint64_t>(frame->m_frame_len);
    MediaSenderState::Course& course = state.m_course[frame->channel()];
    if ((Infra::relaxedLoad(state.m_channel_mask) & bit) == 0) {
        course.m_last_ordinal = 0;
    } else {
        ++course.m_stepped_frames;
        course.m_stepped_bytes += static_cast<uint64_t>(frame->m_frame_len);
    }
}

/// A key frame ends the wait of its channel, also of one that was given up meanwhile.
bool CMediaStreamSender::need_send(CFrame* frame) {
    MediaSenderState& state = *m_state;
    const uint8_t bit = frame->channel_bit();
    const bool wanted = (Infra::relaxedLoad(state.m_channel_mask) & bit) != 0;
    if (wanted && state.has_policy()) {
        return resumes_at(frame);
    }
    if ((state.m_lost_mask & bit) != 0) {
        if (!frame->is_key()) {
            return false;
        }
        state.m_lost_mask = static_cast<uint8_t>(state.m_lost_mask & ~bit);
    }
    return wanted;
}

/// The resume policy: after a gap, and behind the limit of lag, only a key frame within the limit will do.
bool CMediaStreamSender::resumes_at(CFrame* frame) {
    MediaSenderState& state = *m_state;
    const uint8_t bit = frame->channel_bit();
    const bool late = state.now() > frame->m_complete_us + state.max_lag_us();
    if (late || frame->m_ordinal != state.m_course[frame->channel()].m_last_ordinal + 1) {
        state.m_lost_mask = static_cast<uint8_t>(state.m_lost_mask | bit);
    }
    if ((state.m_lost_mask & bit) == 0) {
        return true;
    }
    if (late || !frame->is_key()) {
        return false;
    }
    state.m_lost_mask = static_cast<uint8_t>(state.m_lost_mask & ~bit);
    return true;
}

// The procedure may replace itself, and another thread may at any time, so a copy is called.
void CMediaStreamSender::call_send_proc(CFrame* frame) {
    if (Infra::relaxedLoad(m_state->m_send_proc) == nullptr) {
        return;
    }
    Infra::TFunction3<void, CMediaPacket*, int, int> proc;
    {
        Infra::CGuard guard(m_state->m_other_mutex);
        if (m_state->m_send_proc == nullptr) {
            return;
        }
        proc = *m_state->m_send_proc;
    }
    proc(frame->m_info_packet, frame->m_info_arg, static_cast<int>(frame->m_frame_len));
}

}  // namespace Orvex::Reticor
