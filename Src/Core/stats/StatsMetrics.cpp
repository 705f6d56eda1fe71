// StatsMetrics: the exposition format of StatsTexts. Every series once, under help and type of its family.
#include "Core/stats/StatsTexts.h"

#include <algorithm>
#include <string>
#include <vector>

#include "Core/stats/Alarms.h"
#include "Tool/judge/VerdictText.h"

namespace Orvex::Reticor {

namespace {

constexpr char LIBRARY_VERSION[] = "1.0.0";

void family(const char* name, const char* type, const char* help, TextRoom& out) {
    out << "# HELP " << name << " " << help << "\n# TYPE " << name << " " << type << "\n";
}

void pool_families(const Snapshot& snapshot, TextRoom& out) {
    for (size_t i = 0; i < POOL_FIGURE_COUNT; ++i) {
        const PoolFigure& figure = POOL_FIGURES[i];
        const std::string name =
            std::string("reticor_pool_") + figure.name + (figure.counter ? "_total" : "");
        family(name.c_str(), figure.counter ? "counter" : "gauge", figure.help, out);
        for (const PoolStats& pool : snapshot.pools) {
            out << name << "{pool=\"" << pool.pool << "\"} " << pool.*figure.value << "\n";
        }
    }
    family("reticor_pool_workers", "gauge", "Threads that call handlers.", out);
    for (const PoolStats& pool : snapshot.pools) {
        out << "reticor_pool_workers{pool=\"" << pool.pool << "\"} " << pool.workers << "\n";
    }
    family("reticor_pool_busy", "gauge", "Workers that neither sleep nor wait for sockets.", out);
    for (const PoolStats& pool : snapshot.pools) {
        out << "reticor_pool_busy{pool=\"" << pool.pool << "\"} " << pool.busy << "\n";
    }
}

double in_seconds(uint64_t ns) {
    return static_cast<double>(ns) / 1e9;
}

/// Places from 1 us to 17 s, every other one: enough to see where time goes.
void histogram(const char* name, const std::string& label, const TimeSpread& spread, TextRoom& out) {
    constexpr size_t FIRST = 10;
    constexpr size_t LAST = 34;
    const std::string comma = label.empty() ? "" : ",";
    uint64_t below = 0;
    for (size_t i = 0; i <= LAST; ++i) {
        below += spread.count[i];
        if (i >= FIRST && i % 2 == 0) {
            out << name << "_bucket{" << label << comma << "le=\"" << in_seconds(uint64_t{1} << i) << "\"} "
                << below << "\n";
        }
    }
    const std::string braces = label.empty() ? "" : "{" + label + "}";
    out << name << "_bucket{" << label << comma << "le=\"+Inf\"} " << spread.GetCount() << "\n"
        << name << "_sum" << braces << " " << in_seconds(spread.sum_ns) << "\n"
        << name << "_count" << braces << " " << spread.GetCount() << "\n";
}

void spread_families(const Snapshot& snapshot, TextRoom& out) {
    struct Family {
        const char* name;
        const char* help;
        TimeSpread PoolStats::*spread;
    };
    constexpr Family FAMILIES[] = {
        {"reticor_pool_wait_seconds", "From the push of a record until its call, while timing is on.",
         &PoolStats::wait},
        {"reticor_pool_run_seconds", "Calls of handlers, while timing is on; of messages one in 16.",
         &PoolStats::run},
    };
    for (const Family& each : FAMILIES) {
        family(each.name, "histogram", each.help, out);
        for (const PoolStats& pool : snapshot.pools) {
            histogram(each.name, "pool=\"" + std::to_string(pool.pool) + "\"", pool.*each.spread, out);
        }
    }
    family("reticor_timer_lateness_seconds", "histogram",
           "From a timer's time until it was given to its pool.", out);
    histogram("reticor_timer_lateness_seconds", "", snapshot.process.timer_lateness, out);
}

void class_families(const Snapshot& snapshot, TextRoom& out) {
    struct Family {
        const char* name;
        const char* type;
        const char* help;
        uint64_t HandlerClassStats::*value;
    };
    constexpr Family FAMILIES[] = {
        {"reticor_handlers", "gauge", "Live handlers of a class.", &HandlerClassStats::live},
        {"reticor_handlers_closed_total", "counter", "Handlers of a class that were closed.",
         &HandlerClassStats::closed},
        {"reticor_handler_calls_total", "counter", "Calls of handlers of a class.",
         &HandlerClassStats::calls},
        {"reticor_handler_timed_calls_total", "counter", "Calls that were measured.",
         &HandlerClassStats::timed},
    };
    for (const Family& each : FAMILIES) {
        family(each.name, each.type, each.help, out);
        for (const HandlerClassStats& row : snapshot.classes) {
            out << each.name << "{class=";
            out.Quote(row.name) << "} " << row.*each.value << "\n";
        }
    }
    family("reticor_handler_time_seconds_total", "counter", "How long measured calls took.", out);
    for (const HandlerClassStats& row : snapshot.classes) {
        out << "reticor_handler_time_seconds_total{class=";
        out.Quote(row.name) << "} " << in_seconds(row.time_ns) << "\n";
    }
}

/// Sums by kind: a server can have thousands, that come and go. A sum falls when an object goes, so all of
/// them are gauges.
void object_families(const std::vector<ObjectRow>& objects, TextRoom& out) {
    std::vector<const ObjectKind*> kinds;
    for (const ObjectRow& row : objects) {
        if (std::find(kinds.begin(), kinds.end(), row.kind) == kinds.end()) {
            kinds.push_back(row.kind);
        }
    }
    for (const ObjectKind* kind : kinds) {
        ObjectValues sums{};
        uint64_t count = 0;
        for (const ObjectRow& row : objects) {
            for (size_t figure = 0; row.kind == kind && figure < OBJECT_FIGURES; ++figure) {
                sums[figure] += row.values[figure];
            }
            count += row.kind == kind ? 1 : 0;
        }
        const std::string all = std::string("reticor_") + kind->name + "s";  // "_count" is for histograms
        const std::string prefix = std::string("reticor_") + kind->name + "_";
        family(all.c_str(), "gauge", "Objects of that kind.", out);
        out << all << " " << count << "\n";
        for (size_t figure = 0; figure < OBJECT_FIGURES && kind->figures[figure].name != nullptr; ++figure) {
            if (kind->figures[figure].is_name) {
                continue;
            }
            family((prefix + kind->figures[figure].name).c_str(), "gauge", kind->figures[figure].help, out);
            out << prefix << kind->figures[figure].name << " " << sums[figure] << "\n";
        }
    }
}

void verdict_families(const std::vector<VerdictStats>& verdicts, TextRoom& out) {
    struct Family {
        const char* name;
        const char* type;
        const char* help;
        uint64_t VerdictStats::*value;
    };
    constexpr Family FAMILIES[] = {
        {"reticor_media_senders", "gauge", "Senders of media, by what holds them up.",
         &VerdictStats::senders},
        {"reticor_media_senders_ended_total", "counter", "Senders that have ended, by the last verdict.",
         &VerdictStats::ended},
    };
    for (const Family& each : FAMILIES) {
        family(each.name, each.type, each.help, out);
        for (const VerdictStats& row : verdicts) {
            out << each.name << "{verdict=";
            out.Quote(VerdictText::name(row.kind)) << "} " << row.*each.value << "\n";
        }
    }
}

void sender_family(const MediaRows& media, const char* name, const char* help,
                   double (*value)(const SenderVerdict& row), TextRoom& out) {
    family(name, "gauge", help, out);
    size_t left = MOST_SENDERS;
    for (const SenderVerdict& row : media.senders) {
        if (left-- == 0) {
            break;
        }
        out << name << "{sender=\"" << row.sender << "\",buffer=\"" << row.buffer << "\"} " << value(row)
            << "\n";
    }
}

void drop_family(const MediaRows& media, TextRoom& out) {
    family("reticor_media_sender_dropped_frames_total", "counter",
           "Frames that a client did not get, by cause.", out);
    size_t left = MOST_SENDERS;
    for (const SenderVerdict& row : media.senders) {
        if (left-- == 0) {
            break;
        }
        for (const DropName& each : DROP_NAMES) {
            out << "reticor_media_sender_dropped_frames_total{sender=\"" << row.sender << "\",buffer=\""
                << row.buffer << "\",cause=\"" << each.name << "\"} " << (row.*each.drops).GetCount() << "\n";
        }
    }
}

/// Only where there is media or was, so that others have no empty families.
void media_families(const Snapshot& snapshot, TextRoom& out) {
    const MediaRows& media = snapshot.media;
    if (media.buffers.empty() && media.ended.empty()) {
        return;
    }
    struct Family {
        const char* name;
        const char* type;
        const char* help;
        uint64_t BufferStats::*value;
    };
    constexpr Family FAMILIES[] = {
        {"reticor_media_buffer_senders", "gauge", "Senders on a media buffer's list.", &BufferStats::senders},
        {"reticor_media_buffer_frames", "gauge", "Frames that a media buffer holds.", &BufferStats::frames},
        {"reticor_media_buffer_bytes", "gauge", "Bytes that a media buffer holds.", &BufferStats::bytes},
        {"reticor_media_buffer_held_bytes", "gauge", "The same with what waits for late clients and fills.",
         &BufferStats::held_bytes},
        {"reticor_media_buffer_put_bytes_total", "counter", "Bytes of frames that were put.",
         &BufferStats::put_bytes},
    };
    for (const Family& each : FAMILIES) {
        family(each.name, each.type, each.help, out);
        for (const BufferStats& row : media.buffers) {
            out << each.name << "{buffer=\"" << row.buffer << "\"} " << row.*each.value << "\n";
        }
    }
    verdict_families(snapshot.verdicts, out);
    sender_family(
        media, "reticor_media_sender_lag_seconds", "How late a client is; of those that suffer most.",
        [](const SenderVerdict& row) { return static_cast<double>(row.lag_us) / 1e6; }, out);
    sender_family(
        media, "reticor_media_sender_lag_bytes", "What a client has not got yet.",
        [](const SenderVerdict& row) { return static_cast<double>(row.lag_bytes); }, out);
    sender_family(
        media, "reticor_media_sender_taken_bits_per_second", "What a client's peer acknowledges.",
        [](const SenderVerdict& row) { return static_cast<double>(row.taken_rate); }, out);
    sender_family(
        media, "reticor_media_sender_window_closed_ratio", "Of the time, with its receive window closed.",
        [](const SenderVerdict& row) { return row.closed_percent / 100.0; }, out);
    drop_family(media, out);
}

/// Of each pool that there is, and of what else was ever wrong: a series that comes with its first alarm
/// would have nothing to compare with.
void alarm_families(const Snapshot& snapshot, TextRoom& out) {
    std::vector<AlarmStats> rows = snapshot.alarms;
    for (const PoolStats& pool : snapshot.pools) {
        for (const AlarmKind kind : Alarms::KINDS) {
            const auto same = [&](const AlarmStats& row) {
                return row.kind == kind && row.pool == pool.pool;
            };
            if (std::none_of(rows.begin(), rows.end(), same)) {
                AlarmStats none{};
                none.kind = kind;
                none.pool = pool.pool;
                rows.push_back(none);
            }
        }
    }
    const auto series = [&](const char* name, uint64_t (*value)(const AlarmStats&)) {
        for (const AlarmStats& row : rows) {
            out << name << "{kind=\"" << Alarms::name(row.kind) << "\",pool=\"" << row.pool << "\"} "
                << value(row) << "\n";
        }
    };
    family("reticor_alarm", "gauge", "1 while something is wrong in a pool; pool -1: on another thread.",
           out);
    series("reticor_alarm", [](const AlarmStats& row) { return uint64_t{row.lasts}; });
    family("reticor_alarms_total", "counter", "How often that has begun.", out);
    series("reticor_alarms_total", [](const AlarmStats& row) { return row.times; });
}

void memory_families(const std::vector<MemoryStats>& memory, TextRoom& out) {
    if (memory.empty()) {
        return;
    }
    struct Family {
        const char* name;
        const char* help;
        uint64_t MemorySum::*value;
    };
    constexpr Family FAMILIES[] = {
        {"reticor_memory_pieces", "Records, blocks and frames that the library holds.", &MemorySum::pieces},
        {"reticor_memory_bytes", "Their bytes.", &MemorySum::bytes},
    };
    const std::vector<MemorySum> sums = sums_of_memory(memory);
    for (const Family& each : FAMILIES) {
        family(each.name, "gauge", each.help, out);
        for (const MemorySum& sum : sums) {
            out << each.name << "{kind=\"" << sum.kind << "\"} " << sum.*each.value << "\n";
        }
    }
}

}  // namespace

void write_metrics(const Snapshot& snapshot, TextRoom& out) {
    family("reticor_build_info", "gauge", "The library; its value is always 1.", out);
    out << "reticor_build_info{version=\"" << LIBRARY_VERSION << "\"} 1\n";
    family("reticor_pools", "gauge", "Pools that run.", out);
    out << "reticor_pools " << snapshot.process.pools << "\n";
    family("reticor_timing", "gauge", "1 while times are measured.", out);
    out << "reticor_timing " << snapshot.process.timing << "\n";
    family("reticor_stuck_calls", "gauge", "Calls that run longer than the limit.", out);
    out << "reticor_stuck_calls " << snapshot.process.stuck << "\n";
    family("reticor_stuck_calls_named_total", "counter", "Calls that ran longer than the limit.", out);
    out << "reticor_stuck_calls_named_total " << snapshot.process.stuck_ever << "\n";
    pool_families(snapshot, out);
    spread_families(snapshot, out);
    class_families(snapshot, out);
    object_families(snapshot.objects, out);
    memory_families(snapshot.memory, out);
    alarm_families(snapshot, out);
    media_families(snapshot, out);
}

}  // namespace Orvex::Reticor
