// Log lines of every length and level beside a model of their texts; what a sink is handed.
#include <Infra/Log.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include <Infra/Thread.h>

#include "DefaultSink.h"
#include "support/HandClock.h"
#include "support/LogCapture.h"
#include "support/SeededRandom.h"
#include "support/foundation/SmallPipe.h"

namespace Orvex::Infra {
namespace {

using namespace Testing;

constexpr size_t TEXT_LIMIT = 2047;

// As the header says of texts that are too long.
std::string cut_text(std::string text, bool ends_its_line) {
    if (text.size() > TEXT_LIMIT) {
        text.resize(TEXT_LIMIT);
        if (ends_its_line) {
            text.back() = '\n';
        }
    }
    return text;
}

struct LineMaker {
    int line = 0;
    void say(const std::string& body, bool ends_its_line) {
        line = ends_its_line ? __LINE__ + 2 : __LINE__ + 4;
        if (ends_its_line) {
            INFRA_LOG(2, "%s\n", body.c_str());
        } else {
            INFRA_LOG(2, "%s", body.c_str());
        }
    }
    std::string start() const {
        char text[200];
        std::snprintf(text, sizeof(text), "[tests/foundation/LogLineTest.cpp:%d] this:%p tid:%d, ", line,
                      static_cast<const void*>(this), CThread::getCurrentThreadID());
        return text;
    }
};

TEST(LogLines, OfEveryLengthAreWholeOrCutWhereTheyMustBe) {
    SeededRandom random;
    LineMaker maker;
    for (int i = 0; i < 2000; ++i) {
        LogCapture log;
        const size_t length =
            random.oneIn(2) ? random.between<size_t>(0, 300) : random.between<size_t>(1900, 2200);
        const bool ends_its_line = random.oneIn(2);
        const std::string body(length, static_cast<char>('a' + i % 26));
        maker.say(body, ends_its_line);
        const std::string whole = maker.start() + body + (ends_its_line ? "\n" : "");
        ASSERT_EQ(1u, log.lines().size());
        ASSERT_EQ(cut_text(whole, ends_its_line), log.lines()[0].full) << length;
    }
}

TEST(LogLines, TheResultIsTheLengthOfTheTextAsTheSinkGotIt) {
    LogCapture log;
    EXPECT_EQ(0, logFilter(2, "", "f.cpp", "", 1, "", "%s", ""));
    EXPECT_EQ(5, logFilter(2, "", "f.cpp", "", 1, "", "%s\n", "four"));
    EXPECT_EQ(2047, logFilter(2, "", "f.cpp", "", 1, "", "%5000d", 1));
    EXPECT_EQ(3u, log.lines().size()) << "a line without a text is a line";
    EXPECT_EQ("", log.lines()[0].full);
}

// It gets one newline of its own, but the caller is told of what it has written.
TEST(LogLines, TheResultDoesNotCountTheNewlineThatIsAdded) {
    SmallPipe pipe(SmallPipe::ROOMY);
    EXPECT_EQ(4, logFilter(2, "", "f.cpp", "", 1, "", "four"));
    EXPECT_EQ(2047, logFilter(2, "", "f.cpp", "", 1, "", "%5000d", 1));
    const std::string written = pipe.read();
    EXPECT_EQ("four\n", written.substr(0, 5));
    EXPECT_EQ(5u + 2048u, written.size());
}

TEST(LogLines, EachLevelPassesUpToTheThreshold) {
    for (int threshold = -2; threshold <= 8; ++threshold) {
        LogCapture log(threshold);
        for (int level = 1; level <= 7; ++level) {
            EXPECT_EQ(level <= threshold, logEnabled(level));
            EXPECT_EQ(level <= threshold ? 1 : 0, logFilter(level, "", "f.cpp", "", 1, "", "x"));
            EXPECT_EQ(level <= threshold ? 1u : 0u, log.countLevel(level)) << threshold;
        }
    }
}

TEST(LogLines, AThresholdIsReturnedByTheNextOne) {
    const int first = setLogLevel(5);
    EXPECT_EQ(5, setLogLevel(-3));
    EXPECT_EQ(-3, setLogLevel(first));
}

struct Received {
    void* context = nullptr;
    LogLine line{};
    int count = 0;
};
Received g_received;
void receive_line(void* context, const LogLine& line) {
    g_received = {context, line, g_received.count + 1};
}

TEST(LogLines, ASinkIsHandedItsContextAndThePointersOfTheCaller) {
    int context = 0;
    const LogSink sink = {&receive_line, &context};
    const LogSink* const before = setLogSink(&sink);
    const char* const module = "M";
    const char* const file = "f.cpp";
    const char* const function = "F";
    const char* const other = "N";
    logFilter(1, module, file, function, -7, other, "x");
    EXPECT_EQ(&context, g_received.context);
    EXPECT_EQ(module, g_received.line.module);
    EXPECT_EQ(file, g_received.line.file);
    EXPECT_EQ(function, g_received.line.function);
    EXPECT_EQ(other, g_received.line.module2);
    EXPECT_EQ(-7, g_received.line.line);
    EXPECT_EQ(1, g_received.line.level);
    logFilter(2, nullptr, nullptr, nullptr, 0, nullptr, "x");
    EXPECT_EQ(2, g_received.count);
    EXPECT_EQ(nullptr, g_received.line.file);
    EXPECT_EQ(&sink, setLogSink(before));
}

TEST(LogLines, ASinkWithoutAFunctionIsTheDefaultOne) {
    static const LogSink nothing = {nullptr, nullptr};
    const LogSink* const before = setLogSink(&nothing);
    SmallPipe pipe;
    INFRA_LOG_PLAIN(2, "to standard error\n");
    EXPECT_EQ("to standard error\n", pipe.read());
    EXPECT_EQ(&nothing, setLogSink(before));
}

// A place without a file is one like any other.
TEST(LogLines, LinesWithoutAFileHaveTheirLimitToo) {
    SmallPipe pipe(SmallPipe::ROOMY);
    HandClock clock;
    const unsigned int limit = setLogLimit(1);
    logFilter(2, nullptr, nullptr, nullptr, 7, nullptr, "first\n");
    logFilter(2, nullptr, nullptr, nullptr, 7, nullptr, "second\n");
    logFilter(2, nullptr, nullptr, nullptr, 8, nullptr, "of another line\n");
    EXPECT_EQ("first\nof another line\n", pipe.read());
    clock.advanceUs(1000000);
    CThread::sleep(0);
    EXPECT_EQ("[:7] tid:" + std::to_string(CThread::getCurrentThreadID()) +
                  ", 1 more lines of this place were left out : it may write 1 in a second\n",
              pipe.read());
    setLogLimit(limit);
}

// A line of one thread is never cut in two by another's, though the pipe takes them in turn.
TEST(LogLines, OfSeveralThreadsAreWhole) {
    constexpr int THREADS = 4;
    constexpr int LINES = 300;
    SmallPipe pipe(SmallPipe::ROOMY);
    const unsigned int limit = setLogLimit(0);
    std::atomic<int> done{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < THREADS; ++t) {
        threads.emplace_back([t, &done] {
            const std::string body(static_cast<size_t>(20 + 30 * t), static_cast<char>('a' + t));
            for (int i = 0; i < LINES; ++i) {
                INFRA_LOG_PLAIN(2, "%s\n", body.c_str());
            }
            ++done;
        });
    }
    std::string all;
    while (done < THREADS) {
        all += pipe.read();
        CThread::sleep(0);
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    for (int i = 0; i < 100; ++i) {
        CThread::sleep(0);
        all += pipe.read();
    }
    setLogLimit(limit);
    int whole = 0;
    for (size_t begin = 0; begin < all.size(); begin = all.find('\n', begin) + 1) {
        const std::string line = all.substr(begin, all.find('\n', begin) - begin);
        const auto t = static_cast<size_t>(line[0] - 'a');
        if (line.find("were dropped") == std::string::npos) {
            ASSERT_EQ(std::string(20 + 30 * t, line[0]), line);
            ++whole;
        }
    }
    EXPECT_GT(whole, LINES);
}

TEST(LogLines, TheTimeIsOneForEachLineAlsoOfNotices) {
    SmallPipe pipe(SmallPipe::ROOMY);
    const bool before = setLogTime(true);
    EXPECT_TRUE(setLogTime(true));
    logFilter(2, "", "f.cpp", "", 1, "", "first\nstill the first\n");
    const std::string text = pipe.read();
    setLogTime(before);
    EXPECT_EQ(std::string("Z first\nstill the first\n"), text.substr(26));
    EXPECT_EQ('2', text[0]);
}

}  // namespace
}  // namespace Orvex::Infra
