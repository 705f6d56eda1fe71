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

#include <cstddef>
#include <string>
#include <vector>

#include <Infra/Log.h>

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
    explicit LogCapture(int level = 9);
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<CapturedLine> lines() const;

    // How many lines of this level have exactly this text, the start taken off.
    std::size_t count(int level, const std::string& text) const;
    bool contains(int level, const std::string& text) const { return count(level, text) > 0; }

    // How many lines of this level match this ECMAScript expression as a whole, the start taken off. For
    // texts with pointers or other numbers that a test cannot know.
    std::size_t countMatching(int level, const std::string& expression) const;
    bool containsMatching(int level, const std::string& expression) const {
        return countMatching(level, expression) > 0;
    }

    // The same, waiting for lines of other threads.
    bool eventuallyContains(int level, const std::string& text) const;
    bool eventuallyContainsMatching(int level, const std::string& expression) const;

    std::size_t countLevel(int level) const;

    void clear();

    // All that was captured, for the message of a failed expectation.
    std::string dump() const;

private:
    int m_level_before = 0;
    const Infra::LogSink* m_sink_before = nullptr;
};

}  // namespace Orvex::Testing
