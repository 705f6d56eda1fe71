// Entries: how each is written.
#include "trace/Entries.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>

namespace trace {

namespace {

uint64_t whole_ns(double us) {
    return static_cast<uint64_t>(std::llround(std::min(std::max(us, 0.0) * 1000, 9e18)));
}

/// As microseconds; locales do not reach it.
std::string number(uint64_t ns) {
    char text[40];
    std::snprintf(text, sizeof(text), "%ju.%03u", static_cast<uintmax_t>(ns / 1000),
                  static_cast<unsigned int>(ns % 1000));
    return text;
}

}  // namespace

// What is no ASCII may be no text at all.
std::string quoted(const std::string& text) {
    std::string made = "\"";
    for (const char letter : text) {
        if (letter == '"' || letter == '\\') {
            made += '\\';
        }
        made += letter >= ' ' && letter <= '~' ? letter : '?';
    }
    return made += '"';
}

Entries::Entries(std::ostream& out, uint32_t pid) : m_out(out), m_pid(pid) {
    m_out << "{\"displayTimeUnit\":\"ns\",\"traceEvents\":[";
}

Entries::~Entries() {
    m_out << "\n]}\n";
}

void Entries::begin(char phase, uint32_t thread, const std::string& name, const char* category,
                    double at_us) {
    m_out << (m_first ? "\n" : ",\n") << "{\"ph\":\"" << phase << "\",\"pid\":" << m_pid
          << ",\"tid\":" << thread << ",\"ts\":" << number(whole_ns(at_us)) << ",\"name\":" << quoted(name)
          << ",\"cat\":\"" << category << '"';
    m_first = false;
}

void Entries::end(const Arguments& arguments) {
    if (!arguments.empty()) {
        const char* before = ",\"args\":{\"";
        for (const auto& [name, value] : arguments) {
            m_out << before << name << "\":" << value;
            before = ",\"";
        }
        m_out << '}';
    }
    m_out << '}';
}

void Entries::name_process(const std::string& name) {
    begin('M', 0, "process_name", "__metadata", 0);
    end({{"name", quoted(name)}});
}

void Entries::name_thread(uint32_t thread, const std::string& name) {
    begin('M', thread, "thread_name", "__metadata", 0);
    end({{"name", quoted(name)}});
}

void Entries::slice(uint32_t thread, const std::string& name, const char* category, double from_us,
                    double to_us, const Arguments& arguments) {
    begin('X', thread, name, category, from_us);
    // Both ends are rounded, so that what is inside of another slice stays inside.
    const uint64_t from_ns = whole_ns(from_us);
    m_out << ",\"dur\":" << number(std::max(whole_ns(to_us), from_ns) - from_ns);
    end(arguments);
}

void Entries::instant(uint32_t thread, const std::string& name, const char* category, double at_us,
                      const Arguments& arguments) {
    begin('i', thread, name, category, at_us);
    m_out << ",\"s\":\"t\"";
    end(arguments);
}

void Entries::span(uint32_t thread, const std::string& name, const char* category, uint64_t id,
                   double from_us, double to_us) {
    begin('b', thread, name, category, from_us);
    m_out << ",\"id\":\"" << id << '"';
    end({});
    begin('e', thread, name, category, to_us);
    m_out << ",\"id\":\"" << id << '"';
    end({});
}

void Entries::arrow(const char* name, uint64_t id, uint32_t from_thread, double from_us, uint32_t to_thread,
                    double to_us) {
    begin('s', from_thread, name, "flow", from_us);
    m_out << ",\"id\":\"" << id << '"';
    end({});
    begin('f', to_thread, name, "flow", to_us);
    m_out << ",\"id\":\"" << id << "\",\"bp\":\"e\"";
    end({});
}

}  // namespace trace
