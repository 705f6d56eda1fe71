// MediaBufferState: the parts of a CMediaBuffer, and what concerns several of them.
#pragma once

#include <Reticor/MediaBuffer.h>

#include <memory>

#include "Tool/media/AutoSend.h"
#include "Tool/media/FrameLine.h"
#include "Tool/media/MediaSending.h"
#include "Tool/media/SenderLine.h"
#include "Tool/media/TapLine.h"

namespace Orvex::Reticor {

/// The two ways back to the buffer, do_send and come, are the buffer's to fill in.
struct MediaBufferState : SendTarget_IF, StepEnd_IF {
    explicit MediaBufferState(CMediaBuffer& owner);
    virtual ~MediaBufferState();
    MediaBufferState(const MediaBufferState&) = delete;
    MediaBufferState& operator=(const MediaBufferState&) = delete;

    void drop_leaving() override INFRA_REQUIRES(CORE_MUTEX);

    /// For the tests.
    static MediaBufferState& of(CMediaBuffer& buffer) { return *buffer.m_state; }

    /// Shows a packet to the taps and puts it into the frame. Gives the level word that counts, its level
    /// within bounds.
    int accept(CMediaPacket* packet, int len, int mark, int level) INFRA_REQUIRES(CORE_MUTEX);
    /// The packet was the last one of its frame.
    void complete(int level_word) INFRA_REQUIRES(CORE_MUTEX);
    /// All senders go on, and what they are past is let go. Gives the bytes that were to be let go and were
    /// not there.
    uint64_t send_packet() INFRA_REQUIRES(CORE_MUTEX);
    /// What follows: frames grow older if this is a tick, and there is a frame to be filled.
    void after_sending(bool has_packet, bool ages) INFRA_REQUIRES(CORE_MUTEX);
    /// Takes a sender off; without any the complete frames go.
    void del_sender(SenderRecord& record) INFRA_REQUIRES(CORE_MUTEX);

    CMediaBuffer& m_owner;
    const std::shared_ptr<MediaCore> m_core = std::make_shared<MediaCore>();
    FrameLine m_frames;
    SenderLine m_senders;
    TapLine m_taps;
    AutoSend m_auto_send;
    /// The last packet ended a frame, and there was a sender.
    bool m_send_ready INFRA_GUARDED_BY(CORE_MUTEX) = true;

private:
    bool join(SenderRecord& record) INFRA_REQUIRES(CORE_MUTEX);
};

}  // namespace Orvex::Reticor
