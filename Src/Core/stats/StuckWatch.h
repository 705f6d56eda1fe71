// StuckWatch: names calls of handlers that do not come back.
#pragma once

#include <atomic>
#include <cstdint>
#include <vector>

#include <Infra/LockClasses.h>
#include <Infra/Mutex.h>
#include <Infra/ThreadLite.h>
#include <Reticor/Stats.h>

#include "Core/count/AlarmSpan.h"
#include "Core/count/ThreadCounts.h"
#include "Core/pool/PoolLease.h"

namespace Orvex::Reticor {

/// A thread that looks at the words of all threads twice in each limit, while any call may run, and takes the
/// time itself: no call reads a clock. While nobody is called it sleeps without limit, and whoever takes a
/// record wakes it (WatchDoor).
///
/// Thread safety: Set on one thread at a time; the rest on any.
class StuckWatch {
public:
    using Hook = void (*)(void* context, const StuckCall& call);

    /// Names calls that run longer than `limit_ms`; 0 ends that, and the thread. False without a thread.
    static bool Set(int limit_ms);

    /// Called for each call that is named, on the watch's thread, with no lock held. Null for none.
    static void SetHook(Hook hook, void* context);

    /// Calls that run too long now, and all that ever did.
    static uint64_t Now() { return sm_now.load(std::memory_order_relaxed); }
    static uint64_t Total() { return sm_total.load(std::memory_order_relaxed); }

    struct PoolFacts {
        AlarmSpan::Facts span;
        uint64_t calls;     ///< Of its workers that run too long now.
        uint64_t begun_us;  ///< When the longest of them was first seen.
    };
    /// What holds workers of the pool with that index; -1: other threads.
    static PoolFacts OfPool(int index);

private:
    /// A call that was seen, and since when it is the same one.
    struct Seen {
        const ThreadCounts* block;
        int pool;
        int thread_id;
        uint64_t word;
        uint64_t begun;
        uint64_t since_us;
        bool is_long;  ///< It runs for longer than the limit.
        bool told;
    };

    /// What was seen of a pool at the last look.
    struct PoolRow {
        AlarmSpan span;
        std::atomic<uint64_t> calls{0};
        std::atomic<uint64_t> begun_us{0};
    };
    static constexpr int POOL_ROWS = 1 + PoolSlot::LIMIT;  ///< Other threads, and each pool.

    static void note_pools(const std::vector<Seen>& seen, uint64_t now_us);
    static void run(Infra::CThreadLite& thread);
    static bool look(std::vector<Seen>& seen, std::vector<Seen>& before);
    static void gather(std::vector<Seen>& seen);
    static bool anybody_awake();
    static void tell(const Seen& call, uint64_t run_us);

    static std::atomic<int> sm_limit_ms;
    static std::atomic<uint64_t> sm_now;
    static std::atomic<uint64_t> sm_total;
    static Infra::CThreadLite* sm_thread;
    static Infra::CMutex sm_mutex;
    static Hook sm_hook INFRA_GUARDED_BY(sm_mutex);
    static void* sm_context INFRA_GUARDED_BY(sm_mutex);
    static PoolRow sm_pools[POOL_ROWS];
    static uint32_t sm_times[ClassRows::COUNT];  ///< Of the thread: how often each class was named.
};

}  // namespace Orvex::Reticor
