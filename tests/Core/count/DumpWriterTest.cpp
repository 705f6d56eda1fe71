// DumpWriter: what the file gets, and what is done when it takes less.
#include "Core/count/DumpWriter.h"

#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <fstream>
#include <string>
#include <thread>

#include "Core/count/ClassRows.h"
#include "Core/count/TraceClock.h"
#include "support/DumpFile.h"
#include "support/Eventually.h"
#include "support/program/TempFolder.h"

namespace Orvex::Testing {
namespace {

using namespace Reticor;

constexpr uint8_t SOME_EVENT = TRACE_BLOCKED;

void putNumbers(uint64_t count) {
    for (uint64_t number = 0; number < count; ++number) {
        EventRing::Mine()->Put(TraceClock::Ticks(), SOME_EVENT, number);
    }
}

// A pipe whose ends are closed when it goes.
struct DumpPipe {
    explicit DumpPipe(int flags = 0) { EXPECT_EQ(0, ::pipe2(ends, O_CLOEXEC | flags)); }
    ~DumpPipe() {
        ::close(ends[0]);
        closeWriting();
    }
    DumpPipe(const DumpPipe&) = delete;
    DumpPipe& operator=(const DumpPipe&) = delete;
    void closeWriting() {
        if (ends[1] != -1) {
            ::close(ends[1]);
            ends[1] = -1;
        }
    }
    std::string readAll() const {
        std::string bytes;
        char room[4096];
        for (ssize_t got; (got = ::read(ends[0], room, sizeof room)) > 0;) {
            bytes.append(room, static_cast<size_t>(got));
        }
        return bytes;
    }
    int ends[2] = {-1, -1};
};

DumpFile readBack(const std::string& bytes) {
    const TempFolder folder;
    const std::string path = folder.file("dump");
    std::ofstream(path, std::ios::binary) << bytes;
    return DumpFile(path);
}

TEST(DumpWriter, WithoutRingsThereAreAHeaderClassesAndTheEnd) {
    DumpPipe pipe;
    const uint64_t before_ns = Timing::NowNs();
    ASSERT_TRUE(DumpWriter(pipe.ends[1]).Write({7, 8}));
    pipe.closeWriting();
    const DumpFile found = readBack(pipe.readAll());
    EXPECT_TRUE(found.whole);
    EXPECT_TRUE(found.threads.empty());
    EXPECT_EQ(DUMP_VERSION, found.header.version);
    EXPECT_EQ(sizeof(DumpHeader), found.header.header_size);
    EXPECT_EQ(static_cast<uint32_t>(::getpid()), found.header.pid);
    EXPECT_EQ(EventRing::PLACES, found.header.places);
    EXPECT_EQ(7u, found.header.begin_ticks);
    EXPECT_EQ(8u, found.header.begin_ns);
    EXPECT_GE(found.header.dump_ns, before_ns);
    EXPECT_LE(found.header.dump_ns, Timing::NowNs());
    EXPECT_GT(found.header.wall_ns, uint64_t{1700000000} * 1000000000);
}

TEST(DumpWriter, AClassThatIsKnownHasItsRowAndItsRawName) {
    static const int vtable = 0;
    const uint32_t row = ClassRows::Enter(&vtable, "N4Shop4TillE");
    DumpPipe pipe;
    ASSERT_TRUE(DumpWriter(pipe.ends[1]).Write({0, 0}));
    pipe.closeWriting();
    const DumpFile found = readBack(pipe.readAll());
    ASSERT_EQ(1u, found.classes.count(row));
    EXPECT_EQ("N4Shop4TillE", found.classes.at(row));
}

TEST(DumpWriter, EveryEventOfALongRingIsThere) {
    constexpr uint64_t EVENTS = 1000;  // not a multiple of what is copied at once
    putNumbers(EVENTS);
    const TempFolder folder;
    const std::string path = folder.file("dump");
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    ASSERT_TRUE(DumpWriter(fd).Write({0, 0}));
    ::close(fd);
    const std::vector<uint64_t> objects = DumpFile(path).objects(SOME_EVENT);
    ASSERT_EQ(EVENTS, objects.size());
    for (uint64_t number = 0; number < EVENTS; ++number) {
        ASSERT_EQ(number, objects[number]);
    }
}

TEST(DumpWriter, AFileThatTakesNothingMoreIsAnErrorWithItsNumber) {
    putNumbers(EventRing::PLACES);
    DumpPipe full(O_NONBLOCK);
    errno = 0;
    EXPECT_FALSE(DumpWriter(full.ends[1]).Write({0, 0}));
    EXPECT_EQ(EAGAIN, errno);
    full.closeWriting();
    const DumpFile part = readBack(full.readAll());
    EXPECT_FALSE(part.whole) << "and a reader can tell";
    EXPECT_EQ(EventRing::PLACES, part.header.places);
    errno = 0;
    EXPECT_FALSE(DumpWriter(-1).Write({0, 0}));
    EXPECT_EQ(EBADF, errno);
}

std::atomic<int> g_signals_met{0};

TEST(DumpWriter, SignalsThatComeInBetweenTakeNothingOfIt) {
    constexpr uint64_t EVENTS = EventRing::PLACES / 2;  // more than a pipe holds
    putNumbers(EVENTS);
    struct sigaction action {};
    action.sa_handler = [](int) { ++g_signals_met; };  // without SA_RESTART
    ASSERT_EQ(0, ::sigaction(SIGUSR1, &action, nullptr));
    DumpPipe pipe;
    std::atomic<bool> written{false};
    const pthread_t writer = ::pthread_self();
    std::string bytes;
    std::thread reader([&] {
        // It waits in the full pipe now, each time that a signal comes.
        for (int round = 0; round < 20 && !written; ++round) {
            const int before = g_signals_met;
            ::pthread_kill(writer, SIGUSR1);
            EXPECT_EVENTUALLY(g_signals_met > before);
        }
        bytes = pipe.readAll();
    });
    EXPECT_TRUE(DumpWriter(pipe.ends[1]).Write({0, 0}));
    written = true;
    pipe.closeWriting();
    reader.join();
    EXPECT_LT(0, g_signals_met);
    const DumpFile found = readBack(bytes);
    EXPECT_TRUE(found.whole);
    EXPECT_EQ(EVENTS, found.objects(SOME_EVENT).size());
}

}  // namespace
}  // namespace Orvex::Testing
