// SenderSettings: what a product asks of one sender. SenderHotState: what each frame touches of it.
#pragma once

#include <Reticor/MediaStreamSender.h>

#include <cstdint>

#include <Infra/Atomic.h>

#include "Tool/frame/SenderCourses.h"
#include "Tool/step/KernelLag.h"
#include "Tool/step/SendProcedure.h"
#include "Tool/step/StallFloor.h"

namespace Orvex::Reticor {

struct MediaCore;
struct SenderRecord;

/// What each frame touches of a sender, first and close together.
struct alignas(64) SenderHotState {
    static constexpr uint8_t ALL_CHANNELS = 255;

    // One cache line, and a second one up to the first two counters; each frame touches them and a course.
    uint64_t m_send_total = 0;              ///< Position in the stream; 0: not joined.
    SenderRecord* m_next = nullptr;         ///< In the buffer's list.
    CSock* m_stream = nullptr;              ///< Borrowed. Read and written without a lock.
    CFrame* m_frame = nullptr;              ///< Null when it has caught up.
    int32_t m_iovec_index = 0;              ///< Entry to write next.
    int32_t m_iovec_offset = 0;             ///< Bytes of it that are written.
    uint64_t m_frame_left = 0;              ///< Bytes of the frame still to write.
    uint32_t m_block_count = 0;             ///< Writes in a row that would block.
    int32_t m_other_len = 0;                ///< Changed under m_other_mutex; read without it to see a 0.
    uint8_t m_channel_mask = ALL_CHANNELS;  ///< No lock.
    uint8_t m_lost_mask = 0;                ///< Channels that wait for a key frame.
    bool m_joined = false;                  ///< Has been given a place in the stream.
    bool m_counted = false;                 ///< m_frame's m_sender_count has this sender in it.
    bool m_leaving = false;                 ///< To be taken off as soon as the operation ends.
    bool m_full = false;                    ///< Waits for room: its socket is not tried.
    /// Frames are kept for it, and its cursor is on the kept line: it steps ahead when it is late.
    bool m_keeps = false;
    uint8_t m_wishes = 0;  ///< What its settings ask for, from its next turn or write on. No lock.

    CMediaStreamSender* m_owner = nullptr;  ///< Whose record it is.
    uint64_t m_block_time = 0;  ///< us; of the first write since the last finished frame that would block.
    /// Null without. Changed under m_other_mutex; read without it to see the null.
    SendProcedure::Function* m_send_proc = nullptr;
    uint64_t m_max_lag_us = 0;    ///< The resume policy; 0: none. No lock.
    MediaCore* m_list = nullptr;  ///< The core of the buffer whose list it is on, or null.
    CFrame* m_linked = nullptr;   ///< The frame whose chain of standing senders it is in.
    MediaSenderStats m_stats;

    SenderCourses m_courses;
};

/// Set from any thread without a lock, and read so by the turns of the sender: each holds from the next turn
/// or write on. Results and units as of the sender's operations.
struct SenderSettings : SenderHotState {
    static constexpr uint64_t NO_TIMEOUT_S = 0xFFFFFFFF;

    // Bits of m_wishes.
    static constexpr uint8_t WISH_KEEP = 1;        ///< Frames are to be kept for it.
    static constexpr uint8_t WISH_ROOM = 2;        ///< It waits for room when its socket is full.
    static constexpr uint8_t WISH_GATHER = 4;      ///< Several frames may go out in one write.
    static constexpr uint8_t WISH_FILTER = 8;      ///< Its filter is asked about each frame.
    static constexpr uint8_t WISH_DATAGRAMS = 16;  ///< Its frames go out by its FrameCut.

    void attach(CSock* stream);
    CSock* detach();
    void set_wish(uint8_t wish, bool on);
    /// One of them is enough.
    bool wishes(uint8_t wish) const { return (Infra::relaxedLoad(m_wishes) & wish) != 0; }
    bool wants_keep() const { return wishes(WISH_KEEP); }

    void set_policy(unsigned max_lag_ms, MediaResume mode, unsigned hard_lag_ms);
    uint64_t max_lag_us() const { return Infra::relaxedLoad(m_max_lag_us); }
    uint64_t hard_lag_us() const { return Infra::relaxedLoad(m_hard_lag_us); }
    bool has_policy() const { return max_lag_us() != 0; }

    void choose_channel(int channel);
    void give_up_channel(int channel);
    void start_at_key(bool at_key) { Infra::relaxedStore(m_starts_at_key, at_key); }
    bool starts_at_key() const { return Infra::relaxedLoad(m_starts_at_key); }

    void set_send_timeout(unsigned seconds) { Infra::relaxedStore(m_send_timeout, seconds); }
    uint64_t send_timeout_s() const { return Infra::relaxedLoad(m_send_timeout); }
    void set_stall_floor(unsigned bytes) { m_stall_floor.set_bytes(bytes); }
    void set_kernel_lag(unsigned limit_ms);

    uint64_t m_send_timeout = NO_TIMEOUT_S;
    uint64_t m_hard_lag_us = 0;
    bool m_starts_at_key = false;  ///< Not before the next key frame.
    KernelLag m_kernel_lag;
    StallFloor m_stall_floor;
};

}  // namespace Orvex::Reticor
