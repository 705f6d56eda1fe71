// View: what goes where, and what stands out.
#include "top/View.h"

#include <algorithm>
#include <cstdio>
#include <functional>
#include <numeric>
#include <utility>

#include "top/Text.h"

namespace top {

namespace {

constexpr const char* HELP[] = {
    "q          quit",
    "s          sort by the next of: load, total, size, name",
    "r          the other way round",
    "/          filter: only rows that contain what you type; Enter, Esc clears it",
    "space      hold: the process is not asked until the next one",
    "t          have times of handlers measured, or not any more",
    "1 2 3 4 5  only pools, handlers, senders, buffers, others;  0  all",
    "up, down   scroll the one part; also page up, page down, home",
    "? or h     this help; any key leaves it",
    "",
    "cpu        of the workers' time; a call that only waits uses none, and is busy",
    "busy       workers in calls; of a class: of the last 10 s, how much it ran (t)",
    "each       how long a call of that class took, on average of 10 s (t)",
    "left       sockets that the pool can still watch",
    "lag, owed  by how much a client is late, what the kernel holds included",
};

std::string plural(uint64_t count, const char* word) {
    return number(static_cast<double>(count)) + " " + word + (count == 1 ? "" : "s");
}

std::string big(uint64_t count) {
    return count == UNKNOWN ? "-" : number(static_cast<double>(count));
}

std::string bits(uint64_t rate) {
    return rate == UNKNOWN ? "-" : number_of(static_cast<double>(rate), "b/s");
}

std::string in_bytes(uint64_t count) {
    return count == UNKNOWN ? "-" : number_of(static_cast<double>(count), "B");
}

std::string in_time(uint64_t us) {
    return us == UNKNOWN ? "-" : duration(static_cast<double>(us));
}

bool ends_with(const std::string& text, const std::string& end) {
    return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

/// "waiting 4.1 kB  refused puts 2": each in the unit that its name ends with.
std::string figures_of(const ObjectRow& row) {
    std::string all;
    for (const auto& [name, value] : row.figures) {
        const bool is_size = ends_with(name, "_bytes");
        const bool is_time = ends_with(name, "_us");
        std::string title = name.substr(0, name.size() - (is_size ? 6 : is_time ? 3 : 0));
        std::replace(title.begin(), title.end(), '_', ' ');
        all += (all.empty() ? "" : "  ") + title + " ";
        all += is_size ? in_bytes(value) : is_time ? in_time(value) : big(value);
    }
    return all;
}

std::string tail_of(const SpreadFigures& spread) {
    return spread.count == 0 ? "-" : duration(static_cast<double>(spread.p99_ns) / 1e3);
}

Line cut(Line line, size_t width) {
    size_t left = width;
    for (Span& span : line) {
        span.text = fit(span.text, left);
        left -= columns(span.text);
    }
    return line;
}

Style style_of(const SenderRow& row) {
    if (row.has_left || row.verdict == "unknown" || row.verdict == "waiting") {
        return Style::DIM;
    }
    if (row.verdict == "stalled" || row.verdict == "silent") {
        return Style::BAD;
    }
    return row.verdict == "keeps_up" || row.verdict.empty() ? Style::NORMAL : Style::WARN;
}

/// Sorts by what `order` wants; names upwards, figures downwards.
template <class Row>
void sort_rows(std::vector<Row>& rows, const Settings& settings,
               const std::function<double(const Row&, Order)>& figure) {
    std::stable_sort(rows.begin(), rows.end(), [&](const Row& a, const Row& b) {
        return settings.order == Order::NAME ? a.name < b.name
                                             : figure(a, settings.order) > figure(b, settings.order);
    });
    if (settings.reverse) {
        std::reverse(rows.begin(), rows.end());
    }
}

/// Lines for each part: none gets more than it wants, and what one leaves others get.
std::vector<size_t> share_out(const std::vector<size_t>& wanted, size_t lines) {
    std::vector<size_t> given(wanted.size(), 0);
    for (bool moved = true; moved && lines > 0;) {
        moved = false;
        for (size_t i = 0; i < wanted.size() && lines > 0; ++i) {
            if (given[i] < wanted[i]) {
                ++given[i];
                --lines;
                moved = true;
            }
        }
    }
    return given;
}

}  // namespace

View::View(const Model& model, const Settings& settings, const Contact& contact)
    : m_model(model),
      m_settings(settings),
      m_contact(contact),
      m_alarms(model.alarms()),
      m_tables(tables()) {}

bool View::is_wanted(const std::string& text) const {
    return contains(text, m_settings.filter);
}

Table View::pools() const {
    Table table({{"pool", 4, true, 0},
                 {"busy", 7, true, 0},
                 {"cpu 1s", 6, true, 0},
                 {"10s", 5, true, 2},
                 {"60s", 5, true, 3},
                 {"calls/s 1s", 10, true, 1},
                 {"10s", 5, true, 2},
                 {"60s", 5, true, 3},
                 {"queue", 5, true, 0},
                 {"socks", 5, true, 4},
                 {"left", 5, true, 4},
                 {"timers", 6, true, 5},
                 {"events/s", 8, true, 8},
                 {"messages/s", 10, true, 8},
                 {"timers/s", 8, true, 8},
                 {"wait p99", 8, true, 6},
                 {"run p99", 7, true, 7}},
                0);
    for (const PoolRow& row : m_model.now().pools) {
        PoolRate rates[3];
        std::string cpu[3];
        std::string calls[3];
        bool known = false;
        for (size_t i = 0; i < 3; ++i) {
            known = m_model.rateOfPool(row.pool, Model::WINDOWS_s[i], rates[i]);
            cpu[i] = known ? percent(rates[i].utilisation) : "-";
            calls[i] = known ? number(rates[i].calls) : "-";
        }
        const bool all_busy = row.workers > 0 && row.busy >= row.workers;
        const Style busy = !all_busy ? Style::NORMAL : row.queue > 0 ? Style::BAD : Style::WARN;
        table.add({std::to_string(row.pool), std::to_string(row.busy) + "/" + std::to_string(row.workers),
                   cpu[0], cpu[1], cpu[2], calls[0], calls[1], calls[2], big(row.queue), big(row.sockets),
                   big(row.left_read), big(row.timers_armed), number(rates[0].events),
                   number(rates[0].messages), number(rates[0].timers), tail_of(row.wait), tail_of(row.run)},
                  Style::NORMAL,
                  {{1, busy},
                   {2, rates[0].utilisation >= 0.9 ? Style::WARN : Style::NORMAL},
                   {8, all_busy && row.queue > 0 ? Style::BAD : Style::NORMAL},
                   {10, row.left_read == 0 ? Style::BAD : Style::NORMAL}});
    }
    return table;
}

Table View::classes() const {
    Table table({{"handlers", 0, false, 0},
                 {"live", 6, true, 1},
                 {"calls/s 1s", 10, true, 0},
                 {"10s", 5, true, 2},
                 {"calls", 6, true, 3},
                 {"busy", 6, true, 0},
                 {"each", 7, true, 2},
                 {"opened", 6, true, 4},
                 {"closed", 6, true, 4}},
                16);
    std::vector<ClassRow> rows;
    for (const ClassRow& row : m_model.now().classes) {
        if (is_wanted(row.name)) {
            rows.push_back(row);
        }
    }
    std::map<std::string, ClassRate> rates;
    bool timed = false;
    for (const ClassRow& row : rows) {
        rates[row.name] = m_model.recentRateOfClass(row.name, Model::WINDOWS_s[1]);
        timed = timed || rates[row.name].busy > 0;
    }
    sort_rows<ClassRow>(rows, m_settings, [&](const ClassRow& row, Order order) {
        const ClassRate& rate = rates[row.name];
        return order == Order::LOAD    ? (timed ? rate.busy : rate.calls)
               : order == Order::TOTAL ? static_cast<double>(row.calls)
                                       : static_cast<double>(row.live);
    });
    for (const ClassRow& row : rows) {
        const ClassRate& rate = rates[row.name];
        ClassRate newest;
        m_model.rateOfClass(row.name, Model::WINDOWS_s[0], newest);
        table.add({row.name, big(row.live), number(newest.calls), number(rate.calls), big(row.calls),
                   rate.each_us > 0 ? percent(rate.busy) : "-",
                   rate.each_us > 0 ? duration(rate.each_us) : "-", big(row.opened), big(row.closed)},
                  rate.calls > 0 ? Style::NORMAL : Style::DIM,
                  {{5, rate.busy >= 0.9 ? Style::WARN : Style::NORMAL}});
    }
    return table;
}

Table View::senders() const {
    Table table({{m_model.now().is_relay ? "client" : "sender", 21, false, 0},
                 {"lag", 7, true, 0},
                 {"owed", 7, true, 4},
                 {"takes", 9, true, 2},
                 {"of", 9, true, 5},
                 {"blocked", 7, true, 6},
                 {"dropped", 7, true, 3},
                 {"buffer", 6, true, 7},
                 {"why", 0, false, 0}},
                64);  // most sentences
    std::vector<SenderRow> rows;
    for (const SenderRow& row : m_model.now().senders) {
        if (is_wanted(row.name + " " + row.verdict + " " + row.why)) {
            rows.push_back(row);
        }
    }
    const auto left =
        std::stable_partition(rows.begin(), rows.end(), [](const auto& row) { return !row.has_left; });
    const std::vector<SenderRow> ended(left, rows.end());
    rows.erase(left, rows.end());
    sort_rows<SenderRow>(rows, m_settings, [](const SenderRow& row, Order order) {
        return static_cast<double>(order == Order::LOAD    ? row.lag_us
                                   : order == Order::TOTAL ? row.dropped
                                                           : row.lag_bytes);
    });
    for (const SenderRow& row : rows) {
        const Style style = style_of(row);
        table.add({row.name, in_time(row.lag_us), in_bytes(row.lag_bytes), bits(row.taken_rate),
                   bits(row.stream_rate), in_time(row.blocked_us), big(row.dropped), row.buffer, row.why},
                  Style::NORMAL, {{0, style}, {1, style}, {8, style}});
    }
    for (const SenderRow& row : ended) {
        table.add({row.name, "left", "", "", "", "", "", "", row.why}, Style::DIM);
    }
    return table;
}

Table View::buffers() const {
    Table table({{"media buffer", 12, false, 0},
                 {"senders", 7, true, 1},
                 {"frames", 6, true, 0},
                 {"held", 7, true, 0},
                 {"put in 1 s", 10, true, 2},
                 {"in 10 s", 9, true, 3}},
                0);
    for (const BufferRow& row : m_model.now().buffers) {
        double one = 0;
        double ten = 0;
        const bool has_one = row.put_bytes > 0 && m_model.rateOfBuffer(row.buffer, Model::WINDOWS_s[0], one);
        const bool has_ten = row.put_bytes > 0 && m_model.rateOfBuffer(row.buffer, Model::WINDOWS_s[1], ten);
        table.add({row.buffer, big(row.senders), big(row.frames), in_bytes(row.bytes),
                   has_one ? number_of(one, "B/s") : "-", has_ten ? number_of(ten, "B/s") : "-"});
    }
    return table;
}

// What waits is the load of an object, and what it has done its total.
Table View::objects() const {
    Table table({{"object", 14, false, 0}, {"id", 10, false, 0}, {"figures", 0, false, 1}}, 0);
    std::vector<ObjectRow> rows;
    for (const ObjectRow& row : m_model.now().objects) {
        if (is_wanted(row.kind + " " + row.name)) {
            rows.push_back(row);
        }
    }
    sort_rows<ObjectRow>(rows, m_settings, [](const ObjectRow& row, Order order) {
        return static_cast<double>(order == Order::TOTAL
                                       ? row.figure("sent_bytes") + row.figure("written_bytes") +
                                             row.figure("read_bytes")
                                       : row.figure("waiting_bytes"));
    });
    for (const ObjectRow& row : rows) {
        const bool suffers = row.figure("device_errors") != 0 || row.figure("refused_puts") != 0;
        table.add({row.kind, row.name, figures_of(row)}, Style::NORMAL,
                  {{2, suffers ? Style::WARN : Style::NORMAL}});
    }
    return table;
}

std::vector<Table> View::tables() const {
    return {pools(), classes(), senders(), buffers(), objects()};
}

size_t View::rows() const {
    return m_settings.part == 0 ? 0 : m_tables[m_settings.part - 1].size();
}

Line View::head(size_t width) const {
    const std::string left = "reticor-top  " + clean(m_contact.target) + "  " + clean(m_contact.process);
    const std::string right = m_settings.held ? " HELD " : "";
    if (width == 0) {
        return {{Style::HEAD, left}};
    }
    const size_t room = width - std::min(width, right.size());
    return {{Style::HEAD, pad(left, room, false)}, {Style::WARN, fit(right, width - room)}};
}

/// What is wrong with the connection, or the process in a line.
Line View::second(size_t width) const {
    if (m_contact.trouble.empty()) {
        return summary(width);
    }
    const std::string since = m_contact.silent_s >= 1 ? " for " + duration(m_contact.silent_s * 1e6) : "";
    const std::string what = m_model.isEmpty() ? "NO ANSWER" : "GONE";
    return cut({{Style::BAD, what + since + ": " + clean(m_contact.trouble) + "; trying again"}}, width);
}

Line View::summary(size_t width) const {
    const Look& now = m_model.now();
    std::string text;
    if (m_model.isEmpty()) {
        return {};
    }
    if (now.is_relay) {
        double frames = 0;
        double bytes = 0;
        text = "relay of " + clean(now.relay.live);
        if (m_model.rateOfInput(Model::WINDOWS_s[1], frames, bytes) ||
            m_model.rateOfInput(Model::WINDOWS_s[0], frames, bytes)) {
            text += ", " + number(frames) + " frames/s, " + number_of(bytes * 8, "b/s");
        }
        text += ", " + plural(now.relay.clients, "client");
        text += now.relay.most_clients != UNKNOWN ? " of " + big(now.relay.most_clients) : "";
        text += ", " + big(now.relay.hung_up) + " hung up on";
    } else {
        double late_us = 0;
        text = plural(now.handlers, "handler") + ", " + plural(now.timers_armed, "timer") + " armed";
        text += m_model.lateness(late_us) ? ", late by " + duration(late_us) : "";
        text += now.stuck_ever > 0 ? ", stuck calls " + big(now.stuck) + " (" + big(now.stuck_ever) + " ever)"
                                   : "";
        text += now.timing ? ", times on" : ", times off";
    }
    return cut({{Style::NORMAL, text}}, width == 0 ? 1000 : width);
}

/// Pieces and bytes by what they are, the last word of their kinds. Empty if the process does not tell.
Line View::memory(size_t width) const {
    std::vector<MemoryRow> sums;
    for (const MemoryRow& row : m_model.now().memory) {
        const std::string what = clean(row.kind.substr(row.kind.rfind('_') + 1));
        if (sums.empty() || sums.back().kind != what) {
            sums.push_back({what, 0, 0});
        }
        sums.back().pieces += row.pieces;
        sums.back().bytes += row.bytes;
    }
    std::string text;
    for (const MemoryRow& sum : sums) {
        text += (text.empty() ? "memory: " : ", ") + big(sum.pieces) + " " + sum.kind + " of " +
                in_bytes(sum.bytes);
    }
    return text.empty() ? Line{} : cut({{Style::NORMAL, text}}, width == 0 ? 1000 : width);
}

std::vector<Line> View::alarm_lines(size_t width, size_t most) const {
    std::vector<Line> lines;
    for (const Alarm& alarm : m_alarms) {
        if (lines.size() + 1 == most && m_alarms.size() > most) {
            lines.push_back(
                {{Style::BAD, "and " + std::to_string(m_alarms.size() - lines.size()) + " more alarms"}});
            break;
        }
        if (lines.size() == most) {
            break;
        }
        lines.push_back(cut({{alarm.is_bad ? Style::BAD : Style::WARN, "! " + clean(alarm.text)}},
                            width == 0 ? 1000 : width));
    }
    return lines;
}

Line View::keys(size_t width) const {
    if (m_settings.typing) {
        return cut({{Style::TITLE, "filter: " + clean(m_settings.filter) + "_"}}, width);
    }
    if (!m_settings.notice.empty()) {
        return cut({{Style::WARN, clean(m_settings.notice)}}, width);
    }
    std::string text = "q quit  s sort: " + std::string(name_of(m_settings.order));
    text += m_settings.reverse ? " (r)" : "";
    text += m_settings.filter.empty() ? "  / filter" : "  / filter: " + clean(m_settings.filter);
    text += "  space hold  t times  0-5 parts  ? help";
    return cut({{Style::DIM, text}}, width);
}

std::vector<Line> View::help(size_t width, size_t height) const {
    std::vector<Line> lines{cut({{Style::HEAD, pad("reticor-top: keys", width, false)}}, width)};
    for (const char* line : HELP) {
        if (lines.size() < height) {
            lines.push_back(cut({{Style::NORMAL, line}}, width));
        }
    }
    lines.resize(height);
    return lines;
}

/// The parts that have something to say, each below the other, in what is left of the height.
void View::add_body(std::vector<Line>& lines, size_t width, size_t height) const {
    if (m_settings.part != 0) {
        const auto part = m_tables[m_settings.part - 1].lines(width, m_settings.first, height);
        lines.insert(lines.end(), part.begin(), part.end());
        return;
    }
    std::vector<size_t> wanted;
    size_t parts = 0;
    for (const Table& table : m_tables) {
        wanted.push_back(table.size() == 0 ? 0 : table.size() + 1);
        parts += table.size() == 0 ? 0 : 1;
    }
    // A blank line between two where there is plenty.
    const bool airy = std::accumulate(wanted.begin(), wanted.end(), parts) <= height;
    const std::vector<size_t> given = share_out(wanted, height);
    for (size_t i = 0; i < m_tables.size(); ++i) {
        // A title alone says nothing.
        if (given[i] >= 2) {
            const auto part = m_tables[i].lines(width, 0, given[i]);
            lines.insert(lines.end(), airy && lines.size() > 1 ? 1 : 0, Line{});
            lines.insert(lines.end(), part.begin(), part.end());
        }
    }
}

std::vector<Line> View::screen(size_t width, size_t height) const {
    if (m_settings.help) {
        return help(width, height);
    }
    std::vector<Line> lines{head(width), second(width)};
    if (const Line held = memory(width); !held.empty()) {
        lines.push_back(held);
    }
    const auto alarms = alarm_lines(width, std::max<size_t>(1, height / 5));
    lines.insert(lines.end(), alarms.begin(), alarms.end());
    lines.resize(std::min(lines.size(), height));
    if (height > lines.size() + 1) {
        add_body(lines, width, height - lines.size() - 1);
    }
    lines.resize(height);
    if (height > 1) {
        lines.back() = keys(width);
    }
    return lines;
}

std::vector<Line> View::text(size_t width) const {
    std::vector<Line> lines{head(width), summary(width)};
    if (const Line held = memory(width); !held.empty()) {
        lines.push_back(held);
    }
    const auto alarms = alarm_lines(width, m_alarms.size());
    lines.insert(lines.end(), alarms.begin(), alarms.end());
    for (const Table& table : m_tables) {
        if (table.size() > 0) {
            const auto part = table.lines(width, 0, table.size() + 1);
            lines.emplace_back();
            lines.insert(lines.end(), part.begin(), part.end());
        }
    }
    return lines;
}

}  // namespace top
