// KeptLine: the frames that wait for senders that step ahead.
#pragma once

#include <cstdint>

#include "Tool/frame/MediaFrame.h"
#include "Tool/step/MediaStep.h"

namespace Orvex::Reticor {

/// A second order of the frames of a buffer. Frames wait here by time, and not by ticks and levels, for the
/// senders that keep (SenderRecord::m_keeps), which have their cursors here alone: to the list of the buffer
/// they look like senders that have caught up. A frame is on both lists, on one of them, or is let go.
///
/// Nothing stays for longer than a sender needs it, nor beyond the bounds of time and bytes; but a frame that
/// is half on the wire of a sender on the buffer's list stays, and so do those of the start cache, which has
/// bounds of its own.
///
/// Thread safety: none of its own; guarded by the mutex of the buffer. What is taken out is the caller's to
/// end, if it is not on the buffer's list.
class KeptLine {
public:
    static constexpr uint64_t DEFAULT_KEEP_US = 10000000;
    static constexpr uint64_t DEFAULT_MOST_BYTES = 64 * 1024 * 1024;

    void set_bounds(uint64_t keep_us, uint64_t most_bytes) {
        m_keep_us = keep_us;
        m_most_bytes = most_bytes;
    }

    bool empty() const { return m_head == nullptr; }
    const CFrame* head() const { return m_head; }
    CFrame* first() const { return m_head; }
    uint64_t bytes() const { return m_bytes; }

    /// A complete frame with bytes, younger than all here.
    void append(CFrame& frame);
    /// Takes the oldest one out.
    CFrame* take_head() { return take(&m_head); }
    /// Takes the oldest one out if no sender needs it; null if one does, or if there is none.
    CFrame* take_passed() { return m_head != nullptr && m_head->m_holders == 0 ? take_head() : nullptr; }
    /// Takes out the oldest one that is beyond the bounds and that no sender has begun; null if there is none
    /// before `stop`.
    CFrame* take_over(uint64_t now_us, const CFrame* stop) INFRA_REQUIRES(CORE_MUTEX);

private:
    CFrame* take(CFrame** link);

    CFrame* m_head = nullptr;
    CFrame** m_end = &m_head;  ///< The link after the youngest frame.
    uint64_t m_bytes = 0;
    uint64_t m_keep_us = DEFAULT_KEEP_US;
    uint64_t m_most_bytes = DEFAULT_MOST_BYTES;
};

}  // namespace Orvex::Reticor
