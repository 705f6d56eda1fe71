// CTime: the clock of all timers and timing lines.
#pragma once

#include <cstdint>

#include <Infra/Export.h>

namespace Orvex::Infra {

/// Both readings are of the same monotonic clock (clock_gettime(2), CLOCK_MONOTONIC): they never run
/// backwards, are not moved by a change of the wall clock, and count from an arbitrary point, so that only
/// differences mean anything. Any thread may call them; they do not block.
class INFRA_API CTime {
public:
    /// In microseconds, and in milliseconds.
    static uint64_t getCurrentMicroSecond() noexcept;
    /// The same reading, cut to milliseconds.
    static uint64_t getCurrentMilliSecond() noexcept;
};

}  // namespace Orvex::Infra
