// DueChains: what a tick of the timers has to push, by pool.
#pragma once

#include <array>

#include "Core/count/Spread.h"
#include "Core/pool/PoolTable.h"
#include "Core/record/Event.h"
#include "Core/service/TimerTable.h"

namespace Orvex::Reticor {

/// The records that one tick found due, one chain for each pool. Chains grow at their front: within one tick
/// and one pool, the timer that was due last runs first.
struct DueChains {
    std::array<CEvent*, PoolTable::POOL_LIMIT> m_chain{};  ///< By pool index; all null between ticks.
    std::array<int, PoolTable::POOL_LIMIT> m_active{};     ///< The indexes with a chain, by first appearance.
    int m_active_num = 0;
    uint64_t m_stamp_ns = 0;  ///< What the records of this tick are stamped with.
    uint64_t m_now_us = 0;    ///< When the tick began.
    SpreadTally m_late;       ///< How long after its time a timer was found due. Of the timer thread.

    /// Makes a record of a timer that is due. False if there is no memory for it.
    bool Add(const ArmedTimer& timer);
};

}  // namespace Orvex::Reticor
