// Snapshot: what a CStats holds, and how it is gathered.
#pragma once

#include <vector>

#include <Reticor/Stats.h>

#include "Core/count/ObjectRoll.h"
#include "Core/stats/MediaSource.h"

namespace Orvex::Reticor {

/// Pools by index, workers by pool and thread, classes by their calls, alarms that last first.
struct Snapshot {
    ProcessStats process{};
    std::vector<PoolStats> pools;
    std::vector<WorkerStats> workers;
    std::vector<HandlerClassStats> classes;
    std::vector<ObjectRow> objects;
    MediaRows media;
    std::vector<VerdictStats> verdicts;  ///< Each kind once.
    std::vector<MemoryStats> memory;
    std::vector<AlarmStats> alarms;

    /// Into an empty one. False if there is no memory.
    bool Gather();

private:
    void gather_process();
    void gather_pools();
    void gather_threads();
    void gather_classes();
    void gather_media();
};

}  // namespace Orvex::Reticor
