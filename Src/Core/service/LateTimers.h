// LateTimers: timers that come much later than they should.
#pragma once

#include <atomic>
#include <cstdint>

#include "Core/count/AlarmSpan.h"
#include "Core/pool/PoolTable.h"

namespace Orvex::Reticor {

class CThreadPool;

/// By pool, over all lives of the pool with that index. No call reads a clock for it: the timer thread knows
/// how late it gives a timer to its pool, and a look finds those that wait there for a worker.
///
/// Thread safety: any thread.
class LateTimers {
public:
    /// From then on a timer is late. A busy machine makes one wait for some tens of milliseconds.
    static constexpr uint64_t LIMIT_US = 250000;

    /// A timer was given to its pool `late_us` after its time.
    static void Given(int pool, uint64_t late_us, uint64_t now_us) {
        if (__builtin_expect(late_us > LIMIT_US, 0)) {
            note_given(pool, late_us, now_us);
        }
    }

    struct Facts {
        AlarmSpan::Facts span;
        uint64_t waiting;  ///< Late timers that wait for a worker now.
        uint64_t most_us;  ///< By how much the latest one was late, since it began.
    };
    /// A look at the pool with that index, which the caller keeps alive.
    static Facts Look(int index, CThreadPool& pool);

private:
    struct Pool {
        AlarmSpan span;
        std::atomic<uint64_t> most_us{0};

        void note(bool late, uint64_t late_us, uint64_t now_us);
    };

    static void note_given(int pool, uint64_t late_us, uint64_t now_us);

    static Pool sm_pools[PoolTable::POOL_LIMIT];
};

}  // namespace Orvex::Reticor
