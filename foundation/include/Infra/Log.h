// logFilter and the INFRA_LOG macros: log lines of the library, and where a product can take them over.
//
// Levels: 1 before an assertion, 2 errors, 3 debug and warnings, 4 information, 6 notices of the debug
// server. A line is given to the sink if its level is not above the threshold, which is 2 at the start.
// Logging works before main, allocates nothing, and leaves errno as it was.
#pragma once

#include <atomic>

#include <Infra/Export.h>
#include <Infra/FunctionName.h>

namespace Orvex::Infra {

/// One line on its way to the sink. All pointers are good for the duration of the call only.
struct LogLine {
    int level;             ///< The lower, the graver
    const char* module;    ///< As it was handed to logFilter
    const char* file;      ///< As the source is known to products: "Src/Core/NetSock.cpp"
    const char* function;  ///< Fully qualified, for instance "Orvex::Reticor::CSock::Close"
    int line;              ///< In that file
    const char* module2;   ///< As `module`
    const char* text;      ///< As formatted; a text longer than 2047 bytes is cut, and its final newline kept
};

/// Where lines go. `write` may be called from several threads at once and under the library's locks: do not
/// call the library from it, do not block, do not log.
struct LogSink {
    void (*write)(void* context, const LogLine& line);  ///< Takes a line.
    void* context;                                      ///< Handed to `write` as it is.
};

/// Replaces the sink; null is the default sink. That one writes each text to standard error with one call,
/// and never waits for its reader: what is not taken is kept, up to 64 KiB, and written by a later line or by
/// a library thread; what is not kept is dropped and counted, and the count is written later. Of one place
/// (file and line) it takes 100 lines in a second (`setLogLimit`), and then writes how many it left out. A
/// sink of the product's own gets every line.
///
/// The object stays the caller's, and is not copied: it must stay alive and unchanged until another sink was
/// set and every thread that may be writing a line meanwhile has come back. A static object is best. Returns
/// the sink that was set before.
INFRA_API const LogSink* setLogSink(const LogSink* sink) noexcept;

/// From now on the default sink writes the time before each line, of UTC and to the microsecond:
/// "2026-11-22T12:43:38.123456Z [Src/Core/..."; not so at the start. Returns what was before. Any thread.
INFRA_API bool setLogTime(bool on) noexcept;

/// Lines of one place (file and line) that the default sink takes in a second; 100 at the start. With 1 there
/// is one line a second of each place, and the number that was left out is told when that second is over. 0
/// is no limit. Returns what was before. Any thread.
INFRA_API unsigned int setLogLimit(unsigned int lines_per_second) noexcept;

/// Sets the threshold and returns the one before. 0 or less silences all lines.
INFRA_API int setLogLevel(int level) noexcept;

/// Formats a line as printf(3) does and hands it to the sink, if the level is enabled. Returns the length of
/// the text, 0 if there was no line.
INFRA_API int logFilter(int level, const char* module, const char* file, const char* function, int line,
                        const char* module2, const char* format, ...) noexcept
    __attribute__((format(printf, 7, 8)));

namespace Detail {

INFRA_API extern std::atomic<int> g_log_level;

/// Three starts of a line; `pretty` is __PRETTY_FUNCTION__. They are called with the level enabled.
INFRA_API void logMember(int level, const char* file, const char* pretty, int line, const void* self,
                         const char* format, ...) noexcept __attribute__((format(printf, 6, 7)));
INFRA_API void logStatic(int level, const char* file, const char* pretty, int line, const char* format,
                         ...) noexcept __attribute__((format(printf, 5, 6)));
INFRA_API void logPlain(int level, const char* file, const char* pretty, int line, const char* format,
                        ...) noexcept __attribute__((format(printf, 5, 6)));

}  // namespace Detail

/// Whether lines of this level are written.
inline bool logEnabled(int level) noexcept {
    return level <= Detail::g_log_level.load(std::memory_order_relaxed);
}

}  // namespace Orvex::Infra

/// INFRA_LOG(level, "format", arguments...), inside non-static member functions: the text is
/// "[file:line] this:pointer tid:number, " and then the format. Arguments are evaluated only if the level is
/// enabled.
#define INFRA_LOG(level, ...)                                                                            \
    static_cast<void>(::Orvex::Infra::logEnabled(level) &&                                               \
                      (::Orvex::Infra::Detail::logMember(level, __FILE__, __PRETTY_FUNCTION__, __LINE__, \
                                                         this, __VA_ARGS__),                             \
                       true))

/// The same for functions without an object: "[file:line] tid:number, " and then the format.
#define INFRA_LOG_STATIC(level, ...)                                                                     \
    static_cast<void>(                                                                                   \
        ::Orvex::Infra::logEnabled(level) &&                                                             \
        (::Orvex::Infra::Detail::logStatic(level, __FILE__, __PRETTY_FUNCTION__, __LINE__, __VA_ARGS__), \
         true))

/// The format alone.
#define INFRA_LOG_PLAIN(level, ...)                                                                     \
    static_cast<void>(                                                                                  \
        ::Orvex::Infra::logEnabled(level) &&                                                            \
        (::Orvex::Infra::Detail::logPlain(level, __FILE__, __PRETTY_FUNCTION__, __LINE__, __VA_ARGS__), \
         true))

/// The fully qualified name of the enclosing function, as const char*, good to the end of the full
/// expression: for formats with "%s :".
#define INFRA_FUNCTION (::Orvex::Infra::Detail::FunctionName(__PRETTY_FUNCTION__).text())
