// The clocks to the digit, and the number of a thread in every process that may have one.
#include <Infra/Time.h>

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cstdint>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <Infra/Thread.h>

#include "Clock.h"
#include "ThreadId.h"
#include "WallTime.h"
#include "support/HandClock.h"
#include "support/KernelThread.h"
#include "support/SeededRandom.h"

namespace Orvex::Infra {
namespace {

using namespace Testing;

TEST(Clocks, MicrosecondsAreTheSecondsAndTheWholeMicrosecondsOfTheClock) {
    SeededRandom random;
    HandClock clock;
    for (int i = 0; i < 1000; ++i) {
        // Up to the time at which 64 bits of nanoseconds would be over.
        const auto us = random.between<uint64_t>(0, uint64_t{1} << 53);
        clock.setUs(us);
        ASSERT_EQ(us, CTime::getCurrentMicroSecond());
        ASSERT_EQ(us / 1000, CTime::getCurrentMilliSecond()) << "cut, not rounded";
        const timespec read = Detail::read_clock();
        ASSERT_EQ(us / 1000000, static_cast<uint64_t>(read.tv_sec));
        ASSERT_EQ(us % 1000000 * 1000, static_cast<uint64_t>(read.tv_nsec));
    }
}

std::string wall_text(int64_t seconds, long ns) {
    char text[Detail::WALL_TIME_ROOM];
    const size_t length = Detail::write_wall_time(text, seconds, ns);
    EXPECT_EQ(std::string(text).size(), length);
    return text;
}

TEST(Clocks, TheTimeOfDayIsCutToMicroseconds) {
    EXPECT_EQ("1970-01-01T00:00:59.000999Z ", wall_text(59, 999999));
    EXPECT_EQ("1970-01-01T00:00:59.999999Z ", wall_text(59, 999999999));
    EXPECT_EQ("1970-01-01T00:00:59.000000Z ", wall_text(59, 999));
}

TEST(Clocks, YearsEndWithTheirLastSecondAndHundredsOfThemAreNoLeapYears) {
    EXPECT_EQ("1999-12-31T23:59:59.000000Z ", wall_text(946684799, 0));
    EXPECT_EQ("2000-01-01T00:00:00.000000Z ", wall_text(946684800, 0));
    EXPECT_EQ("1900-02-28T23:59:59.000000Z ", wall_text(-2203891201, 0));
    EXPECT_EQ("1900-03-01T00:00:00.000000Z ", wall_text(-2203891200, 0));
    EXPECT_EQ("2400-02-29T00:00:00.000000Z ", wall_text(13574563200, 0));
    EXPECT_EQ("0000-03-01T00:00:00.000000Z ", wall_text(-62162035200, 0));
    EXPECT_EQ("9999-12-31T23:59:59.999999Z ", wall_text(253402300799, 999999999));
}

// A clock that was set to nonsense must not write beyond the room.
TEST(Clocks, TimesBeyondTheCalendarStayWithinTheirRoom) {
    for (const int64_t seconds :
         {int64_t{253402300800}, int64_t{-62167219201}, INT64_C(99999999999999), INT64_C(-99999999999999)}) {
        char text[Detail::WALL_TIME_ROOM + 8];
        text[Detail::WALL_TIME_ROOM] = '!';
        EXPECT_LT(Detail::write_wall_time(text, seconds, 0), Detail::WALL_TIME_ROOM);
        EXPECT_EQ('!', text[Detail::WALL_TIME_ROOM]);
    }
}

TEST(Clocks, TheTimeOfDayIsOfNoZone) {
    const char* const zone = ::getenv("TZ");
    const std::string before = zone != nullptr ? zone : "";
    ::setenv("TZ", "Asia/Tokyo", 1);
    ::tzset();
    EXPECT_EQ("1970-01-01T00:00:00.000000Z ", wall_text(0, 0));
    ::setenv("TZ", before.c_str(), 1);
    ::tzset();
}

TEST(Clocks, NowIsBetweenTwoLooksAtTheSystemsClock) {
    for (int i = 0; i < 100; ++i) {
        timespec first{};
        timespec last{};
        ::clock_gettime(CLOCK_REALTIME, &first);
        char now[Detail::WALL_TIME_ROOM];
        EXPECT_EQ(28u, Detail::write_wall_time(now));
        ::clock_gettime(CLOCK_REALTIME, &last);
        // Of one length and with the largest unit first: texts compare as the times do.
        EXPECT_LE(wall_text(first.tv_sec, first.tv_nsec), now);
        EXPECT_GE(wall_text(last.tv_sec, last.tv_nsec), now);
    }
}

TEST(ThreadId, EachThreadHasTheKernelsNumberAndKeepsIt) {
    constexpr int THREADS = 8;
    std::vector<std::thread> threads;
    std::vector<int> ids(THREADS);
    for (int& id : ids) {
        threads.emplace_back([&id] {
            id = Detail::thread_id();
            EXPECT_EQ(id, kernelThreadId());
            EXPECT_EQ(id, Detail::thread_id());
            EXPECT_EQ(id, CThread::getCurrentThreadID());
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(0u, std::set<int>(ids.begin(), ids.end()).count(Detail::thread_id()));
}

// A child forgets the number of its parent, and its own child forgets that.
TEST(ThreadId, GrandchildrenHaveNumbersOfTheirOwn) {
    EXPECT_EQ(static_cast<int>(::getpid()), Detail::thread_id()) << "the first thread of a process";
    const pid_t child = ::fork();
    if (child == 0) {
        bool good = Detail::thread_id() == static_cast<int>(::getpid());
        const pid_t grandchild = ::fork();
        if (grandchild == 0) {
            ::_exit(Detail::thread_id() == static_cast<int>(::getpid()) ? 0 : 1);
        }
        int status = -1;
        good = good && ::waitpid(grandchild, &status, 0) == grandchild && status == 0;
        ::_exit(good ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(child, ::waitpid(child, &status, 0));
    EXPECT_EQ(0, status);
    EXPECT_EQ(static_cast<int>(::getpid()), Detail::thread_id());
}

}  // namespace
}  // namespace Orvex::Infra
