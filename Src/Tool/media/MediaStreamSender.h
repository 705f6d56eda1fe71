// The private side of CMediaStreamSender: its state, and what it shares with its buffer.
#pragma once

#include <Reticor/MediaStreamSender.h>

#include <cstdint>
#include <memory>

#include <Infra/Atomic.h>
#include <Infra/LockClasses.h>
#include <Infra/Mutex.h>
#include <Infra/Time.h>

#include "Tool/frame/MediaFrame.h"
#include "Tool/media/MediaStep.h"
#include "Tool/media/TargetStepMark.h"

namespace Orvex::Reticor {

/// A sender's state. Guarded by the mutex of m_core but for what says otherwise. What each delivered frame
/// touches comes first and close together.
struct alignas(64) MediaSenderState {
    explicit MediaSenderState(CMediaStreamSender& owner) : m_owner(owner) {}

    static constexpr int OTHER_SIZE = 4096;
    static constexpr uint64_t NO_TIMEOUT_S = 0xFFFFFFFF;
    static constexpr int CHANNELS = 8;
    static constexpr uint8_t ALL_CHANNELS = 255;

    /// How far it has come on one channel.
    struct Course {
        uint64_t m_last_ordinal = 0;    ///< Of the last frame begun; 0: none since it chose the channel.
        uint64_t m_end = 0;             ///< Where that frame ended in the bytes of its channel.
        uint64_t m_stepped_frames = 0;  ///< Stepped over since then.
        uint64_t m_stepped_bytes = 0;
    };

    /// The way to a buffer's list for a sender that was added inside a call-back.
    class Coming : public StepGuest_IF {
    public:
        explicit Coming(MediaSenderState& state) : m_state(state) {}

        /// The sender comes to the list of `core` when the thread is out of all call-backs. False if that was
        /// noted already.
        bool note(const std::shared_ptr<MediaCore>& core);
        /// Takes back that it comes to `core`; true if that was noted.
        bool take_back(const MediaCore& core);
        void come() override;

    private:
        MediaSenderState& m_state;
        Infra::CMutex m_mutex{Infra::LockClass::MEDIA_COMING};          ///< Comes after the core's.
        std::shared_ptr<MediaCore> m_target INFRA_GUARDED_BY(m_mutex);  ///< Null: it comes to none.
        /// A thread has it as its guest, and it holds a reference on the sender.
        bool m_waits INFRA_GUARDED_BY(m_mutex) = false;
    };

    // One cache line, and a second one up to the first two counters; each frame touches them and a Course.
    uint64_t m_send_total = 0;              ///< Position in the stream; 0: not joined.
    CMediaStreamSender* m_next = nullptr;   ///< In the buffer's list.
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
    bool m_failed = false;                  ///< Taken off by a socket failure.

    MediaSenderState* m_next_state = nullptr;  ///< That of m_next.
    uint64_t m_block_time = 0;  ///< us; of the first write since the last finished frame that would block.
    /// Null without. Changed under m_other_mutex; read without it to see the null.
    Infra::TFunction3<void, CMediaPacket*, int, int>* m_send_proc = nullptr;
    uint64_t m_max_lag_us = 0;    ///< The resume policy; 0: none. No lock.
    MediaCore* m_list = nullptr;  ///< The core of the buffer whose list it is on, or null.
    CFrame* m_linked = nullptr;   ///< The frame whose chain of standing senders it is in.
    MediaSenderStats m_stats;

    Course m_course[CHANNELS];

    CFrame* m_tail =
        nullptr;  ///< A private copy of what was left of a frame, owned; m_frame while it is set.
    MediaSenderState* m_standing_next = nullptr;
    MediaSenderState** m_standing_link = nullptr;  ///< What points at it in that chain.
    long m_exception_id = 0;                       ///< No lock.
    uint64_t m_send_timeout = NO_TIMEOUT_S;        ///< s. No lock.
    long m_skip_id = 0;                            ///< No lock.
    unsigned m_skip_msg = 0;                       ///< No lock.

    /// Comes after the core's mutex. Also guards changes of m_core.
    Infra::CMutex m_other_mutex{Infra::LockClass::MEDIA_OTHER};
    /// The buffer whose list it is on or was on last. Changes under m_other_mutex and the old core's mutex.
    std::shared_ptr<MediaCore> m_core INFRA_GUARDED_BY(m_other_mutex);
    Coming m_coming{*this};
    CMediaStreamSender& m_owner;
    /// OTHER_SIZE bytes, from the first use on.
    std::unique_ptr<char[]> m_other_data INFRA_GUARDED_BY(m_other_mutex);

    /// What the next sender's turn will touch is on its way while this one's write is in the kernel, which
    /// leaves little of it in the caches.
    void fetch_next() const {
        if (m_next_state != nullptr) {
            const char* const lines = reinterpret_cast<const char*>(m_next_state);
            __builtin_prefetch(lines, 1);
            __builtin_prefetch(lines + 64, 1);
            __builtin_prefetch(m_next_state->m_course, 1);
            __builtin_prefetch(m_next);
        }
    }

    bool at_boundary() const { return m_iovec_index == 0 && m_iovec_offset == 0; }
    uint64_t max_lag_us() const { return Infra::relaxedLoad(m_max_lag_us); }
    bool has_policy() const { return max_lag_us() != 0; }
    uint64_t now() { return m_list != nullptr ? m_list->now() : Infra::CTime::getCurrentMicroSecond(); }

    /// For the tests and for the buffer.
    static MediaSenderState& of(CMediaStreamSender& sender) { return *sender.m_state; }

    std::shared_ptr<MediaCore> core();
    /// The core, with its mutex entered: it is still this sender's. Null, and nothing is entered, without
    /// one.
    std::shared_ptr<MediaCore> enter_core();
    /// Changes the core, if it is still `before`, whose mutex is held if there is one.
    bool change_core(const std::shared_ptr<MediaCore>& before, const std::shared_ptr<MediaCore>& after);
    /// Becomes a sender of `core`. One that was on another buffer's list before still has its cursor there,
    /// and takes along what it needs of that. Enters the other core's mutex: the thread must hold none, or
    /// that one.
    void move_to(const std::shared_ptr<MediaCore>& core);

    /// Brings the frames' chains in line with m_frame. Every change of m_frame ends with it before a frame
    /// can be deleted.
    void settle() {
        if (m_linked != m_frame) {
            relink();
        }
        if (m_tail != nullptr && m_frame != m_tail) {
            drop_tail();
        }
    }

    /// Stands at the start of `frame`, and is counted there.
    void take_frame(CFrame* frame);

    /// Gives the frame up, and the cursor.
    void leave_frame();

    /// With the policy: the frame's count no longer has this sender in it. Without it a frame that a sender
    /// leaves half-way stays counted, and so outlives its age.
    void uncount();

    /// m_frame is about to be deleted: what the sender still needs of it is copied.
    void rescue_frame();

    /// Forgets which frames came last, so that the next ones are neither holes nor followers.
    void forget_order();

private:
    void relink();
    void drop_tail();
    void keep_rest(uint32_t end);
};

}  // namespace Orvex::Reticor
