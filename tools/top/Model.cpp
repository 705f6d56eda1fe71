// Model: differences of looks.
#include "top/Model.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "top/Text.h"

namespace top {

namespace {

constexpr double LONGEST_s = 62;
constexpr size_t MOST_MARKS = 700;
constexpr uint64_t LONG_CALL_us = 900000;  // two looks have seen it
constexpr double LATE_us = 20000;
constexpr double MANY_PASSES = 2000;  // a second
constexpr uint64_t RECENT_us = 10000000;

double seconds_between(uint64_t older_us, uint64_t newer_us) {
    return newer_us > older_us ? static_cast<double>(newer_us - older_us) / 1e6 : 0;
}

/// Of counters that began anew: 0.
double grown(uint64_t older, uint64_t newer) {
    return newer > older ? static_cast<double>(newer - older) : 0;
}

std::string name_of(const PoolRow& pool) {
    return "pool " + std::to_string(pool.pool);
}

uint64_t served(const PoolRow& pool) {
    return pool.events + pool.messages + pool.timers;
}

}  // namespace

Model::Mark Model::mark_of(const Look& look) {
    Mark mark{look.taken_us, look.pools, {}, {}, look.lateness, look.relay};
    for (const ClassRow& row : look.classes) {
        mark.classes.emplace(row.name, row);
    }
    for (const BufferRow& row : look.buffers) {
        mark.put.emplace(row.buffer, row.put_bytes);
    }
    return mark;
}

/// Counters of a process never fall.
bool Model::continues(const Mark& newest) const {
    const Mark& last = m_marks.back();
    if (newest.taken_us < last.taken_us || newest.relay.bytes < last.relay.bytes ||
        newest.lateness.count < last.lateness.count) {
        return false;
    }
    for (const PoolRow& row : newest.pools) {
        const PoolRow* const before = find_pool(last, row.pool);
        if (before != nullptr && (row.calls < before->calls || served(row) < served(*before))) {
            return false;
        }
    }
    return true;
}

bool Model::add(Look look, pid_t process) {
    Mark mark = mark_of(look);
    const bool other = !m_marks.empty() && (process != m_process || !continues(mark));
    if (other) {
        m_marks.clear();
        m_running.clear();
        m_names.clear();
    }
    m_process = process;
    m_now = std::move(look);
    m_marks.push_back(std::move(mark));
    // One that is older than the longest window stays, as the beginning of that window.
    while (m_marks.size() > MOST_MARKS ||
           (m_marks.size() > 2 && seconds_between(m_marks[1].taken_us, m_now.taken_us) > LONGEST_s)) {
        m_marks.pop_front();
    }
    follow_calls();
    return other;
}

/// A thread that is in the same call as before has been in it since then.
void Model::follow_calls() {
    std::map<int64_t, Running> running;
    for (const WorkerRow& worker : m_now.workers) {
        if (worker.handler.empty()) {
            continue;
        }
        const auto before = m_running.find(worker.thread);
        const bool same = before != m_running.end() && before->second.worker.handler == worker.handler &&
                          before->second.worker.call == worker.call &&
                          before->second.worker.calls == worker.calls;
        running.emplace(worker.thread, Running{worker, same ? before->second.since_us : m_now.taken_us});
    }
    m_running = std::move(running);
}

const PoolRow* Model::find_pool(const Mark& mark, int64_t pool) {
    for (const PoolRow& row : mark.pools) {
        if (row.pool == pool) {
            return &row;
        }
    }
    return nullptr;
}

/// The look whose age is nearest to the window, but for a twentieth no younger. Where the shortest window is
/// not full yet: the first look. Null if there is none.
const Model::Mark* Model::at(double window_s) const {
    const Mark* nearest = nullptr;
    double least = 0;
    for (size_t i = 0; i + 1 < m_marks.size(); ++i) {
        const double age_s = seconds_between(m_marks[i].taken_us, m_now.taken_us);
        const double off = std::abs(age_s - window_s);
        if (age_s >= 0.95 * window_s && (nearest == nullptr || off <= least)) {
            nearest = &m_marks[i];
            least = off;
        }
    }
    return nearest != nullptr || window_s > WINDOWS_s[0] ? nearest : first();
}

/// The first look, if there are two.
const Model::Mark* Model::first() const {
    return m_marks.size() >= 2 ? &m_marks.front() : nullptr;
}

bool Model::rateOfPool(int64_t pool, double window_s, PoolRate& rate) const {
    const Mark* const from = at(window_s);
    const PoolRow* const older = from != nullptr ? find_pool(*from, pool) : nullptr;
    const PoolRow* const newer = from != nullptr ? find_pool(m_marks.back(), pool) : nullptr;
    const double seconds = from != nullptr ? seconds_between(from->taken_us, m_now.taken_us) : 0;
    if (older == nullptr || newer == nullptr || seconds <= 0) {
        return false;
    }
    const double workers = static_cast<double>(std::max<uint64_t>(1, newer->workers));
    rate.seconds = seconds;
    rate.utilisation = grown(older->cpu_ns, newer->cpu_ns) / 1e9 / seconds / workers;
    rate.calls = grown(older->calls, newer->calls) / seconds;
    rate.events = grown(older->events, newer->events) / seconds;
    rate.messages = grown(older->messages, newer->messages) / seconds;
    rate.timers = grown(older->timers, newer->timers) / seconds;
    rate.passes = grown(older->passes, newer->passes) / seconds;
    rate.reports = grown(older->reports, newer->reports) / seconds;
    return true;
}

bool Model::rateOfClass(const std::string& name, double window_s, ClassRate& rate) const {
    return rate_since(at(window_s), name, rate);
}

ClassRate Model::recentRateOfClass(const std::string& name, double window_s) const {
    ClassRate rate;
    const Mark* const from = at(window_s);
    rate_since(from != nullptr ? from : first(), name, rate);
    return rate;
}

bool Model::rate_since(const Mark* from, const std::string& name, ClassRate& rate) const {
    const double seconds = from != nullptr ? seconds_between(from->taken_us, m_now.taken_us) : 0;
    if (seconds <= 0) {
        return false;
    }
    const auto newer = m_marks.back().classes.find(name);
    if (newer == m_marks.back().classes.end()) {
        return false;
    }
    const auto found = from->classes.find(name);
    const ClassRow older = found != from->classes.end() ? found->second : ClassRow{};
    const double timed = grown(older.timed, newer->second.timed);
    rate.seconds = seconds;
    rate.calls = grown(older.calls, newer->second.calls) / seconds;
    rate.each_us = timed > 0 ? grown(older.time_ns, newer->second.time_ns) / timed / 1e3 : 0;
    // Of messages one in 16 is measured, and stands for the others.
    rate.busy = rate.each_us * rate.calls / 1e6;
    return true;
}

bool Model::rateOfBuffer(const std::string& buffer, double window_s, double& bytes) const {
    const Mark* const from = at(window_s);
    const double seconds = from != nullptr ? seconds_between(from->taken_us, m_now.taken_us) : 0;
    if (seconds <= 0 || from->put.count(buffer) == 0 || m_marks.back().put.count(buffer) == 0) {
        return false;
    }
    bytes = grown(from->put.at(buffer), m_marks.back().put.at(buffer)) / seconds;
    return true;
}

bool Model::rateOfInput(double window_s, double& frames, double& bytes) const {
    const Mark* const from = at(window_s);
    const double seconds = from != nullptr ? seconds_between(from->taken_us, m_now.taken_us) : 0;
    if (seconds <= 0) {
        return false;
    }
    frames = grown(from->relay.frames, m_now.relay.frames) / seconds;
    bytes = grown(from->relay.bytes, m_now.relay.bytes) / seconds;
    return true;
}

bool Model::lateness(double& us) const {
    const Mark* from = at(WINDOWS_s[1]);
    from = from != nullptr ? from : first();
    const double count = from != nullptr ? grown(from->lateness.count, m_now.lateness.count) : 0;
    us = count > 0 ? grown(from->lateness.sum_ns, m_now.lateness.sum_ns) / count / 1e3 : 0;
    return count > 0;
}

/// For how long no record of the pool was served.
uint64_t Model::still_us(const PoolRow& pool) const {
    uint64_t since_us = m_now.taken_us;
    for (size_t i = m_marks.size(); i-- > 0;) {
        const PoolRow* const before = find_pool(m_marks[i], pool.pool);
        if (before == nullptr || served(*before) != served(pool) || before->calls != pool.calls) {
            break;
        }
        since_us = m_marks[i].taken_us;
    }
    return m_now.taken_us - since_us;
}

void Model::alarms_of_pool(const PoolRow& pool, std::vector<Alarm>& alarms) const {
    const bool all_busy = pool.workers > 0 && pool.busy >= pool.workers;
    const uint64_t still = still_us(pool);
    const std::string who = std::to_string(pool.workers) + (pool.workers == 1 ? " worker" : " workers");
    if (all_busy && pool.queue > 0 && still >= LONG_CALL_us) {
        alarms.push_back({true, name_of(pool) + " hangs: all " + who + " busy, nothing served for " +
                                    duration(static_cast<double>(still)) + ", " +
                                    number(static_cast<double>(pool.queue)) + " wait"});
    } else if (const Mark* const from = at(WINDOWS_s[1]); all_busy && from != nullptr) {
        const PoolRow* const before = find_pool(*from, pool.pool);
        if (before != nullptr && pool.queue > before->queue + pool.workers) {
            alarms.push_back({false, name_of(pool) + " does not keep up: all " + who + " busy, " +
                                         number(static_cast<double>(pool.queue)) + " wait, " +
                                         number(static_cast<double>(before->queue)) + " did 10 s ago"});
        }
    }
}

void Model::alarms_of_reports(const PoolRow& pool, std::vector<Alarm>& alarms) const {
    const PoolRow* const before = find_pool(m_marks.front(), pool.pool);
    if (before == nullptr) {
        return;
    }
    if (pool.epoll_refused > before->epoll_refused) {
        alarms.push_back({true, name_of(pool) + ": the system had no room for a socket " +
                                    number(grown(before->epoll_refused, pool.epoll_refused)) +
                                    " times (fs.epoll.max_user_watches)"});
    }
    if (pool.strays > before->strays || pool.rebuilds > before->rebuilds) {
        alarms.push_back({false, name_of(pool) + ": a socket was closed that somebody has a copy of (" +
                                     number(grown(before->strays, pool.strays)) + " strays, " +
                                     number(grown(before->rebuilds, pool.rebuilds)) + " rebuilds)"});
    }
    PoolRate rate;
    if (rateOfPool(pool.pool, WINDOWS_s[0], rate) && rate.passes > MANY_PASSES &&
        rate.passes > 20 * (rate.events + rate.messages + rate.timers)) {
        alarms.push_back({false, name_of(pool) + " spins: " + number(rate.passes) +
                                     " passes a second, and hardly anything is served"});
    }
}

/// Calls on that pool's workers that two looks have seen.
size_t Model::long_calls(int64_t pool) const {
    size_t calls = 0;
    for (const auto& [thread, running] : m_running) {
        const bool is_long = m_now.taken_us - running.since_us >= LONG_CALL_us;
        calls += is_long && running.worker.pool == pool ? 1 : 0;
    }
    return calls;
}

/// What the process says itself. Of calls that do not come back this program knows more, once it has seen
/// them twice.
void Model::alarms_of_process(std::vector<Alarm>& alarms) const {
    for (const AlarmRow& row : m_now.alarms) {
        const bool is_named = row.kind == "worker_stuck" && row.amount <= long_calls(row.pool);
        if (row.text.empty() || (row.lasts ? is_named : row.ended_us + RECENT_us <= m_now.taken_us)) {
            continue;
        }
        std::string text = row.text;
        if (row.lasts && row.kind == "pool_full" && m_now.taken_us > row.since_us) {
            text += ", for " + duration(static_cast<double>(m_now.taken_us - row.since_us));
        }
        text += row.times > 1 ? ", " + number(static_cast<double>(row.times)) + " times so far" : "";
        // A pool that has no more places, but leaves nobody out, is worth a look.
        alarms.push_back({row.lasts && row.amount > 0, text});
    }
}

/// Calls of one class that last, in a line.
void Model::alarms_of_calls(std::vector<Alarm>& alarms) const {
    struct Group {
        uint64_t longest_us = 0;
        size_t calls = 0;
        std::string threads;
        std::string handler;
    };
    std::map<std::pair<int64_t, std::string>, Group> groups;  // by pool and operation
    for (const auto& [thread, running] : m_running) {
        const WorkerRow& worker = running.worker;
        const uint64_t time_us = m_now.taken_us - running.since_us;
        if (time_us < LONG_CALL_us) {
            continue;
        }
        const auto named = m_names.find(worker.handler);
        const std::string name = !worker.class_name.empty() ? worker.class_name
                                 : named != m_names.end()   ? named->second
                                                            : "handler";
        Group& group = groups[{worker.pool, name + "::" + worker.call}];
        group.longest_us = std::max(group.longest_us, time_us);
        group.threads += (group.calls++ > 0 ? " " : "") + std::to_string(thread);
        group.handler = worker.handler;
    }
    for (const auto& [place, group] : groups) {
        const std::string time = " for over " + duration(static_cast<double>(group.longest_us));
        const std::string pool = place.first < 0 ? "" : " of pool " + std::to_string(place.first);
        alarms.push_back({true, group.calls == 1
                                    ? place.second + " runs" + time + ": thread " + group.threads + pool +
                                          ", handler " + group.handler
                                    : place.second + " runs" + time + ", " + std::to_string(group.calls) +
                                          " times: threads " + group.threads + pool});
    }
}

void Model::alarms_of_relay(std::vector<Alarm>& alarms) const {
    const RelayRow& relay = m_now.relay;
    const RelayRow& before = m_marks.front().relay;
    if (relay.most_clients != UNKNOWN && relay.clients >= relay.most_clients) {
        alarms.push_back({true, "the relay is full: " + std::to_string(relay.clients) + " clients"});
    }
    if (relay.refused > before.refused || relay.turned_away > before.turned_away) {
        alarms.push_back({false, number(grown(before.refused, relay.refused)) + " clients refused, " +
                                     number(grown(before.turned_away, relay.turned_away)) +
                                     " connections turned away in the last minute"});
    }
    double frames = 0;
    double bytes = 0;
    if (relay.input_ended) {
        alarms.push_back({false, "the input has ended"});
    } else if (rateOfInput(WINDOWS_s[1], frames, bytes) && frames <= 0) {
        alarms.push_back({true, "no picture has come in for 10 s"});
    }
}

std::vector<Alarm> Model::alarms() const {
    std::vector<Alarm> alarms;
    if (m_marks.empty()) {
        return alarms;
    }
    if (m_now.is_relay) {
        alarms_of_relay(alarms);
    }
    for (const PoolRow& pool : m_now.pools) {
        alarms_of_pool(pool, alarms);
    }
    alarms_of_process(alarms);
    alarms_of_calls(alarms);
    for (const PoolRow& pool : m_now.pools) {
        alarms_of_reports(pool, alarms);
    }
    // Below the bound at which the process itself calls its clock late.
    double late_us = 0;
    if (lateness(late_us) && late_us >= LATE_us) {
        alarms.push_back({false, "timers are late by " + duration(late_us) + " on average"});
    }
    if (m_now.version > Look::KNOWN_VERSION) {
        alarms.push_back({false, "the process tells version " + std::to_string(m_now.version) +
                                     " of its figures; this program knows " +
                                     std::to_string(Look::KNOWN_VERSION)});
    }
    std::stable_partition(alarms.begin(), alarms.end(), [](const Alarm& alarm) { return alarm.is_bad; });
    return alarms;
}

std::vector<std::string> Model::namelessCalls() const {
    std::vector<std::string> ids;
    for (const auto& [thread, running] : m_running) {
        const WorkerRow& worker = running.worker;
        if (m_now.taken_us - running.since_us >= LONG_CALL_us && worker.class_name.empty() &&
            m_names.count(worker.handler) == 0) {
            ids.push_back(worker.handler);
        }
    }
    return ids;
}

/// Of those that were asked for; whoever is not told of is not asked for again.
void Model::nameHandlers(const std::vector<std::pair<std::string, std::string>>& classes) {
    for (const std::string& id : namelessCalls()) {
        const auto found =
            std::find_if(classes.begin(), classes.end(), [&](const auto& one) { return one.first == id; });
        m_names[id] = found != classes.end() ? found->second : "handler";
    }
}

}  // namespace top
