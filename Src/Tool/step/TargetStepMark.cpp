// TargetStepMark: the calling thread's own words.
#include "Tool/step/TargetStepMark.h"

#include <cassert>
#include <utility>

namespace Orvex::Reticor {

TargetStepMark::OfThread& TargetStepMark::of_thread() {
    static thread_local OfThread t_mine{};
    return t_mine;
}

void TargetStepMark::assert_none() {
    assert(depth() == 0 &&
           "auto-send must not be switched, nor a buffer destroyed, inside a call-back of a media buffer");
}

void TargetStepMark::await(StepGuest_IF& guest) {
    StepGuest_IF** link = &of_thread().guests;
    while (*link != nullptr) {
        link = &(*link)->m_next_guest;
    }
    *link = &guest;
}

void TargetStepMark::call_guests(OfThread& mine) {
    while (StepGuest_IF* const first = mine.guests) {
        mine.guests = std::exchange(first->m_next_guest, nullptr);
        ++mine.depth;
        first->come();
        --mine.depth;
    }
}

}  // namespace Orvex::Reticor
