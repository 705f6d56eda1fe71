// ChromeTrace: events in the order of time, and what belongs together.
#include "trace/ChromeTrace.h"

#include <algorithm>
#include <optional>
#include <unordered_map>

#include "trace/Entries.h"

namespace trace {

using namespace Orvex::Reticor;

namespace {

/// In the order of Orvex::Reticor::CallKind.
constexpr const char* CALL_NAMES[] = {"",
                                      "handle_input",
                                      "handle_output",
                                      "handle_exception",
                                      "handle_input_timeout",
                                      "handle_output_timeout",
                                      "handle_timeout",
                                      "handle_message",
                                      "handle_close",
                                      "handle_stream_input",
                                      "handle_stream_write",
                                      "handle_passive_input",
                                      "file task"};
constexpr int CALL_TIMEOUT = 6;
constexpr int CALL_MESSAGE = 7;
constexpr int CALL_CLOSE = 8;
constexpr const char* RECORD_NAMES[] = {"socket", "message", "serial message", "timer"};
constexpr const char* DROP_NAMES[] = {"too old",  "stepped over", "no key frame", "channel not chosen",
                                      "filtered", "disposable",   "gone"};
constexpr double POINT_US = 0.001;  ///< Of slices that only hold the end of an arrow.

int64_t long_id(uint64_t object) {
    return static_cast<int64_t>(object | ~TRACE_HANDLER_MASK);
}

int64_t short_id(uint64_t object) {
    return static_cast<int64_t>(object << (64 - TRACE_SHORT_SHIFT)) >> (64 - TRACE_SHORT_SHIFT);
}

/// Readers of JSON round large numbers.
std::string as_id(int64_t id) {
    return '"' + std::to_string(id) + '"';
}

const char* task_name(uint64_t object) {
    switch (object >> TRACE_ADDRESS_SHIFT) {
        case 0:
            return "file: write";
        case 1:
            return "file: read";
        case 3:
            return "file: close";
        default:
            return "file: message";
    }
}

/// Whether a record of that kind is what such a call comes of.
bool leads_to(TraceRecord record, int call) {
    switch (record) {
        case TraceRecord::SOCKET:
            return call < CALL_TIMEOUT;
        case TraceRecord::TIMER:
            return call == CALL_TIMEOUT;
        default:
            return call == CALL_MESSAGE || call == CALL_CLOSE;
    }
}

class Drawing {
public:
    Drawing(const Dump& dump, std::ostream& out) : m_dump(dump), m_entries(out, dump.pid) {}

    Drawn draw() {
        name_rows();
        std::vector<Place> order;
        for (size_t row = 0; row < m_dump.threads.size(); ++row) {
            for (const Event& event : m_dump.threads[row].events) {
                order.push_back({&event, row});
            }
        }
        m_rows.resize(m_dump.threads.size());
        std::stable_sort(order.begin(), order.end(),
                         [](const Place& a, const Place& b) { return a.event->us < b.event->us; });
        for (const Place& place : order) {
            draw_event(*place.event, place.row);
        }
        end_all();
        m_drawn.events = order.size();
        return m_drawn;
    }

private:
    struct Place {
        const Event* event;
        size_t row;
    };
    /// A record in a queue, or a frame that was put.
    struct Source {
        double us;
        size_t row;
        TraceRecord record;
    };
    struct Open {
        uint64_t key;  ///< Of its end.
        int kind;      ///< 0: a task of a file.
        double us;
        std::string name;
        Arguments arguments;
    };
    struct Row {
        std::vector<Open> open;
        std::optional<Source> popped;  ///< What the next call comes of.
    };

    uint32_t thread(size_t row) const { return m_dump.threads[row].id; }

    void name_rows() {
        m_entries.name_process("reticor " + std::to_string(m_dump.pid));
        for (const Thread& one : m_dump.threads) {
            std::string name = one.pool >= 0 ? "pool " + std::to_string(one.pool) + ": " : "";
            name += one.name + (one.live ? "" : " (ended)");
            m_entries.name_thread(one.id, name);
        }
    }

    void draw_event(const Event& event, size_t row) {
        const uint8_t what = event.what;
        if (what > TRACE_ENTER && what <= TRACE_ENTER + CALL_KINDS) {
            enter(event, row, what - TRACE_ENTER);
        } else if (what > TRACE_LEAVE && what <= TRACE_LEAVE + CALL_KINDS) {
            leave(event, row, event.object & TRACE_HANDLER_MASK, what - TRACE_LEAVE);
        } else if (what >= TRACE_PUSH && what < TRACE_PUSH + static_cast<int>(TraceRecord::COUNT)) {
            push(event, row, static_cast<TraceRecord>(what - TRACE_PUSH));
        } else if (what >= TRACE_POP && what < TRACE_POP + static_cast<int>(TraceRecord::COUNT)) {
            pop(event, row, static_cast<TraceRecord>(what - TRACE_POP));
        } else {
            draw_other(event, row);
        }
    }

    void draw_other(const Event& event, size_t row) {
        switch (event.what) {
            case TRACE_READY:
                m_entries.instant(thread(row),
                                  "socket " + std::to_string(static_cast<int32_t>(event.object)) + " ready",
                                  "socket", event.us, {{"revents", std::to_string(event.object >> 32)}});
                break;
            case TRACE_DUE:
                m_entries.instant(thread(row), "timer due", "timer", event.us,
                                  {{"timer", as_id(short_id(event.object))},
                                   {"late_us", std::to_string(event.object >> TRACE_SHORT_SHIFT)}});
                break;
            case TRACE_TASK_BEGIN:
                m_rows[row].open.push_back({event.object, 0, event.us, task_name(event.object), {}});
                break;
            case TRACE_TASK_END:
                leave(event, row, event.object, 0);
                break;
            default:
                draw_media(event, row);
        }
    }

    // Calls.

    std::string call_label(uint64_t object, int kind) const {
        const auto found = m_dump.classes.find(static_cast<uint32_t>(object >> TRACE_ROW_SHIFT));
        const std::string name = found != m_dump.classes.end() ? found->second : "a handler";
        return name + " " + CALL_NAMES[kind];
    }

    void enter(const Event& event, size_t row, int kind) {
        const uint64_t key = event.object & TRACE_HANDLER_MASK;
        m_rows[row].open.push_back(
            {key, kind, event.us, call_label(event.object, kind), {{"handler", as_id(long_id(key))}}});
        if (const auto source = std::exchange(m_rows[row].popped, std::nullopt)) {
            if (leads_to(source->record, kind)) {
                arrow("queue", *source, event.us, row);
            }
        }
    }

    /// Whatever is open inside ends as well: its own end is lost. An end without a beginning is that of a
    /// call that began before the oldest event of the thread.
    void leave(const Event& event, size_t row, uint64_t key, int kind) {
        std::vector<Open>& open = m_rows[row].open;
        const auto match = std::find_if(open.rbegin(), open.rend(),
                                        [&](const Open& one) { return one.key == key && one.kind == kind; });
        if (match == open.rend()) {
            if (open.empty()) {
                const std::string name =
                    kind == 0 ? task_name(key) : std::string("a handler ") + CALL_NAMES[kind];
                open.push_back(
                    {key, kind, m_dump.threads[row].events.front().us, name, {{"begun", "\"earlier\""}}});
                close_last(row, event.us);
            }
            return;
        }
        for (auto left = match - open.rbegin() + 1; left > 0; --left) {
            close_last(row, event.us);
        }
    }

    void close_last(size_t row, double us) {
        const Open& last = m_rows[row].open.back();
        m_entries.slice(thread(row), last.name, last.kind == 0 ? "file" : "call", last.us, us,
                        last.arguments);
        m_drawn.calls += last.kind == 0 ? 0 : 1;
        m_rows[row].open.pop_back();
    }

    // Queues.

    static std::string record_label(uint64_t object, TraceRecord kind) {
        std::string name = RECORD_NAMES[static_cast<size_t>(kind)];
        return kind == TraceRecord::TIMER ? name : name + " " + std::to_string(object >> TRACE_ADDRESS_SHIFT);
    }

    void push(const Event& event, size_t row, TraceRecord kind) {
        m_queued[event.object & TRACE_ADDRESS_MASK] = {event.us, row, kind};
        if (m_rows[row].open.empty()) {
            point(event, row, "push " + record_label(event.object, kind), "queue", {});
        }
    }

    void pop(const Event& event, size_t row, TraceRecord kind) {
        m_rows[row].popped = std::nullopt;
        const auto found = m_queued.find(event.object & TRACE_ADDRESS_MASK);
        if (found == m_queued.end() || found->second.record != kind) {
            return;
        }
        m_entries.span(thread(row), "wait of " + record_label(event.object, kind), "queue", ++m_spans,
                       found->second.us, event.us);
        ++m_drawn.waits;
        m_rows[row].popped = found->second;
        m_queued.erase(found);
    }

    // Media.

    void draw_media(const Event& event, size_t row) {
        constexpr uint64_t NUMBER_MASK = (uint64_t{1} << 24) - 1;
        switch (event.what) {
            case TRACE_FRAME_PUT: {
                const uint64_t number = event.object & TRACE_ADDRESS_MASK;
                const uint64_t rest = event.object >> TRACE_ADDRESS_SHIFT;
                m_frames[number & NUMBER_MASK] = {event.us, row, TraceRecord::COUNT};
                point(event, row, (rest & 1) != 0 ? "key frame put" : "frame put", "media",
                      {{"frame", std::to_string(number)}, {"channel", std::to_string(rest >> 1)}});
                break;
            }
            case TRACE_FRAME_SENT: {
                const uint64_t number = event.object >> TRACE_SHORT_SHIFT;
                point(event, row, "frame sent", "media",
                      {{"sender", as_id(short_id(event.object))}, {"frame", std::to_string(number)}});
                const auto put = m_frames.find(number);
                if (number != 0 && put != m_frames.end()) {
                    arrow("frame", put->second, event.us, row);
                }
                break;
            }
            case TRACE_FRAME_DROPPED:
                drop(event, row);
                break;
            case TRACE_BLOCKED:
                m_blocked[event.object & TRACE_HANDLER_MASK] = {event.us, row, TraceRecord::COUNT};
                break;
            case TRACE_FREE:
                unblock(event.object & TRACE_HANDLER_MASK, event.us);
                break;
            default:
                break;  // of a later version, or torn
        }
    }

    void drop(const Event& event, size_t row) {
        const auto cause = static_cast<uint8_t>(event.object >> TRACE_SHORT_SHIFT);
        const char* const name = cause < static_cast<uint8_t>(TraceDrop::COUNT) ? DROP_NAMES[cause] : "?";
        m_entries.instant(thread(row), std::string("frame dropped: ") + name, "media", event.us,
                          {{"sender", as_id(short_id(event.object))},
                           {"channel", std::to_string(event.object >> TRACE_ADDRESS_SHIFT)}});
    }

    void unblock(uint64_t sender, double us) {
        const auto found = m_blocked.find(sender);
        if (found != m_blocked.end()) {
            m_entries.span(thread(found->second.row),
                           "sender " + std::to_string(long_id(sender)) + " blocked", "media", ++m_spans,
                           found->second.us, us);
            m_blocked.erase(found);
        }
    }

    // Others.

    void point(const Event& event, size_t row, const std::string& name, const char* category,
               const Arguments& arguments) {
        m_entries.slice(thread(row), name, category, event.us, event.us + POINT_US, arguments);
    }

    void arrow(const char* name, const Source& from, double us, size_t row) {
        m_entries.arrow(name, ++m_drawn.arrows, thread(from.row), from.us, thread(row), us);
    }

    /// What still runs, and what is still blocked, does so until the dump, or for no time if it began while
    /// the dump was written.
    void end_all() {
        for (size_t row = 0; row < m_rows.size(); ++row) {
            while (!m_rows[row].open.empty()) {
                m_rows[row].open.back().arguments.emplace_back("ended", "false");
                close_last(row, std::max(m_dump.end_us, m_dump.threads[row].events.back().us));
            }
        }
        while (!m_blocked.empty()) {
            const auto& [sender, since] = *m_blocked.begin();
            unblock(sender, std::max(m_dump.end_us, since.us));
        }
    }

    const Dump& m_dump;
    Entries m_entries;
    Drawn m_drawn;
    std::vector<Row> m_rows;
    std::unordered_map<uint64_t, Source> m_queued;   ///< By the record's address.
    std::unordered_map<uint64_t, Source> m_frames;   ///< By the lower 24 bits of the number.
    std::unordered_map<uint64_t, Source> m_blocked;  ///< By the sender.
    uint64_t m_spans = 0;
};

}  // namespace

Drawn write_chrome_trace(const Dump& dump, std::ostream& out) {
    return Drawing(dump, out).draw();
}

}  // namespace trace
