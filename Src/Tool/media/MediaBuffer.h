// The private side of CMediaBuffer: its state.
#pragma once

#include <Reticor/MediaBuffer.h>

#include <atomic>
#include <cstdint>
#include <memory>

#include <Infra/LockClasses.h>
#include <Infra/Mutex.h>

#include "Tool/frame/FrameStore.h"
#include "Tool/media/MediaStep.h"
#include "Tool/media/MediaStreamSender.h"
#include "Tool/media/SenderHandler.h"

namespace Orvex::Reticor {

/// Guarded by m_core->m_mutex but for what says otherwise. The count of bytes put is in the core.
///
/// Invariants, between two operations: m_current_frame is the last frame of the list, or null with an empty
/// list; all frames before it are complete and have not expired; m_standing of each frame holds exactly the
/// senders whose m_frame it is.
struct MediaBufferState final : SendTarget_IF, StepEnd_IF {
    static constexpr int CHANNELS = 8;
    static constexpr int LEVEL_LEAST = 10;

    explicit MediaBufferState(CMediaBuffer& owner) : m_owner(owner) { m_core->m_end = this; }

    void do_send() override { m_owner.do_send(); }
    void drop_leaving() override;
    void come(CMediaStreamSender& sender) override { m_owner.AddSender(&sender); }

    /// For the tests.
    static MediaBufferState& of(CMediaBuffer& buffer) { return *buffer.m_state; }

    uint64_t byte_total() const { return m_core->m_byte_total; }

    void empty_lists();

    /// Whether a sender of the list stands on the frame, which must then stay.
    bool is_held(const CFrame& frame) const;

    CMediaBuffer& m_owner;
    const std::shared_ptr<MediaCore> m_core = std::make_shared<MediaCore>();

    CFrameStore m_store;
    CFrame* m_frame_header = nullptr;   ///< The oldest.
    CFrame* m_current_frame = nullptr;  ///< The one that is being filled.
    CMediaStreamSender* m_sender_header = nullptr;
    CLevel2Buffer_IF* m_buffer_header = nullptr;  ///< Taps.
    CLevel2Buffer_IF* m_tap_next = nullptr;       ///< The tap that a walk in progress comes to next.
    uint64_t m_byte_discard = 0;                  ///< Bytes of frames that were let go.
    bool m_auto_send = false;
    bool m_send_ready = true;  ///< The last packet ended a frame, and there was a sender.
    bool m_has_sender = false;
    int32_t m_min_level[CHANNELS];  ///< The lowest of each channel so far: that of its key frames.
    uint32_t m_frame_num = 1;
    std::atomic<uint32_t> m_valid_num{0};  ///< Read without a lock.

    uint64_t m_ordinal[CHANNELS] = {};        ///< Complete frames of each channel so far.
    uint64_t m_channel_bytes[CHANNELS] = {};  ///< And their bytes.
    uint32_t m_expired_now = 0;               ///< Frames that expired in this step.
    uint32_t m_hollow_num = 0;                ///< Complete frames without a byte.
    bool m_policy_only = false;               ///< All senders of the list have a resume policy.
    uint64_t m_expired_frames = 0;
    uint64_t m_expired_bytes = 0;

    /// Makes switching auto-send one thing with the change of the timer's list. Comes before the list's lock.
    Infra::CMutex m_auto_mutex{Infra::LockClass::AUTO_SEND};
};

}  // namespace Orvex::Reticor
