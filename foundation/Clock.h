// read_clock: the one look at the monotonic clock; everything that has to do with time starts here.
#pragma once

#include <time.h>

#if defined(RETICOR_HELD_LOCKS)
#include <Infra/Seam.h>
#endif

namespace Orvex::Infra::Detail {

inline timespec read_clock() noexcept {
#if defined(RETICOR_HELD_LOCKS)
    return Seam::now();
#else
    timespec now;
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return now;
#endif
}

}  // namespace Orvex::Infra::Detail
