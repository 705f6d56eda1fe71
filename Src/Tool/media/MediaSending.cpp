// MediaSending: the steps of a turn. This is the hot path of a buffer.
#include "Tool/media/MediaSending.h"

#include <algorithm>
#include <cassert>
#include <cstdio>
#include <cstring>

#include <Infra/Log.h>
#include <Reticor/SockDgram.h>

#include "Tool/frame/MediaTrace.h"
#include "Tool/media/FrameChoice.h"
#include "Tool/media/FrameGather.h"
#include "Tool/media/StartShares.h"

namespace Orvex::Reticor {

namespace {

constexpr uint32_t WARNING_EVERY = 100;

/// The names by which the lines of senders are known. They are a part of the lines.
constexpr const char* BLOCKED_NAME = "void Orvex::Reticor::CMediaStreamSender::socket_blocked(const char*)";
constexpr const char* FAILED_NAME = "void Orvex::Reticor::CMediaStreamSender::socket_failed(const char*)";

/// The rest of a frame from a cursor on. The gather list is shared by all senders, so a cursor inside an
/// entry is worked into the list for the time of one write, under the buffer's mutex, and taken out again.
int write_rest(CSock& stream, CFrame& frame, int32_t index, int32_t offset) {
    const SocketWriter writer(stream);
    iovec* const entries = frame.m_iovec + index;
    const int count = static_cast<int>(frame.m_packet_num) - index;
    if (offset == 0) {
        return writer.write_v(entries, count);
    }
    const iovec whole = entries[0];
    entries[0].iov_base = static_cast<char*>(whole.iov_base) + offset;
    entries[0].iov_len = whole.iov_len - static_cast<size_t>(offset);
    const int written = writer.write_v(entries, count);
    entries[0] = whole;
    return written;
}

}  // namespace

TurnEnd MediaSending::run(CFrame* frame) {
    CSock* const m_stream = Infra::relaxedLoad(m_record.m_stream);
    assert(m_stream != NULL);
    if (MediaTrace::on()) {
        MediaTrace::turn_begins(m_record.m_owner, frame);
    }
    m_bytes_before = m_record.m_stats.bytes;
    return finish(*m_stream, m_record.at_boundary() ? choose_frame(*m_stream, frame) : Progress::MORE);
}

TurnEnd MediaSending::run_written(CFrame& frame, int answer) {
    CSock* const m_stream = Infra::relaxedLoad(m_record.m_stream);
    assert(m_stream != NULL);
    m_bytes_before = m_record.m_stats.bytes;
    m_record.set_waits(frame, false);
    m_record.take_frame(&frame);
    return finish(*m_stream, note_answer(*m_stream, answer));
}

inline TurnEnd MediaSending::finish(CSock& stream, Progress progress) {
    while (progress == Progress::MORE) {
        progress = write_frame(stream);
    }
    m_record.settle();
    if (!is_failure(m_end)) {
        m_record.pass_all_if_caught_up();
        if (m_end == TurnEnd::BLOCKED || !m_record.at_boundary()) {
            m_record.note_full(m_bytes_before);
        }
    }
    return m_end;
}

void MediaSending::report() {
    const bool other = m_end == TurnEnd::OTHER_BLOCKED || m_end == TurnEnd::OTHER_FAILED;
    const char* const where = other ? "check_other_data" : "Send";
    if (is_failure(m_end)) {
        tell(FAILED_NAME, "MediaStreamSender %s socket exception!\n", where);
    } else if (m_end != TurnEnd::DONE) {
        if (m_record.has_stalled()) {
            tell(BLOCKED_NAME, "MediaStreamSender %s socket exception for timeout!\n", where);
        }
        if (m_record.m_block_count % WARNING_EVERY == 0 && Infra::logEnabled(3)) {
            Infra::Detail::logMember(3, __FILE__, BLOCKED_NAME, __LINE__, m_record.m_owner,
                                     "MediaStreamSender net warnning %d!\n",
                                     static_cast<int>(m_record.m_block_count));
        }
    }
}

// The wish is taken first: whoever is told may wish again at once.
void MediaSending::tell(const char* name, const char* format, const char* where) {
    const long id = m_record.m_notices.take_failure_waiter();
    if (id == 0) {
        return;
    }
    if (Infra::logEnabled(3)) {
        char text[128];
        std::snprintf(text, sizeof text, format, where);
        Infra::Detail::logMember(3, __FILE__, name, __LINE__, m_record.m_owner, "%s", text);
    }
    m_record.m_notices.tell_failure(id);
}

MediaSending::Progress MediaSending::choose_frame(CSock& stream, CFrame* frame) {
    if (other_data_waits(stream)) {
        m_record.note_offered(frame);
        return Progress::OVER;
    }
    if (m_record.m_frame != nullptr || frame == nullptr || frame->m_frame_len == 0) {
        CFrame* const next = next_frame(m_record.m_frame);
        m_record.change_frame(next);
        return next != nullptr ? Progress::MORE : Progress::OVER;
    }
    CFrame* const chosen = is_for_it(*frame) ? frame : next_frame(frame);
    if (chosen == nullptr) {
        return Progress::OVER;
    }
    m_record.take_frame(chosen);
    return Progress::MORE;
}

MediaSending::Progress MediaSending::write_frame(CSock& stream) {
    CFrame& frame = *m_record.m_frame;
    if (static_cast<int>(frame.m_packet_num) - m_record.m_iovec_index < 1) {
        return Progress::OVER;
    }
    if (m_record.wishes(SenderRecord::WISH_GATHER | SenderRecord::WISH_FILTER |
                        SenderRecord::WISH_DATAGRAMS)) {
        if (m_record.m_leaving) {
            return Progress::OVER;  // Its filter has taken it off.
        }
        if (m_record.wishes(SenderRecord::WISH_DATAGRAMS) && stream.GetType() == SOCK_TYPE_DGRAM) {
            return write_datagrams(stream);
        }
        FrameGather gather;
        if (gathers(stream, gather)) {
            return write_gathered(stream, gather);
        }
    }
    return note_answer(stream, write_rest(stream, frame, m_record.m_iovec_index, m_record.m_iovec_offset));
}

inline MediaSending::Progress MediaSending::note_answer(CSock& stream, int written) {
    if (written <= 0) {
        return written == 0 ? note_nothing_written() : note_failed();
    }
    if (m_record.note_written(static_cast<uint32_t>(written))) {
        return finish_frame(stream);
    }
    m_record.begin_stall();
    return Progress::OVER;
}

MediaSending::Progress MediaSending::note_nothing_written() {
    m_record.note_blocked();
    m_record.begin_stall();
    return over(TurnEnd::BLOCKED);
}

MediaSending::Progress MediaSending::note_failed() {
    m_record.take_back_sent();
    return over(TurnEnd::FAILED);
}

// A frame in its datagrams, some of them in each write.

MediaSending::Progress MediaSending::write_datagrams(CSock& stream) {
    FrameCut& cut = *m_record.m_datagrams;
    const CFrame& frame = *m_record.m_frame;
    cut.prepare(frame, m_record.m_frame_left, m_record.at_boundary());
    const size_t allowed = cut.allowed(m_record.now());
    if (allowed == 0) {
        m_record.begin_pause(cut.pause_until_us(m_record.now()));
        return Progress::OVER;
    }
    const FrameCut::Sent sent = cut.send(static_cast<CSockDgram&>(stream), frame,
                                         {m_record.m_iovec_index, m_record.m_iovec_offset}, allowed);
    if (sent.bytes <= 0) {
        return sent.bytes == 0 ? note_nothing_written() : note_failed();
    }
    if (m_record.note_written(static_cast<uint32_t>(sent.bytes))) {
        return finish_frame(stream);
    }
    if (sent.whole) {
        return Progress::MORE;
    }
    m_record.begin_stall();
    return Progress::OVER;
}

// Several frames in one write.

// A datagram is one frame, and a filter is asked frame by frame. What a sender that comes back has to end
// first is no frame of the list.
bool MediaSending::gathers(CSock& stream, FrameGather& gather) {
    return !m_record.wishes(SenderRecord::WISH_FILTER) && stream.GetType() != SOCK_TYPE_DGRAM &&
           !m_record.m_other.waits() && !m_record.m_cut && !m_record.m_start.m_runs &&
           m_record.m_frame != m_record.m_tail && gather.collect(m_record);
}

// The frames are credited one after another. A procedure may take the sender off meanwhile, but all that was
// written is on the wire; and nothing else is written before all of it is credited.
MediaSending::Progress MediaSending::write_gathered(CSock& stream, FrameGather& gather) {
    const int written = SocketWriter(stream).write_v(gather.entries(), gather.count());
    if (written <= 0) {
        return written == 0 ? note_nothing_written() : note_failed();
    }
    auto left = static_cast<uint64_t>(written);
    const bool all = left == gather.bytes();
    uint64_t frames = 0;
    while (left != 0) {
        const uint64_t part = std::min(left, m_record.m_frame_left);
        left -= part;
        ++frames;
        if (m_record.note_written(static_cast<uint32_t>(part))) {
            if (CFrame* const next = after_gathered(gather, m_record.end_frame())) {
                m_record.take_frame(next);
            }
        }
    }
    m_record.m_room.count_write(frames);
    if (!all) {
        m_record.begin_stall();
        return Progress::OVER;
    }
    return go_on_after_frames(stream);
}

// The next one of those gathered, whatever has changed since: its bytes may be on the wire.
CFrame* MediaSending::after_gathered(FrameGather& gather, CFrame* after) {
    CFrame* const next = gather.take_next();
    if (next == nullptr) {
        return after != nullptr ? next_frame(after) : nullptr;
    }
    for (CFrame* frame = after; frame != next; frame = FrameGather::after(m_record, *frame)) {
        if (m_record.m_keeps) {
            m_record.pass_kept(*frame, false);
        } else {
            m_record.step_over(*frame);
        }
    }
    return next;
}

MediaSending::Progress MediaSending::finish_frame(CSock& stream) {
    CFrame* const after = m_record.end_frame();
    if (after != nullptr) {
        if (CFrame* const next = next_frame(after)) {
            m_record.take_frame(next);
        }
    }
    return go_on_after_frames(stream);
}

MediaSending::Progress MediaSending::go_on_after_frames(CSock& stream) {
    if (m_record.m_leaving) {
        return Progress::OVER;  // The procedure has taken this sender off, and its socket may be gone.
    }
    if (other_data_waits(stream) || m_record.m_frame == nullptr) {
        return Progress::OVER;
    }
    if (m_record.catches_up() && m_record.m_stats.bytes - m_bytes_before >= StartShares::SENDER_BYTES) {
        return Progress::OVER;  // The others wait.
    }
    return Progress::MORE;
}

bool MediaSending::send_other_data(CSock& stream) {
    const OtherData::Sent sent = m_record.m_other.send(SocketWriter(stream));
    if (sent.written == 0) {
        m_record.note_blocked();
        m_record.begin_stall();
        m_end = TurnEnd::OTHER_BLOCKED;
        return true;
    }
    if (sent.written < 0) {
        m_end = TurnEnd::OTHER_FAILED;
        return true;
    }
    m_record.note_unblocked();
    if (sent.left > 0) {
        m_record.begin_stall();
    }
    return sent.left > 0;
}

void MediaSending::take_offer(CFrame* offered, bool loses) {
    if (m_record.m_frame != nullptr || !m_record.at_boundary()) {
        // It has something to write before.
    } else if (loses && m_record.m_other.waits()) {
        m_record.note_offered(offered);
    } else if (offered != nullptr && offered->m_frame_len >= 1 && !offered->is_filling()) {
        CFrame* const chosen = is_for_it(*offered) ? offered : next_frame(offered);
        if (chosen != nullptr) {
            m_record.take_frame(chosen);
        }
    }
    m_record.settle();
    m_record.pass_all_if_caught_up();
}

bool MediaSending::step_ahead() {
    CFrame* const former = m_record.m_frame;
    CFrame* const next = next_frame(former);
    m_record.change_frame(next);
    m_record.settle();
    m_record.pass_all_if_caught_up();
    return next != former;
}

void MediaSending::report_stall() {
    m_end = m_record.at_boundary() && m_record.m_other.waits() ? TurnEnd::OTHER_BLOCKED : TurnEnd::BLOCKED;
    const char* const where = m_end == TurnEnd::OTHER_BLOCKED ? "check_other_data" : "Send";
    tell(BLOCKED_NAME, "MediaStreamSender %s socket exception for timeout!\n", where);
}

// From `frame` on, the first one that this sender is to get; null if it has caught up. What is stepped over
// counts as passed, so that it does not keep frames from being let go. A frame that is being filled is the
// end of the list: its bytes are counted when it is complete.
CFrame* MediaSending::next_frame(CFrame* frame) {
    if (m_record.m_keeps) {
        return next_kept(frame);
    }
    while (frame != nullptr && frame->m_frame_len >= 1 && !frame->is_filling()) {
        if (frame->m_valid != 0 && is_for_it(*frame)) {
            return frame;
        }
        m_record.step_over(*frame);
        frame = frame->m_next;
    }
    return nullptr;
}

CFrame* MediaSending::next_kept(CFrame* frame) {
    for (; frame != nullptr; frame = frame->m_kept_next) {
        const FrameDecision decision = FrameChoice::decide(m_record, *frame, m_record.now());
        m_record.set_waits(*frame, decision.waits);
        if (decision.send && passes(*frame)) {
            return frame;
        }
        m_record.pass_kept(*frame, decision.leaves_out);
    }
    return nullptr;
}

bool MediaSending::is_for_it(const CFrame& frame) {
    const FrameDecision decision = m_record.has_policy()
                                       ? FrameChoice::by_policy(m_record, frame, m_record.now())
                                       : FrameChoice::plain(m_record, frame);
    m_record.set_waits(frame, decision.waits);
    return decision.send && passes(frame);
}

// A filter that takes the sender off has it stand where it is.
bool MediaSending::passes_filter(const CFrame& frame) {
    const MediaVerdict verdict = m_record.m_filter.judge(frame, m_record.now());
    if (m_record.m_leaving) {
        return true;
    }
    if (verdict == MediaVerdict::WAIT_KEY) {
        m_record.set_waits(frame, true);
    }
    return verdict != MediaVerdict::SKIP && verdict != MediaVerdict::WAIT_KEY;
}

int MediaSending::take_tail(char* buffer, int len) {
    if (m_record.m_frame == nullptr || m_record.m_iovec_offset == 0) {
        return 0;
    }
    const iovec& entry = m_record.m_frame->m_iovec[m_record.m_iovec_index];
    const auto tail = static_cast<int64_t>(entry.iov_len) - m_record.m_iovec_offset;
    if (tail > len) {
        return -1;
    }
    std::memcpy(buffer, static_cast<const char*>(entry.iov_base) + m_record.m_iovec_offset,
                static_cast<size_t>(tail));
    if (m_record.m_datagrams != nullptr) {
        m_record.m_datagrams->leave_frame();
    }
    if (m_record.pass_tail(static_cast<uint64_t>(tail))) {
        m_record.stand_on(next_frame(m_record.end_tail()));
    }
    m_record.settle();
    return static_cast<int>(tail);
}

}  // namespace Orvex::Reticor
