// CReadWriteMutex: readers side by side, one writer, and which goes first.
#if defined(__clang__)
// These tests enter and leave in all the ways that the analysis is there to refuse.
#pragma clang diagnostic ignored "-Wthread-safety-analysis"
#endif
#include <Infra/ReadWriteMutex.h>

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <thread>
#include <vector>

#include "support/Eventually.h"
#include "support/KernelThread.h"
#include "support/NoFutex.h"
#include "support/SeededRandom.h"

namespace Orvex::Infra {

struct ReadWriteMutexProbe {
    // Where the calling thread counts itself.
    static const void* slot(CReadWriteMutex& mutex) {
        const void* found = nullptr;
        mutex.enterReading();
        for (CReadWriteMutex::Slot& slot : mutex.m_slots) {
            found = slot.readers != 0 ? &slot : found;
        }
        mutex.leave();
        return found;
    }
};

namespace {

using namespace Testing;

// More threads than the lock has places to count them in.
constexpr int MANY = 20;

INFRA_CONSTINIT CReadWriteMutex g_static_rw_mutex;
const bool g_rw_worked_before_main = [] {
    const bool read = g_static_rw_mutex.enterReading() && g_static_rw_mutex.leave();
    return g_static_rw_mutex.enterWriting() && g_static_rw_mutex.leave() && read;
}();

enum class Way { READING, WRITING };

// A thread that enters the lock in one way, stays until it is released, and leaves.
class WayHolder {
public:
    WayHolder(CReadWriteMutex& mutex, Way way) : m_mutex(mutex), m_way(way), m_thread([this] { run(); }) {}
    ~WayHolder() { end(); }

    bool holds() const { return m_holds; }
    bool sleeps() const { return m_thread_id != 0 && sleepsInFutex(m_thread_id); }
    void release() { m_released = true; }
    void end() {
        release();
        if (m_thread.joinable()) {
            m_thread.join();
        }
    }

private:
    void run() {
        m_thread_id = kernelThreadId();
        EXPECT_TRUE(m_way == Way::READING ? m_mutex.enterReading() : m_mutex.enterWriting());
        m_holds = true;
        EXPECT_EVENTUALLY(m_released);
        m_holds = false;
        EXPECT_TRUE(m_mutex.leave());
    }

    CReadWriteMutex& m_mutex;
    const Way m_way;
    std::atomic<int> m_thread_id{0};
    std::atomic<bool> m_holds{false};
    std::atomic<bool> m_released{false};
    std::thread m_thread;
};

using Holders = std::vector<std::unique_ptr<WayHolder>>;

Holders manyReaders(CReadWriteMutex& mutex) {
    Holders readers;
    for (int i = 0; i < MANY; ++i) {
        readers.push_back(std::make_unique<WayHolder>(mutex, Way::READING));
    }
    return readers;
}

bool allHold(const Holders& holders) {
    for (const auto& holder : holders) {
        if (!holder->holds()) {
            return false;
        }
    }
    return true;
}

TEST(ReadWriteMutex, StaticLockWorksBeforeMain) {
    EXPECT_TRUE(g_rw_worked_before_main);
}

TEST(ReadWriteMutex, ReadersHoldItSideBySide) {
    CReadWriteMutex mutex;
    const Holders readers = manyReaders(mutex);
    EXPECT_EVENTUALLY(allHold(readers));
    mutex.enterReading();
    EXPECT_TRUE(allHold(readers));
    mutex.leave();
}

TEST(ReadWriteMutex, WriterWaitsForTheLastReader) {
    CReadWriteMutex mutex;
    const Holders readers = manyReaders(mutex);
    ASSERT_EVENTUALLY(allHold(readers));
    WayHolder writer(mutex, Way::WRITING);
    for (const auto& reader : readers) {
        ASSERT_EVENTUALLY(writer.sleeps());
        EXPECT_FALSE(writer.holds());
        reader->end();
    }
    EXPECT_EVENTUALLY(writer.holds());
}

TEST(ReadWriteMutex, ReadersAndWritersWaitForTheWriter) {
    CReadWriteMutex mutex;
    mutex.enterWriting();
    EXPECT_TRUE(mutex.writtenByThisThread());
    const Holders readers = manyReaders(mutex);
    WayHolder writer(mutex, Way::WRITING);
    for (const auto& reader : readers) {
        ASSERT_EVENTUALLY(reader->sleeps());
        EXPECT_FALSE(reader->holds());
    }
    ASSERT_EVENTUALLY(writer.sleeps());
    EXPECT_FALSE(writer.holds());
    mutex.leave();
    EXPECT_FALSE(mutex.writtenByThisThread());
    // Whoever comes first: readers that are let in together, or the writer before or among them.
    for (const auto& reader : readers) {
        reader->release();
    }
    EXPECT_EVENTUALLY(writer.holds());
    writer.end();
    for (const auto& reader : readers) {
        reader->end();
    }
}

TEST(ReadWriteMutex, NewReaderWaitsBehindAWaitingWriter) {
    CReadWriteMutex mutex;
    WayHolder first(mutex, Way::READING);
    ASSERT_EVENTUALLY(first.holds());
    WayHolder writer(mutex, Way::WRITING);
    ASSERT_EVENTUALLY(writer.sleeps());
    WayHolder second(mutex, Way::READING);
    ASSERT_EVENTUALLY(second.sleeps());
    EXPECT_FALSE(second.holds());
    first.end();
    ASSERT_EVENTUALLY(writer.holds());
    EXPECT_FALSE(second.holds());
    writer.end();
    EXPECT_EVENTUALLY(second.holds());
}

TEST(ReadWriteMutex, WriterGetsInAmongReadersThatNeverPause) {
    CReadWriteMutex mutex;
    std::atomic<bool> done{false};
    std::vector<std::thread> readers;
    for (int i = 0; i < 3; ++i) {
        readers.emplace_back([&] {
            while (!done) {
                CReadGuard guard(mutex);
            }
        });
    }
    for (int i = 0; i < 500; ++i) {
        CWriteGuard guard(mutex);
    }
    done = true;
    for (auto& reader : readers) {
        reader.join();
    }
}

TEST(ReadWriteMutex, ReaderGetsInAmongWritersThatNeverPause) {
    CReadWriteMutex mutex;
    std::atomic<bool> done{false};
    std::vector<std::thread> writers;
    for (int i = 0; i < 2; ++i) {
        writers.emplace_back([&] {
            while (!done) {
                CWriteGuard guard(mutex);
            }
        });
    }
    for (int i = 0; i < 100; ++i) {
        CReadGuard guard(mutex);
    }
    done = true;
    for (auto& writer : writers) {
        writer.join();
    }
}

// Plain data that a writer changes in two steps: a reader that meets it in between sees a difference, TSan
// sees a race.
TEST(ReadWriteMutex, NobodyMeetsAWriterUnderStress) {
    constexpr int THREADS = 6;
    constexpr int ROUNDS = 10000;
    SeededRandom random;
    CReadWriteMutex mutex;
    long first = 0;
    long second = 0;
    std::atomic<long> writes{0};
    std::atomic<int> differences{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < THREADS; ++i) {
        threads.emplace_back([&, own = random.fork()]() mutable {
            for (int round = 0; round < ROUNDS; ++round) {
                if (own.oneIn(20)) {
                    CWriteGuard guard(mutex);
                    ++first;
                    if (own.oneIn(50)) {
                        std::this_thread::yield();
                    }
                    ++second;
                    ++writes;
                } else {
                    CReadGuard guard(mutex);
                    differences += first != second ? 1 : 0;
                }
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(0, differences);
    EXPECT_EQ(writes, first);
    EXPECT_EQ(writes, second);
}

// Readers that sleep and writers that sleep, in a seeded order, must all come through: a lost wake-up hangs.
TEST(ReadWriteMutex, NoWakeUpIsLostWhenHoldersLinger) {
    constexpr int THREADS = 4;
    SeededRandom random;
    CReadWriteMutex mutex;
    std::vector<std::thread> threads;
    for (int i = 0; i < THREADS; ++i) {
        threads.emplace_back([&mutex, own = random.fork()]() mutable {
            for (int round = 0; round < 300; ++round) {
                const auto linger = [&] {
                    const timespec time = {0, own.between(0L, 60000L)};
                    ::nanosleep(&time, nullptr);
                };
                if (own.oneIn(3)) {
                    CWriteGuard guard(mutex);
                    linger();
                } else {
                    CReadGuard guard(mutex);
                    linger();
                }
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
}

TEST(ReadWriteMutexDeath, UncontendedUseMakesNoSystemCall) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(runWithoutFutex([] {
                    CReadWriteMutex mutex;
                    for (int i = 0; i < 100; ++i) {
                        mutex.enterReading();
                        mutex.leave();
                        mutex.enterWriting();
                        mutex.leave();
                    }
                }),
                testing::ExitedWithCode(WITHOUT_FUTEX), "");
}

void readUnderOwnWriting() {
    CReadWriteMutex mutex;
    mutex.enterWriting();
    mutex.enterReading();
}

void writeUnderOwnWriting() {
    CReadWriteMutex mutex;
    mutex.enterWriting();
    mutex.enterWriting();
}

void leaveWithoutHold() {
    CReadWriteMutex mutex;
    mutex.leave();
}

TEST(ReadWriteMutexDeath, ReadingUnderTheOwnWritingFiresAnAssertion) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(readUnderOwnWriting(), "enterReading on the thread that holds it for writing");
}

TEST(ReadWriteMutexDeath, WritingUnderTheOwnWritingFiresAnAssertion) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(writeUnderOwnWriting(), "enterWriting on the thread that holds it for writing");
}

TEST(ReadWriteMutexDeath, LeavingALockThatIsNotHeldFiresAnAssertion) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(leaveWithoutHold(), "CReadWriteMutex::leave on a thread that does not hold the lock");
}

// Threads that count themselves in one place slow each other down.
TEST(ReadWriteMutex, ThreadsThatComeAndGoLeaveTheirPlacesToOthers) {
    CReadWriteMutex mutex;
    const void* const mine = ReadWriteMutexProbe::slot(mutex);
    for (int i = 0; i < MANY; ++i) {
        const void* others = nullptr;
        std::thread([&] { others = ReadWriteMutexProbe::slot(mutex); }).join();
        ASSERT_NE(mine, others) << "thread " << i;
    }
}

}  // namespace
}  // namespace Orvex::Infra
