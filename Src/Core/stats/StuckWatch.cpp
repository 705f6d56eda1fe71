// StuckWatch: names calls of handlers that do not come back.
#include "Core/stats/StuckWatch.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <new>
#include <utility>

#include <Infra/HeldLocks.h>
#include <Infra/Log.h>
#include <Infra/Time.h>

#include "Core/count/WatchDoor.h"
#include "Core/handle/HandlerList.h"
#include "Core/pool/PoolLease.h"
#include "Core/pool/ThreadPool.h"

namespace Orvex::Reticor {

std::atomic<int> StuckWatch::sm_limit_ms{0};
std::atomic<uint64_t> StuckWatch::sm_now{0};
std::atomic<uint64_t> StuckWatch::sm_total{0};
Infra::CThreadLite* StuckWatch::sm_thread = nullptr;
Infra::CMutex StuckWatch::sm_mutex{Infra::LockClass::STUCK_HOOK};
StuckWatch::Hook StuckWatch::sm_hook = nullptr;
void* StuckWatch::sm_context = nullptr;
StuckWatch::PoolRow StuckWatch::sm_pools[POOL_ROWS];
uint32_t StuckWatch::sm_times[ClassRows::COUNT] = {};

namespace {

/// What the kernel says of a thread of this process; empty if it says nothing.
void read_task(int thread_id, const char* what, char* room, size_t size) {
    char path[64];
    std::snprintf(path, sizeof(path), "/proc/self/task/%d/%s", thread_id, what);
    room[0] = '\0';
    const int fd = ::open(path, O_RDONLY | O_CLOEXEC);
    if (fd == -1) {
        return;
    }
    const ssize_t got = ::read(fd, room, size - 1);
    ::close(fd);
    room[got > 0 ? got : 0] = '\0';
}

/// The letter after the name, which may contain anything but ends with the last bracket.
char state_of(int thread_id) {
    char room[512];
    read_task(thread_id, "stat", room, sizeof(room));
    const char* const bracket = std::strrchr(room, ')');
    return bracket != nullptr && bracket[1] == ' ' ? bracket[2] : '?';
}

/// The state tells a call that blocks from one that spins; on a busy machine its processor time would not.
void fill_state(StuckCall& call) {
    call.spins = state_of(call.thread_id) == 'R' ? 1 : 0;
    if (call.spins == 0) {
        read_task(call.thread_id, "wchan", call.where, sizeof(call.where));
    }
    if (call.where[0] == '\0' || std::strcmp(call.where, "0") == 0) {
        std::snprintf(call.where, sizeof(call.where), "%s", call.spins != 0 ? "" : "the kernel");
    }
}

uint32_t row_of(int64_t id) {
    uint32_t row = ClassRows::NOT_CALLED;
    HandlerList::ForEach([&](const HandlerFacts& facts) { row = facts.id == id ? facts.row : row; });
    return row;
}

/// Whether records wait in the pool and nobody is there to take one.
bool is_starved(int index) {
    const PoolLease pool{index};
    if (!pool) {
        return false;
    }
    const CWorkQueue::Load load = pool->m_event.Measure();
    return load.resting == 0 && load.records.pushed != load.records.taken;
}

}  // namespace

bool StuckWatch::Set(int limit_ms) {
    sm_limit_ms.store(std::max(limit_ms, 0), std::memory_order_relaxed);
    if (limit_ms <= 0) {
        if (sm_thread != nullptr) {
            sm_thread->cancelThread();
            WatchDoor::Rouse();
            delete std::exchange(sm_thread, nullptr);
            sm_now.store(0, std::memory_order_relaxed);
            note_pools({}, Infra::CTime::getCurrentMicroSecond());
        }
        return true;
    }
    if (sm_thread == nullptr) {
        auto* const thread = new (std::nothrow) Infra::CThreadLite(
            Infra::TFunction1<void, Infra::CThreadLite&>(&StuckWatch::run), "Reticor watch");
        if (thread == nullptr || !thread->createThread()) {
            delete thread;
            sm_limit_ms.store(0, std::memory_order_relaxed);
            return false;
        }
        sm_thread = thread;
    }
    WatchDoor::Rouse();  // to a shorter limit
    return true;
}

void StuckWatch::SetHook(Hook hook, void* context) {
    Infra::CGuard guard(sm_mutex);
    sm_hook = hook;
    sm_context = context;
}

/// Whether any worker is not at rest, or any thread in a call.
bool StuckWatch::anybody_awake() {
    bool awake = false;
    ThreadCounts::ForEach([&](const ThreadCounts& block) {
        awake = awake || block.m_call.load(std::memory_order_seq_cst) != 0;
    });
    for (int index = 0; !awake && index < PoolSlot::LIMIT; ++index) {
        if (const PoolLease pool{index}) {
            const CWorkQueue::Load load = pool->m_event.Measure();
            awake =
                load.resting < static_cast<int>(pool->Workers()) || load.records.pushed != load.records.taken;
        }
    }
    return awake;
}

/// The calls that run. Takes no memory while the list of threads is locked.
void StuckWatch::gather(std::vector<Seen>& seen) {
    size_t running = 0;
    do {
        seen.clear();
        seen.reserve(2 * running + 64);
        running = 0;
        ThreadCounts::ForEach([&](const ThreadCounts& block) {
            // The number comes first: with it from before the word, a call that begins meanwhile is another
            // one at the next look.
            const uint64_t begun = block.m_begun.Get();
            const uint64_t word = block.m_call.load(std::memory_order_relaxed);
            if (word == 0) {
                return;
            }
            if (seen.size() < seen.capacity()) {
                seen.push_back({&block, block.m_pool, block.m_thread_id, word, begun, 0, false, false});
            }
            ++running;
        });
    } while (running > seen.size());
}

/// One look at all threads. Result: whether a call runs.
bool StuckWatch::look(std::vector<Seen>& seen, std::vector<Seen>& before) {
    std::swap(seen, before);
    gather(seen);
    const uint64_t now_us = Infra::CTime::getCurrentMicroSecond();
    const uint64_t limit_us = static_cast<uint64_t>(sm_limit_ms.load(std::memory_order_relaxed)) * 1000;
    uint64_t stuck = 0;
    for (Seen& call : seen) {
        const auto same = std::find_if(before.begin(), before.end(), [&](const Seen& other) {
            return other.block == call.block && other.thread_id == call.thread_id &&
                   other.word == call.word && other.begun == call.begun;
        });
        call.since_us = same != before.end() ? same->since_us : now_us;
        call.told = same != before.end() && same->told;
        call.is_long = now_us - call.since_us >= limit_us;
        if (!call.is_long) {
            continue;
        }
        ++stuck;
        if (!call.told) {
            call.told = true;
            tell(call, now_us - call.since_us);
        }
    }
    sm_now.store(stuck, std::memory_order_relaxed);
    note_pools(seen, now_us);
    return !seen.empty();
}

void StuckWatch::note_pools(const std::vector<Seen>& seen, uint64_t now_us) {
    for (int index = -1; index < PoolSlot::LIMIT; ++index) {
        uint64_t calls = 0;
        uint64_t begun_us = now_us;
        for (const Seen& call : seen) {
            if (call.is_long && call.pool == index) {
                ++calls;
                begun_us = std::min(begun_us, call.since_us);
            }
        }
        PoolRow& row = sm_pools[1 + index];
        row.calls.store(calls, std::memory_order_relaxed);
        row.begun_us.store(begun_us, std::memory_order_relaxed);
        row.span.Note(calls > 0, now_us, begun_us);
    }
}

StuckWatch::PoolFacts StuckWatch::OfPool(int index) {
    const PoolRow& row = sm_pools[1 + index];
    return {row.span.Read(), row.calls.load(std::memory_order_relaxed),
            row.begun_us.load(std::memory_order_relaxed)};
}

void StuckWatch::tell(const Seen& seen, uint64_t run_us) {
    StuckCall call{};
    const uint32_t row = row_of(ThreadCounts::id_in(seen.word));
    call.pool = seen.pool;
    call.thread_id = seen.thread_id;
    call.handler = ThreadCounts::id_in(seen.word);
    call.class_name = ClassRows::Name(row);
    call.call = call_name(ThreadCounts::kind_in(seen.word));
    call.run_us = run_us;
    call.times = ++sm_times[row];
    call.starved = is_starved(seen.pool) ? 1 : 0;
    fill_state(call);
    sm_total.fetch_add(1, std::memory_order_relaxed);
    INFRA_LOG_STATIC(2,
                     "pool %d: %s of class %s, id %jd, has run for %ju ms on thread %d and %s%s, %u times in "
                     "this class%s\n",
                     call.pool, call.call, call.class_name, static_cast<intmax_t>(call.handler),
                     static_cast<uintmax_t>(run_us / 1000), call.thread_id,
                     call.spins != 0 ? "spins" : "blocks in ", call.where, call.times,
                     call.starved != 0 ? ", and no worker is left for what waits in its pool" : "");
    Hook hook;
    void* context;
    {
        Infra::CGuard guard(sm_mutex);
        hook = sm_hook;
        context = sm_context;
    }
    if (hook != nullptr) {
        INFRA_PROMISE(HANDLER);
        hook(context, call);
    }
}

void StuckWatch::run(Infra::CThreadLite& thread) {
    std::vector<Seen> seen;
    std::vector<Seen> before;
    while (thread.looping()) {
        const int limit_ms = std::max(sm_limit_ms.load(std::memory_order_relaxed), 1);
        bool calls = true;
        try {
            calls = look(seen, before);
        } catch (const std::bad_alloc&) {
            seen.clear();  // it is tried again at the next look
        }
        if (!calls) {
            WatchDoor::SetParked(true);
            if (!anybody_awake()) {
                WatchDoor::Rest();
                WatchDoor::SetParked(false);
            }
            WatchDoor::SetParked(false);
        }
        if (thread.looping()) {
            WatchDoor::RestFor(static_cast<uint64_t>(limit_ms) * 500);
        }
    }
}

}  // namespace Orvex::Reticor
