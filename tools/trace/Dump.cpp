// Dump: header, parts, and what of each thread's ring is good.
#include "trace/Dump.h"

#include <cxxabi.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace trace {

using namespace Orvex::Reticor;

namespace {

constexpr uint64_t TICKS_MASK = (uint64_t{1} << 56) - 1;

/// Bytes that are taken from the front, as long as there are enough.
class Bytes {
public:
    Bytes(const char* data, size_t size) : m_data(data), m_size(size) {}

    template <class Value>
    bool take(Value& value) {
        if (m_size < sizeof(value)) {
            return false;
        }
        std::memcpy(&value, m_data, sizeof(value));
        return skip(sizeof(value));
    }
    bool skip(size_t size) {
        if (m_size < size) {
            return false;
        }
        m_data += size;
        m_size -= size;
        return true;
    }
    Bytes first(size_t size) const { return {m_data, std::min(size, m_size)}; }
    std::string text() const { return {m_data, m_size}; }
    size_t size() const { return m_size; }

private:
    const char* m_data;
    size_t m_size;
};

/// Ticks as microseconds since the beginning.
class Clock {
public:
    explicit Clock(const DumpHeader& header) : m_begin(header.begin_ticks) {
        const double ticks = span(header.begin_ticks, header.dump_ticks);
        const double ns = span(header.begin_ns, header.dump_ns);
        m_us_each = ticks > 0 && ns > 0 ? ns / ticks / 1000 : 0.001;
    }
    /// The lower 56 bits are enough for most of a year.
    double us(uint64_t ticks) const {
        return static_cast<double>((ticks - m_begin) & TICKS_MASK) * m_us_each;
    }

private:
    static double span(uint64_t from, uint64_t to) { return to > from ? static_cast<double>(to - from) : 0; }

    uint64_t m_begin;
    double m_us_each;
};

std::string readable(const std::string& name) {
    int status = 0;
    char* const made = abi::__cxa_demangle(name.c_str(), nullptr, nullptr, &status);
    std::string text = made != nullptr ? made : name;
    std::free(made);
    return text;
}

class Reader {
public:
    Reader(const DumpHeader& header, Dump& dump) : m_clock(header), m_places(header.places), m_dump(dump) {}

    void read_part(DumpPartKind kind, Bytes bytes) {
        m_dump.whole = kind == DumpPartKind::END;
        if (kind == DumpPartKind::CLASS) {
            read_class(bytes);
        } else if (kind == DumpPartKind::THREAD) {
            read_thread(bytes);
        }
    }

    double end_us(uint64_t ticks) const { return m_clock.us(ticks); }

private:
    void read_class(Bytes bytes) {
        constexpr size_t LONGEST_NAME = 4096;  // what a demangler makes of a long one is far longer
        DumpClass row{};
        if (bytes.take(row) && row.row < 256 && bytes.size() <= LONGEST_NAME) {
            m_dump.classes[row.row] = readable(bytes.text().c_str());
        }
    }

    // Without its end a thread's part is not whole, and nobody knows what of it was overwritten.
    void read_thread(Bytes bytes) {
        DumpThread head{};
        if (!bytes.take(head)) {
            return;
        }
        const size_t size = size_t{head.count} * sizeof(TraceEvent);
        const Bytes events = bytes.first(size);
        DumpThreadEnd end{};
        const bool whole = bytes.skip(size) && bytes.take(end);
        if (!whole || head.thread_id == 0 || end.thread_id != head.thread_id || end.written < head.written ||
            head.count > m_places || head.count > head.written) {
            return;
        }
        Thread thread;
        thread.id = head.thread_id;
        thread.pool = head.pool;
        thread.live = head.live != 0;
        thread.name.assign(head.name, strnlen(head.name, sizeof(head.name)));
        read_events(events, head, end, thread);
        m_dump.threads.push_back(std::move(thread));
    }

    /// One more than was written since is lost: the one that was being written.
    void read_events(Bytes bytes, const DumpThread& head, const DumpThreadEnd& end, Thread& thread) const {
        const std::string raw = bytes.text();
        const uint64_t kept = end.written >= m_places ? end.written - m_places + 1 : 0;
        const uint64_t oldest = std::max({kept, head.first, head.written - head.count});
        if (oldest >= head.written) {
            return;
        }
        thread.events.reserve(head.written - oldest);
        for (uint64_t number = oldest; number < head.written; ++number) {
            TraceEvent event{};
            const size_t at = (number % m_places) * sizeof(event);
            if (at + sizeof(event) > raw.size()) {
                continue;
            }
            std::memcpy(&event, raw.data() + at, sizeof(event));
            thread.events.push_back({m_clock.us(event.ticks_what >> TRACE_TICKS_SHIFT),
                                     static_cast<uint8_t>(event.ticks_what & 0xFF), event.object});
        }
    }

    const Clock m_clock;
    const uint64_t m_places;
    Dump& m_dump;
};

}  // namespace

std::optional<Dump> read_dump(const std::string& bytes, std::string& why) {
    constexpr uint32_t MOST_PLACES = 1 << 24;
    Bytes rest(bytes.data(), bytes.size());
    DumpHeader header{};
    if (!rest.take(header) || std::memcmp(header.magic, DUMP_MAGIC, sizeof(DUMP_MAGIC)) != 0) {
        why = "it is not a dump of the flight recorder";
        return std::nullopt;
    }
    if (header.version != DUMP_VERSION) {
        why = "it is of version " + std::to_string(header.version) + ", and this program knows version " +
              std::to_string(DUMP_VERSION);
        return std::nullopt;
    }
    if (header.header_size < sizeof(header) || !rest.skip(header.header_size - sizeof(header)) ||
        header.places == 0 || header.places > MOST_PLACES) {
        why = "its header is damaged";
        return std::nullopt;
    }
    Dump dump;
    dump.pid = header.pid;
    dump.wall_ns = header.wall_ns;
    Reader reader(header, dump);
    dump.end_us = reader.end_us(header.dump_ticks);
    DumpPart part{};
    while (!dump.whole && rest.take(part)) {
        const Bytes content = rest.first(part.size);
        if (!rest.skip(part.size)) {
            break;
        }
        reader.read_part(part.kind, content);
    }
    return dump;
}

}  // namespace trace
