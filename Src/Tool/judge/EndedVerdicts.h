// EndedVerdicts: the last verdicts on senders that have ended.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include <Infra/LockClasses.h>
#include <Infra/Mutex.h>
#include <Reticor/MediaVerdicts.h>

#include "Tool/judge/VerdictText.h"

namespace Orvex::Reticor {

/// Of the process. Thread safety: any thread, under any lock.
class EndedVerdicts {
public:
    static constexpr size_t MOST = 32;
    /// How many ever ended, by the kind of their verdict.
    using Ever = std::array<uint64_t, VerdictText::KINDS>;

    static void add(const SenderVerdict& verdict);
    /// The youngest first, into room for MOST. Gives their number; how many there ever were of the same
    /// moment, where that is asked for.
    static size_t copy(SenderVerdict* room, Ever* ever = nullptr);

private:
    static Infra::CMutex sm_mutex;
    static SenderVerdict sm_verdicts[MOST] INFRA_GUARDED_BY(sm_mutex);
    static size_t sm_count INFRA_GUARDED_BY(sm_mutex);  ///< Ever.
    static Ever sm_ever INFRA_GUARDED_BY(sm_mutex);
};

}  // namespace Orvex::Reticor
