// SetBook: which of a pool's sockets have a place in its three sets.
#include "Core/watch/SetBook.h"

#include <Infra/Time.h>

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
        if (m_without_place.fetch_add(1, std::memory_order_relaxed) == 0) {
            m_full.Note(true, Infra::CTime::getCurrentMicroSecond());
        }
    } else {
        clear_flag(ev, MUX_UNPLACED);
        if (m_without_place.fetch_sub(1, std::memory_order_relaxed) == 1) {
            m_full.Note(false, Infra::CTime::getCurrentMicroSecond());
        }
    }
}

AlarmSpan::Facts SetBook::LookWhetherFull() {
    const bool full = WithoutPlace() > 0 || Left(0) <= 0 || Left(1) <= 0 || Left(2) <= 0;
    m_full.Note(full, Infra::CTime::getCurrentMicroSecond());
    return m_full.Read();
}

}  // namespace Orvex::Reticor
