// Look: what a process said of itself at one moment.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace top {

constexpr uint64_t UNKNOWN = UINT64_MAX;  ///< Of a figure that the process does not tell.

struct SpreadFigures {
    uint64_t count = 0;
    uint64_t sum_ns = 0;
    uint64_t p99_ns = 0;
    uint64_t max_ns = 0;
};

struct PoolRow {
    int64_t pool = 0;
    uint64_t workers = 0, busy = 0, cpu_ns = 0, queue = 0, calls = 0;
    uint64_t events = 0, messages = 0, timers = 0;  ///< Served; serial messages among the messages.
    uint64_t passes = 0, reports = 0, strays = 0, rebuilds = 0, epoll_refused = 0;
    uint64_t sockets = 0, without_place = 0, timers_armed = 0;
    uint64_t left_read = UNKNOWN;
    SpreadFigures wait, run;
};

struct WorkerRow {
    int64_t pool = 0, thread = 0;
    uint64_t calls = 0;
    std::string handler;  ///< In whose call it is; empty: in none.
    std::string call;
    std::string class_name;  ///< Empty if the process does not tell.
};

struct ClassRow {
    std::string name;
    uint64_t live = 0, opened = 0, closed = 0, calls = 0, timed = 0, time_ns = 0;
};

struct BufferRow {
    std::string buffer;
    uint64_t senders = UNKNOWN, frames = 0, bytes = 0, put_bytes = 0;
};

struct SenderRow {
    std::string name;  ///< Its id, or the client's address.
    std::string buffer, verdict, why;
    uint64_t lag_us = 0, lag_bytes = 0, blocked_us = UNKNOWN, dropped = 0;
    uint64_t stream_rate = UNKNOWN, taken_rate = 0;  ///< Bits in a second.
    bool has_left = false;
};

/// A byte-stream sender, a file, a receiver or a tick: what such a one tells differs.
struct ObjectRow {
    std::string kind;
    std::string name;                                       ///< Its id.
    std::vector<std::pair<std::string, uint64_t>> figures;  ///< By name.

    /// 0 if it has no such figure.
    uint64_t figure(const std::string& wanted) const;
};

/// Memory of one kind, and of one size or of several.
struct MemoryRow {
    std::string kind;
    uint64_t pieces = 0, bytes = 0;
};

/// What is wrong by the process's own word.
struct AlarmRow {
    std::string kind;
    int64_t pool = 0;
    bool lasts = false;
    uint64_t since_us = 0, ended_us = 0, times = 0, amount = 0;
    std::string text;
};

/// A relay's own figures.
struct RelayRow {
    std::string live;
    uint64_t frames = 0, bytes = 0;  ///< Of its input.
    uint64_t clients = 0, most_clients = UNKNOWN, hung_up = 0, refused = 0, turned_away = 0;
    bool input_ended = false;
};

struct Look {
    static constexpr uint64_t KNOWN_VERSION = 1;
    static constexpr size_t MOST_DEPTH = 32;  ///< Of objects in objects.

    bool is_relay = false;
    uint64_t version = 0;
    uint64_t taken_us = 0;
    int64_t pid = 0;  ///< Of the process, as it says itself; 0 if it does not.
    bool timing = false;
    uint64_t handlers = 0, timers_armed = 0, stuck = 0, stuck_ever = 0;
    SpreadFigures lateness;
    std::vector<PoolRow> pools;
    std::vector<WorkerRow> workers;
    std::vector<ClassRow> classes;
    std::vector<BufferRow> buffers;
    std::vector<SenderRow> senders;
    std::vector<ObjectRow> objects;
    std::vector<MemoryRow> memory;  ///< Each kind once.
    std::vector<AlarmRow> alarms;
    RelayRow relay;

    /// Reads the JSON of a statistics socket or of a relay. Figures that are missing, or are not what they
    /// should be, are 0 or UNKNOWN. `now_us` is the time of one that does not tell its own. False if `text`
    /// is neither of the two; `wrong` says why, and nothing else is changed.
    bool read(const std::string& text, uint64_t now_us, std::string& wrong);
};

/// The classes by handler's id, of the answer to "handlers".
std::vector<std::pair<std::string, std::string>> readClassesOfHandlers(const std::string& text);

}  // namespace top
