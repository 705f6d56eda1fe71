// Alarms: what is wrong in the pools.
#pragma once

#include <vector>

#include <Reticor/Stats.h>

namespace Orvex::Reticor {

class Alarms {
public:
    static constexpr AlarmKind KINDS[] = {AlarmKind::POOL_FULL, AlarmKind::CLOCK_LATE,
                                          AlarmKind::WORKER_STUCK};

    /// Looks at the pools with an index in `pools`, and at other threads.
    static void gather(const std::vector<PoolStats>& pools, std::vector<AlarmStats>& alarms);

    /// "pool_full" and so on; empty for a kind that is not known.
    static const char* name(AlarmKind kind);

    /// Whether it is worth a line for people at that time: it lasts, or has ended not long ago.
    static bool is_recent(const AlarmStats& alarm, uint64_t now_us);
};

}  // namespace Orvex::Reticor
