// AutoSend: on and off.
#include "Tool/media/AutoSend.h"

#include <utility>

#include "Tool/media/TargetStepMark.h"

namespace Orvex::Reticor {

void AutoSend::enable(uint64_t interval) {
    TargetStepMark::assert_none();
    Infra::CGuard guard(m_mutex);
    if (!std::exchange(m_on, true)) {
        CSenderHandler::Add(0, &m_target, interval);
    }
}

void AutoSend::disable() {
    TargetStepMark::assert_none();
    Infra::CGuard guard(m_mutex);
    if (std::exchange(m_on, false)) {
        CSenderHandler::Remove(0, &m_target);
    }
}

}  // namespace Orvex::Reticor
