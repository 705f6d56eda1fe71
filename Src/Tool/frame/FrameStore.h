// CFrameStore: the memory of frames that have gone.
#pragma once

#include <cstdint>

#include "Tool/frame/MediaFrame.h"

namespace Orvex::Reticor {

/// Memory of a buffer's frames that have gone, for its next ones: a stream that runs allocates nothing. The
/// frames themselves are always constructed and destroyed.
///
/// Thread safety: none of its own; guarded by the mutex of the buffer that owns it.
class CFrameStore {
public:
    /// 0 where a sanitizer looks for uses of memory after its end, which is then to see every end.
    static const uint32_t SPARES_MOST;

    CFrameStore() = default;
    ~CFrameStore();
    CFrameStore(const CFrameStore&) = delete;
    CFrameStore& operator=(const CFrameStore&) = delete;

    /// Has memory for that many frames at rest. False if there is none.
    bool hold(uint32_t frames) { return m_count >= frames || fill(frames); }
    /// Out of what rests, or of new memory; null if there is none.
    CFrame* make();
    /// Destroys the frame, which releases its packets.
    void end(CFrame* frame);

private:
    bool fill(uint32_t frames);

    /// What is linked in place of a frame.
    struct Spare {
        Spare* next;
    };

    Spare* m_spares = nullptr;
    uint32_t m_count = 0;
};

}  // namespace Orvex::Reticor
