// PoolWork: what the pools of the process did in the last second, in ten, and in a minute.
#pragma once

#include <deque>

#include <Infra/Mutex.h>
#include <Reticor/Stats.h>
#include <nlohmann/json_fwd.hpp>

namespace relay {

/// Keeps snapshots of the library: one a second for the last ten, and one in ten seconds before those.
class PoolWork {
public:
    /// Once a second.
    void take();

    /// A row for each pool and each of the three times, the shortest first. Before a minute is over, a row is
    /// of the time since the start; it says of how many seconds.
    nlohmann::json json();

    /// Snapshots that it has: no more than 18.
    size_t kept();

private:
    struct Look {
        unsigned number;
        Orvex::Reticor::CStats stats;
    };

    const Look& look_before(unsigned seconds) const INFRA_REQUIRES(m_mutex);

    Orvex::Infra::CMutex m_mutex;                        // innermost
    std::deque<Look> m_looks INFRA_GUARDED_BY(m_mutex);  // the oldest first
    unsigned m_number INFRA_GUARDED_BY(m_mutex) = 0;
};

}  // namespace relay
