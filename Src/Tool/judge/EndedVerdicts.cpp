// EndedVerdicts: a ring.
#include "Tool/judge/EndedVerdicts.h"

#include <algorithm>

namespace Orvex::Reticor {

Infra::CMutex EndedVerdicts::sm_mutex{Infra::LockClass::MEDIA_ENDED};
SenderVerdict EndedVerdicts::sm_verdicts[MOST];
size_t EndedVerdicts::sm_count = 0;
EndedVerdicts::Ever EndedVerdicts::sm_ever{};

void EndedVerdicts::add(const SenderVerdict& verdict) {
    Infra::CGuard guard(sm_mutex);
    sm_verdicts[sm_count++ % MOST] = verdict;
    ++sm_ever[static_cast<size_t>(verdict.kind)];
}

size_t EndedVerdicts::copy(SenderVerdict* room, Ever* ever) {
    Infra::CGuard guard(sm_mutex);
    const size_t count = std::min(sm_count, MOST);
    for (size_t i = 0; i < count; ++i) {
        room[i] = sm_verdicts[(sm_count - 1 - i) % MOST];
    }
    if (ever != nullptr) {
        *ever = sm_ever;
    }
    return count;
}

}  // namespace Orvex::Reticor
