// HolderNotes: where references on one handler were taken and given back.
#include "Core/handle/HolderNotes.h"

#include <new>

namespace Orvex::Reticor {

std::atomic<bool> HolderNotes::sm_on{false};

__attribute__((noinline, cold)) HolderNotes* HolderNotes::make() {
    return new (std::nothrow) HolderNotes;
}

void HolderNotes::Drop() {
    if (m_owners.fetch_sub(1, std::memory_order_acq_rel) == 1) {
        delete this;
    }
}

/// A place is never given up, so what was found once stays true.
HolderNotes::Place& HolderNotes::place_of(const void* address) {
    const uintptr_t wanted = reinterpret_cast<uintptr_t>(address);
    for (size_t i = 0; i < PLACES; ++i) {
        std::atomic<uintptr_t>& place = m_places[i].address;
        uintptr_t seen = place.load(std::memory_order_relaxed);
        // Of two threads at a free place one wins, and the other one sees for whom.
        if (seen == wanted ||
            (seen == 0 &&
             (place.compare_exchange_strong(seen, wanted, std::memory_order_relaxed) || seen == wanted))) {
            return m_places[i];
        }
    }
    return m_places[PLACES];
}

}  // namespace Orvex::Reticor
