// SenderWatch: what is kept of a sender while somebody looks at it.
#pragma once

#include <cstdint>

#include "Tool/judge/SenderJudge.h"

namespace Orvex::Reticor {

/// Made by the first look, and ends with the sender. Thread safety: guarded by the lock of its buffer.
struct SenderWatch {
    SenderJudge judge;
    int64_t sender = 0;       ///< Its id, also when it is closed.
    uint64_t blocked_us = 0;  ///< For how long its socket was full, but for this time.
    bool has_left = false;    ///< `last` is how it fared when it left its list.
    SenderVerdict last;
};

}  // namespace Orvex::Reticor
