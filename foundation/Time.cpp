// CTime: readings of the monotonic clock.
#include <Infra/Time.h>

#include "Clock.h"

namespace Orvex::Infra {

uint64_t CTime::getCurrentMicroSecond() noexcept {
    const timespec now = Detail::read_clock();
    return static_cast<uint64_t>(now.tv_sec) * 1000000 + static_cast<uint64_t>(now.tv_nsec) / 1000;
}

uint64_t CTime::getCurrentMilliSecond() noexcept {
    return getCurrentMicroSecond() / 1000;
}

}  // namespace Orvex::Infra
