// Look: foreign JSON. Whatever stands in it, nothing is believed to have a certain type.
#include "top/Look.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cmath>
#include <sstream>
#include <utility>

namespace top {

namespace {

using nlohmann::json;

/// Deeply nested texts would be taken apart by calls in calls.
bool is_shallow(const std::string& text) {
    size_t depth = 0;
    bool quoted = false;
    for (size_t i = 0; i < text.size(); ++i) {
        const char letter = text[i];
        if (quoted) {
            i += letter == '\\' ? 1 : 0;
            quoted = letter != '"';
        } else if (letter == '"') {
            quoted = true;
        } else if (letter == '[' || letter == '{') {
            if (++depth > Look::MOST_DEPTH) {
                return false;
            }
        } else if (letter == ']' || letter == '}') {
            depth -= depth == 0 ? 0 : 1;
        }
    }
    return true;
}

const json& member(const json& object, const char* name) {
    static const json NOTHING;
    if (!object.is_object()) {
        return NOTHING;
    }
    const auto found = object.find(name);
    return found == object.end() ? NOTHING : *found;
}

uint64_t count_of(const json& value, uint64_t otherwise = 0) {
    constexpr double MOST = 9e18;
    if (value.is_number_unsigned()) {
        return value.get<uint64_t>();
    }
    if (value.is_number_integer()) {
        return 0;  // below 0
    }
    if (value.is_number_float()) {
        const double number = value.get<double>();
        return number > 0 ? static_cast<uint64_t>(std::min(number, MOST)) : 0;
    }
    return otherwise;
}

uint64_t count(const json& object, const char* name, uint64_t otherwise = 0) {
    return count_of(member(object, name), otherwise);
}

int64_t index(const json& object, const char* name) {
    const json& value = member(object, name);
    return value.is_number_integer() ? value.get<int64_t>() : 0;
}

/// A name or an id; ids are strings or numbers.
std::string word(const json& object, const char* name) {
    const json& value = member(object, name);
    if (value.is_string()) {
        return value.get<std::string>();
    }
    return value.is_number_integer() ? value.dump() : std::string();
}

bool flag(const json& object, const char* name) {
    const json& value = member(object, name);
    return value.is_boolean() && value.get<bool>();
}

SpreadFigures spread(const json& object, const char* name) {
    const json& value = member(object, name);
    return {count(value, "count"), count(value, "sum_ns"), count(value, "p99_ns"), count(value, "max_ns")};
}

void read_row(const json& from, PoolRow& row) {
    row.pool = index(from, "pool");
    row.workers = count(from, "workers");
    row.busy = count(from, "busy");
    row.cpu_ns = count(from, "cpu_ns");
    row.queue = count(from, "queue_length");
    row.calls = count(from, "calls");
    row.events = count(from, "socket_events");
    row.messages = count(from, "messages") + count(from, "serial_messages");
    row.timers = count(from, "timers");
    row.passes = count(from, "passes");
    row.reports = count(from, "reports");
    row.strays = count(from, "strays");
    row.rebuilds = count(from, "rebuilds");
    row.epoll_refused = count(from, "epoll_refused");
    row.sockets = count(from, "sockets");
    row.without_place = count(from, "sockets_without_place");
    row.timers_armed = count(from, "timers_armed");
    row.left_read = count(from, "places_left_read", UNKNOWN);
    row.wait = spread(from, "wait");
    row.run = spread(from, "run");
}

void read_row(const json& from, WorkerRow& row) {
    row.pool = index(from, "pool");
    row.thread = index(from, "thread");
    row.calls = count(from, "calls");
    row.handler = word(from, "handler");
    row.handler = row.handler == "0" ? "" : row.handler;
    row.call = word(from, "call");
    row.class_name = word(from, "class");
}

void read_row(const json& from, ClassRow& row) {
    row.name = word(from, "class");
    row.live = count(from, "live");
    row.opened = count(from, "opened");
    row.closed = count(from, "closed");
    row.calls = count(from, "calls");
    row.timed = count(from, "timed");
    row.time_ns = count(from, "time_ns");
}

void read_row(const json& from, BufferRow& row) {
    row.buffer = word(from, "buffer");
    row.senders = count(from, "senders", UNKNOWN);
    // On the list alone, of one that does not tell all that it holds.
    row.frames = count(from, "held_frames", count(from, "frames"));
    row.bytes = count(from, "held_bytes", count(from, "bytes"));
    row.put_bytes = count(from, "put_bytes");
}

void read_row(const json& from, SenderRow& row) {
    row.name = word(from, "sender");
    row.buffer = word(from, "buffer");
    row.verdict = word(from, "verdict");
    row.why = word(from, "why");
    row.lag_us = count(from, "lag_us");
    row.lag_bytes = count(from, "lag_bytes");
    row.blocked_us = count(from, "blocked_us", UNKNOWN);
    row.stream_rate = count(from, "stream_rate", UNKNOWN);
    row.taken_rate = count(from, "taken_rate");
    row.dropped = count(from, "hole_frames") + count(from, "skipped_frames") + count(from, "thinned_frames");
}

void read_row(const json& from, ObjectRow& row) {
    row.kind = word(from, "kind");
    row.name = word(from, "id");
    for (const auto& [name, value] : from.items()) {
        if (value.is_number()) {
            row.figures.emplace_back(name, count_of(value));
        }
    }
}

void read_row(const json& from, MemoryRow& row) {
    row.kind = word(from, "kind");
    row.pieces = count(from, "pieces");
    row.bytes = count(from, "bytes");
}

void read_row(const json& from, AlarmRow& row) {
    row.kind = word(from, "alarm");
    row.pool = index(from, "pool");
    row.lasts = flag(from, "lasts");
    row.since_us = count(from, "since_us");
    row.ended_us = count(from, "ended_us");
    row.times = count(from, "times");
    row.amount = count(from, "amount");
    row.text = word(from, "text");
}

/// Rows of one kind and several sizes become one.
void add_up(std::vector<MemoryRow>& rows) {
    std::vector<MemoryRow> sums;
    for (const MemoryRow& row : rows) {
        const auto same = std::find_if(sums.begin(), sums.end(),
                                       [&](const MemoryRow& sum) { return sum.kind == row.kind; });
        MemoryRow& sum = same != sums.end() ? *same : sums.emplace_back(MemoryRow{row.kind, 0, 0});
        sum.pieces += row.pieces;
        sum.bytes += row.bytes;
    }
    rows = std::move(sums);
}

template <class Row>
void read_rows(const json& from, const char* name, std::vector<Row>& rows) {
    const json& list = member(from, name);
    if (!list.is_array()) {
        return;
    }
    for (const json& one : list) {
        if (one.is_object()) {
            read_row(one, rows.emplace_back());
        }
    }
}

void read_process(const json& from, uint64_t now_us, Look& look) {
    look.version = count(from, "version");
    look.taken_us = count(from, "taken_us", now_us);
    look.timing = flag(from, "timing");
    look.handlers = count(from, "handlers");
    look.timers_armed = count(from, "timers_armed");
    look.stuck = count(from, "stuck");
    look.stuck_ever = count(from, "stuck_ever");
    look.lateness = spread(from, "timer_lateness");
    look.pid = index(from, "pid");
    read_rows(from, "pools", look.pools);
    read_rows(from, "workers", look.workers);
    read_rows(from, "classes", look.classes);
    read_rows(from, "media_buffers", look.buffers);
    read_rows(from, "media_senders", look.senders);
    const size_t senders = look.senders.size();
    read_rows(from, "media_senders_ended", look.senders);
    std::for_each(look.senders.begin() + static_cast<std::ptrdiff_t>(senders), look.senders.end(),
                  [](SenderRow& row) { row.has_left = true; });
    read_rows(from, "objects", look.objects);
    read_rows(from, "memory", look.memory);
    add_up(look.memory);
    read_rows(from, "alarms", look.alarms);
}

SenderRow client_of(const json& from) {
    SenderRow row;
    row.name = word(from, "address");
    row.verdict = word(from, "verdict");
    row.why = word(from, "why");
    row.lag_us = count_of(member(from, "lag_ms")) * 1000;
    row.lag_bytes = count(from, "backlog_bytes") + count(from, "unsent_bytes");
    row.taken_rate = count(from, "bytes_per_second") * 8;
    row.dropped = count(from, "dropped_frames") + count(from, "left_out_frames");
    return row;
}

void read_relay(const json& from, uint64_t now_us, Look& look) {
    look.is_relay = true;
    look.taken_us = now_us;
    for (const json& client : from.at("clients")) {
        look.senders.push_back(client_of(client));
    }
    if (const json& ended = member(from, "ended"); ended.is_array()) {
        for (const json& client : ended) {
            look.senders.push_back(client_of(client));
            look.senders.back().has_left = true;
        }
    }
    const json& input = member(from, "input");
    look.relay.live = word(input, "live");
    look.relay.frames = count(input, "frames");
    look.relay.bytes = count(input, "bytes");
    look.relay.input_ended = flag(input, "ended");
    const json& totals = member(from, "totals");
    look.relay.clients = count(totals, "clients");
    look.relay.most_clients = count(totals, "max_clients", UNKNOWN);
    look.relay.hung_up = count(totals, "stalled");
    look.relay.refused = count(totals, "refused");
    look.relay.turned_away = count(totals, "turned_away");
    if (const json& buffer = member(from, "buffer"); buffer.is_object()) {
        BufferRow& row = look.buffers.emplace_back();
        read_row(buffer, row);
        row.buffer = "1";
        row.senders = look.relay.clients;
        row.put_bytes = look.relay.bytes;
    }
}

}  // namespace

uint64_t ObjectRow::figure(const std::string& wanted) const {
    for (const auto& [one, value] : figures) {
        if (one == wanted) {
            return value;
        }
    }
    return 0;
}

bool Look::read(const std::string& text, uint64_t now_us, std::string& wrong) {
    if (!is_shallow(text)) {
        wrong = "its answer is nested too deeply";
        return false;
    }
    const json all = json::parse(text, nullptr, false);
    if (all.is_discarded()) {
        wrong = "its answer is cut off, or not JSON";
        return false;
    }
    Look look;
    if (count(all, "version") >= 1 && member(all, "pools").is_array()) {
        read_process(all, now_us, look);
    } else if (member(all, "clients").is_array() && member(all, "totals").is_object()) {
        read_relay(all, now_us, look);
    } else {
        wrong = "its answer is JSON, but not the figures of a process or a relay";
        return false;
    }
    *this = std::move(look);
    return true;
}

/// Columns: age, pool, id, state, references, sockets, timers, class; the class may have blanks. Lines that
/// begin with some tell more of the handler above them.
std::vector<std::pair<std::string, std::string>> readClassesOfHandlers(const std::string& text) {
    std::vector<std::pair<std::string, std::string>> found;
    std::istringstream lines(text);
    std::string line;
    std::getline(lines, line);  // the titles
    while (std::getline(lines, line)) {
        if (line.empty() || line.front() == ' ') {
            continue;
        }
        std::istringstream words(line);
        std::string id;
        std::string skipped;
        std::string name;
        words >> skipped >> skipped >> id >> skipped >> skipped >> skipped >> skipped;
        if (std::getline(words >> std::ws, name) && !name.empty()) {
            found.emplace_back(id, name);
        }
    }
    return found;
}

}  // namespace top
