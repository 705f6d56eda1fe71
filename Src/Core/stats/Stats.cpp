// CStats: what the process does, at one moment.
#include <Reticor/Stats.h>

#include <algorithm>
#include <cstring>
#include <new>
#include <utility>

#include "Core/count/Timing.h"
#include "Core/stats/Alarms.h"
#include "Core/stats/Snapshot.h"
#include "Core/stats/StatsTexts.h"

namespace Orvex::Reticor {

struct __attribute__((visibility("hidden"))) CStats::State {
    Snapshot snapshot;

    const PoolStats* find(int pool) const {
        for (const PoolStats& stats : snapshot.pools) {
            if (stats.pool == pool) {
                return &stats;
            }
        }
        return nullptr;
    }
};

namespace {

/// Copies what both sides know of a structure; what the caller alone knows is 0. `size` and `version` stay.
template <class Stats>
int hand_out(const Stats& from, Stats& to) {
    constexpr size_t HEAD = offsetof(Stats, version) + sizeof(Stats::version);
    const size_t size = to.size;
    if (size < HEAD) {
        return -1;
    }
    char* const room = reinterpret_cast<char*>(&to);
    const size_t known = std::min(size, sizeof(Stats));
    std::memcpy(room + HEAD, reinterpret_cast<const char*>(&from) + HEAD, known - HEAD);
    std::memset(room + known, 0, size - known);
    return 0;
}

template <class Stats>
int hand_out_at(const std::vector<Stats>* all, size_t place, Stats& to) {
    return all != nullptr && place < all->size() ? hand_out((*all)[place], to) : -1;
}

size_t write_out(const Snapshot& snapshot, void (*write)(const Snapshot&, TextRoom&), char* room,
                 size_t size) {
    try {
        TextRoom out;
        write(snapshot, out);
        if (size != 0) {
            std::memcpy(room, out.text().data(), std::min(size, out.text().size()));
        }
        return out.text().size();
    } catch (const std::bad_alloc&) {
        return 0;
    }
}

TimeSpread difference(const TimeSpread& older, const TimeSpread& newer) {
    TimeSpread spread = newer;
    for (size_t i = 0; i < TIME_SPREAD_PLACES; ++i) {
        spread.count[i] -= older.count[i];
    }
    spread.sum_ns -= older.sum_ns;
    return spread;
}

}  // namespace

CStats::CStats() : m_state(nullptr) {}

CStats::~CStats() {
    delete m_state;
}

CStats::CStats(CStats&& other) noexcept : m_state(std::exchange(other.m_state, nullptr)) {}

CStats& CStats::operator=(CStats&& other) noexcept {
    std::swap(m_state, other.m_state);
    return *this;
}

int CStats::Take() {
    State* const state = new (std::nothrow) State;
    if (state == nullptr || !state->snapshot.Gather()) {
        delete state;
        return -1;
    }
    delete std::exchange(m_state, state);
    return 0;
}

int CStats::GetProcess(ProcessStats& stats) const {
    return m_state != nullptr ? hand_out(m_state->snapshot.process, stats) : -1;
}

size_t CStats::GetPoolCount() const {
    return m_state != nullptr ? m_state->snapshot.pools.size() : 0;
}

int CStats::GetPool(size_t place, PoolStats& stats) const {
    return hand_out_at(m_state != nullptr ? &m_state->snapshot.pools : nullptr, place, stats);
}

size_t CStats::GetWorkerCount() const {
    return m_state != nullptr ? m_state->snapshot.workers.size() : 0;
}

int CStats::GetWorker(size_t place, WorkerStats& stats) const {
    return hand_out_at(m_state != nullptr ? &m_state->snapshot.workers : nullptr, place, stats);
}

size_t CStats::GetClassCount() const {
    return m_state != nullptr ? m_state->snapshot.classes.size() : 0;
}

int CStats::GetClass(size_t place, HandlerClassStats& stats) const {
    return hand_out_at(m_state != nullptr ? &m_state->snapshot.classes : nullptr, place, stats);
}

size_t CStats::GetObjectCount() const {
    return m_state != nullptr ? m_state->snapshot.objects.size() : 0;
}

int CStats::GetObject(size_t place, ObjectStats& stats) const {
    if (place >= GetObjectCount()) {
        return -1;
    }
    const ObjectRow& row = m_state->snapshot.objects[place];
    ObjectStats found{};
    found.kind = row.kind->name;
    found.id = row.id;
    for (size_t figure = 0; figure < OBJECT_FIGURES; ++figure) {
        found.names[figure] = row.kind->figures[figure].name;
        found.values[figure] = row.values[figure];
    }
    return hand_out(found, stats);
}

size_t CStats::GetBufferCount() const {
    return m_state != nullptr ? m_state->snapshot.media.buffers.size() : 0;
}

int CStats::GetBuffer(size_t place, BufferStats& stats) const {
    return hand_out_at(m_state != nullptr ? &m_state->snapshot.media.buffers : nullptr, place, stats);
}

size_t CStats::GetSenderCount() const {
    return m_state != nullptr ? m_state->snapshot.media.senders.size() : 0;
}

int CStats::GetSender(size_t place, SenderVerdict& verdict) const {
    return hand_out_at(m_state != nullptr ? &m_state->snapshot.media.senders : nullptr, place, verdict);
}

size_t CStats::GetEndedSenderCount() const {
    return m_state != nullptr ? m_state->snapshot.media.ended.size() : 0;
}

int CStats::GetEndedSender(size_t place, SenderVerdict& verdict) const {
    return hand_out_at(m_state != nullptr ? &m_state->snapshot.media.ended : nullptr, place, verdict);
}

size_t CStats::GetVerdictCount() const {
    return m_state != nullptr ? m_state->snapshot.verdicts.size() : 0;
}

int CStats::GetVerdict(size_t place, VerdictStats& stats) const {
    return hand_out_at(m_state != nullptr ? &m_state->snapshot.verdicts : nullptr, place, stats);
}

size_t CStats::GetMemoryCount() const {
    return m_state != nullptr ? m_state->snapshot.memory.size() : 0;
}

int CStats::GetMemory(size_t place, MemoryStats& stats) const {
    return hand_out_at(m_state != nullptr ? &m_state->snapshot.memory : nullptr, place, stats);
}

size_t CStats::GetAlarmCount() const {
    return m_state != nullptr ? m_state->snapshot.alarms.size() : 0;
}

int CStats::GetAlarm(size_t place, AlarmStats& stats) const {
    return hand_out_at(m_state != nullptr ? &m_state->snapshot.alarms : nullptr, place, stats);
}

const char* CStats::GetAlarmName(AlarmKind kind) {
    return Alarms::name(kind);
}

size_t CStats::toText(char* room, size_t size) const {
    return m_state != nullptr ? write_out(m_state->snapshot, &write_text, room, size) : 0;
}

size_t CStats::toJson(char* room, size_t size) const {
    return m_state != nullptr ? write_out(m_state->snapshot, &write_json, room, size) : 0;
}

size_t CStats::toPrometheus(char* room, size_t size) const {
    return m_state != nullptr ? write_out(m_state->snapshot, &write_metrics, room, size) : 0;
}

void CStats::SetTiming(bool on) {
    Timing::Switch(on);
}

int StatsDiff(const CStats& older, const CStats& newer, int pool, PoolRates& rates) {
    const PoolStats* const before = older.m_state != nullptr ? older.m_state->find(pool) : nullptr;
    const PoolStats* const after = newer.m_state != nullptr ? newer.m_state->find(pool) : nullptr;
    if (before == nullptr || after == nullptr ||
        newer.m_state->snapshot.process.taken_us <= older.m_state->snapshot.process.taken_us) {
        return -1;
    }
    PoolRates found{};
    found.pool = pool;
    found.seconds = static_cast<double>(newer.m_state->snapshot.process.taken_us -
                                        older.m_state->snapshot.process.taken_us) /
                    1e6;
    // A counter that is lower belongs to another pool of that index.
    const auto rate = [&found](uint64_t first, uint64_t last) {
        return last > first ? static_cast<double>(last - first) / found.seconds : 0.0;
    };
    found.utilisation =
        after->workers != 0 ? rate(before->cpu_ns, after->cpu_ns) / 1e9 / after->workers : 0.0;
    found.calls = rate(before->calls, after->calls);
    found.socket_events = rate(before->socket_events, after->socket_events);
    found.messages =
        rate(before->messages + before->serial_messages, after->messages + after->serial_messages);
    found.timers = rate(before->timers, after->timers);
    found.passes = rate(before->passes, after->passes);
    found.reports = rate(before->reports, after->reports);
    found.wait = difference(before->wait, after->wait);
    found.run = difference(before->run, after->run);
    return hand_out(found, rates);
}

}  // namespace Orvex::Reticor
