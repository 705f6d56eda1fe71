// MediaSnapshot: what a snapshot has of media.
#pragma once

#include "Core/stats/MediaSource.h"

namespace Orvex::Reticor {

class MediaSnapshot {
public:
    /// All buffers and their senders. Whoever reads snapshots must not hang with a product that hangs: a
    /// buffer whose lock cannot be had for 20 ms is left out.
    static void gather(MediaRows& rows);
};

}  // namespace Orvex::Reticor
