// The default sink: a standard error that nobody reads, places that write too much, forks.
#include <Infra/Log.h>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>

#include <Infra/Thread.h>

#include "DefaultSink.h"
#include "support/Eventually.h"
#include "support/HandClock.h"
#include "support/foundation/SmallPipe.h"

namespace Orvex::Infra {
namespace {

using namespace Testing;

constexpr uint64_t US_PER_SECOND = 1000000;

// A line of the given place, which is a number alone.
void say(int place, const std::string& text) {
    logFilter(2, "", "a.cpp", "", place, "", "%s\n", text.c_str());
}

std::string numbered(int number, size_t length) {
    std::string text = "line " + std::to_string(number) + " ";
    text.resize(length - 1, '.');
    return text;
}

// Each of `count` lines from a place of its own.
void say_many(int count, size_t length) {
    for (int i = 0; i < count; ++i) {
        say(i, numbered(i, length));
    }
}

std::string expected(int first, int last, size_t length) {
    std::string all;
    for (int i = first; i < last; ++i) {
        all += numbered(i, length) + "\n";
    }
    return all;
}

// Works on a thread of its own, and gives the pipe a reader if that thread does not come back.
template <typename Work>
bool ends_undrained(SmallPipe& standard_error, Work work) {
    std::atomic<bool> ended{false};
    std::thread worker([&] {
        work();
        ended = true;
    });
    const bool in_time = eventually([&] { return ended.load(); }, 5000);
    while (!ended) {
        standard_error.read();
        std::this_thread::yield();
    }
    worker.join();
    return in_time;
}

TEST(DefaultSink, NeverWaitsForAReaderAndLeavesTheModeOfThePipeAlone) {
    SmallPipe standard_error;
    const int flags = standard_error.flags();
    EXPECT_TRUE(ends_undrained(standard_error, [] { say_many(200, 100); }));
    EXPECT_EQ(flags, standard_error.flags());
    EXPECT_EQ(0, flags & O_NONBLOCK);
}

TEST(DefaultSink, LaterLinesBringWhatWasKeptInOrder) {
    SmallPipe standard_error;
    constexpr int LINES = 200;
    constexpr size_t LENGTH = 100;
    std::string all;
    ASSERT_TRUE(ends_undrained(standard_error, [] { say_many(LINES, LENGTH); }));
    for (int i = LINES; i < LINES + 20; ++i) {
        all += standard_error.read();
        say(i, numbered(i, LENGTH));
    }
    all += standard_error.read();
    EXPECT_EQ(expected(0, LINES + 20, LENGTH), all);
}

TEST(DefaultSink, ThreadsThatSleepBringWhatWasKept) {
    SmallPipe standard_error;
    ASSERT_TRUE(ends_undrained(standard_error, [] { say_many(60, 100); }));
    std::string all = standard_error.read();
    ASSERT_LT(all.size(), 6000u);
    EXPECT_EVENTUALLY([&] {
        CThread::sleep(1);
        all += standard_error.read();
        return all.size() >= 6000;
    }());
    EXPECT_EQ(expected(0, 60, 100), all);
}

TEST(DefaultSink, CountsWhatItDropsAndSaysSoWhereItWas) {
    SmallPipe standard_error;
    constexpr int LINES = 1000;  // of 100 bytes: more than pipe and ring together
    ASSERT_TRUE(ends_undrained(standard_error, [] { say_many(LINES, 100); }));
    std::string all;
    EXPECT_EVENTUALLY([&] {
        say(LINES, "the last one");
        all += standard_error.read();
        return all.find("the last one") != std::string::npos;
    }());
    const std::string before =
        " tid:" + std::to_string(CThread::getCurrentThreadID()) + ", standard error was not read : ";
    const size_t notice = all.find(before);
    ASSERT_NE(std::string::npos, notice) << all.substr(all.size() - 300);
    const int dropped = std::stoi(all.substr(notice + before.size()));
    const size_t begin = all.rfind('\n', notice) + 1;
    // What came before the notice, and what it counts, are all lines but those that this loop has added.
    const auto kept = static_cast<int>(begin / 100);
    EXPECT_EQ(expected(0, kept, 100), all.substr(0, begin));
    EXPECT_GE(kept, static_cast<int>(Detail::DefaultSink::RING_SIZE / 103));
    EXPECT_GE(dropped, LINES - kept);
    EXPECT_EQ(std::string::npos, all.find(before, notice + 1));
}

TEST(DefaultSink, OnePlaceWritesAHundredLinesInASecond) {
    SmallPipe standard_error(SmallPipe::ROOMY);
    HandClock clock;
    std::string all;
    for (int i = 0; i < 150; ++i) {
        say(7, std::to_string(i));
        all += standard_error.read();
    }
    say(8, "another place");
    all += standard_error.read();
    std::string wanted;
    for (int i = 0; i < 100; ++i) {
        wanted += std::to_string(i) + "\n";
    }
    EXPECT_EQ(wanted + "another place\n", all);

    clock.advanceUs(US_PER_SECOND);
    say(8, "later");
    say(7, "again");
    EXPECT_EQ(
        "[a.cpp:7] tid:" + std::to_string(CThread::getCurrentThreadID()) +
            ", 50 more lines of this place were left out : it may write 100 in a second\nlater\nagain\n",
        standard_error.read());
}

TEST(DefaultSink, TheNumberLeftOutIsSaidWithoutAFurtherLine) {
    SmallPipe standard_error(SmallPipe::ROOMY);
    HandClock clock;
    for (int i = 0; i < 101; ++i) {
        say(7, "x");
    }
    standard_error.read();
    CThread::sleep(0);
    EXPECT_EQ("", standard_error.read());
    clock.advanceUs(US_PER_SECOND);
    CThread::sleep(0);
    EXPECT_NE(std::string::npos, standard_error.read().find(", 1 more lines of this place were left out"));
}

// Puts back what the tests of other cases rely on.
class LimitOfOne {
public:
    LimitOfOne() { EXPECT_EQ(100U, setLogLimit(1)); }
    ~LimitOfOne() { EXPECT_EQ(1U, setLogLimit(100)); }
};

TEST(DefaultSink, OneLineASecondOfAPlaceIfThatIsWanted) {
    SmallPipe standard_error(SmallPipe::ROOMY);
    HandClock clock;
    const LimitOfOne limit;
    for (int i = 0; i < 5; ++i) {
        say(7, std::to_string(i));
        say(8, "another place");
    }
    EXPECT_EQ("0\nanother place\n", standard_error.read());
    clock.advanceUs(US_PER_SECOND);
    CThread::sleep(0);
    const std::string tid = "] tid:" + std::to_string(CThread::getCurrentThreadID());
    const std::string told = ", 4 more lines of this place were left out : it may write 1 in a second\n";
    const std::string said = standard_error.read();
    EXPECT_NE(std::string::npos, said.find("[a.cpp:7" + tid + told)) << said;
    EXPECT_NE(std::string::npos, said.find("[a.cpp:8" + tid + told)) << said;
    say(7, "5");
    say(7, "6");
    EXPECT_EQ("5\n", standard_error.read());
}

TEST(DefaultSink, NoLimitIfThatIsWanted) {
    SmallPipe standard_error(SmallPipe::ROOMY);
    HandClock clock;
    setLogLimit(0);
    std::string all;
    for (int i = 0; i < 300; ++i) {
        say(7, "x");
        all += standard_error.read();
    }
    setLogLimit(100);
    EXPECT_EQ(600U, all.size());
}

// What was left out before is told, with which a new second begins for its place: one of no lines, so that
// all of its next ones were left out.
TEST(DefaultSink, ALimitThatComesAfterNoneHoldsFromItsFirstLineOn) {
    SmallPipe standard_error(SmallPipe::ROOMY);
    HandClock clock;
    setLogLimit(1);
    say(7, "first");
    say(7, "left out");
    setLogLimit(0);
    clock.advanceUs(US_PER_SECOND);
    CThread::sleep(0);
    standard_error.read();
    setLogLimit(1);
    say(7, "second");
    say(7, "left out");
    EXPECT_EQ("second\n", standard_error.read());
    setLogLimit(100);
}

// A long one is cut by as much, and still ends its line.
TEST(DefaultSink, LinesCarryTheTimeIfThatIsWanted) {
    SmallPipe standard_error(SmallPipe::ROOMY);
    EXPECT_FALSE(setLogTime(true));
    const time_t before = ::time(nullptr);
    say(7, "text");
    const std::string line = standard_error.read();
    say(7, std::string(3000, 'x'));
    const std::string longest = standard_error.read();
    EXPECT_TRUE(setLogTime(false));
    say(7, "text");
    EXPECT_EQ("text\n", standard_error.read());

    tm time{};
    const char* const rest = ::strptime(line.c_str(), "%Y-%m-%dT%H:%M:%S.", &time);
    ASSERT_NE(nullptr, rest) << line;
    EXPECT_EQ("Z text\n", std::string(rest + 6));
    EXPECT_GE(::timegm(&time), before);
    EXPECT_LE(::timegm(&time), ::time(nullptr));
    EXPECT_EQ(Detail::DefaultSink::LINE_LIMIT, longest.size());
    EXPECT_EQ("xx\n", longest.substr(longest.size() - 3));
}

void count_line(void* context, const LogLine&) {
    ++*static_cast<int*>(context);
}

TEST(DefaultSink, ASinkOfTheProductGetsEveryLine) {
    static int lines = 0;
    static const LogSink counter = {&count_line, &lines};
    const LogSink* const before = setLogSink(&counter);
    for (int i = 0; i < 500; ++i) {
        say(7, "x");
    }
    setLogSink(before);
    EXPECT_EQ(500, lines);
}

// A child has a copy of the lock, but not the thread that held it.
TEST(DefaultSink, AForkedChildCanWriteWhateverOtherThreadsDo) {
    SmallPipe standard_error;
    std::atomic<bool> stop{false};
    std::thread other([&] {
        for (int i = 0; !stop; ++i) {
            say(i, "other");
        }
    });
    for (int i = 0; i < 50; ++i) {
        const pid_t child = ::fork();
        if (child == 0) {
            ::alarm(static_cast<unsigned>(20 * timeFactor()));
            say(1, "child");
            ::_exit(0);
        }
        int status = -1;
        EXPECT_EQ(child, ::waitpid(child, &status, 0));
        EXPECT_EQ(0, status);
        standard_error.read();
    }
    stop = true;
    other.join();
}

}  // namespace
}  // namespace Orvex::Infra
