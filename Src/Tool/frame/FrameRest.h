// FrameRest: a private copy of what is left of a frame that goes away under a sender.
#pragma once

#include <cstdint>

#include "Tool/frame/MediaFrame.h"

namespace Orvex::Reticor {

class FrameRest {
public:
    FrameRest() = delete;

    /// A frame with copies of the packets of `frame` from number `from` to the one before `end`. The caller
    /// deletes it. With `between` an empty packet comes first: a cursor that stood between two packets must
    /// not look like one at the beginning of a frame. Null if there is no memory.
    static CFrame* copy(const CFrame& frame, uint32_t from, uint32_t end, bool between);
};

}  // namespace Orvex::Reticor
