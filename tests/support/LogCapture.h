// LogCapture: takes the library's log lines while it lives, and lets a test look for them to the letter.
//
//     LogCapture log;          // captures every level up to 9; LogCapture log(2) only errors
//     ...
//     EXPECT_TRUE(log.contains(2, "text after the start of the line\n"));
//
// Lines are kept with their "[file:line] this:pointer tid:number, " start taken off into fields of its own.
// One capture at a time. Threads may go on logging while a capture is made or ends: the sink itself is never
// destroyed.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <regex>
#include <string>
#include <vector>

#include <Infra/Log.h>
#include "support/Eventually.h"

namespace Orvex::Testing {

struct CapturedLine {
    int level = 0;
    std::string module;
    std::string file;
    std::string function;
    int line = 0;
    std::string module2;
    std::string full;   // the text as the sink got it
    std::string start;  // "[Src/Core/Event.cpp:71] this:0x7f.. tid:12, ", or "[..] tid:12, ", or empty
    std::string text;   // what follows the start
};

class LogCapture {
public:
    explicit LogCapture(int level = 9) {
        {
            const std::lock_guard<std::mutex> guard(state().mutex);
            state().lines.clear();
        }
        m_level_before = Infra::setLogLevel(level);
        m_sink_before = Infra::setLogSink(&sink());
    }
    ~LogCapture() {
        Infra::setLogSink(m_sink_before);
        Infra::setLogLevel(m_level_before);
    }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<CapturedLine> lines() const {
        const std::lock_guard<std::mutex> guard(state().mutex);
        return state().lines;
    }

    // How many lines of this level have exactly this text, the start taken off.
    std::size_t count(int level, const std::string& text) const {
        return count_if([&](const CapturedLine& line) { return line.level == level && line.text == text; });
    }
    bool contains(int level, const std::string& text) const { return count(level, text) > 0; }

    // How many lines of this level match this ECMAScript expression as a whole, the start taken off. For
    // texts with pointers or other numbers that a test cannot know.
    std::size_t countMatching(int level, const std::string& expression) const {
        const std::regex pattern(expression);
        return count_if([&](const CapturedLine& line) {
            return line.level == level && std::regex_match(line.text, pattern);
        });
    }
    bool containsMatching(int level, const std::string& expression) const {
        return countMatching(level, expression) > 0;
    }

    // The same, waiting for lines of other threads.
    bool eventuallyContains(int level, const std::string& text) const {
        return eventually([&] { return contains(level, text); });
    }
    bool eventuallyContainsMatching(int level, const std::string& expression) const {
        return eventually([&] { return containsMatching(level, expression); });
    }

    std::size_t countLevel(int level) const {
        return count_if([&](const CapturedLine& line) { return line.level == level; });
    }

    void clear() {
        const std::lock_guard<std::mutex> guard(state().mutex);
        state().lines.clear();
    }

    // All that was captured, for the message of a failed expectation.
    std::string dump() const {
        std::string all;
        for (const CapturedLine& line : lines()) {
            all += std::to_string(line.level) + " " + line.full;
        }
        return all;
    }

private:
    struct State {
        std::mutex mutex;
        std::vector<CapturedLine> lines;
    };

    // Never destroyed, since threads may log while the process exits.
    static State& state() {
        static State* const object = new State;
        return *object;
    }

    static const Infra::LogSink& sink() {
        static const Infra::LogSink object = {&LogCapture::write, nullptr};
        return object;
    }

    template <typename Predicate>
    std::size_t count_if(Predicate predicate) const {
        const std::lock_guard<std::mutex> guard(state().mutex);
        std::size_t found = 0;
        for (const CapturedLine& line : state().lines) {
            found += predicate(line) ? 1 : 0;
        }
        return found;
    }

    static std::string shown(const char* text) { return text != nullptr ? text : ""; }

    // Length of "[file:line] this:pointer tid:number, " or "[file:line] tid:number, " at the front of the
    // text; 0 if there is no such start.
    static std::size_t start_length(const std::string& full, const char* file, int line) {
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

    static void write(void*, const Infra::LogLine& line) {
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

    int m_level_before = 0;
    const Infra::LogSink* m_sink_before = nullptr;
};

}  // namespace Orvex::Testing
