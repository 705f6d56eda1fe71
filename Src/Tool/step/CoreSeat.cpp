// CoreSeat: looks, enters, and looks again.
#include "Tool/step/CoreSeat.h"

namespace Orvex::Reticor {

std::shared_ptr<MediaCore> CoreSeat::get() {
    Infra::CGuard guard(m_mutex);
    return m_core;
}

std::shared_ptr<MediaCore> CoreSeat::enter() INFRA_NO_THREAD_SAFETY_ANALYSIS {  // for the caller
    for (;;) {
        std::shared_ptr<MediaCore> mine = get();
        if (!mine) {
            return mine;
        }
        mine->m_mutex.enter();
        if (get() == mine) {
            return mine;
        }
        mine->m_mutex.leave();  // It has moved meanwhile.
    }
}

bool CoreSeat::change(const std::shared_ptr<MediaCore>& before, const std::shared_ptr<MediaCore>& after) {
    Infra::CGuard guard(m_mutex);
    if (m_core != before) {
        return false;
    }
    m_core = after;
    return true;
}

}  // namespace Orvex::Reticor
