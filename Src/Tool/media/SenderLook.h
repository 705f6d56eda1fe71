// SenderLook: how a sender fares, for whoever looks.
#pragma once

#include <Reticor/MediaVerdicts.h>

#include "Tool/judge/BurstBook.h"
#include "Tool/media/FrameLine.h"
#include "Tool/media/SenderRecord.h"

namespace Orvex::Reticor {

/// A look at a sender of a buffer: reads it and its socket, has it judged, and tells the verdict. The first
/// look makes the sender's SenderWatch; what is not looked at costs nothing.
class SenderLook {
public:
    static constexpr uint64_t WINDOW_US = 10000000;

    /// What it takes of the buffer, whose lock is held for as long as it lives.
    SenderLook(const FrameLine& frames, BurstBook& bursts, uint64_t buffer)
        : m_frames(frames), m_bursts(bursts), m_buffer(buffer) {}

    /// Of a sender of the list.
    SenderVerdict tell(SenderRecord& record) INFRA_REQUIRES(CORE_MUTEX);
    /// The sender leaves the list: the socket is there for the last time. One that nobody has looked at
    /// lately has no verdict.
    void leave(SenderRecord& record) INFRA_REQUIRES(CORE_MUTEX);

    /// Of a sender that is on no list: how it fared when it left, if anybody looked until then.
    static SenderVerdict tell_absent(const SenderRecord& record) INFRA_REQUIRES(CORE_MUTEX);
    /// Of a sender of which nothing is known.
    static SenderVerdict unknown(int64_t sender);

    /// The time over which is judged. Any thread.
    static void set_window(uint64_t window_us) { Infra::relaxedStore(sm_window_us, window_us); }
    /// Copies as much as the caller of `to` knows. False if that is not even its size and version.
    static bool hand_out(const SenderVerdict& from, SenderVerdict& to);

private:
    void look(SenderRecord& record) INFRA_REQUIRES(CORE_MUTEX);
    SenderReading read(SenderRecord& record, uint64_t now_us) const INFRA_REQUIRES(CORE_MUTEX);
    SenderVerdict describe(SenderRecord& record) const INFRA_REQUIRES(CORE_MUTEX);

    const FrameLine& m_frames;
    BurstBook& m_bursts;
    const uint64_t m_buffer;  ///< Its number.

    static uint64_t sm_window_us;  ///< No lock.
};

}  // namespace Orvex::Reticor
