// TapLine: the taps of a buffer, the newest first.
#pragma once

#include <Reticor/MediaPacket.h>

#include "Tool/step/MediaStep.h"

namespace Orvex::Reticor {

/// Links taps, which stay the product's. Call-backs may change the list at once: a walk over it keeps its
/// place here.
class TapLine {
public:
    /// What came of adding a tap.
    struct Added {
        bool entered;       ///< False: it is on another buffer's list.
        bool here_already;  ///< It was on this one before.
        bool no_memory;     ///< It is on none.
    };

    TapLine() = default;
    TapLine(const TapLine&) = delete;
    TapLine& operator=(const TapLine&) = delete;

    const CLevel2Buffer_IF* first() const INFRA_REQUIRES(CORE_MUTEX) { return m_first; }
    /// A tap is on the list of one buffer at most.
    Added add(CLevel2Buffer_IF& tap) INFRA_REQUIRES(CORE_MUTEX);
    /// One that is not on the list is ignored, and may be gone.
    void remove(const CLevel2Buffer_IF* tap) INFRA_REQUIRES(CORE_MUTEX);
    void clear() INFRA_REQUIRES(CORE_MUTEX);

    /// Calls each tap with the packet, and takes off those that ask for it. Runs products' code.
    void show(CMediaPacket* packet, int len, int mark, int level) INFRA_REQUIRES(CORE_MUTEX);

private:
    CLevel2Buffer_IF* m_first INFRA_GUARDED_BY(CORE_MUTEX) = nullptr;
    /// The walk in progress comes to it next.
    CLevel2Buffer_IF* m_walk_next INFRA_GUARDED_BY(CORE_MUTEX) = nullptr;
};

}  // namespace Orvex::Reticor
