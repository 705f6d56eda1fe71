// SenderRecord: the state of one sender.
#pragma once

#include <Reticor/MediaStreamSender.h>

#include <cstdint>
#include <memory>
#include <optional>

#include <Infra/Atomic.h>
#include <Infra/LockClasses.h>
#include <Infra/Mutex.h>
#include <Infra/Time.h>

#include "Core/count/Points.h"
#include "Tool/datagram/FrameCut.h"
#include "Tool/frame/DropBook.h"
#include "Tool/frame/MediaFrame.h"
#include "Tool/frame/Thinning.h"
#include "Tool/judge/SenderWatch.h"
#include "Tool/media/RoomWait.h"
#include "Tool/media/SenderComing.h"
#include "Tool/step/CoreSeat.h"
#include "Tool/step/FrameFilter.h"
#include "Tool/step/MediaStep.h"
#include "Tool/step/OtherData.h"
#include "Tool/step/SendProcedure.h"
#include "Tool/step/SenderNotices.h"
#include "Tool/step/SenderSettings.h"

namespace Orvex::Reticor {

/// How a sender begins with the stream of a buffer to which it has come.
struct SenderStart {
    bool m_waits = false;   ///< It has no place yet, and is given one out of the start cache if that has any.
    bool m_runs = false;    ///< It began with frames of the cache, and has not caught up.
    uint64_t m_newest = 0;  ///< The number of the newest frame that was kept when it began.
    bool m_moved = false;   ///< It comes from another buffer, and does not wait for a key frame of its own.
    uint64_t m_round = 0;   ///< The last one of its buffer's rounds in which it had a turn.
};

/// What a sender knows: its place in the stream, the cursor in its frame, its links, its settings and
/// counters. Guarded by the mutex of the core in m_seat but for what says otherwise; nobody but its own
/// operations writes it. What each delivered frame touches comes first and close together, so all of it is
/// one record.
struct SenderRecord : SenderSettings {
    explicit SenderRecord(CMediaStreamSender& owner) : m_notices(owner), m_room(*this, owner) {
        m_owner = &owner;
    }
    ~SenderRecord();
    SenderRecord(const SenderRecord&) = delete;
    SenderRecord& operator=(const SenderRecord&) = delete;

    static constexpr uint64_t SECOND_US = 1000000;

    /// The record as what comes and moves sees it.
    class Self final : public ComingSender_IF {
    public:
        explicit Self(SenderRecord& record) : m_record(record) {}
        CMediaStreamSender& sender() override { return *m_record.m_owner; }
        std::shared_ptr<MediaCore> core() override { return m_record.m_seat.get(); }
        void move_to(const std::shared_ptr<MediaCore>& core) override { m_record.move_to(core); }
        void begin_anew() override INFRA_REQUIRES(CORE_MUTEX) { m_record.begin_anew(true); }

    private:
        SenderRecord& m_record;
    };

    /// A private copy of what was left of a frame, owned; m_frame while it is set.
    CFrame* m_tail = nullptr;
    std::unique_ptr<GoneSender> m_reference;  ///< The list's on it, while it is on one.
    SenderRecord* m_standing_next = nullptr;
    SenderRecord** m_standing_link = nullptr;  ///< What points at it in that chain.
    SenderNotices m_notices;
    bool m_failed = false;    ///< Taken off by a socket failure.
    bool m_holds = false;     ///< m_linked's m_holders has this sender in it.
    bool m_cut = false;       ///< It was paused in the middle of m_frame, which is followed by none.
    uint64_t m_begun_us = 0;  ///< When m_frame was begun.
    Thinning m_thinning;      ///< Frames left out.
    SenderStart m_start;      ///< How it begins where it comes to.
    DropBook m_drops;
    std::unique_ptr<SenderWatch> m_watch;  ///< Null until somebody looks how it fares.

    /// Comes after the core's mutex. Guards m_seat, what waits in m_other, and which functions m_procedure
    /// and m_filter have.
    Infra::CMutex m_other_mutex{Infra::LockClass::MEDIA_OTHER};
    CoreSeat m_seat{m_other_mutex};
    Self m_self{*this};
    SenderComing m_coming{m_self};
    RoomWait m_room;
    std::unique_ptr<FrameCut> m_datagrams;  ///< Null until it is asked for.
    OtherData m_other{m_other_mutex, m_other_len};
    SendProcedure m_procedure{m_other_mutex, m_send_proc};
    FrameFilter m_filter{m_other_mutex};

    /// For the tests and for the buffer.
    static SenderRecord& of(CMediaStreamSender& sender) { return *sender.m_state; }

    /// What the next sender's turn will touch is on its way while this one's write is in the kernel, which
    /// leaves little of it in the caches.
    void fetch_next() const INFRA_REQUIRES(CORE_MUTEX) {
        if (m_next != nullptr) {
            const char* const lines = reinterpret_cast<const char*>(m_next);
            __builtin_prefetch(lines, 1);
            __builtin_prefetch(lines + 64, 1);
            __builtin_prefetch(&m_next->m_courses, 1);
        }
    }

    /// A setting as those above.
    void wait_room(long owner) {
        m_room.set_owner(owner);
        set_wish(WISH_ROOM, owner != 0);
    }

    // The core.

    /// Becomes a sender of `core`. One that was on another buffer's list before still has its cursor there,
    /// and takes along what it needs of that. Enters the other core's mutex: the thread must hold none, or
    /// that one.
    void move_to(const std::shared_ptr<MediaCore>& core);
    uint64_t now() INFRA_REQUIRES(CORE_MUTEX) {
        return m_list != nullptr ? m_list->now() : Infra::CTime::getCurrentMicroSecond();
    }

    // The place in the stream.

    /// Has a place, and goes on from it.
    bool has_joined() const INFRA_REQUIRES(CORE_MUTEX) { return has_policy() ? m_joined : m_send_total != 0; }
    /// Gets its place, at the beginning of `frame`.
    void join(CFrame& frame, uint64_t position) INFRA_REQUIRES(CORE_MUTEX);
    /// It has no place in this stream, and waits for a key frame of each channel. What it has begun is ended
    /// first.
    void begin_anew(bool moved) INFRA_REQUIRES(CORE_MUTEX);
    /// Has begun a frame, and is without a place.
    bool has_rest() const INFRA_REQUIRES(CORE_MUTEX) {
        return m_start.m_waits && m_frame != nullptr && !at_boundary();
    }
    void set_round(uint64_t round) INFRA_REQUIRES(CORE_MUTEX) { m_start.m_round = round; }
    /// What was written of the rest is not a place.
    void stay_out() INFRA_REQUIRES(CORE_MUTEX) { m_send_total = 0; }
    /// Gets its place at kept frames.
    void start(CFrame& frame) INFRA_REQUIRES(CORE_MUTEX);
    /// It is where it began with the cache, and its limits of lag do not hold: they do at the next key frame.
    bool starts_with(const CFrame& frame) const INFRA_REQUIRES(CORE_MUTEX);
    /// It began with the cache, and stands at a frame that was held then: its turns are those of StartShares.
    bool catches_up() const INFRA_REQUIRES(CORE_MUTEX) {
        return m_keeps && m_start.m_runs && m_frame != nullptr && m_frame != m_tail &&
               m_frame->m_kept_number < m_start.m_newest;
    }
    /// The frame is not for it: its bytes count as passed.
    void step_over(const CFrame& frame) INFRA_REQUIRES(CORE_MUTEX);
    /// Whether the frame's channel waits for a key frame from now on.
    void set_waits(const CFrame& frame, bool waits) INFRA_REQUIRES(CORE_MUTEX) {
        const uint8_t bit = frame.channel_bit();
        m_lost_mask = static_cast<uint8_t>(waits ? m_lost_mask | bit : m_lost_mask & ~bit);
    }
    /// With the policy: nothing before the end of the stream will be sent to a sender that has caught up. For
    /// one that keeps frames the list need not have anything either way.
    void pass_all_if_caught_up() INFRA_REQUIRES(CORE_MUTEX) {
        if ((m_frame == nullptr || m_keeps) && has_policy() && m_joined && m_list != nullptr) {
            m_send_total = m_list->m_byte_total;
            m_start.m_runs = m_start.m_runs && m_frame != nullptr;
        }
    }
    /// Forgets which frames came last, so that the next ones are neither holes nor followers.
    void forget_order() INFRA_REQUIRES(CORE_MUTEX);

    // The cursor.

    bool at_boundary() const INFRA_REQUIRES(CORE_MUTEX) { return m_iovec_index == 0 && m_iovec_offset == 0; }
    /// Stands at the start of `frame`, and is counted there.
    void take_frame(CFrame* frame) INFRA_REQUIRES(CORE_MUTEX) {
        frame->add_sender();
        m_counted = true;
        m_frame = frame;
        m_iovec_index = 0;
        m_iovec_offset = 0;
        m_frame_left = static_cast<uint64_t>(frame->m_frame_len);
    }
    /// Goes from the frame that it stands at to `next`, which may be the same one or null.
    void change_frame(CFrame* next) INFRA_REQUIRES(CORE_MUTEX);
    /// Stands at `frame` or at none, and is not counted.
    void stand_on(CFrame* frame) INFRA_REQUIRES(CORE_MUTEX);
    /// Gives the frame up, and the cursor.
    void leave_frame() INFRA_REQUIRES(CORE_MUTEX);
    /// With the policy: the frame's count no longer has this sender in it. Without it a frame that a sender
    /// leaves half-way stays counted, and so outlives its age.
    void uncount() INFRA_REQUIRES(CORE_MUTEX) {
        if (m_counted && has_policy()) {
            m_frame->remove_sender();
            m_counted = false;
        }
    }

    // What became of a write.

    /// The socket took these bytes of the frame. True if that was all of it.
    bool note_written(uint32_t written) INFRA_REQUIRES(CORE_MUTEX) {
        m_block_count = 0;
        if (at_boundary()) {
            begin_frame();
        }
        m_send_total += written;
        m_stats.bytes += written;
        m_frame->add_sent(written);
        if (written == m_frame_left) {
            return true;
        }
        pass_written(written);
        return false;
    }
    /// The frame is over: calls the procedure, and gives the frame after it. The sender then stands at none.
    CFrame* end_frame() INFRA_REQUIRES(CORE_MUTEX) {
        if (m_keeps) {
            return end_kept_frame();
        }
        CFrame& frame = *m_frame;
        frame.end_sent();
        if (m_counted || !has_policy()) {
            frame.remove_sender();
        }
        leave_ended();
        return frame.m_next;
    }
    /// The rest of the entry at the cursor counts as written. True if that was the rest of the frame.
    bool pass_tail(uint64_t tail) INFRA_REQUIRES(CORE_MUTEX);
    /// As end_frame, after pass_tail; the sender still stands at the frame.
    CFrame* end_tail() INFRA_REQUIRES(CORE_MUTEX);
    /// The socket failed: what it took of the frame does not count there any more.
    void take_back_sent() INFRA_REQUIRES(CORE_MUTEX) {
        if (!m_keeps) {
            m_frame->add_sent(static_cast<int64_t>(m_frame_left) - m_frame->m_frame_len);
        }
    }
    void note_blocked() INFRA_REQUIRES(CORE_MUTEX);
    /// The socket took less than it was given: a sender that waits for room tries it no more until then.
    void begin_stall() INFRA_REQUIRES(CORE_MUTEX);
    /// Its frame goes on at that time, though the socket may have room.
    void begin_pause(uint64_t until_us) INFRA_REQUIRES(CORE_MUTEX) {
        m_room.begin_pause(until_us);
        m_full = true;
    }
    /// Takes a place to wait in, if it has none yet. False if there is none: it goes on trying.
    bool begin_room() INFRA_REQUIRES(CORE_MUTEX) {
        m_full = m_room.begin(Infra::relaxedLoad(m_stream), deadline_us(), now());
        return m_full;
    }
    /// It does not wait for room any more.
    void end_room() INFRA_REQUIRES(CORE_MUTEX) {
        m_room.end();
        m_full = false;
    }
    /// When a socket that was full will have stalled.
    uint64_t deadline_us() const INFRA_REQUIRES(CORE_MUTEX);
    void set_full(bool full) INFRA_REQUIRES(CORE_MUTEX) { m_full = full; }
    void note_unblocked() INFRA_REQUIRES(CORE_MUTEX) {
        m_block_count = 0;
        end_block();
    }
    /// A turn has ended with the socket full; what was sent before it.
    __attribute__((noinline)) void note_full(uint64_t bytes_before) INFRA_REQUIRES(CORE_MUTEX);
    /// It has not finished a frame for as long as is allowed, or, with a floor, not taken enough.
    bool has_stalled() INFRA_REQUIRES(CORE_MUTEX);

    // Links.

    /// Comes to a list, at the head, `next` being the head so far.
    void come_to_list(MediaCore& list, SenderRecord* next, std::unique_ptr<GoneSender> reference)
        INFRA_REQUIRES(CORE_MUTEX);
    /// Every way off the list. Where the sender stands stays with it, should it come back.
    void leave_list() INFRA_REQUIRES(CORE_MUTEX);
    void set_next(SenderRecord* next) INFRA_REQUIRES(CORE_MUTEX) { m_next = next; }
    void set_leaving() INFRA_REQUIRES(CORE_MUTEX) { m_leaving = true; }
    void set_failed() INFRA_REQUIRES(CORE_MUTEX) { m_failed = true; }
    /// Brings the frames' chains in line with m_frame. Every change of m_frame ends with it before a frame
    /// can be deleted.
    void settle() INFRA_REQUIRES(CORE_MUTEX) {
        if (m_linked != m_frame) {
            relink();
        }
        if (m_tail != nullptr && m_frame != m_tail) {
            drop_tail();
        }
    }
    /// m_frame is about to be deleted: what the sender still needs of it is copied.
    void rescue_frame() INFRA_REQUIRES(CORE_MUTEX);
    /// The same for the senders that stand on a frame: all, those that keep frames, or the others.
    enum class Rescue { ALL, KEEPERS, NO_KEEPERS };
    static void rescue_all(CFrame& frame, Rescue which) INFRA_REQUIRES(CORE_MUTEX);

    // Keeping. To the buffer's list, and to the counts of frames, a sender that keeps frames is one that has
    // caught up: it is counted within a turn at most. It stands on kept frames alone, or on its private rest.

    /// Frames are kept for it from now on. It is on the list, and where it stands was kept, if it is.
    void begin_keeping() INFRA_REQUIRES(CORE_MUTEX);
    /// It goes on by the list.
    void end_keeping() INFRA_REQUIRES(CORE_MUTEX);
    /// The frame on offer cannot be begun, since other data waits. One that is kept is not lost to that.
    void note_offered(CFrame* frame) INFRA_REQUIRES(CORE_MUTEX) {
        if (m_keeps && m_frame == nullptr && frame != nullptr && frame->m_kept) {
            change_frame(frame);
        }
    }
    /// A kept frame is not for it.
    void pass_kept(const CFrame& frame, bool leaves_out) INFRA_REQUIRES(CORE_MUTEX) {
        pass(frame, leaves_out);
    }

    // Others.

    MediaSenderStats stats() INFRA_REQUIRES(CORE_MUTEX);

private:
    /// The first bytes of a frame have gone out: from here on it is the last one of its channel.
    void begin_frame() INFRA_REQUIRES(CORE_MUTEX) {
        const CFrame& frame = *m_frame;
        if (!m_courses.follows(frame)) {
            count_gap();
        }
        m_courses.begin(frame);
        if (has_policy()) {
            m_send_total = frame.m_begin;
            if (m_keeps) {
                begin_kept_frame();
            }
        }
    }
    void end_block() INFRA_REQUIRES(CORE_MUTEX) {
        if (m_block_time != 0) {
            sum_block();
        }
    }
    /// The socket was full until now.
    __attribute__((noinline)) void sum_block() INFRA_REQUIRES(CORE_MUTEX);
    /// Takes note of what the peer has acknowledged, and tells whether it was too little for too long. No
    /// answer without a floor.
    std::optional<bool> look_at_floor() INFRA_REQUIRES(CORE_MUTEX);
    /// The frame is over, and the sender stands at none.
    void leave_ended() INFRA_REQUIRES(CORE_MUTEX) {
        m_iovec_index = 0;
        m_iovec_offset = 0;
        end_block();
        finished();
        m_frame = nullptr;
        m_frame_left = 0;
    }
    /// The sender goes without a frame, which counts by its cause.
    void pass(const CFrame& frame, bool leaves_out) INFRA_REQUIRES(CORE_MUTEX);
    DropCause take_course(const CFrame& frame, bool leaves_out) INFRA_REQUIRES(CORE_MUTEX);
    /// Why the sender does not get a frame that it has chosen and that nobody has kept back.
    DropCause reason(const CFrame& frame) INFRA_REQUIRES(CORE_MUTEX);
    /// The sender is past a frame of a channel that it has chosen, and its filter has kept it back. False if
    /// it has not.
    bool pass_withheld(const CFrame& frame) INFRA_REQUIRES(CORE_MUTEX);
    void finished() INFRA_REQUIRES(CORE_MUTEX) {
        ++m_stats.frames;
        m_counted = false;
        if (Points::LooksAtSent()) {
            tell_sent();
        }
        if (m_procedure.is_set()) {
            call_procedure();
        }
    }
    /// For those who trace it.
    __attribute__((noinline, cold)) void tell_sent() INFRA_REQUIRES(CORE_MUTEX);
    void count_gap() INFRA_REQUIRES(CORE_MUTEX);
    void pass_written(uint64_t written) INFRA_REQUIRES(CORE_MUTEX);
    void call_procedure() INFRA_REQUIRES(CORE_MUTEX);
    void relink() INFRA_REQUIRES(CORE_MUTEX);
    void begin_kept_frame() INFRA_REQUIRES(CORE_MUTEX);
    CFrame* end_kept_frame() INFRA_REQUIRES(CORE_MUTEX);
    void hold() INFRA_REQUIRES(CORE_MUTEX);
    void hold_no_more() INFRA_REQUIRES(CORE_MUTEX);
    void uncount_written() INFRA_REQUIRES(CORE_MUTEX);
    uint64_t backlog() const INFRA_REQUIRES(CORE_MUTEX);
    uint64_t position() const INFRA_REQUIRES(CORE_MUTEX);
    void drop_tail() INFRA_REQUIRES(CORE_MUTEX);
    void keep_rest(uint32_t end) INFRA_REQUIRES(CORE_MUTEX);
    void lose_rest() INFRA_REQUIRES(CORE_MUTEX);
};

}  // namespace Orvex::Reticor
