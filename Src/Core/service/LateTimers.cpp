// LateTimers: timers that come much later than they should.
#include "Core/service/LateTimers.h"

#include <algorithm>

#include <Infra/Time.h>

#include "Core/pool/ThreadPool.h"

namespace Orvex::Reticor {

LateTimers::Pool LateTimers::sm_pools[PoolTable::POOL_LIMIT];

void LateTimers::Pool::note(bool late, uint64_t late_us, uint64_t now_us) {
    if (span.Note(late, now_us, now_us - std::min(late_us, now_us))) {
        most_us.store(0, std::memory_order_relaxed);
    }
    // Of two that find one late at a time, the figure of either may stay.
    if (late && late_us > most_us.load(std::memory_order_relaxed)) {
        most_us.store(late_us, std::memory_order_relaxed);
    }
}

/// It is on its way by now, so this is over as soon as it has begun.
void LateTimers::note_given(int pool, uint64_t late_us, uint64_t now_us) {
    if (pool >= 0 && pool < PoolTable::POOL_LIMIT) {
        sm_pools[pool].note(true, late_us, now_us);
        sm_pools[pool].note(false, late_us, now_us);
    }
}

LateTimers::Facts LateTimers::Look(int index, CThreadPool& pool) {
    const uint64_t now_us = Infra::CTime::getCurrentMicroSecond();
    const CWorkQueue::OldTimers old = pool.m_event.FindOldTimers(now_us - std::min(LIMIT_US, now_us));
    Pool& row = sm_pools[index];
    row.note(old.count > 0, old.count > 0 ? now_us - old.oldest_us : 0, now_us);
    return {row.span.Read(), old.count, row.most_us.load(std::memory_order_relaxed)};
}

}  // namespace Orvex::Reticor
