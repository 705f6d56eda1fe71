// WatchDoor: how the watch over calls sleeps while nothing is called.
#include "Core/count/WatchDoor.h"

namespace Orvex::Reticor {

std::atomic<bool> WatchDoor::sm_parked{false};
Infra::CSemaphore WatchDoor::sm_knocks{0};

__attribute__((noinline, cold)) void WatchDoor::wake() {
    // One knock is enough.
    if (sm_parked.exchange(false, std::memory_order_seq_cst)) {
        sm_knocks.post();
    }
}

}  // namespace Orvex::Reticor
