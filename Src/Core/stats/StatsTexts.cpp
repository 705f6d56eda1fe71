// StatsTexts: a snapshot as text, as JSON, and a list of handlers. The exposition is in StatsMetrics.cpp.
#include "Core/stats/StatsTexts.h"

#include <algorithm>
#include <string_view>
#include <utility>

#include "Core/stats/Alarms.h"
#include "Tool/judge/VerdictText.h"

namespace Orvex::Reticor {

const PoolFigure POOL_FIGURES[] = {
    {"queue_length", "Records that wait for a worker.", false, &PoolStats::queue_length},
    {"serial_length", "Serial messages in line.", false, &PoolStats::serial_length},
    {"pushed", "Records that were queued.", true, &PoolStats::pushed},
    {"calls", "Calls of handlers on the pool's workers.", true, &PoolStats::calls},
    {"socket_events", "Ready sockets and idle time-outs that were served.", true, &PoolStats::socket_events},
    {"messages", "Messages that were served.", true, &PoolStats::messages},
    {"serial_messages", "Serial messages that were served.", true, &PoolStats::serial_messages},
    {"timers", "Expired timers that were served.", true, &PoolStats::timers},
    {"passes", "Passes of the poller.", true, &PoolStats::passes},
    {"drains", "Drains of the serial line.", true, &PoolStats::drains},
    {"heartbeats", "Heartbeats of the pool's daemon.", true, &PoolStats::heartbeats},
    {"reports", "Reports of ready sockets and wake-ups.", true, &PoolStats::reports},
    {"strays", "Reports that were about no registered socket.", true, &PoolStats::strays},
    {"rebuilds", "Times that the watch of all sockets was built anew.", true, &PoolStats::rebuilds},
    {"epoll_refused", "Times that the system had no room for a socket.", true, &PoolStats::epoll_refused},
    {"sockets", "Registered sockets.", false, &PoolStats::sockets},
    {"sockets_without_place", "Registered sockets that a full pool leaves out.", false,
     &PoolStats::sockets_without_place},
    {"places_left_read", "Sockets that can still be watched for reading.", false,
     &PoolStats::places_left_read},
    {"places_left_write", "Sockets that can still be watched for writing.", false,
     &PoolStats::places_left_write},
    {"places_left_except", "Sockets that can still be watched for exceptions.", false,
     &PoolStats::places_left_except},
    {"timers_armed", "Timers that wait for their time.", false, &PoolStats::timers_armed},
};
const size_t POOL_FIGURE_COUNT = sizeof(POOL_FIGURES) / sizeof(POOL_FIGURES[0]);

namespace {

double in_us(uint64_t ns) {
    return static_cast<double>(ns / 10) / 100;
}

void text_of_spread(const char* what, const TimeSpread& spread, TextRoom& out) {
    if (spread.GetCount() == 0) {
        return;
    }
    out << "  " << what << ": " << spread.GetCount() << " times, us: below ";
    out.Plain(in_us(spread.GetBound(0.5))) << " (half), ";
    out.Plain(in_us(spread.GetBound(0.9))) << " (90 %), ";
    out.Plain(in_us(spread.GetBound(0.99))) << " (99 %), ";
    out.Plain(in_us(spread.max_ns)) << " at most\n";
}

void text_of_pool(const PoolStats& pool, TextRoom& out) {
    out << "pool " << pool.pool << ": " << pool.workers << " workers, " << pool.busy
        << " busy, processor time ";
    out.Plain(static_cast<double>(pool.cpu_ns / 1000000) / 1000) << " s\n";
    size_t column = 0;
    for (size_t i = 0; i < POOL_FIGURE_COUNT; ++i) {
        out << "  " << POOL_FIGURES[i].name << " " << pool.*POOL_FIGURES[i].value;
        column = (column + 1) % 3;
        column == 0 || i + 1 == POOL_FIGURE_COUNT ? out << "\n" : out.Column(column * 34);
    }
    text_of_spread("wait in the queue", pool.wait, out);
    text_of_spread("calls", pool.run, out);
}

void json_of_spread(const char* name, const TimeSpread& spread, TextRoom& out) {
    out << ",\"" << name << "\":{\"count\":" << spread.GetCount() << ",\"sum_ns\":" << spread.sum_ns
        << ",\"p50_ns\":" << spread.GetBound(0.5) << ",\"p90_ns\":" << spread.GetBound(0.9)
        << ",\"p99_ns\":" << spread.GetBound(0.99) << ",\"max_ns\":" << spread.max_ns << "}";
}

void json_of_pool(const PoolStats& pool, TextRoom& out) {
    out << "{\"pool\":" << pool.pool << ",\"workers\":" << pool.workers << ",\"busy\":" << pool.busy
        << ",\"cpu_ns\":" << pool.cpu_ns;
    for (size_t i = 0; i < POOL_FIGURE_COUNT; ++i) {
        out << ",\"" << POOL_FIGURES[i].name << "\":" << pool.*POOL_FIGURES[i].value;
    }
    json_of_spread("wait", pool.wait, out);
    json_of_spread("run", pool.run, out);
    out << "}";
}

void json_of_worker(const WorkerStats& worker, TextRoom& out) {
    out << "{\"pool\":" << worker.pool << ",\"thread\":" << worker.thread_id
        << ",\"cpu_ns\":" << worker.cpu_ns << ",\"calls\":" << worker.calls << ",\"served\":" << worker.served
        << ",\"handler\":\"" << worker.handler << "\",\"call\":";
    out.Quote(worker.call) << ",\"class\":";
    out.Quote(worker.class_name) << "}";
}

void json_of_class(const HandlerClassStats& row, TextRoom& out) {
    out << "{\"class\":";
    out.Quote(row.name) << ",\"live\":" << row.live << ",\"opened\":" << row.opened
                        << ",\"closed\":" << row.closed << ",\"calls\":" << row.calls
                        << ",\"timed\":" << row.timed << ",\"time_ns\":" << row.time_ns << "}";
}

void json_of_buffer(const BufferStats& row, TextRoom& out) {
    out << "{\"buffer\":" << row.buffer << ",\"senders\":" << row.senders << ",\"frames\":" << row.frames
        << ",\"bytes\":" << row.bytes << ",\"put_bytes\":" << row.put_bytes
        << ",\"held_frames\":" << row.held_frames << ",\"held_bytes\":" << row.held_bytes
        << ",\"expired_frames\":" << row.expired_frames << ",\"expired_bytes\":" << row.expired_bytes
        << ",\"debt_bytes\":" << row.debt_bytes << ",\"pinned_frames\":" << row.pinned_frames
        << ",\"pinned_bytes\":" << row.pinned_bytes << ",\"kept_frames\":" << row.kept_frames
        << ",\"kept_bytes\":" << row.kept_bytes << "}";
}

void json_of_object(const ObjectRow& row, TextRoom& out) {
    out << "{\"kind\":\"" << row.kind->name << "\",\"id\":\"" << row.id << "\"";
    for (size_t figure = 0; figure < OBJECT_FIGURES && row.kind->figures[figure].name != nullptr; ++figure) {
        out << ",\"" << row.kind->figures[figure].name << "\":" << row.values[figure];
    }
    out << "}";
}

/// The last ones made; a server can have thousands.
void text_of_objects(const std::vector<ObjectRow>& objects, TextRoom& out) {
    size_t left = MOST_OBJECTS;
    for (const ObjectRow& row : objects) {
        if (left-- == 0) {
            out << "and " << objects.size() - MOST_OBJECTS << " that are older\n";
            return;
        }
        out << row.kind->name << " " << row.id;
        size_t column = 32;
        for (size_t figure = 0; figure < OBJECT_FIGURES && row.kind->figures[figure].name != nullptr;
             ++figure) {
            out.Column(column) << row.kind->figures[figure].name << " " << row.values[figure];
            column += 28;
        }
        out << "\n";
    }
}

void json_of_memory(const MemoryStats& row, TextRoom& out) {
    out << "{\"kind\":\"" << row.kind << "\",\"piece_bytes\":" << row.piece_bytes
        << ",\"pieces\":" << row.pieces << ",\"bytes\":" << row.bytes << "}";
}

void json_of_alarm(const AlarmStats& alarm, TextRoom& out) {
    out << "{\"alarm\":\"" << Alarms::name(alarm.kind) << "\",\"pool\":" << alarm.pool
        << ",\"lasts\":" << (alarm.lasts != 0 ? "true" : "false") << ",\"since_us\":" << alarm.since_us
        << ",\"ended_us\":" << alarm.ended_us << ",\"times\":" << alarm.times
        << ",\"amount\":" << alarm.amount << ",\"most_us\":" << alarm.most_us << ",\"text\":";
    out.Quote(alarm.text) << "}";
}

/// Those that last, and those that have just ended.
void text_of_alarms(const Snapshot& snapshot, TextRoom& out) {
    const uint64_t now_us = snapshot.process.taken_us;
    for (const AlarmStats& alarm : snapshot.alarms) {
        if (!Alarms::is_recent(alarm, now_us)) {
            continue;
        }
        const uint64_t ago_us = now_us - std::min(alarm.since_us, now_us);
        out << "alarm: " << alarm.text << "; it began ";
        out.Plain(static_cast<double>(ago_us / 100000) / 10)
            << " s ago, times so far: " << alarm.times << "\n";
    }
}

void text_of_memory(const std::vector<MemoryStats>& rows, TextRoom& out) {
    if (rows.empty()) {
        return;
    }
    out << "memory";
    out.Column(22) << "pieces";
    out.Column(34) << "bytes\n";
    for (const MemorySum& sum : sums_of_memory(rows)) {
        out << sum.kind;
        out.Column(22) << sum.pieces;
        out.Column(34) << sum.bytes << "\n";
    }
}

template <size_t PLACES>
void json_of_places(const char* name, const uint32_t (&counts)[PLACES], TextRoom& out) {
    out << ",\"" << name << "\":{";
    const char* comma = "";
    for (size_t place = 0; place < PLACES; ++place) {
        if (counts[place] != 0) {
            out << std::exchange(comma, ",") << "\"" << place << "\":" << counts[place];
        }
    }
    out << "}";
}

/// The causes that there were.
void json_of_drops(const SenderVerdict& row, TextRoom& out) {
    out << ",\"drops\":{";
    const char* comma = "";
    for (const DropName& each : DROP_NAMES) {
        const MediaDrops& drops = row.*each.drops;
        if (drops.GetCount() != 0) {
            out << std::exchange(comma, ",") << "\"" << each.name << "\":{\"frames\":" << drops.GetCount();
            json_of_places("levels", drops.by_level, out);
            json_of_places("channels", drops.by_channel, out);
            out << "}";
        }
    }
    out << "}";
}

void json_of_sender(const SenderVerdict& row, TextRoom& out) {
    out << "{\"sender\":\"" << row.sender << "\",\"buffer\":" << row.buffer << ",\"verdict\":";
    out.Quote(VerdictText::name(row.kind)) << ",\"why\":";
    out.Quote(row.sentence) << ",\"lag_us\":" << row.lag_us << ",\"lag_bytes\":" << row.lag_bytes
                            << ",\"lag_frames\":" << row.lag_frames
                            << ",\"unsent_bytes\":" << row.unsent_bytes
                            << ",\"blocked_us\":" << row.blocked_us << ",\"stream_rate\":" << row.stream_rate
                            << ",\"taken_rate\":" << row.taken_rate
                            << ",\"closed_percent\":" << row.closed_percent << ",\"rtt_us\":" << row.rtt_us
                            << ",\"hole_frames\":" << row.hole_frames
                            << ",\"skipped_frames\":" << row.skipped_frames
                            << ",\"thinned_frames\":" << row.thinned_frames;
    json_of_drops(row, out);
    out << "}";
}

void json_of_verdict(const VerdictStats& row, TextRoom& out) {
    out << "{\"verdict\":\"" << VerdictText::name(row.kind) << "\",\"senders\":" << row.senders
        << ",\"ended\":" << row.ended << "}";
}

/// Why they were slow when they ended, the youngest first.
void text_of_ended(const Snapshot& snapshot, TextRoom& out) {
    if (snapshot.media.ended.empty()) {
        return;
    }
    uint64_t all = 0;
    for (const VerdictStats& row : snapshot.verdicts) {
        all += row.ended;
    }
    out << "senders that have ended: " << all;
    for (const VerdictStats& row : snapshot.verdicts) {
        if (row.ended != 0) {
            out << ", " << VerdictText::name(row.kind) << " " << row.ended;
        }
    }
    out << "\n";
    for (const SenderVerdict& row : snapshot.media.ended) {
        out << row.sender;
        out.Column(22) << row.buffer;
        out.Column(30) << "ended";
        out.Column(52) << row.sentence << "\n";
    }
}

void text_of_media(const MediaRows& media, TextRoom& out) {
    for (const BufferStats& row : media.buffers) {
        out << "media buffer " << row.buffer << ": " << row.senders << " senders, " << row.held_frames
            << " frames held, " << row.held_bytes << " bytes\n";
    }
    if (media.senders.empty()) {
        return;
    }
    out << "sender";
    out.Column(22) << "buffer";
    out.Column(30) << "lag ms";
    out.Column(40) << "lag KB";
    out.Column(52) << "why\n";
    size_t left = MOST_SENDERS;
    for (const SenderVerdict& row : media.senders) {
        if (left-- == 0) {
            out << "and " << media.senders.size() - MOST_SENDERS << " that suffer less\n";
            break;
        }
        out << row.sender;
        out.Column(22) << row.buffer;
        out.Column(30) << row.lag_us / 1000;
        out.Column(40) << row.lag_bytes / 1000;
        out.Column(52) << row.sentence << "\n";
    }
}

/// As much as is known of it: function, file and offset, or the bare address.
void text_of_place(const HandlerHolder& holder, TextRoom& out) {
    if (holder.address == 0) {
        out << "other places";
        return;
    }
    const std::string_view module = holder.module;
    if (module.empty()) {
        out.Hex(holder.address);
        return;
    }
    if (*holder.function != '\0') {
        out << holder.function << ", ";
    }
    out << module.substr(module.rfind('/') + 1) << "+";
    out.Hex(holder.offset);
}

void text_of_holders(const HandlerInfo& handler, TextRoom& out) {
    if (handler.noted == 0) {
        return;
    }
    for (uint32_t place = 0; place < handler.holder_count; ++place) {
        const HandlerHolder& holder = *handler.holders[place];
        out.Column(12) << "taken " << holder.taken << ", given back " << holder.given_back << ": ";
        text_of_place(holder, out);
        out << "\n";
    }
    out.Column(12) << "held by the library for itself: " << handler.own_references << "\n";
}

template <class Row>
void json_list(const char* name, const std::vector<Row>& rows, void (*write)(const Row&, TextRoom&),
               TextRoom& out) {
    out << ",\"" << name << "\":[";
    bool first = true;
    for (const Row& row : rows) {
        out << (first ? "" : ",");
        write(row, out);
        first = false;
    }
    out << "]";
}

}  // namespace

std::vector<MemorySum> sums_of_memory(const std::vector<MemoryStats>& rows) {
    std::vector<MemorySum> sums;
    for (const MemoryStats& row : rows) {
        if (sums.empty() || std::string_view(sums.back().kind) != row.kind) {
            sums.push_back({row.kind, 0, 0});
        }
        sums.back().pieces += row.pieces;
        sums.back().bytes += row.bytes;
    }
    return sums;
}

void write_text(const Snapshot& snapshot, TextRoom& out) {
    const ProcessStats& process = snapshot.process;
    out << "handlers " << process.handlers << ", armed timers " << process.timers_armed << ", timing "
        << (process.timing != 0 ? "on" : "off") << ", stuck calls " << process.stuck << " ("
        << process.stuck_ever << " ever)\n";
    text_of_alarms(snapshot, out);
    text_of_spread("lateness of timers", process.timer_lateness, out);
    for (const PoolStats& pool : snapshot.pools) {
        text_of_pool(pool, out);
    }
    for (const WorkerStats& worker : snapshot.workers) {
        if (worker.handler != 0) {
            out << "thread " << worker.thread_id << " of pool " << worker.pool << " is in " << worker.call
                << " of handler " << worker.handler << "\n";
        }
    }
    text_of_media(snapshot.media, out);
    text_of_ended(snapshot, out);
    text_of_objects(snapshot.objects, out);
    text_of_memory(snapshot.memory, out);
    out << "class";
    out.Column(56) << "live";
    out.Column(66) << "opened";
    out.Column(76) << "closed";
    out.Column(86) << "calls";
    out.Column(100) << "us each\n";
    for (const HandlerClassStats& row : snapshot.classes) {
        out << row.name;
        out.Column(56) << row.live;
        out.Column(66) << row.opened;
        out.Column(76) << row.closed;
        out.Column(86) << row.calls;
        if (row.timed != 0) {
            out.Column(100).Plain(in_us(row.time_ns / row.timed));
        }
        out << "\n";
    }
}

void write_json(const Snapshot& snapshot, TextRoom& out) {
    const ProcessStats& process = snapshot.process;
    out << "{\"version\":" << STATS_VERSION << ",\"taken_us\":" << process.taken_us
        << ",\"timing\":" << (process.timing != 0 ? "true" : "false") << ",\"handlers\":" << process.handlers
        << ",\"timers_armed\":" << process.timers_armed << ",\"stuck\":" << process.stuck
        << ",\"stuck_ever\":" << process.stuck_ever;
    json_of_spread("timer_lateness", process.timer_lateness, out);
    json_list("pools", snapshot.pools, &json_of_pool, out);
    json_list("workers", snapshot.workers, &json_of_worker, out);
    json_list("classes", snapshot.classes, &json_of_class, out);
    json_list("objects", snapshot.objects, &json_of_object, out);
    json_list("media_buffers", snapshot.media.buffers, &json_of_buffer, out);
    json_list("media_senders", snapshot.media.senders, &json_of_sender, out);
    json_list("media_senders_ended", snapshot.media.ended, &json_of_sender, out);
    json_list("media_verdicts", snapshot.verdicts, &json_of_verdict, out);
    json_list("memory", snapshot.memory, &json_of_memory, out);
    json_list("alarms", snapshot.alarms, &json_of_alarm, out);
    out << ",\"pid\":" << process.pid << "}\n";
}

void write_handlers(const std::vector<HandlerInfo>& handlers, TextRoom& out) {
    out << "age_s";
    out.Column(12) << "pool";
    out.Column(17) << "id";
    out.Column(36) << "state";
    out.Column(46) << "refs";
    out.Column(52) << "socks";
    out.Column(58) << "timers class\n";
    for (const HandlerInfo& handler : handlers) {
        out.Plain(static_cast<double>(handler.age_ms) / 1000);
        out.Column(12) << handler.pool;
        out.Column(17) << handler.id;
        out.Column(36) << handler.state;
        out.Column(46) << handler.references;
        out.Column(52) << handler.sockets;
        out.Column(58) << handler.timers;
        out.Column(65) << handler.class_name << "\n";
        text_of_holders(handler, out);
    }
}

}  // namespace Orvex::Reticor
