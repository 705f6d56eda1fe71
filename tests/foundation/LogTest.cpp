// Log lines: levels, starts, sinks, and errno left alone.
#include <Infra/Log.h>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <string>
#include <thread>
#include <vector>

#include <Infra/Thread.h>

#include "support/Eventually.h"
#include "support/LogCapture.h"

namespace Orvex::Infra {
namespace {

using namespace Testing;

std::string g_text_before_main;
void keepFirstText(void*, const LogLine& line) {
    g_text_before_main = line.text;
}
const LogSink g_first_sink = {&keepFirstText, nullptr};
const bool g_logged_before_main = [] {
    setLogSink(&g_first_sink);
    INFRA_LOG_PLAIN(2, "before main\n");
    setLogSink(nullptr);
    return true;
}();

int evaluated(int* count) {
    return ++*count;
}

struct Speaker {
    int line = 0;
    void say(int level, const char* what) {
        line = __LINE__ + 1;
        INFRA_LOG(level, "%s : says %s %d\n", INFRA_FUNCTION, what, 5);
    }
    static int sayStatic(int level) {
        INFRA_LOG_STATIC(level, "%s : static\n", INFRA_FUNCTION);
        return __LINE__ - 1;
    }
    static int sayPlain(int level) {
        INFRA_LOG_PLAIN(level, "plain %d %s\n", 1, "two");
        return __LINE__ - 1;
    }
    void sayBare() const { INFRA_LOG(2, "no arguments\n"); }
};

std::string pointerText(const void* pointer) {
    char text[40];
    std::snprintf(text, sizeof(text), "%p", pointer);
    return text;
}

// Lets standard error be a packet pipe, whose every read gives what one write has put in.
class StandardErrorPackets {
public:
    StandardErrorPackets() : m_before(::dup(STDERR_FILENO)) {
        EXPECT_EQ(0, ::pipe2(m_pipe, O_DIRECT | O_NONBLOCK | O_CLOEXEC));
        ::dup2(m_pipe[1], STDERR_FILENO);
    }
    ~StandardErrorPackets() {
        ::dup2(m_before, STDERR_FILENO);
        for (const int fd : {m_before, m_pipe[0], m_pipe[1]}) {
            ::close(fd);
        }
    }
    std::string next() {
        char buffer[4096];
        const ssize_t size = ::read(m_pipe[0], buffer, sizeof(buffer));
        return size < 0 ? "nothing" : std::string(buffer, static_cast<std::size_t>(size));
    }

private:
    int m_before;
    int m_pipe[2] = {-1, -1};
};

TEST(Log, WorksBeforeMain) {
    EXPECT_TRUE(g_logged_before_main);
    EXPECT_EQ("before main\n", g_text_before_main);
}

TEST(Log, LinesOfMembersStartWithPlaceObjectAndThread) {
    LogCapture log;
    Speaker speaker;
    speaker.say(2, "hello");
    speaker.sayBare();
    const auto lines = log.lines();
    ASSERT_EQ(2u, lines.size());
    const CapturedLine& first = lines[0];
    EXPECT_EQ("[" + first.file + ":" + std::to_string(speaker.line) + "] this:" + pointerText(&speaker) +
                  " tid:" + std::to_string(CThread::getCurrentThreadID()) +
                  ", Orvex::Infra::(anonymous namespace)::Speaker::say : says hello 5\n",
              first.full);
    EXPECT_EQ("no arguments\n", lines[1].text);
}

TEST(Log, LineCarriesItsPlaceInFieldsToo) {
    LogCapture log;
    Speaker speaker;
    speaker.say(3, "hello");
    const auto lines = log.lines();
    ASSERT_EQ(1u, lines.size());
    EXPECT_EQ(3, lines[0].level);
    EXPECT_EQ("Unknown", lines[0].module);
    EXPECT_EQ("Unknown", lines[0].module2);
    EXPECT_EQ("tests/foundation/LogTest.cpp", lines[0].file);
    EXPECT_EQ("Orvex::Infra::(anonymous namespace)::Speaker::say", lines[0].function);
    EXPECT_EQ(speaker.line, lines[0].line);
}

TEST(Log, StaticLinesHaveNoObjectAndPlainLinesNoStart) {
    LogCapture log;
    const int static_line = Speaker::sayStatic(2);
    const int plain_line = Speaker::sayPlain(4);
    const auto lines = log.lines();
    ASSERT_EQ(2u, lines.size());
    EXPECT_EQ("[tests/foundation/LogTest.cpp:" + std::to_string(static_line) +
                  "] tid:" + std::to_string(CThread::getCurrentThreadID()) +
                  ", Orvex::Infra::(anonymous namespace)::Speaker::sayStatic : static\n",
              lines[0].full);
    EXPECT_EQ("plain 1 two\n", lines[1].full);
    EXPECT_EQ(plain_line, lines[1].line);
    EXPECT_EQ(4, lines[1].level);
}

TEST(Log, LogFilterPassesEverythingOn) {
    LogCapture log;
    EXPECT_EQ(9, logFilter(2, "Module", "file.cpp", "Orvex::f", 17, "Other", "text %d%s", 12, ".."));
    const auto lines = log.lines();
    ASSERT_EQ(1u, lines.size());
    EXPECT_EQ("text 12..", lines[0].full);
    EXPECT_EQ("Module", lines[0].module);
    EXPECT_EQ("file.cpp", lines[0].file);
    EXPECT_EQ("Orvex::f", lines[0].function);
    EXPECT_EQ(17, lines[0].line);
    EXPECT_EQ("Other", lines[0].module2);
}

TEST(Log, LinesAboveTheThresholdAreNotMadeAndTheirArgumentsNotEvaluated) {
    LogCapture log(3);
    int count = 0;
    INFRA_LOG_PLAIN(4, "%d\n", evaluated(&count));
    INFRA_LOG_STATIC(4, "%d\n", evaluated(&count));
    EXPECT_EQ(0, logFilter(4, "", "", "", 1, "", "%d\n", 1));
    EXPECT_EQ(0, count);
    EXPECT_TRUE(log.lines().empty());
    EXPECT_FALSE(logEnabled(4));
    INFRA_LOG_PLAIN(3, "%d\n", evaluated(&count));
    EXPECT_TRUE(log.contains(3, "1\n"));
    EXPECT_EQ(3, setLogLevel(0));
    INFRA_LOG_PLAIN(1, "silenced\n");
    EXPECT_EQ(1u, log.lines().size());
}

TEST(Log, ThresholdAtTheStartLetsErrorsThroughOnly) {
    EXPECT_TRUE(logEnabled(1));
    EXPECT_TRUE(logEnabled(2));
    EXPECT_FALSE(logEnabled(3));
}

TEST(Log, WithoutASinkEachLineIsOneWriteToStandardError) {
    StandardErrorPackets packets;
    INFRA_LOG_PLAIN(2, "first %d\n", 1);
    INFRA_LOG_PLAIN(2, "no newline");
    INFRA_LOG_PLAIN(2, "\n");
    INFRA_LOG_PLAIN(3, "not wanted\n");
    EXPECT_EQ("first 1\n", packets.next());
    EXPECT_EQ("no newline\n", packets.next());
    EXPECT_EQ("\n", packets.next());
    EXPECT_EQ("nothing", packets.next());
}

TEST(Log, LongTextsAreCutAndKeepTheirFinalNewline) {
    LogCapture log;
    const std::string text(5000, 'x');
    INFRA_LOG_PLAIN(2, "%s\n", text.c_str());
    INFRA_LOG_PLAIN(2, "%s", text.c_str());
    INFRA_LOG_PLAIN(2, "%s\n", text.substr(0, 2046).c_str());
    INFRA_LOG_PLAIN(2, "%s\n", text.substr(0, 2047).c_str());
    const auto lines = log.lines();
    ASSERT_EQ(4u, lines.size());
    EXPECT_EQ(text.substr(0, 2046) + "\n", lines[0].full);
    EXPECT_EQ(text.substr(0, 2047), lines[1].full);
    EXPECT_EQ(text.substr(0, 2046) + "\n", lines[2].full);
    EXPECT_EQ(text.substr(0, 2046) + "\n", lines[3].full);
}

// A character that the locale has no bytes for: the C library gives up half-way, and promises nothing of what
// it has written until then.
TEST(Log, ATextThatCannotBeFormattedIsLeftOut) {
    LogCapture log;
    const wchar_t* const foreign = L"\x4e2d";
    EXPECT_EQ(0, logFilter(2, "", "f.cpp", "", 1, "", "half of %ls\n", foreign));
    INFRA_LOG_STATIC(2, "half of %ls\n", foreign);
    const auto lines = log.lines();
    ASSERT_EQ(2u, lines.size());
    EXPECT_EQ("", lines[0].full);
    EXPECT_EQ("", lines[1].text);
    EXPECT_NE("", lines[1].start);
}

TEST(Log, ATextThatCannotBeFormattedIsAnEmptyLineOnStandardError) {
    StandardErrorPackets packets;
    INFRA_LOG_PLAIN(2, "half of %ls\n", L"\x4e2d");
    EXPECT_EQ("\n", packets.next());
}

TEST(Log, CutTextWithoutNewlineGetsOneOnStandardError) {
    StandardErrorPackets packets;
    const std::string text(5000, 'x');
    INFRA_LOG_PLAIN(2, "%s", text.c_str());
    EXPECT_EQ(text.substr(0, 2047) + "\n", packets.next());
}

void spoilErrno(void*, const LogLine&) {
    errno = ENOMEM;
}

TEST(Log, ErrnoSurvivesAWholeLogCall) {
    static const LogSink spoiler = {&spoilErrno, nullptr};
    const LogSink* const before = setLogSink(&spoiler);
    Speaker speaker;
    errno = ECONNRESET;
    speaker.say(2, "x");
    EXPECT_EQ(ECONNRESET, errno);
    Speaker::sayStatic(2);
    EXPECT_EQ(ECONNRESET, errno);
    Speaker::sayPlain(2);
    EXPECT_EQ(ECONNRESET, errno);
    logFilter(2, "", "", "", 1, "", "x\n");
    EXPECT_EQ(ECONNRESET, errno);
    setLogSink(before);
}

TEST(Log, ErrnoSurvivesAStandardErrorThatCannotBeWritten) {
    const int kept = ::dup(STDERR_FILENO);
    ::close(STDERR_FILENO);
    errno = ECONNRESET;
    Speaker::sayStatic(2);
    const int errno_after = errno;
    ::dup2(kept, STDERR_FILENO);
    ::close(kept);
    EXPECT_EQ(ECONNRESET, errno_after);
}

void countLine(void* context, const LogLine& line) {
    if (std::string(line.text) == "line 7 of a storm\n") {
        ++*static_cast<std::atomic<long>*>(context);
    }
}

TEST(Log, SinkCanBeReplacedWhileOthersLog) {
    static std::atomic<long> first{0};
    static std::atomic<long> second{0};
    static const LogSink sinks[] = {{&countLine, &first}, {&countLine, &second}};
    const LogSink* const before = setLogSink(&sinks[0]);
    constexpr int THREADS = 2;
    constexpr int LINES = 20000;
    std::atomic<int> done{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < THREADS; ++i) {
        threads.emplace_back([&] {
            for (int line = 0; line < LINES; ++line) {
                INFRA_LOG_PLAIN(2, "line %d of a storm\n", 7);
            }
            ++done;
        });
    }
    for (unsigned i = 0; done < THREADS; ++i) {
        setLogSink(&sinks[i % 2]);
        std::this_thread::yield();
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(long{THREADS} * LINES, first + second);
    setLogSink(before);
}

TEST(Log, SetLogSinkReturnsTheOneBefore) {
    EXPECT_EQ(nullptr, setLogSink(&g_first_sink));
    EXPECT_EQ(&g_first_sink, setLogSink(nullptr));
}

void ignoreLine(void*, const LogLine&) {}

TEST(Log, LoggingAllocatesNothing) {
    static const LogSink ignorer = {&ignoreLine, nullptr};
    const LogSink* const before = setLogSink(&ignorer);
    Speaker speaker;
    speaker.say(2, "warm");
    const struct mallinfo2 first = ::mallinfo2();
    for (int i = 0; i < 100; ++i) {
        speaker.say(2, "again");
    }
    const struct mallinfo2 last = ::mallinfo2();
    setLogSink(before);
    EXPECT_EQ(first.uordblks, last.uordblks);
    EXPECT_EQ(first.fordblks, last.fordblks);
}

}  // namespace
}  // namespace Orvex::Infra
