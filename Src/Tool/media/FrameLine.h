// FrameLine: the frames of a buffer, from the oldest to the one that is being filled.
#pragma once

#include <atomic>
#include <cstdint>

#include <Reticor/MediaBuffer.h>

#include "Tool/frame/FrameStore.h"
#include "Tool/frame/StartCache.h"
#include "Tool/media/KeptLine.h"
#include "Tool/step/MediaStep.h"

namespace Orvex::Reticor {

/// Owns the frames, and both positions in the stream: of the end of the newest frame (in the core, where
/// senders see it) and of what was let go. Frames that leave the list stay for as long as they are kept, if
/// there are senders that keep them.
///
/// Invariants, between two operations of the buffer: the current frame is the last one, or there is none; all
/// frames before it are complete and have not expired; m_standing of each frame holds exactly the senders
/// whose m_frame it is.
class FrameLine {
public:
    static constexpr int CHANNELS = 8;
    static constexpr int LEVEL_MOST = 1;
    static constexpr int LEVEL_LEAST = 10;

    /// Begins with one empty frame. `name` is the buffer's address, for trace lines.
    FrameLine(MediaCore& core, const void* name);
    FrameLine(const FrameLine&) = delete;
    FrameLine& operator=(const FrameLine&) = delete;

    CFrame* head() const INFRA_REQUIRES(CORE_MUTEX) { return m_head; }
    /// The one that is being filled; null if there are no frames.
    CFrame* current() const INFRA_REQUIRES(CORE_MUTEX) { return m_current; }
    uint64_t byte_discard() const INFRA_REQUIRES(CORE_MUTEX) { return m_byte_discard; }
    uint32_t frame_num() const INFRA_REQUIRES(CORE_MUTEX) { return m_frame_num; }
    /// The lowest level of the channel so far: that of its key frames.
    int32_t min_level(int channel) const INFRA_REQUIRES(CORE_MUTEX) { return m_min_level[channel]; }
    /// Bytes that the channels of a mask have had so far.
    uint64_t bytes_of(uint8_t mask) const INFRA_REQUIRES(CORE_MUTEX);
    /// Frames that some sender may want, as of the last count. Any thread.
    uint32_t valid_num() const { return m_valid_num.load(std::memory_order_relaxed); }
    uint64_t size() const INFRA_REQUIRES(CORE_MUTEX);
    void add_stats(MediaBufferStats& stats) const INFRA_REQUIRES(CORE_MUTEX);
    void add_stats(MediaStartStats& stats) const INFRA_REQUIRES(CORE_MUTEX);

    /// Frames with packets, on the list or kept, and their bytes.
    struct Held {
        uint64_t frames = 0;
        uint64_t bytes = 0;
    };
    Held held() const INFRA_REQUIRES(CORE_MUTEX);

    // Filling.

    /// Takes the memory that the next operation can need: for the frames that it begins, and, with `packet`,
    /// for one more packet of the current one. False, with nothing else changed, if there is none.
    bool make_room(bool packet) INFRA_REQUIRES(CORE_MUTEX) {
        return m_store.hold(FRAMES_OF_A_STEP) && (!packet || m_current == nullptr || m_current->make_room());
    }
    /// There is a current frame after this.
    void begin_if_empty() INFRA_REQUIRES(CORE_MUTEX) {
        if (m_head == nullptr) {
            begin();
        }
    }
    /// Gives the current frame its information; a null packet changes nothing.
    void put_info(CMediaPacket* packet, int arg, CMediaPacket* shown = nullptr) INFRA_REQUIRES(CORE_MUTEX);
    /// There is a current frame, and no memory is needed to put that number of packets into it. False if
    /// there is none.
    bool make_room_for(uint32_t packets) INFRA_REQUIRES(CORE_MUTEX);
    /// Puts a packet into the current frame.
    void append(CMediaPacket* packet, int len, int mark, int level_word) INFRA_REQUIRES(CORE_MUTEX);
    /// The current frame is complete, on a channel of 0 to 7.
    void complete() INFRA_REQUIRES(CORE_MUTEX);
    /// A frame with that level word was lost on its way to the buffer: it counts as one that was complete
    /// here, and that everybody has missed.
    void lose(int level_word, uint64_t bytes) INFRA_REQUIRES(CORE_MUTEX);
    /// The next frame that is offered was complete at that time already.
    void set_complete_us(uint64_t complete_us) INFRA_REQUIRES(CORE_MUTEX) { m_complete_us = complete_us; }
    /// The complete frame is offered to senders from now on.
    void offer() INFRA_REQUIRES(CORE_MUTEX) {
        m_current->offer(m_complete_us != 0 ? take_complete_us() : m_core.now());
        if (m_core.m_keepers != 0) {
            keep(*m_current);
        }
    }
    /// A new frame after the complete one.
    void open_next() INFRA_REQUIRES(CORE_MUTEX);

    // Letting go.

    /// Lets frames go, from the oldest on, that end before this position. Positions of senders can run ahead
    /// of their cursors, when the stream began anew; a frame on which one stands stays in any case. Gives the
    /// bytes for which there were no frames.
    uint64_t let_pass(uint64_t should_discard) INFRA_REQUIRES(CORE_MUTEX);
    /// One tick for every complete frame. A frame of level L expires at (11 - L) * 10 ticks, unless a sender
    /// is at work on it.
    void age() INFRA_REQUIRES(CORE_MUTEX);
    /// Whether all senders have a resume policy: then only a sender that stands on a frame keeps it.
    void set_policy_only(bool policy_only) INFRA_REQUIRES(CORE_MUTEX) { m_policy_only = policy_only; }
    /// Counts what valid_num gives.
    void count_valid() INFRA_REQUIRES(CORE_MUTEX);
    /// All walks stop at a complete frame without a byte, so nothing after it would ever be let go, and
    /// neither would it. It goes after as many sending steps as a frame of its level has ticks. Counts one
    /// step for those after `before`, from the first one on with null, up to one that expires now, and gives
    /// that.
    const CFrame* age_hollow(const CFrame* before) INFRA_REQUIRES(CORE_MUTEX) {
        return m_hollow_num != 0 ? walk_hollow(before) : nullptr;
    }
    /// Takes out what has expired, wherever it stands.
    void drop_expired() INFRA_REQUIRES(CORE_MUTEX);
    /// Nobody is left to be sent anything: only a frame that is being filled stays, and what is held for
    /// those that come, and the stream begins anew.
    void drop_complete() INFRA_REQUIRES(CORE_MUTEX);
    void drop_head() INFRA_REQUIRES(CORE_MUTEX);
    void drop_all() INFRA_REQUIRES(CORE_MUTEX);
    /// After the last frame was dropped: the stream begins anew.
    void reset() INFRA_REQUIRES(CORE_MUTEX);

    // Keeping.

    /// A sender of the list wants frames kept from now on: those of the list are there for it.
    void begin_keeping(SenderRecord& record) INFRA_REQUIRES(CORE_MUTEX);
    /// Frames are held for clients that come. Those of the list are there for them. Without bounds, none.
    void set_start_bounds(uint64_t keep_us, uint64_t most_bytes) INFRA_REQUIRES(CORE_MUTEX);
    const StartCache& starts() const INFRA_REQUIRES(CORE_MUTEX) { return m_starts; }
    /// The complete frame is held for clients that come, there being none.
    void hold_for_starts() INFRA_REQUIRES(CORE_MUTEX);
    /// Lets go what is kept and not needed, or not any longer.
    void trim_kept() INFRA_REQUIRES(CORE_MUTEX) {
        if (!m_kept.empty()) {
            let_go_kept();
        }
    }
    void set_keep_bounds(uint64_t keep_us, uint64_t most_bytes) INFRA_REQUIRES(CORE_MUTEX) {
        m_kept.set_bounds(keep_us, most_bytes);
    }
    CFrame* first_kept() const INFRA_REQUIRES(CORE_MUTEX) { return m_kept.first(); }
    const KeptLine& kept() const INFRA_REQUIRES(CORE_MUTEX) { return m_kept; }

private:
    /// One that is begun before the senders' turns, and one after them.
    static constexpr uint32_t FRAMES_OF_A_STEP = 2;

    void begin() INFRA_REQUIRES(CORE_MUTEX);
    void number(CFrame& frame) INFRA_REQUIRES(CORE_MUTEX);
    uint64_t take_complete_us() INFRA_REQUIRES(CORE_MUTEX);
    const CFrame* walk_hollow(const CFrame* before) INFRA_REQUIRES(CORE_MUTEX);
    bool is_held(const CFrame& frame) const INFRA_REQUIRES(CORE_MUTEX);
    void expire(CFrame& frame) INFRA_REQUIRES(CORE_MUTEX);
    CFrame* unlink_head() INFRA_REQUIRES(CORE_MUTEX);
    void leave(CFrame* frame) INFRA_REQUIRES(CORE_MUTEX);
    // Apart from what is done where no sender keeps frames.
    __attribute__((noinline)) void leave_senders(CFrame* frame) INFRA_REQUIRES(CORE_MUTEX);
    __attribute__((noinline)) void keep(CFrame& frame) INFRA_REQUIRES(CORE_MUTEX);
    __attribute__((noinline)) void let_go_kept() INFRA_REQUIRES(CORE_MUTEX);
    void keep_no_more(CFrame* frame) INFRA_REQUIRES(CORE_MUTEX);
    void open_book() INFRA_REQUIRES(CORE_MUTEX);
    void drop_kept() INFRA_REQUIRES(CORE_MUTEX);

    MediaCore& m_core;
    const void* const m_name;
    CFrameStore m_store INFRA_GUARDED_BY(CORE_MUTEX);
    CFrame* m_head INFRA_GUARDED_BY(CORE_MUTEX) = nullptr;
    CFrame* m_current INFRA_GUARDED_BY(CORE_MUTEX) = nullptr;
    KeptLine m_kept INFRA_GUARDED_BY(CORE_MUTEX);
    StartCache m_starts INFRA_GUARDED_BY(CORE_MUTEX);
    uint64_t m_byte_discard INFRA_GUARDED_BY(CORE_MUTEX) = 0;  ///< Bytes of frames that were let go.
    uint32_t m_frame_num INFRA_GUARDED_BY(CORE_MUTEX) = 1;
    uint32_t m_hollow_num INFRA_GUARDED_BY(CORE_MUTEX) = 0;   ///< Complete frames without a byte.
    uint32_t m_expired_now INFRA_GUARDED_BY(CORE_MUTEX) = 0;  ///< Expired, and still in the list.
    bool m_policy_only INFRA_GUARDED_BY(CORE_MUTEX) = false;
    uint64_t m_complete_us INFRA_GUARDED_BY(CORE_MUTEX) = 0;  ///< Of the next frame; 0: when it is offered.
    std::atomic<uint32_t> m_valid_num{0};
    int32_t m_min_level[CHANNELS] INFRA_GUARDED_BY(CORE_MUTEX);
    /// Complete frames of each channel so far.
    uint64_t m_ordinal[CHANNELS] INFRA_GUARDED_BY(CORE_MUTEX) = {};
    uint64_t m_channel_bytes[CHANNELS] INFRA_GUARDED_BY(CORE_MUTEX) = {};  ///< And their bytes.
    uint64_t m_expired_frames INFRA_GUARDED_BY(CORE_MUTEX) = 0;
    uint64_t m_expired_bytes INFRA_GUARDED_BY(CORE_MUTEX) = 0;
};

}  // namespace Orvex::Reticor
