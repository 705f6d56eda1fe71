// MediaBufferState: the parts of a CMediaBuffer, and what concerns several of them.
#pragma once

#include <Reticor/MediaBuffer.h>
#include <Reticor/MediaVerdicts.h>

#include <cstdint>
#include <memory>
#include <optional>

#include "Tool/judge/BurstBook.h"
#include "Tool/media/FrameLine.h"
#include "Tool/media/MediaSending.h"
#include "Tool/media/SenderLine.h"
#include "Tool/media/StartShares.h"
#include "Tool/media/StepBatch.h"
#include "Tool/media/WaitingSenders.h"
#include "Tool/step/AutoSend.h"
#include "Tool/step/CoreRoll.h"
#include "Tool/step/TapLine.h"

namespace Orvex::Reticor {

/// What came of adding a sender.
struct SenderEntry {
    const MediaCore* m_list;  ///< Another buffer's, on whose list it is, so that it was not added; or null.
    bool m_here_already;      ///< It was on the list before, or is to come to it.
    bool m_no_memory;         ///< Nothing was done.
};

/// The two ways back to the buffer, do_send and come, are left to OwnedBufferState.
struct MediaBufferState : SendTarget_IF, StepEnd_IF {
    explicit MediaBufferState(CMediaBuffer& owner);
    virtual ~MediaBufferState();
    MediaBufferState(const MediaBufferState&) = delete;
    MediaBufferState& operator=(const MediaBufferState&) = delete;

    void drop_leaving() override INFRA_REQUIRES(CORE_MUTEX);
    /// What it comes to be past is let go by the next step.
    void go_on(SenderRecord& record) override INFRA_REQUIRES(CORE_MUTEX);
    /// The sender does not wait for room any more, if it did: its next turn tries.
    void stop_waiting(SenderRecord& record) override INFRA_REQUIRES(CORE_MUTEX);

    /// Whether steps write nothing until flush.
    void set_hold(bool holds) INFRA_REQUIRES(CORE_MUTEX) {
        m_holds = holds;
        m_held = m_held || holds;
    }

    /// For the tests.
    static MediaBufferState& of(CMediaBuffer& buffer) { return *buffer.m_state; }
    /// Null if there was no memory for it.
    static MediaBufferState* find(const CMediaBuffer& buffer) { return buffer.m_state; }
    /// The buffer of a core, which a buffer alone opens; null if it has gone.
    static MediaBufferState* find(const MediaCore& core) INFRA_REQUIRES(CORE_MUTEX) {
        return static_cast<MediaBufferState*>(core.m_end);
    }

    /// Shows a packet to the taps and puts it into the frame, its level within bounds. Gives the channel.
    int accept(CMediaPacket* packet, int len, int mark, int level) INFRA_REQUIRES(CORE_MUTEX);
    /// The packet was the last one of its frame, whose channel is 0 to 7.
    void complete() INFRA_REQUIRES(CORE_MUTEX);
    /// A frame was lost on its way to this buffer, with that level word: to senders it is one that was gone
    /// when its turn came.
    void lose(int level_word, uint64_t bytes) INFRA_REQUIRES(CORE_MUTEX);
    /// Whether the last packet ended a frame, and there was a sender: the timer must not send half a frame.
    bool sends() const INFRA_REQUIRES(CORE_MUTEX) { return m_send_ready; }
    /// All senders go on, and what they are past is let go. Gives the bytes that were to be let go and were
    /// not there. Frames grow older if this is a tick, and there is a frame to be filled after it.
    uint64_t send_packet(bool has_packet, bool ages) INFRA_REQUIRES(CORE_MUTEX);

    /// A sender that was on another buffer's list before brings along what it needs of that buffer's frames,
    /// under that buffer's lock. Inside a call-back, with a lock held already, it comes when the thread holds
    /// none any more.
    SenderEntry add_sender(SenderRecord& record);
    /// Takes a sender off; without any the complete frames go. Inside a call-back it is marked, and goes when
    /// the operation ends.
    void take_off(SenderRecord& record, bool inside_call_back) INFRA_REQUIRES(CORE_MUTEX);

    bool go(CMediaStreamSender& sender) override INFRA_REQUIRES(CORE_MUTEX);
    /// It is on this list, or was on none since, or is about to come here.
    bool has_seat(CMediaStreamSender& sender) const {
        return SenderRecord::of(sender).m_seat.get() == m_core;
    }
    /// Inside a call-back of any buffer: it comes to this list when the thread is out of all call-backs.
    /// False if that was noted already.
    bool note_coming(CMediaStreamSender& sender) { return SenderRecord::of(sender).m_coming.note(m_core); }
    /// How often that was noted, here or elsewhere.
    static uint64_t notes_of(CMediaStreamSender& sender) { return SenderRecord::of(sender).m_coming.notes(); }
    /// Takes a sender off, unless it has come since there were that many notes: it was added after whatever
    /// takes it off.
    void go_unless_new(CMediaStreamSender& sender, uint64_t notes) INFRA_REQUIRES(CORE_MUTEX) {
        if (!SenderRecord::of(sender).m_coming.has_come_after(notes)) {
            go(sender);
        }
    }
    /// It does not come here, nor moves from here, if that was noted. Outside or inside call-backs.
    void take_back(CMediaStreamSender& sender);
    /// Whoever reads from a sender's socket, if it waits for room; 0 otherwise.
    static long owner_of(CMediaStreamSender& sender) { return SenderRecord::of(sender).m_room.owner(); }
    /// Moves a sender, as CMediaBuffer::MoveSender tells.
    bool move(SenderRecord& record, const MediaBufferState& to, bool at_key);
    void set_start_cache(uint64_t keep_us, uint64_t most_bytes) INFRA_REQUIRES(CORE_MUTEX);

    /// From the next frame on; beyond 1 to 10 none is disposable.
    void set_disposable_level(int level) INFRA_REQUIRES(CORE_MUTEX) {
        const bool any = level >= FrameLine::LEVEL_MOST && level <= FrameLine::LEVEL_LEAST;
        m_core->m_channels.set_disposable_level(any ? level : 0);
    }

    /// Why a sender of the list is slow, if it is.
    SenderVerdict verdict_on(SenderRecord& record) INFRA_REQUIRES(CORE_MUTEX);
    void look_last(SenderRecord& record) override INFRA_REQUIRES(CORE_MUTEX);

    MediaBufferStats stats();
    MediaStartStats start_stats();

    /// The buffer's end: neither the timer nor a sender finds it after this, and all frames have gone.
    void retire();

    CMediaBuffer& m_owner;
    const std::shared_ptr<MediaCore> m_core = std::make_shared<MediaCore>();
    FrameLine m_frames;
    SenderLine m_senders;
    TapLine m_taps;
    AutoSend m_auto_send;
    WaitingSenders m_waiting;
    bool m_holds INFRA_GUARDED_BY(CORE_MUTEX) = false;  ///< Frames are offered, and nothing is written.
    /// Frames were offered that nobody has been let write yet.
    bool m_held INFRA_GUARDED_BY(CORE_MUTEX) = false;
    bool m_send_ready INFRA_GUARDED_BY(CORE_MUTEX) = true;
    StartShares m_shares INFRA_GUARDED_BY(CORE_MUTEX);
    StepBatch m_batch INFRA_GUARDED_BY(CORE_MUTEX);
    uint64_t m_started INFRA_GUARDED_BY(CORE_MUTEX) = 0;  ///< Senders that have begun with the start cache.
    BurstBook m_bursts INFRA_GUARDED_BY(CORE_MUTEX);
    /// The last one: readers find the buffer from here on.
    const CoreRoll::Entry m_roll{m_core};

private:
    /// Where a sender stands in the stream.
    enum class Place {
        NONE,       ///< It has no place yet, and waits for a frame of the list.
        ELSEWHERE,  ///< It has none, and will need nothing of the list.
        REST,       ///< It has none, and ends a frame that it has begun.
        HERE,
    };

    /// All senders have their turn. Gives the position up to which frames can be let go; none if the last
    /// sender has gone.
    std::optional<uint64_t> give_turns() INFRA_REQUIRES(CORE_MUTEX);
    __attribute__((noinline)) void change_mode(SenderRecord& record) INFRA_REQUIRES(CORE_MUTEX);
    /// One that has not joined can stand at the first frame of the stream all the same, where its position
    /// is 0: that frame is held, or it has come from another buffer and was blocked there.
    Place place_of(SenderRecord& record) INFRA_REQUIRES(CORE_MUTEX) {
        if (record.m_leaving) {
            return Place::NONE;
        }
        const bool stands =
            (m_held || record.m_start.m_moved) && record.m_joined && record.m_frame != nullptr;
        return record.has_joined() || stands ? Place::HERE : join(record);
    }
    Place join(SenderRecord& record) INFRA_REQUIRES(CORE_MUTEX);
    CFrame* start_of(const SenderRecord& record) const INFRA_REQUIRES(CORE_MUTEX);
    void call_movers() INFRA_REQUIRES(CORE_MUTEX);
    bool goes_with_this_step(SenderRecord& record);
    TurnEnd give_turn(SenderRecord& record, CFrame* offered) INFRA_REQUIRES(CORE_MUTEX);
    /// The turn of one to which the frame on offer was written with others; `answer` is that of its socket.
    __attribute__((noinline)) TurnEnd give_written(SenderRecord& record, CFrame& offered, int answer)
        INFRA_REQUIRES(CORE_MUTEX);
    /// The turns of those that catch up, after the others.
    __attribute__((noinline)) bool give_shares(CFrame* offered) INFRA_REQUIRES(CORE_MUTEX);
    TurnEnd give_share(SenderRecord& record, CFrame* offered) INFRA_REQUIRES(CORE_MUTEX);
    void end_share(SenderRecord& record) INFRA_REQUIRES(CORE_MUTEX);
    void first_turn(SenderRecord& record) INFRA_REQUIRES(CORE_MUTEX);
    void fail(SenderRecord& record) INFRA_REQUIRES(CORE_MUTEX);
    void del_sender(SenderRecord& record) INFRA_REQUIRES(CORE_MUTEX);
    void after_sending(bool has_packet, bool ages) INFRA_REQUIRES(CORE_MUTEX);
};

/// The state with its ways back to the buffer: of the shared timer, and of senders that call-backs have
/// added.
struct OwnedBufferState final : MediaBufferState {
    using MediaBufferState::MediaBufferState;
    void do_send() override { m_owner.do_send(); }
    void come(CMediaStreamSender& sender) override INFRA_REQUIRES(CORE_MUTEX) { m_owner.AddSender(&sender); }
};

}  // namespace Orvex::Reticor
