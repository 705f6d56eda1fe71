// LogCapture, apart from its header for the sake of the regular expressions, which take seconds to compile.
#if defined(__GNUC__) && !defined(__clang__)
// With sanitizers gcc 12 takes the inside of std::regex for uninitialised, which it is not.
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif
#include "support/LogCapture.h"

#include <cstdio>
#include <mutex>
#include <regex>
#include <utility>

#include "support/Eventually.h"

namespace Orvex::Testing {
namespace {

struct State {
    std::mutex mutex;
    std::vector<CapturedLine> lines;
};

// Never destroyed, since threads may log while the process exits.
State& state() {
    static State* const object = new State;
    return *object;
}

template <typename Predicate>
std::size_t count_if(Predicate predicate) {
    const std::lock_guard<std::mutex> guard(state().mutex);
    std::size_t found = 0;
    for (const CapturedLine& line : state().lines) {
        found += predicate(line) ? 1 : 0;
    }
    return found;
}

std::string shown(const char* text) {
    return text != nullptr ? text : "";
}

// Length of "[file:line] this:pointer tid:number, " or "[file:line] tid:number, " at the front of the
// text; 0 if there is no such start.
std::size_t start_length(const std::string& full, const char* file, int line) {
    const std::string place = "[" + shown(file) + ":" + std::to_string(line) + "] ";
    if (full.compare(0, place.size(), place) != 0) {
        return 0;
    }
    const char* const rest = full.c_str() + place.size();
    int end = 0;
    void* pointer = nullptr;
    int thread = 0;
    if (std::sscanf(rest, "this:%p tid:%d,%n", &pointer, &thread, &end) != 2 || end == 0) {
        end = 0;
        if (std::sscanf(rest, "tid:%d,%n", &thread, &end) != 1 || end == 0) {
            return 0;
        }
    }
    return rest[end] == ' ' ? place.size() + static_cast<std::size_t>(end) + 1 : 0;
}

void write(void*, const Infra::LogLine& line) {
    CapturedLine captured;
    captured.level = line.level;
    captured.module = shown(line.module);
    captured.file = shown(line.file);
    captured.function = shown(line.function);
    captured.line = line.line;
    captured.module2 = shown(line.module2);
    captured.full = shown(line.text);
    const std::size_t start = start_length(captured.full, line.file, line.line);
    captured.start = captured.full.substr(0, start);
    captured.text = captured.full.substr(start);
    const std::lock_guard<std::mutex> guard(state().mutex);
    state().lines.push_back(std::move(captured));
}

const Infra::LogSink s_sink = {&write, nullptr};

}  // namespace

LogCapture::LogCapture(int level) {
    clear();
    m_level_before = Infra::setLogLevel(level);
    m_sink_before = Infra::setLogSink(&s_sink);
}

LogCapture::~LogCapture() {
    Infra::setLogSink(m_sink_before);
    Infra::setLogLevel(m_level_before);
}

std::vector<CapturedLine> LogCapture::lines() const {
    const std::lock_guard<std::mutex> guard(state().mutex);
    return state().lines;
}

std::size_t LogCapture::count(int level, const std::string& text) const {
    return count_if([&](const CapturedLine& line) { return line.level == level && line.text == text; });
}

std::size_t LogCapture::countMatching(int level, const std::string& expression) const {
    const std::regex pattern(expression);
    return count_if([&](const CapturedLine& line) {
        return line.level == level && std::regex_match(line.text, pattern);
    });
}

bool LogCapture::eventuallyContains(int level, const std::string& text) const {
    return eventually([&] { return contains(level, text); });
}

bool LogCapture::eventuallyContainsMatching(int level, const std::string& expression) const {
    return eventually([&] { return containsMatching(level, expression); });
}

std::size_t LogCapture::countLevel(int level) const {
    return count_if([&](const CapturedLine& line) { return line.level == level; });
}

void LogCapture::clear() {
    const std::lock_guard<std::mutex> guard(state().mutex);
    state().lines.clear();
}

std::string LogCapture::dump() const {
    std::string all;
    for (const CapturedLine& line : lines()) {
        all += std::to_string(line.level) + " " + line.full;
    }
    return all;
}

}  // namespace Orvex::Testing
