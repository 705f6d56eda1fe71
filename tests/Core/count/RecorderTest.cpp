// CRecorder: rings, what is dumped of them, and that nobody waits for anybody.
#include <Reticor/Recorder.h>

#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <assert.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <fstream>
#include <functional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "Core/count/ClassRows.h"
#include "Core/count/EventRing.h"
#include "Core/count/Points.h"
#include "Core/count/ThreadCounts.h"
#include "Core/count/TraceClock.h"
#include "support/DumpFile.h"
#include "support/program/TempFolder.h"
#include "support/socket/Allocations.h"

namespace Orvex::Testing {
namespace {

using namespace Reticor;

/// Called once, inside of the next ftruncate of this program.
std::function<void()> g_inside_truncate;

uint32_t ownThread() {
    return static_cast<uint32_t>(::syscall(SYS_gettid));
}

class Recorder : public ::testing::Test {
protected:
    ~Recorder() override { CRecorder::Stop(); }

    DumpFile dump() {
        const std::string path = folder.file("dump");
        EXPECT_EQ(0, CRecorder::Dump(path.c_str()));
        return DumpFile(path);
    }

    TempFolder folder;
};

// Stands for a sender with that id.
struct NumberedSender {
    int64_t number;
    int64_t GetID() const { return number; }
};

void meet(uint64_t number) {
    const NumberedSender sender{static_cast<int64_t>(number)};
    Points::Blocked(&sender);
}

void meetFrom(uint64_t first, uint64_t count) {
    for (uint64_t n = first; n < first + count; ++n) {
        meet(n);
    }
}

// Numbers that follow one another, in the order of their time.
void expectInOrder(const DumpedThread& thread, uint64_t first, uint64_t last) {
    ASSERT_EQ(last - first + 1, thread.events.size());
    for (size_t i = 0; i < thread.events.size(); ++i) {
        ASSERT_EQ(first + i, thread.events[i].object);
        ASSERT_EQ(TRACE_BLOCKED, thread.events[i].what);
        ASSERT_TRUE(i == 0 || thread.events[i].ticks >= thread.events[i - 1].ticks);
    }
}

TEST_F(Recorder, IsOffAtTheStartAndKeepsNothing) {
    EXPECT_FALSE(CRecorder::IsOn());
    meetFrom(1, 10);
    const DumpFile empty = dump();
    EXPECT_TRUE(empty.whole);
    EXPECT_TRUE(empty.threads.empty());
    EXPECT_EQ(nullptr, EventRing::First()) << "memory for nothing";
}

TEST_F(Recorder, KeepsTheEventsOfEachThreadInTheirOrder) {
    CRecorder::Start();
    EXPECT_TRUE(CRecorder::IsOn());
    meetFrom(1, 100);
    std::atomic<uint32_t> other{0};
    std::thread([&] {
        other = ownThread();
        pthread_setname_np(pthread_self(), "other");
        meetFrom(1000, 50);
    }).join();
    const DumpFile found = dump();
    EXPECT_TRUE(found.whole);
    ASSERT_EQ(2u, found.threads.size());
    ASSERT_NE(nullptr, found.thread(ownThread()));
    expectInOrder(*found.thread(ownThread()), 1, 100);
    EXPECT_EQ(1u, found.thread(ownThread())->head.live);
    EXPECT_EQ(-1, found.thread(ownThread())->head.pool);
    ASSERT_NE(nullptr, found.thread(other));
    expectInOrder(*found.thread(other), 1000, 1049);
    EXPECT_EQ(0u, found.thread(other)->head.live) << "it has ended";
    EXPECT_EQ("other", found.thread(other)->name);
}

TEST_F(Recorder, KeepsTheLastOnesWhenTheRingIsFull) {
    CRecorder::Start();
    const uint64_t all = 3 * EventRing::PLACES + 123;
    meetFrom(1, all);
    const DumpFile found = dump();
    ASSERT_EQ(1u, found.threads.size());
    EXPECT_EQ(EventRing::PLACES, found.threads[0].head.count);
    expectInOrder(found.threads[0], all - EventRing::PLACES + 2, all);
}

TEST_F(Recorder, StoppedItKeepsWhatItHasAndGoesOnLater) {
    CRecorder::Start();
    meetFrom(1, 5);
    CRecorder::Stop();
    EXPECT_FALSE(CRecorder::IsOn());
    meetFrom(100, 5);
    expectInOrder(dump().threads.at(0), 1, 5);
    CRecorder::Start();
    meetFrom(6, 5);
    expectInOrder(dump().threads.at(0), 1, 10);
}

TEST_F(Recorder, TheClockIsToldByTwoMoments) {
    CRecorder::Start();
    meet(1);
    const DumpFile found = dump();
    const DumpHeader& header = found.header;
    EXPECT_EQ(DUMP_VERSION, header.version);
    EXPECT_EQ(sizeof(DumpHeader), header.header_size);
    EXPECT_EQ(static_cast<uint32_t>(::getpid()), header.pid);
    EXPECT_EQ(EventRing::PLACES, header.places);
    EXPECT_GT(header.dump_ticks, header.begin_ticks);
    EXPECT_GT(header.dump_ns, header.begin_ns);
    const uint64_t low = (uint64_t{1} << 56) - 1;
    EXPECT_LE(header.begin_ticks & low, found.threads.at(0).events.at(0).ticks);
    EXPECT_GE(header.dump_ticks & low, found.threads.at(0).events.at(0).ticks);
}

// A thread that comes later than many others takes over the ring of the one that ended first.
TEST_F(Recorder, RingsOfThreadsThatEndedAreKeptButNotForEver) {
    CRecorder::Start();
    const size_t threads = 3 * EventRing::MOST_ENDED;
    for (size_t i = 0; i < threads; ++i) {
        std::thread([i] { meetFrom(i * 100, 10); }).join();
    }
    const DumpFile found = dump();
    ASSERT_EQ(EventRing::MOST_ENDED, found.threads.size());
    std::vector<bool> seen(threads, false);
    for (const DumpedThread& thread : found.threads) {
        ASSERT_FALSE(thread.events.empty());
        const uint64_t first = thread.events[0].object;
        expectInOrder(thread, first, first + 9);  // nothing of whoever had the ring before
        seen[first / 100] = true;
    }
    for (size_t i = 0; i < threads; ++i) {
        EXPECT_EQ(i >= threads - EventRing::MOST_ENDED, seen[i]) << i;
    }
}

TEST_F(Recorder, WithoutMemoryAThreadIsNotRecordedUntilTheNextStart) {
    CRecorder::Start();
    {
        const NoMemory none;
        meetFrom(1, 1000);
    }
    EXPECT_EQ(nullptr, EventRing::First());
    meetFrom(1, 10);
    EXPECT_EQ(nullptr, EventRing::First()) << "it is not asked for at each event";
    CRecorder::Start();
    meetFrom(7, 3);
    expectInOrder(dump().threads.at(0), 7, 9);
}

TEST_F(Recorder, ARecordedEventTakesNoMemory) {
    CRecorder::Start();
    meet(1);
    const size_t before = allocationCount();
    meetFrom(2, 1000);
    EXPECT_EQ(before, allocationCount());
}

// The torn and the overwritten ones are left out, and what is left is whole.
TEST_F(Recorder, DumpsAreGoodWhileThreadsWriteOn) {
    CRecorder::Start();
    std::atomic<bool> stop{false};
    std::vector<std::thread> writers;
    for (int i = 0; i < 2; ++i) {
        writers.emplace_back([&] {
            for (uint64_t n = 0; !stop; n += 100) {
                meetFrom(n, 100);
            }
        });
    }
    size_t events = 0;
    for (int round = 0; round < 10 || (events == 0 && round < 1000); ++round) {
        for (const DumpedThread& thread : dump().threads) {
            events += thread.events.size();
            if (!thread.events.empty()) {
                expectInOrder(thread, thread.events.front().object, thread.events.back().object);
            }
        }
    }
    stop = true;
    for (std::thread& writer : writers) {
        writer.join();
    }
    EXPECT_NE(0u, events);
}

TEST_F(Recorder, IsSwitchedWhileThreadsComeAndGo) {
    std::atomic<bool> stop{false};
    std::vector<std::thread> makers;
    for (int i = 0; i < 2; ++i) {
        makers.emplace_back([&] {
            while (!stop) {
                std::thread([] { meetFrom(1, 20); }).join();
            }
        });
    }
    for (int round = 0; round < 50; ++round) {
        CRecorder::Start();
        if (round % 25 == 0) {
            EXPECT_TRUE(dump().whole);
        }
        CRecorder::Stop();
    }
    stop = true;
    for (std::thread& maker : makers) {
        maker.join();
    }
    EXPECT_LE(dump().threads.size(), EventRing::MOST_ENDED + makers.size());
}

// ---- files ---------------------------------------------------------------------------------------------

TEST_F(Recorder, AFileThatCannotBeOpenedIsAnError) {
    errno = 0;
    EXPECT_EQ(-1, CRecorder::Dump(folder.file("no/such/folder").c_str()));
    EXPECT_EQ(ENOENT, errno);
    EXPECT_EQ(-1, CRecorder::OpenCrashFile(folder.file("no/such/folder").c_str()));
    EXPECT_EQ(ENOENT, errno);
}

TEST_F(Recorder, AFullDiskIsAnError) {
    CRecorder::Start();
    meet(1);
    errno = 0;
    EXPECT_EQ(-1, CRecorder::Dump("/dev/full"));
    EXPECT_EQ(ENOSPC, errno);
}

TEST_F(Recorder, OnlyThisUserMayReadADumpAndNoLinkIsFollowed) {
    dump();
    struct stat found {};
    ASSERT_EQ(0, ::stat(folder.file("dump").c_str(), &found));
    EXPECT_EQ(0600u, found.st_mode & 0777u);
    ASSERT_EQ(0, ::symlink(folder.file("dump").c_str(), folder.file("link").c_str()));
    EXPECT_EQ(-1, CRecorder::Dump(folder.file("link").c_str()));
    EXPECT_EQ(ELOOP, errno);
}

TEST_F(Recorder, WithoutACrashFileNothingIsDumpedInACrash) {
    EXPECT_EQ(-1, CRecorder::DumpInCrash());
    EXPECT_EQ(0, CRecorder::OpenCrashFile(folder.file("crash").c_str()));
    EXPECT_EQ(0, CRecorder::OpenCrashFile(nullptr));
    EXPECT_EQ(-1, CRecorder::DumpInCrash());
    EXPECT_EQ(0, CRecorder::OpenCrashFile(nullptr));
}

// What was recorded before a pause lies before it in time too.
TEST_F(Recorder, TimesCountFromTheFirstStart) {
    const std::string first = folder.file("first");
    const std::string second = folder.file("second");
    CRecorder::Start();
    ASSERT_EQ(0, CRecorder::Dump(first.c_str()));
    CRecorder::Stop();
    CRecorder::Start();
    ASSERT_EQ(0, CRecorder::Dump(second.c_str()));
    EXPECT_EQ(DumpFile(first).header.begin_ticks, DumpFile(second).header.begin_ticks);
    EXPECT_EQ(DumpFile(first).header.begin_ns, DumpFile(second).header.begin_ns);
}

TEST_F(Recorder, TheCrashFileHoldsTheLastDumpAlone) {
    const std::string path = folder.file("crash");
    ASSERT_EQ(0, CRecorder::OpenCrashFile(path.c_str()));
    CRecorder::Start();
    meetFrom(1, 5000);
    errno = EDOM;
    EXPECT_EQ(0, CRecorder::DumpInCrash());
    EXPECT_EQ(EDOM, errno);
    expectInOrder(DumpFile(path).threads.at(0), 1, 5000);
    EXPECT_EQ(0, CRecorder::DumpInCrash());
    const DumpFile again(path);
    EXPECT_TRUE(again.whole);
    ASSERT_EQ(1u, again.threads.size());
    struct stat before {};
    ASSERT_EQ(0, ::stat(path.c_str(), &before));
    std::ofstream(path, std::ios::app) << std::string(1 << 20, 'x');
    EXPECT_EQ(0, CRecorder::DumpInCrash());
    struct stat after {};
    ASSERT_EQ(0, ::stat(path.c_str(), &after));
    EXPECT_GT(before.st_size + (1 << 19), after.st_size) << "nothing of what was there stays";
    EXPECT_EQ(0, CRecorder::OpenCrashFile(nullptr));
}

TEST_F(Recorder, ACrashFileThatTakesNothingLeavesErrnoAsItWas) {
    ASSERT_EQ(0, CRecorder::OpenCrashFile("/dev/full"));
    errno = EDOM;
    EXPECT_EQ(-1, CRecorder::DumpInCrash());
    EXPECT_EQ(EDOM, errno);
    EXPECT_EQ(0, CRecorder::OpenCrashFile(nullptr));
}

// The second one would write into the middle of what the first one writes.
TEST_F(Recorder, AThreadThatCrashesWhileAnotherOneDumpsLeavesTheFileToThat) {
    const std::string path = folder.file("crash");
    ASSERT_EQ(0, CRecorder::OpenCrashFile(path.c_str()));
    CRecorder::Start();
    meetFrom(1, 77);
    int from_another_thread = 0;
    int from_a_crash_in_the_dump = 0;
    g_inside_truncate = [&] {
        std::thread([&] {
            errno = EDOM;
            from_another_thread = CRecorder::DumpInCrash();
            EXPECT_EQ(EDOM, errno);
        }).join();
        from_a_crash_in_the_dump = CRecorder::DumpInCrash();
    };
    EXPECT_EQ(0, CRecorder::DumpInCrash());
    EXPECT_EQ(-1, from_another_thread);
    EXPECT_EQ(-1, from_a_crash_in_the_dump);
    expectInOrder(DumpFile(path).threads.at(0), 1, 77);
    EXPECT_EQ(0, CRecorder::DumpInCrash()) << "nobody dumps any more";
    EXPECT_EQ(0, CRecorder::OpenCrashFile(nullptr));
}

void crashIntoFile(const char* path) {
    CRecorder::OpenCrashFile(path);
    CRecorder::Start();
    meetFrom(1, 77);
    std::signal(SIGSEGV, [](int) {
        CRecorder::DumpInCrash();
        ::_exit(42);
    });
    ::raise(SIGSEGV);
}

TEST_F(Recorder, AProgramThatCrashesLeavesADump) {
    const std::string path = folder.file("crash");
    EXPECT_EXIT(crashIntoFile(path.c_str()), ::testing::ExitedWithCode(42), "");
    const DumpFile found(path);
    EXPECT_TRUE(found.whole);
    ASSERT_EQ(1u, found.threads.size());
    expectInOrder(found.threads[0], 1, 77);
}

void failAnAssertion(const char* path) {
    CRecorder::OpenCrashFile(path);
    CRecorder::Start();
    meetFrom(1, 33);
    __assert_fail("all is well", "Src/Some.cpp", 12, "void some()");
}

TEST_F(Recorder, AnAssertionThatFailsDumpsAndSaysWhatItAlwaysSays) {
    const std::string path = folder.file("crash");
    EXPECT_EXIT(failAnAssertion(path.c_str()), ::testing::KilledBySignal(SIGABRT),
                "Src/Some.cpp:12: void some\\(\\): Assertion `all is well' failed");
    const DumpFile found(path);
    EXPECT_TRUE(found.whole);
    expectInOrder(found.threads.at(0), 1, 33);
}

TEST_F(Recorder, NamesClassesByTheirRows) {
    static const int table = 0;
    const uint32_t row = ClassRows::Enter(&table, "N4Shop4TillE");
    CRecorder::Start();
    Points::Entered(ThreadCounts::call_word(-6553600, CallKind::MESSAGE), ThreadCounts::offset_of(row));
    Points::Left(ThreadCounts::call_word(-6553600, CallKind::MESSAGE));
    const DumpFile found = dump();
    EXPECT_EQ("N4Shop4TillE", found.classes.at(row));
    const std::vector<DumpedEvent>& events = found.threads.at(0).events;
    ASSERT_EQ(2u, events.size());
    EXPECT_EQ(TRACE_ENTER + static_cast<int>(CallKind::MESSAGE), events[0].what);
    EXPECT_EQ(row, events[0].object >> TRACE_ROW_SHIFT);
    EXPECT_EQ(static_cast<uint64_t>(-6553600) & TRACE_HANDLER_MASK, events[0].object & TRACE_HANDLER_MASK);
    EXPECT_EQ(TRACE_LEAVE + static_cast<int>(CallKind::MESSAGE), events[1].what);
}

}  // namespace
}  // namespace Orvex::Testing

extern "C" __attribute__((visibility("default"))) int ftruncate(int fd, off_t length) noexcept {
    if (const std::function<void()> inside = std::exchange(Orvex::Testing::g_inside_truncate, nullptr)) {
        inside();
    }
    return static_cast<int>(::syscall(SYS_ftruncate, fd, length));
}
