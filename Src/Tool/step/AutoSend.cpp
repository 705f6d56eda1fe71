// AutoSend: on and off.
#include "Tool/step/AutoSend.h"

#include <utility>

#include "Tool/step/TargetStepMark.h"

namespace Orvex::Reticor {

bool AutoSend::enable(uint64_t interval) {
    TargetStepMark::assert_none();
    Infra::CGuard guard(m_mutex);
    m_on = m_on || CSenderHandler::Add(0, &m_target, interval);
    return m_on;
}

void AutoSend::disable() {
    TargetStepMark::assert_none();
    Infra::CGuard guard(m_mutex);
    if (std::exchange(m_on, false)) {
        CSenderHandler::Remove(0, &m_target);
    }
}

}  // namespace Orvex::Reticor
