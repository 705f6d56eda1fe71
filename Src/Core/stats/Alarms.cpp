// Alarms: what is wrong in the pools.
#include "Core/stats/Alarms.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <iterator>

#include <Infra/Time.h>

#include "Core/count/AlarmSpan.h"
#include "Core/pool/PoolLease.h"
#include "Core/pool/ThreadPool.h"
#include "Core/service/LateTimers.h"
#include "Core/stats/StuckWatch.h"

namespace Orvex::Reticor {

namespace {

AlarmStats alarm_of(AlarmKind kind, int pool, const AlarmSpan::Facts& span, uint64_t amount,
                    uint64_t most_us) {
    AlarmStats alarm{};
    alarm.kind = kind;
    alarm.pool = pool;
    alarm.lasts = span.lasts ? 1 : 0;
    alarm.since_us = span.since_us;
    alarm.ended_us = span.ended_us;
    alarm.times = span.times;
    alarm.amount = amount;
    alarm.most_us = most_us;
    return alarm;
}

void say(AlarmStats& alarm, const char* format, ...) __attribute__((format(printf, 2, 3)));
void say(AlarmStats& alarm, const char* format, ...) {
    va_list values;
    va_start(values, format);
    std::vsnprintf(alarm.text, sizeof alarm.text, format, values);
    va_end(values);
}

AlarmStats full_pool(int index, CThreadPool& pool) {
    const AlarmSpan::Facts span = pool.m_mux.LookWhetherFull();
    const int left_out = std::max(pool.m_mux.SocksWithoutPlace(), 0);
    AlarmStats alarm = alarm_of(AlarmKind::POOL_FULL, index, span, static_cast<uint64_t>(left_out), 0);
    if (!span.lasts) {
        say(alarm, "pool %d was full", index);
    } else if (left_out == 0) {
        say(alarm, "pool %d is full: no place is left for another socket", index);
    } else {
        say(alarm, "pool %d is full: %d %s left out", index, left_out,
            left_out == 1 ? "socket is" : "sockets are");
    }
    return alarm;
}

AlarmStats late_clock(int index, CThreadPool& pool) {
    const LateTimers::Facts late = LateTimers::Look(index, pool);
    AlarmStats alarm = alarm_of(AlarmKind::CLOCK_LATE, index, late.span, late.waiting, late.most_us);
    const auto most_ms = static_cast<uintmax_t>(late.most_us / 1000);
    if (late.span.lasts) {
        say(alarm, "timers of pool %d are late: %ju %s for a worker, for %ju ms", index,
            static_cast<uintmax_t>(late.waiting), late.waiting == 1 ? "waits" : "wait", most_ms);
    } else {
        say(alarm, "timers of pool %d were late, by %ju ms at most", index, most_ms);
    }
    return alarm;
}

AlarmStats stuck_worker(int index, uint64_t now_us) {
    const StuckWatch::PoolFacts stuck = StuckWatch::OfPool(index);
    const uint64_t run_us = stuck.span.lasts ? now_us - std::min(stuck.begun_us, now_us) : 0;
    AlarmStats alarm = alarm_of(AlarmKind::WORKER_STUCK, index, stuck.span, stuck.calls, run_us);
    char where[32] = "outside of pools";
    if (index >= 0) {
        std::snprintf(where, sizeof where, "of pool %d", index);
    }
    if (!stuck.span.lasts) {
        say(alarm, "calls %s ran longer than the limit", where);
    } else {
        say(alarm, "%ju %s %s %s longer than the limit, one for %ju ms", static_cast<uintmax_t>(stuck.calls),
            stuck.calls == 1 ? "call" : "calls", where, stuck.calls == 1 ? "runs" : "run",
            static_cast<uintmax_t>(run_us / 1000));
    }
    return alarm;
}

bool comes_first(const AlarmStats& a, const AlarmStats& b) {
    if (a.lasts != b.lasts) {
        return a.lasts > b.lasts;
    }
    return a.ended_us > b.ended_us;
}

}  // namespace

void Alarms::gather(const std::vector<PoolStats>& pools, std::vector<AlarmStats>& alarms) {
    const uint64_t now_us = Infra::CTime::getCurrentMicroSecond();
    const auto add = [&alarms](const AlarmStats& alarm) {
        if (alarm.times != 0) {
            alarms.push_back(alarm);
        }
    };
    alarms.reserve(1 + std::size(KINDS) * pools.size());  // nothing is allocated while there is a lease
    for (const PoolStats& stats : pools) {
        if (const PoolLease pool{stats.pool}) {
            add(full_pool(stats.pool, *pool));
            add(late_clock(stats.pool, *pool));
        }
        add(stuck_worker(stats.pool, now_us));
    }
    add(stuck_worker(-1, now_us));
    std::stable_sort(alarms.begin(), alarms.end(), comes_first);
}

const char* Alarms::name(AlarmKind kind) {
    switch (kind) {
        case AlarmKind::POOL_FULL:
            return "pool_full";
        case AlarmKind::CLOCK_LATE:
            return "clock_late";
        case AlarmKind::WORKER_STUCK:
            return "worker_stuck";
    }
    return "";
}

bool Alarms::is_recent(const AlarmStats& alarm, uint64_t now_us) {
    return alarm.lasts != 0 || now_us < alarm.ended_us + AlarmSpan::HOLD_US;
}

}  // namespace Orvex::Reticor
