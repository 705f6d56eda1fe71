// EndedVerdicts: a ring.
#include "Tool/judge/EndedVerdicts.h"

#include <algorithm>

namespace Orvex::Reticor {

Infra::CMutex EndedVerdicts::sm_mutex{Infra::LockClass::MEDIA_ENDED};
SenderVerdict EndedVerdicts::sm_verdicts[MOST];
size_t EndedVerdicts::sm_count = 0;

void EndedVerdicts::add(const SenderVerdict& verdict) {
    Infra::CGuard guard(sm_mutex);
    sm_verdicts[sm_count++ % MOST] = verdict;
}

size_t EndedVerdicts::copy(SenderVerdict* room) {
    Infra::CGuard guard(sm_mutex);
    const size_t count = std::min(sm_count, MOST);
    for (size_t i = 0; i < count; ++i) {
        room[i] = sm_verdicts[(sm_count - 1 - i) % MOST];
    }
    return count;
}

}  // namespace Orvex::Reticor
