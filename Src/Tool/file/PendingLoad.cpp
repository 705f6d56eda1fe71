// PendingLoad: whether a load of a file is under way.
#include "Tool/file/PendingLoad.h"

namespace Orvex::Reticor {

bool PendingLoad::read_start() {
    Infra::CGuard guard(m_read_mutex);
    const bool first = !m_reading;
    m_reading = true;
    return first;
}

void PendingLoad::read_end() {
    Infra::CGuard guard(m_read_mutex);
    m_reading = false;
}

}  // namespace Orvex::Reticor
