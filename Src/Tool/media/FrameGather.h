// FrameGather: what one write takes of several frames.
#pragma once

#include <sys/uio.h>

#include <array>
#include <cstdint>

#include "Tool/media/SenderRecord.h"

namespace Orvex::Reticor {

/// The rest of the frame at a sender's cursor, and frames after it that the sender gets for certain: they
/// follow each other on their channels, are not late, and no channel waits for a key frame. Where that ends
/// the gather ends, and the sender decides frame by frame.
///
/// A gather lies on the stack for the time of one write. Thread safety: guarded by the core's mutex.
class FrameGather {
public:
    static constexpr size_t FRAMES_MOST = 16;
    static constexpr size_t ENTRIES_MOST = 256;
    static constexpr uint64_t BYTES_MOST = 1024 * 1024;

    /// False if there is but one frame to write.
    bool collect(const SenderRecord& record) INFRA_REQUIRES(CORE_MUTEX);

    const iovec* entries() const { return m_entries.data(); }
    int count() const { return static_cast<int>(m_count); }
    uint64_t bytes() const { return m_bytes; }

    /// The frames after the first one, in order; null after the last one.
    CFrame* take_next() { return m_taken < m_frame_num ? m_frames[m_taken++] : nullptr; }

    /// The frame after it in the order in which the sender goes.
    static CFrame* after(const SenderRecord& record, const CFrame& frame) INFRA_REQUIRES(CORE_MUTEX) {
        return record.m_keeps ? frame.m_kept_next : frame.m_next;
    }

private:
    /// Of the last frame on each channel.
    using Ordinals = std::array<uint64_t, SenderCourses::CHANNELS>;
    enum class Next { TAKE, PASS, STOP };

    bool add(CFrame& frame, size_t index, int32_t offset);
    Next judge(const SenderRecord& record, const CFrame& frame, const Ordinals& last) const
        INFRA_REQUIRES(CORE_MUTEX);

    // Not set before they are used.
    std::array<iovec, ENTRIES_MOST> m_entries;
    std::array<CFrame*, FRAMES_MOST> m_frames;
    size_t m_count = 0;
    size_t m_frame_num = 0;
    size_t m_taken = 1;
    uint64_t m_bytes = 0;
    uint64_t m_young_us =
        0;  ///< With a resume policy, frames that were complete before then are not gathered.
};

}  // namespace Orvex::Reticor
