// Snapshot: what a CStats holds, and how it is gathered.
#include "Core/stats/Snapshot.h"

#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <new>
#include <unordered_map>

#include <Infra/LockClasses.h>
#include <Infra/Mutex.h>
#include <Infra/Time.h>

#include "Core/count/ClassRows.h"
#include "Core/count/ThreadCounts.h"
#include "Core/count/Timing.h"
#include "Core/handle/HandlerList.h"
#include "Core/pool/PoolLease.h"
#include "Core/pool/ThreadPool.h"
#include "Core/service/NetTimer.h"
#include "Core/stats/Alarms.h"
#include "Core/stats/MemoryRows.h"
#include "Core/stats/StuckWatch.h"
#include "Tool/judge/VerdictText.h"

namespace Orvex::Reticor {

namespace {

static_assert(TIME_SPREAD_PLACES == SPREAD_PLACES, "one is copied to the other");

/// A class is counted by its calls and its ends; how many were ever made is what lives and what has ended.
/// The two are not of the same moment, so the sum is kept from falling.
struct OpenedSoFar {
    Infra::CMutex m_mutex{Infra::LockClass::STATS};
    uint64_t m_opened[ClassRows::COUNT] INFRA_GUARDED_BY(m_mutex) = {};

    uint64_t RaiseTo(uint32_t row, uint64_t opened) {
        Infra::CGuard guard(m_mutex);
        m_opened[row] = std::max(m_opened[row], opened);
        return m_opened[row];
    }
};

OpenedSoFar g_opened;

TimeSpread spread_of(const SpreadValues& values) {
    TimeSpread spread{};
    std::copy(std::begin(values.count), std::end(values.count), std::begin(spread.count));
    spread.sum_ns = values.sum_ns;
    spread.max_ns = values.max_ns;
    return spread;
}

uint64_t cpu_of(pthread_t thread) {
    clockid_t clock;
    timespec used;
    if (::pthread_getcpuclockid(thread, &clock) != 0 || ::clock_gettime(clock, &used) != 0) {
        return 0;
    }
    return static_cast<uint64_t>(used.tv_sec) * 1000000000 + static_cast<uint64_t>(used.tv_nsec);
}

/// What the workers of one pool have counted, the living and those that have ended.
struct PoolSum {
    uint64_t served[SERVED_COUNT] = {};
    uint64_t calls = 0;
    uint64_t cpu_ns = 0;
    SpreadValues wait;
    SpreadValues run;

    void Add(const PoolTally& tally) {
        for (size_t i = 0; i < SERVED_COUNT; ++i) {
            served[i] += tally.served[i].Get();
        }
        calls += tally.calls.Get();
        tally.wait.AddTo(wait);
        tally.run.AddTo(run);
    }
    uint64_t of(Served kind) const { return served[static_cast<size_t>(kind)]; }
};

struct ClassSum {
    uint64_t calls = 0;
    uint64_t closed = 0;
    uint64_t timed = 0;
    uint64_t time_ns = 0;
    uint64_t live = 0;
};

void put_sum(const PoolSum& sum, PoolStats& stats) {
    stats.calls = sum.calls;
    stats.socket_events = sum.of(Served::SOCKET);
    stats.messages = sum.of(Served::MESSAGE);
    stats.serial_messages = sum.of(Served::SERIAL);
    stats.timers = sum.of(Served::TIMER);
    stats.passes = sum.of(Served::POLL);
    stats.drains = sum.of(Served::DRAIN);
    stats.heartbeats = sum.of(Served::HEARTBEAT);
    stats.cpu_ns = sum.cpu_ns;
    stats.wait = spread_of(sum.wait);
    stats.run = spread_of(sum.run);
}

void put_mux(const CMultiplexer::Figures& figures, PoolStats& stats) {
    stats.reports = figures.reports;
    stats.strays = figures.strays;
    stats.rebuilds = figures.rebuilds;
    stats.epoll_refused = figures.refused;
    stats.sockets = static_cast<uint64_t>(std::max(figures.sockets, 0));
    stats.sockets_without_place = static_cast<uint64_t>(std::max(figures.without_place, 0));
    stats.places_left_read = static_cast<uint64_t>(std::max(figures.places_left[0], 0));
    stats.places_left_write = static_cast<uint64_t>(std::max(figures.places_left[1], 0));
    stats.places_left_except = static_cast<uint64_t>(std::max(figures.places_left[2], 0));
}

void put_queues(CThreadPool& pool, PoolStats& stats) {
    const CWorkQueue::Load load = pool.m_event.Measure();
    const CEventQueue::Amounts serial = pool.SerialAmounts();
    stats.workers = static_cast<uint32_t>(pool.Workers());
    stats.busy = stats.workers - std::min(stats.workers, static_cast<uint32_t>(load.resting));
    stats.queue_length = load.records.pushed - load.records.taken;
    stats.serial_length = serial.pushed - serial.taken;
    stats.pushed = load.records.pushed + serial.pushed;
}

uint64_t served_by(const PoolTally& tally) {
    uint64_t served = 0;
    for (const Tally& kind : tally.served) {
        served += kind.Get();
    }
    return served;
}

WorkerStats stats_of(const ThreadCounts& block) {
    WorkerStats stats{};
    const uint64_t call = block.m_call.load(std::memory_order_relaxed);
    stats.pool = block.m_pool;
    stats.thread_id = block.m_thread_id;
    stats.cpu_ns = cpu_of(block.m_thread);
    stats.calls = block.Calls();
    stats.served = served_by(block.m_pool_tally);
    stats.handler = call != 0 ? ThreadCounts::id_in(call) : 0;
    stats.call = call_name(ThreadCounts::kind_in(call));
    stats.class_name = "";
    return stats;
}

bool earlier(const WorkerStats& a, const WorkerStats& b) {
    return a.pool != b.pool ? a.pool < b.pool : a.thread_id < b.thread_id;
}

bool busier(const HandlerClassStats& a, const HandlerClassStats& b) {
    return a.calls > b.calls;
}

}  // namespace

bool Snapshot::Gather() {
    try {
        gather_process();
        gather_pools();
        gather_threads();
        gather_classes();
        ObjectRoll::read(objects);
        gather_media();
        add_memory_rows(media, memory);
        Alarms::gather(pools, alarms);
    } catch (const std::bad_alloc&) {
        return false;
    }
    return true;
}

void Snapshot::gather_process() {
    SpreadValues late;
    CNetTimer::AddLateness(late);
    process.taken_us = Infra::CTime::getCurrentMicroSecond();
    process.timing = Timing::IsOn() ? 1 : 0;
    process.timers_armed = static_cast<uint64_t>(CNetTimer::heap().Count());
    process.timer_lateness = spread_of(late);
    process.stuck = StuckWatch::Now();
    process.stuck_ever = StuckWatch::Total();
    process.pid = ::getpid();
}

void Snapshot::gather_pools() {
    pools.reserve(PoolSlot::LIMIT);  // nothing is allocated while there is a lease
    for (int index = 0; index < PoolSlot::LIMIT; ++index) {
        const PoolLease pool{index};
        if (!pool) {
            continue;
        }
        PoolStats stats{};
        stats.pool = index;
        put_queues(*pool, stats);
        put_mux(pool->m_mux.GetFigures(), stats);
        stats.timers_armed = CNetTimer::heap().CountOfPool(index);
        pools.push_back(stats);
    }
    process.pools = static_cast<uint32_t>(pools.size());
}

void Snapshot::gather_threads() {
    std::vector<PoolSum> sums(PoolSlot::LIMIT);
    size_t threads = 0;
    do {
        workers.clear();
        workers.reserve(2 * threads + 16);
        threads = 0;
        ThreadCounts::ForEach([&](const ThreadCounts& block) {
            if (workers.size() < workers.capacity()) {
                workers.push_back(stats_of(block));
            }
            ++threads;
        });
    } while (threads > workers.size());
    std::sort(workers.begin(), workers.end(), earlier);
    ThreadCounts::ForEachTally([](uint32_t, const ClassTally&) {},
                               [&](int pool, const PoolTally& tally, uint64_t calls) {
                                   if (pool >= 0) {
                                       sums[static_cast<size_t>(pool)].Add(tally);
                                       sums[static_cast<size_t>(pool)].calls += calls;
                                   }
                               });
    for (const WorkerStats& worker : workers) {
        if (worker.pool >= 0) {
            sums[static_cast<size_t>(worker.pool)].cpu_ns += worker.cpu_ns;
        }
    }
    for (PoolStats& stats : pools) {
        put_sum(sums[static_cast<size_t>(stats.pool)], stats);
    }
}

void Snapshot::gather_classes() {
    std::vector<ClassSum> sums(ClassRows::COUNT);
    ThreadCounts::ForEachTally(
        [&](uint32_t row, const ClassTally& tally) {
            sums[row].calls += tally.calls.Get();
            sums[row].closed += tally.closed.Get();
            sums[row].timed += tally.timed.Get();
            sums[row].time_ns += tally.time_ns.Get();
        },
        [](int, const PoolTally&, uint64_t) {});
    std::unordered_map<int64_t, const char*> called;  // by the handler's id
    for (const WorkerStats& worker : workers) {
        called.emplace(worker.handler, "");
    }
    HandlerList::ForEach([&](const HandlerFacts& facts) {
        const auto found = facts.id != 0 ? called.find(facts.id) : called.end();
        if (found != called.end()) {
            found->second = ClassRows::Name(facts.row);
        }
        ++process.handlers;
        sums[facts.row].live += facts.state != HandlerState::RELEASED ? 1 : 0;
    });
    for (WorkerStats& worker : workers) {
        worker.class_name = called[worker.handler];
    }
    classes.reserve(ClassRows::COUNT);
    for (uint32_t row = 0; row < ClassRows::COUNT; ++row) {
        const ClassSum& sum = sums[row];
        if (sum.calls + sum.live + sum.closed == 0) {
            continue;
        }
        HandlerClassStats stats{};
        stats.name = ClassRows::Name(row);
        stats.live = sum.live;
        // Objects leave the first row for that of their class.
        const uint64_t opened = sum.live + sum.closed;
        stats.opened = row == ClassRows::NOT_CALLED ? opened : g_opened.RaiseTo(row, opened);
        stats.closed = sum.closed;
        stats.calls = sum.calls;
        stats.timed = sum.timed;
        stats.time_ns = sum.time_ns;
        classes.push_back(stats);
    }
    std::stable_sort(classes.begin(), classes.end(), busier);
}

void Snapshot::gather_media() {
    MediaSource::Ask(media);
    verdicts.resize(VerdictText::KINDS);
    for (size_t kind = 0; kind < VerdictText::KINDS; ++kind) {
        verdicts[kind].kind = static_cast<SenderVerdictKind>(kind);
        verdicts[kind].ended = media.ended_ever[kind];
    }
    for (const SenderVerdict& sender : media.senders) {
        ++verdicts[static_cast<size_t>(sender.kind)].senders;
    }
}

}  // namespace Orvex::Reticor
