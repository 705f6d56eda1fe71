// EndedVerdicts: the last verdicts on senders that have ended.
#pragma once

#include <cstddef>

#include <Infra/LockClasses.h>
#include <Infra/Mutex.h>
#include <Reticor/MediaVerdicts.h>

namespace Orvex::Reticor {

/// Of the process. Thread safety: any thread, under any lock.
class EndedVerdicts {
public:
    static constexpr size_t MOST = 32;

    static void add(const SenderVerdict& verdict);
    /// The youngest first, into room for MOST. Gives their number.
    static size_t copy(SenderVerdict* room);

private:
    static Infra::CMutex sm_mutex;
    static SenderVerdict sm_verdicts[MOST] INFRA_GUARDED_BY(sm_mutex);
    static size_t sm_count INFRA_GUARDED_BY(sm_mutex);  ///< Ever.
};

}  // namespace Orvex::Reticor
