// SetBook: which of a pool's sockets have a place in its three sets.
#include "Core/watch/SetBook.h"

namespace Orvex::Reticor {

SetBook::SetBook() {
    for (std::atomic<int>& taken : m_taken) {
        taken.store(0, std::memory_order_relaxed);
    }
}

void SetBook::TakeForWakeEnd() {
    m_taken[0].fetch_add(1, std::memory_order_relaxed);
}

void SetBook::Remove(CEvent* ev) {
    Places freed{};
    Leave(ev, freed);
    GiveBack(freed);
}

void SetBook::Forget(CEvent* ev) {
    Remove(ev);
    if (has_flag(ev, MUX_UNPLACED)) {
        count_unplaced(ev, false);
    }
}

void SetBook::count_unplaced(CEvent* ev, bool unplaced) {
    if (unplaced) {
        set_flag(ev, MUX_UNPLACED);
        m_without_place.fetch_add(1, std::memory_order_relaxed);
    } else {
        clear_flag(ev, MUX_UNPLACED);
        m_without_place.fetch_sub(1, std::memory_order_relaxed);
    }
}

}  // namespace Orvex::Reticor
