// SenderRecord: what a frame seldom needs: gaps, chains, settings, frames that go away or are kept.
#include "Tool/media/SenderRecord.h"

#include <algorithm>
#include <cassert>
#include <cstddef>
#include <utility>

#include <Infra/Log.h>

#include "Tool/frame/FrameRest.h"
#include "Tool/judge/EndedVerdicts.h"

namespace Orvex::Reticor {

static_assert(static_cast<int>(DropCause::DISPOSABLE) == static_cast<int>(TraceDrop::DISPOSABLE),
              "causes are traced as they are counted");
static_assert(alignof(SenderRecord) == 64 && offsetof(SenderHotState, m_wishes) < 64,
              "what every frame touches is one cache line");
static_assert(offsetof(SenderHotState, m_owner) == 64 && offsetof(SenderHotState, m_stats) + 16 <= 128,
              "what a delivered frame touches besides is the next one");

SenderRecord::~SenderRecord() {
    if (m_watch != nullptr && m_watch->has_left) {
        EndedVerdicts::add(m_watch->last);
    }
}

void SenderRecord::move_to(const std::shared_ptr<MediaCore>& core)
    INFRA_NO_THREAD_SAFETY_ANALYSIS {  // enters by the seat
    const SenderRecord& state = *this;
    for (bool moved = false; !moved;) {
        const std::shared_ptr<MediaCore> before = m_seat.enter();
        if (!before) {
            moved = m_seat.change(nullptr, core);
            continue;
        }
        if (before != core) {
            assert(state.m_list == nullptr && "a sender can be on the list of one buffer only");
            if (m_frame != nullptr && m_frame != m_tail) {
                rescue_frame();
            }
            forget_order();
            m_seat.change(before, core);
        }
        before->m_mutex.leave();
        moved = true;
    }
}

void SenderRecord::relink() {
    hold_no_more();
    if (m_linked != nullptr) {
        *m_standing_link = m_standing_next;
        if (m_standing_next != nullptr) {
            m_standing_next->m_standing_link = m_standing_link;
        }
    }
    m_linked = m_frame;
    if (m_linked != nullptr) {
        m_standing_link = &m_linked->m_standing;
        m_standing_next = m_linked->m_standing;
        if (m_standing_next != nullptr) {
            m_standing_next->m_standing_link = &m_standing_next;
        }
        m_linked->m_standing = this;
        hold();
    }
}

void SenderRecord::drop_tail() {
    delete std::exchange(m_tail, nullptr);
}

void SenderRecord::leave_frame() {
    uncount();
    m_counted = false;
    m_frame = nullptr;
    m_iovec_index = 0;
    m_iovec_offset = 0;
    m_frame_left = 0;
    if (m_room.m_parked && m_list != nullptr) {
        m_list->note_idle();
    }
    settle();
}

void SenderRecord::rescue_all(CFrame& frame, Rescue which) {
    for (SenderRecord* one = frame.m_standing; one != nullptr;) {
        SenderRecord* const next = one->m_standing_next;
        if (which == Rescue::ALL || one->m_keeps == (which == Rescue::KEEPERS)) {
            one->rescue_frame();
        }
        one = next;
    }
}

// A sender that failed has a connection that is over: of its frame at most the packet that is half on the
// wire is of use to anybody.
void SenderRecord::rescue_frame() {
    const auto index = static_cast<uint32_t>(m_iovec_index);
    if (at_boundary() || (m_failed && m_iovec_offset == 0)) {
        leave_frame();
    } else {
        keep_rest(m_failed ? index + 1 : m_frame->m_packet_num);
    }
}

/// Puts a private frame in the place of m_frame: the packets from the cursor up to `end`, the first one whole
/// so that the cursor's offset stays.
void SenderRecord::keep_rest(uint32_t end) {
    uncount();
    m_counted = false;
    CFrame* const rest =
        FrameRest::copy(*m_frame, static_cast<uint32_t>(m_iovec_index), end, m_iovec_offset == 0);
    if (rest == nullptr) {
        lose_rest();
        return;
    }
    m_iovec_index = m_iovec_offset == 0 ? 1 : 0;
    m_frame_left = static_cast<uint64_t>(rest->m_frame_len - m_iovec_offset);
    rest->tell_as(*m_frame);
    m_tail = rest;
    m_frame = rest;
    settle();
}

/// There was no memory for the rest of a frame that is half on the wire: the connection is of no use any
/// more.
void SenderRecord::lose_rest() {
    leave_frame();
    set_failed();
    INFRA_LOG_STATIC(2, "CMediaStreamSender, no memory for the rest of a frame, sender:%p\n",
                     static_cast<void*>(m_owner));
    if (const long id = m_notices.take_failure_waiter()) {
        m_notices.tell_failure(id);
    }
}

void SenderRecord::forget_order() {
    m_courses.forget();
    m_drops.forget_order();
    m_filter.forget_order();
}

void SenderRecord::tell_sent() {
    Points::FrameSent(m_frame->m_number, m_owner->GetID(), m_frame->m_frame_len);
}

void SenderRecord::call_procedure() {
    m_procedure.call(m_frame->m_info_shown, m_frame->m_info_arg, static_cast<int>(m_frame->m_frame_len));
}

// The place in the stream.

void SenderRecord::join(CFrame& frame, uint64_t position) {
    m_send_total = position;
    take_frame(&frame);
    m_joined = true;
    m_start.m_waits = false;
}

void SenderRecord::begin_anew(bool moved) {
    m_start = {true, false, 0, moved, 0};
    m_joined = false;
    m_send_total = 0;
    m_lost_mask = ALL_CHANNELS;
}

void SenderRecord::start(CFrame& frame) {
    forget_order();
    m_lost_mask = ALL_CHANNELS;
    m_send_total = m_list->m_byte_total;
    m_joined = true;
    m_start.m_waits = false;
    m_start.m_runs = true;
    m_start.m_newest = m_list->m_kept_number;
    change_frame(&frame);
}

bool SenderRecord::starts_with(const CFrame& frame) const {
    const uint8_t mask = Infra::relaxedLoad(m_channel_mask);
    return m_start.m_runs && (!frame.is_key() || frame.m_kept_number < m_start.m_newest ||
                              m_list == nullptr || m_list->m_channels.follows(frame.channel(), mask));
}

void SenderRecord::step_over(const CFrame& frame) {
    const uint8_t bit = frame.channel_bit();
    if (frame.m_valid == 0) {
        m_lost_mask = static_cast<uint8_t>(m_lost_mask | bit);
    }
    m_send_total += static_cast<uint64_t>(frame.m_frame_len);
    pass(frame, false);
}

void SenderRecord::pass(const CFrame& frame, bool leaves_out) {
    const DropCause cause = take_course(frame, leaves_out);
    m_drops.pass(frame, cause, m_courses.last_ordinal(frame.channel()));
    Points::FrameDropped(frame, m_owner, static_cast<TraceDrop>(cause));
}

DropCause SenderRecord::take_course(const CFrame& frame, bool leaves_out) {
    if ((Infra::relaxedLoad(m_channel_mask) & frame.channel_bit()) == 0) {
        m_courses.pass_unwanted(frame);
        return DropCause::NOT_CHOSEN;
    }
    if (pass_withheld(frame)) {
        return DropCause::FILTERED;
    }
    if (leaves_out) {
        m_courses.leave_out(frame);
        m_thinning.leave_out(frame.m_frame_len, now());
        return DropCause::DISPOSABLE;
    }
    m_courses.step_over(frame);
    return reason(frame);
}

// A younger key frame is where a late client goes to. Without one it waits for the next.
DropCause SenderRecord::reason(const CFrame& frame) {
    if (frame.m_valid == 0 && !m_keeps) {
        return DropCause::TOO_OLD;
    }
    const bool late = has_policy() && (now() > frame.m_complete_us + max_lag_us() ||
                                       (m_list != nullptr && m_list->m_channels.has_newer_key(frame)));
    return late ? DropCause::STEPPED : DropCause::NO_KEY;
}

bool SenderRecord::pass_withheld(const CFrame& frame) {
    if (!wishes(WISH_FILTER) || !m_filter.withholds(frame)) {
        return false;
    }
    m_filter.count(frame);
    m_courses.pass_needless(frame);
    return true;
}

void SenderRecord::count_gap() {
    const SenderCourses::Missed missed = m_courses.take_missed(*m_frame);
    m_drops.lose(*m_frame, missed.gone.frames, m_courses.last_ordinal(m_frame->channel()),
                 m_list != nullptr ? &m_list->m_levels : nullptr);
    m_stats.skipped_frames += missed.stepped.frames;
    m_stats.skipped_bytes += missed.stepped.bytes;
    if (missed.gone.frames != 0) {
        ++m_stats.holes;
        m_stats.hole_frames += missed.gone.frames;
        m_stats.hole_bytes += missed.gone.bytes;
        Points::FrameDropped(*m_frame, m_owner, TraceDrop::GONE);
    }
    if (has_policy() && missed.all.frames != 0) {
        ++m_stats.skips;
        m_notices.tell_skip(missed.all.frames, missed.all.bytes, false);
    }
}

// The cursor.

void SenderRecord::change_frame(CFrame* next) {
    if (next != m_frame) {
        uncount();
        m_frame = next;
        m_counted = false;
        if (next != nullptr) {
            take_frame(next);
        }
    }
    if (next != nullptr) {
        m_frame_left = static_cast<uint64_t>(next->m_frame_len);
    }
}

void SenderRecord::stand_on(CFrame* frame) {
    m_frame = frame;
    m_frame_left = frame != nullptr ? static_cast<uint64_t>(frame->m_frame_len) : 0;
}

/// Moves the cursor over what a partial write took.
void SenderRecord::pass_written(uint64_t written) {
    const iovec* const entries = m_frame->m_iovec;
    m_frame_left -= written;
    if (m_keeps) {
        m_frame->add_sent(-static_cast<int64_t>(written));
    }
    const uint64_t first = entries[m_iovec_index].iov_len - static_cast<uint64_t>(m_iovec_offset);
    if (written < first) {
        m_iovec_offset += static_cast<int32_t>(written);
        return;
    }
    written -= first;
    ++m_iovec_index;
    while (written >= entries[m_iovec_index].iov_len) {
        written -= entries[m_iovec_index].iov_len;
        ++m_iovec_index;
    }
    m_iovec_offset = static_cast<int32_t>(written);
}

bool SenderRecord::pass_tail(uint64_t tail) {
    ++m_iovec_index;
    m_frame_left -= tail;
    m_iovec_offset = 0;
    m_send_total += tail;
    if (!m_keeps) {
        m_frame->add_sent(static_cast<int64_t>(tail));
    }
    return m_frame_left == 0;
}

CFrame* SenderRecord::end_tail() {
    if (m_keeps) {
        return end_kept_frame();
    }
    CFrame& frame = *m_frame;
    frame.end_sent();
    uncount();
    m_iovec_index = 0;
    finished();
    return frame.m_next;
}

// The clock of a stall begins here too, since no later write will find the socket full.
void SenderRecord::begin_stall() {
    if (wishes(WISH_ROOM)) {
        m_full = true;
        if (m_block_time == 0) {
            m_block_time = now();
            Points::Blocked(m_owner);
        }
        look_at_floor();  // What the peer acknowledges counts from here on.
    }
}

void SenderRecord::note_blocked() {
    ++m_block_count;
    m_room.count_full_try();
    const uint64_t now_us = now();
    if (m_block_time == 0) {
        m_block_time = now_us;
        Points::Blocked(m_owner);
    }
}

void SenderRecord::sum_block() {
    const uint64_t blocked_us = now() - m_block_time;
    Points::Free(m_owner, blocked_us);
    if (m_watch != nullptr) {
        m_watch->blocked_us += blocked_us;
    }
    m_block_time = 0;
}

uint64_t SenderRecord::deadline_us() const {
    const uint64_t seconds = send_timeout_s();
    return seconds >= NO_TIMEOUT_S ? RoomWait::NO_DEADLINE : m_block_time + seconds * SECOND_US;
}

bool SenderRecord::has_stalled() {
    const std::optional<bool> below = look_at_floor();
    return below ? *below : now() - m_block_time >= send_timeout_s() * SECOND_US;
}

std::optional<bool> SenderRecord::look_at_floor() {
    CSock* const stream = Infra::relaxedLoad(m_stream);
    if (!m_stall_floor.on() || stream == nullptr) {
        return std::nullopt;
    }
    return m_stall_floor.look(m_block_time, now(), send_timeout_s() * SECOND_US,
                              StallFloor::acknowledged(*stream, m_stats.bytes));
}

void SenderRecord::note_full(uint64_t bytes_before) {
    CSock* const stream = Infra::relaxedLoad(m_stream);
    if (stream != nullptr && m_kernel_lag.on() &&
        m_kernel_lag.note_full(now(), bytes_before, m_stats.bytes)) {
        KernelLag::apply(*stream, m_kernel_lag.bound());
    }
}

// Lists.

void SenderRecord::come_to_list(MediaCore& list, SenderRecord* next, std::unique_ptr<GoneSender> reference) {
    m_owner->AddRef();
    m_reference = std::move(reference);
    m_list = &list;
    m_leaving = false;
    m_failed = false;
    m_next = next;
    if (m_stall_floor.on()) {
        end_block();  // It was taken off on purpose.
    }
    if (m_watch != nullptr) {
        m_watch->judge = SenderJudge();
        m_watch->has_left = false;
    }
    if (m_keeps) {
        m_list->add_keeper();
        hold();
    }
}

void SenderRecord::leave_list() {
    if (m_watch != nullptr && m_list->m_end != nullptr) {
        m_list->m_end->look_last(*this);
    }
    if (m_keeps) {
        m_list->drop_keeper();
        hold_no_more();
        m_cut = !at_boundary();
    }
    end_room();
    m_room.drop_timer();
    m_next = nullptr;
    m_list->let_go(m_reference.release());
    m_list = nullptr;
    m_leaving = false;
    uncount();
    forget_order();
    if (m_keeps && at_boundary()) {
        leave_frame();
    }
}

// Keeping.

void SenderRecord::begin_keeping() {
    if (m_frame != nullptr && m_frame != m_tail) {
        if (m_counted) {
            m_frame->remove_sender();
            m_counted = false;
        }
        uncount_written();
        if (!m_frame->m_kept) {
            rescue_frame();
        }
    }
    m_keeps = true;
    m_cut = false;
    m_list->add_keeper();
    hold();
}

void SenderRecord::uncount_written() {
    m_frame->add_sent(static_cast<int64_t>(m_frame_left) - m_frame->m_frame_len);
}

// A frame that has left the list in the middle of its writing is ended from a copy. One that was not begun is
// left for the next one on the list.
void SenderRecord::end_keeping() {
    m_send_total = position();
    hold_no_more();
    m_keeps = false;
    m_cut = false;
    m_list->drop_keeper();
    m_courses.forget_ahead();
    if (m_frame == nullptr || m_frame == m_tail) {
        return;
    }
    if (!at_boundary()) {
        if (m_frame->m_left_list) {
            rescue_frame();
            return;
        }
        m_frame->add_sender();
        m_counted = true;
        m_frame->add_sent(m_frame->m_frame_len - static_cast<int64_t>(m_frame_left));
        return;
    }
    CFrame* next = m_frame;
    while (next != nullptr && next->m_left_list) {
        next = next->m_kept_next;
    }
    m_frame = nullptr;
    m_frame_left = 0;
    if (next != nullptr) {
        take_frame(next);
    }
    settle();
}

// Its own, for a sender that keeps frames. A kept frame can be older than the stream, which began anew while
// there was nobody.
uint64_t SenderRecord::backlog() const {
    if (m_frame == nullptr || m_frame == m_tail) {
        return m_frame_left;
    }
    const uint64_t from_begin = m_frame->m_kept_begin < m_list->m_kept_at_begin
                                    ? m_list->m_kept_at_begin - m_frame->m_kept_begin + m_list->m_byte_total
                                    : m_list->m_byte_total - m_frame->m_begin;
    return from_begin - (static_cast<uint64_t>(m_frame->m_frame_len) - m_frame_left);
}

// On the list, which has nothing of what is older than the stream; one that has a place there is not at 0.
uint64_t SenderRecord::position() const {
    const uint64_t own = backlog();
    const uint64_t total = m_list->m_byte_total;
    return own <= total ? total - own : std::max<uint64_t>(total, 1);
}

void SenderRecord::hold() {
    if (m_keeps && m_list != nullptr && m_linked != nullptr) {
        m_linked->add_holder();
        m_holds = true;
    }
    if (m_keeps && m_counted) {
        m_frame->remove_sender();
        m_counted = false;
    }
}

void SenderRecord::hold_no_more() {
    if (std::exchange(m_holds, false)) {
        m_linked->remove_holder();
    }
}

void SenderRecord::begin_kept_frame() {
    m_courses.ahead(m_frame->channel()).begin(*m_frame);
    m_begun_us = now();
    const Thinning::Sum over = m_thinning.take_over(m_begun_us, max_lag_us());
    if (over.frames != 0) {
        m_notices.tell_skip(over.frames, over.bytes, true);
    }
}

// Of what was written, m_sent_len has the last part in it; those before it have been taken back.
CFrame* SenderRecord::end_kept_frame() {
    CFrame& frame = *m_frame;
    frame.add_sent(-static_cast<int64_t>(m_frame_left));
    if (m_counted) {
        frame.remove_sender();
    }
    if (frame.is_key() && !m_cut) {
        m_courses.ahead(frame.channel()).end_key(frame, now() - m_begun_us);
    }
    leave_ended();
    return std::exchange(m_cut, false) ? nullptr : frame.m_kept_next;
}

MediaSenderStats SenderRecord::stats() {
    MediaSenderStats stats = m_stats;
    const uint64_t now_us = Infra::CTime::getCurrentMicroSecond();
    stats.joined = m_joined;
    stats.thinnings = m_thinning.episodes();
    stats.thinned_frames = m_thinning.all().frames;
    stats.thinned_bytes = m_thinning.all().bytes;
    stats.listed = m_list != nullptr;
    if (stats.joined && stats.listed) {
        const uint64_t total = m_list->m_byte_total;
        stats.backlog_bytes = m_keeps ? backlog() : total > m_send_total ? total - m_send_total : 0;
    }
    if (m_frame != nullptr && m_frame != m_tail && m_frame->m_complete_us != 0) {
        stats.lag_us = now_us - m_frame->m_complete_us;
    }
    if (m_block_time != 0) {
        stats.blocked_us = now_us - m_block_time;
    }
    return stats;
}

}  // namespace Orvex::Reticor
