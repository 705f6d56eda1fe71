// RoomMarks: a stack that is taken as a whole.
#include "Tool/step/RoomMarks.h"

#include <Reticor/NetHandler.h>

namespace Orvex::Reticor {

void RoomMarks::note(RoomMark& mark) {
    if (mark.m_times.fetch_add(1, std::memory_order_acq_rel) == 0) {
        mark.m_sender.AddRef();
        push(mark);
    }
}

void RoomMarks::push(RoomMark& mark) {
    mark.m_next = m_first.load(std::memory_order_relaxed);
    while (!m_first.compare_exchange_weak(mark.m_next, &mark, std::memory_order_acq_rel)) {
    }
}

// One that was noted while it was served, or after that, is to be served again.
void RoomMarks::finish(RoomMark* served) {
    while (served != nullptr) {
        RoomMark& mark = *served;
        served = mark.m_next;
        if (mark.m_times.compare_exchange_strong(mark.m_seen, 0, std::memory_order_acq_rel)) {
            mark.m_sender.DecRef();
        } else {
            push(mark);
        }
    }
}

}  // namespace Orvex::Reticor
