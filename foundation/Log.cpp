// Log lines: formatting, the threshold, and the way to the sink.
#include <Infra/HeldLocks.h>
#include <Infra/Log.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "DefaultSink.h"
#include "ThreadId.h"

namespace Orvex::Infra {

namespace Detail {

namespace {

constexpr int DEFAULT_LEVEL = 2;

}  // namespace

INFRA_CONSTINIT std::atomic<int> g_log_level{DEFAULT_LEVEL};

}  // namespace Detail

namespace {

INFRA_CONSTINIT std::atomic<const LogSink*> g_sink{nullptr};

constexpr const char* UNKNOWN_MODULE = "Unknown";

// The text of one line, built on the stack. One byte is kept back for the newline that the default sink may
// add.
class LineText {
public:
    LineText() noexcept { m_text[0] = '\0'; }

    void append(const char* format, std::va_list arguments) noexcept __attribute__((format(printf, 2, 0))) {
        const size_t room = LIMIT - m_length;
        const int wanted = std::vsnprintf(m_text + m_length, room, format, arguments);
        if (wanted < 0) {
            m_text[m_length] = '\0';  // It may have written something, with or without an end.
            return;
        }
        if (static_cast<size_t>(wanted) < room) {
            m_length += static_cast<size_t>(wanted);
            return;
        }
        m_length = LIMIT - 1;
        if (format[0] != '\0' && format[std::strlen(format) - 1] == '\n') {
            m_text[m_length - 1] = '\n';
        }
    }

    void append(const char* format, ...) noexcept __attribute__((format(printf, 2, 3))) {
        std::va_list arguments;
        va_start(arguments, format);
        append(format, arguments);
        va_end(arguments);
    }

    const char* text() const noexcept { return m_text; }
    int length() const noexcept { return static_cast<int>(m_length); }

    // Whole lines, so that those of several threads do not mix.
    void end_line() noexcept {
        if (m_length == 0 || m_text[m_length - 1] != '\n') {
            m_text[m_length++] = '\n';
        }
    }

private:
    static constexpr size_t SIZE = 2049;
    static constexpr size_t LIMIT = SIZE - 1;
    char m_text[SIZE];
    size_t m_length = 0;
};

struct Place {
    const char* module;
    const char* file;
    const char* function;
    int line;
    const char* module2;
};

int deliver(int level, const Place& place, LineText& text) noexcept {
    const int length = text.length();
    const LogSink* const sink = g_sink.load(std::memory_order_acquire);
    if (sink == nullptr || sink->write == nullptr) {
        text.end_line();
        Detail::g_default_sink.write(place.file, place.line, text.text(), static_cast<size_t>(text.length()));
        return length;
    }
    const LogLine line{level,      place.module,  place.file, place.function,
                       place.line, place.module2, text.text()};
    INFRA_PROMISE(LOG_SINK);
    sink->write(sink->context, line);
    return length;
}

void deliver(int level, const char* file, const char* pretty, int line, LineText& text) noexcept {
    const Detail::FunctionName function(pretty);
    deliver(level, Place{UNKNOWN_MODULE, file, function.text(), line, UNKNOWN_MODULE}, text);
}

// Everything between a failing call and the caller's look at errno may be a log line.
class ErrnoKept {
public:
    ErrnoKept() noexcept : m_errno(errno) {}
    ~ErrnoKept() { errno = m_errno; }
    ErrnoKept(const ErrnoKept&) = delete;
    ErrnoKept& operator=(const ErrnoKept&) = delete;

private:
    const int m_errno;
};

}  // namespace

const LogSink* setLogSink(const LogSink* sink) noexcept {
    return g_sink.exchange(sink, std::memory_order_acq_rel);
}

bool setLogTime(bool on) noexcept {
    return Detail::g_default_sink.set_time(on);
}

unsigned int setLogLimit(unsigned int lines_per_second) noexcept {
    return Detail::g_default_sink.set_limit(lines_per_second);
}

int setLogLevel(int level) noexcept {
    return Detail::g_log_level.exchange(level, std::memory_order_relaxed);
}

int logFilter(int level, const char* module, const char* file, const char* function, int line,
              const char* module2, const char* format, ...) noexcept {
    if (!logEnabled(level)) {
        return 0;
    }
    const ErrnoKept kept;
    LineText text;
    std::va_list arguments;
    va_start(arguments, format);
    text.append(format, arguments);
    va_end(arguments);
    return deliver(level, Place{module, file, function, line, module2}, text);
}

namespace Detail {

void logMember(int level, const char* file, const char* pretty, int line, const void* self,
               const char* format, ...) noexcept {
    const ErrnoKept kept;
    LineText text;
    text.append("[%s:%d] this:%p tid:%d, ", file, line, self, Detail::thread_id());
    std::va_list arguments;
    va_start(arguments, format);
    text.append(format, arguments);
    va_end(arguments);
    deliver(level, file, pretty, line, text);
}

void logStatic(int level, const char* file, const char* pretty, int line, const char* format, ...) noexcept {
    const ErrnoKept kept;
    LineText text;
    text.append("[%s:%d] tid:%d, ", file, line, Detail::thread_id());
    std::va_list arguments;
    va_start(arguments, format);
    text.append(format, arguments);
    va_end(arguments);
    deliver(level, file, pretty, line, text);
}

void logPlain(int level, const char* file, const char* pretty, int line, const char* format, ...) noexcept {
    const ErrnoKept kept;
    LineText text;
    std::va_list arguments;
    va_start(arguments, format);
    text.append(format, arguments);
    va_end(arguments);
    deliver(level, file, pretty, line, text);
}

}  // namespace Detail

}  // namespace Orvex::Infra
