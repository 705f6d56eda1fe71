// MadeSnapshot: a snapshot of random figures, the least and the greatest of a field among them, and of names
// that a reader could take for something else.
#pragma once

#include <cstdint>
#include <cstdio>
#include <limits>
#include <list>
#include <string>

#include "Core/stats/Alarms.h"
#include "Core/stats/Snapshot.h"
#include "Core/stats/StatsTexts.h"
#include "Tool/judge/VerdictText.h"
#include "support/SeededRandom.h"

namespace Orvex::Testing {

class MadeSnapshot {
public:
    explicit MadeSnapshot(SeededRandom& random) : m_random(random) {
        snapshot.process.taken_us = figure();
        snapshot.process.timing = m_random.between(0u, 1u);
        snapshot.process.handlers = figure();
        snapshot.process.timers_armed = figure();
        snapshot.process.stuck = figure();
        snapshot.process.stuck_ever = figure();
        snapshot.process.pid = m_random.between(1, 4000000);
        fill(snapshot.process.timer_lateness);
        for (int index = 0; index < m_random.between(0, 5); ++index) {
            add_pool(index * 9);
        }
        for (int i = m_random.between(0, 8); i > 0; --i) {
            add_worker();
        }
        for (int i = m_random.between(0, 8); i > 0; --i) {
            add_class();
        }
        for (int i = m_random.between(0, 4); i > 0; --i) {
            snapshot.objects.push_back({&KITE, -65536 * i, {figure(), figure()}});
        }
        for (uint64_t number = m_random.between<uint64_t>(0, 3); number > 0; --number) {
            snapshot.media.buffers.push_back({sizeof(Reticor::BufferStats), 1, number, figure(), figure(),
                                              figure(), figure(), figure(), figure(), figure(), figure(),
                                              figure(), figure(), figure(), figure(), figure()});
        }
        for (int i = snapshot.media.buffers.empty() ? 0 : m_random.between(0, 30); i > 0; --i) {
            snapshot.media.senders.push_back(sender(i));
        }
        for (int i = m_random.between(0, 3); i > 0; --i) {
            snapshot.media.ended.push_back(sender(1000 + i));
        }
        for (uint32_t kind = 0; kind < Reticor::VerdictText::KINDS; ++kind) {
            Reticor::VerdictStats row{};
            row.kind = static_cast<Reticor::SenderVerdictKind>(kind);
            row.senders = figure();
            row.ended = figure();
            snapshot.verdicts.push_back(row);
        }
        for (const char* kind : {"free_records", "thread_blocks", "thread_blocks", "media_frames"}) {
            const uint64_t pieces = m_random.between<uint64_t>(0, 100000);
            snapshot.memory.push_back({sizeof(Reticor::MemoryStats), 1, kind, figure(), pieces, 3 * pieces});
        }
        for (const Reticor::PoolStats& pool : snapshot.pools) {
            add_alarms(pool.pool);
        }
        add_alarms(-1);
        snapshot.process.pools = static_cast<uint32_t>(snapshot.pools.size());
    }
    MadeSnapshot(const MadeSnapshot&) = delete;
    MadeSnapshot& operator=(const MadeSnapshot&) = delete;

    Reticor::Snapshot snapshot;

    inline static const Reticor::ObjectKind KITE{
        "kite", {{{"height", "How high it is.", false}, {"turns", "So far.", true}}}};

private:
    uint64_t figure() {
        switch (m_random.between(0, 5)) {
            case 0:
                return 0;
            case 1:
                return std::numeric_limits<uint64_t>::max();
            case 2:
                return (uint64_t{1} << 53) + 1;  // the first that a double cannot hold
            default:
                return m_random.between<uint64_t>(1, 1000000000000);
        }
    }
    const char* name() {
        static const char* const PARTS[] = {"Shop::Till", "\"",       "\\",  "<int, (char)34>", " ",
                                            "{a=\"b\"}",  "\xc3\xa4", "// ", "# TYPE x gauge"};
        std::string made = "Class" + std::to_string(m_names.size());
        for (int i = m_random.between(0, 4); i > 0; --i) {
            made += PARTS[m_random.between<size_t>(0, std::size(PARTS) - 1)];
        }
        m_names.push_back(made);
        return m_names.back().c_str();
    }
    void fill(Reticor::TimeSpread& spread) {
        for (uint64_t& count : spread.count) {
            count = m_random.oneIn(2) ? 0 : m_random.between<uint64_t>(0, 1000000);
        }
        spread.sum_ns = m_random.between<uint64_t>(0, 1000000000000000);
        spread.max_ns = m_random.between<uint64_t>(0, 1000000000000);
    }
    void add_pool(int index) {
        Reticor::PoolStats pool{};
        pool.pool = index;
        pool.workers = m_random.between(0u, 70000u);
        pool.busy = m_random.between(0u, pool.workers);
        pool.cpu_ns = figure();
        for (size_t i = 0; i < Reticor::POOL_FIGURE_COUNT; ++i) {
            pool.*Reticor::POOL_FIGURES[i].value = figure();
        }
        fill(pool.wait);
        fill(pool.run);
        snapshot.pools.push_back(pool);
    }
    void add_worker() {
        Reticor::WorkerStats worker{};
        worker.pool = m_random.between(-1, 63);
        worker.thread_id = m_random.between(1, 4000000);
        worker.cpu_ns = figure();
        worker.calls = figure();
        worker.served = figure();
        worker.handler = m_random.oneIn(2) ? 0 : -m_random.between<int64_t>(6553600, INT64_MAX);
        worker.call = worker.handler != 0 ? "handle_input" : "";
        worker.class_name = worker.handler != 0 ? name() : "";
        snapshot.workers.push_back(worker);
    }
    void add_class() {
        Reticor::HandlerClassStats row{};
        row.name = name();
        row.live = figure();
        row.opened = figure();
        row.closed = figure();
        row.calls = figure();
        row.timed = m_random.oneIn(3) ? 0 : m_random.between<uint64_t>(1, 1000000);
        row.time_ns = m_random.between<uint64_t>(0, 1000000000000);
        snapshot.classes.push_back(row);
    }
    void add_alarms(int pool) {
        for (const Reticor::AlarmKind kind : Reticor::Alarms::KINDS) {
            if (m_random.oneIn(2)) {
                continue;
            }
            Reticor::AlarmStats alarm{};
            alarm.kind = kind;
            alarm.pool = pool;
            alarm.lasts = m_random.between(0u, 1u);
            alarm.since_us = figure();
            alarm.ended_us = figure();
            alarm.times = figure();
            alarm.amount = figure();
            alarm.most_us = figure();
            std::snprintf(alarm.text, sizeof alarm.text, "pool %d of \"%s\"", pool, name());
            snapshot.alarms.push_back(alarm);
        }
    }
    Reticor::SenderVerdict sender(int number) {
        Reticor::SenderVerdict row;
        row.kind = static_cast<Reticor::SenderVerdictKind>(
            m_random.between(0u, static_cast<uint32_t>(Reticor::SenderVerdictKind::SILENT)));
        row.sender = -65536 * static_cast<int64_t>(number + 100);
        row.buffer = 1;
        for (uint64_t Reticor::SenderVerdict::*field :
             {&Reticor::SenderVerdict::lag_us, &Reticor::SenderVerdict::lag_bytes,
              &Reticor::SenderVerdict::lag_frames, &Reticor::SenderVerdict::unsent_bytes,
              &Reticor::SenderVerdict::blocked_us, &Reticor::SenderVerdict::stream_rate,
              &Reticor::SenderVerdict::taken_rate, &Reticor::SenderVerdict::hole_frames,
              &Reticor::SenderVerdict::skipped_frames, &Reticor::SenderVerdict::thinned_frames}) {
            row.*field = figure();
        }
        row.closed_percent = m_random.between(0u, 100u);
        row.rtt_us = m_random.between(0u, UINT32_MAX);
        std::snprintf(row.sentence, sizeof row.sentence, "client %d of \"%s\"", number, name());
        return row;
    }

    SeededRandom& m_random;
    std::list<std::string> m_names;  ///< Whose texts stay where they are.
};

}  // namespace Orvex::Testing
