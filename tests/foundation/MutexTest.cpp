// CMutex: exclusion, re-entry, tryEnter, and use before main and after exit.
#if defined(__clang__)
// These tests enter and leave in all the ways that the analysis is there to refuse.
#pragma clang diagnostic ignored "-Wthread-safety-analysis"
#endif
#include <Infra/Mutex.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <thread>
#include <vector>

#include "support/Eventually.h"
#include "support/KernelThread.h"
#include "support/NoFutex.h"
#include "support/SeededRandom.h"

namespace Orvex::Infra {
namespace {

using namespace Testing;

INFRA_CONSTINIT CMutex g_static_mutex;
const bool g_worked_before_main = [] {
    const bool entered = g_static_mutex.enter() && g_static_mutex.heldByThisThread();
    return g_static_mutex.leave() && entered;
}();

// A thread that enters the mutex, stays until it is released, and leaves.
class Holder {
public:
    explicit Holder(CMutex& mutex) : m_mutex(mutex), m_thread([this] { run(); }) {}
    ~Holder() {
        release();
        m_thread.join();
    }

    bool holds() const { return m_holds; }
    void release() { m_released = true; }
    bool sleeps() const { return m_thread_id != 0 && sleepsInFutex(m_thread_id); }

private:
    void run() {
        m_thread_id = kernelThreadId();
        m_mutex.enter();
        m_holds = true;
        EXPECT_EVENTUALLY(m_released);
        m_holds = false;
        m_mutex.leave();
    }

    CMutex& m_mutex;
    std::atomic<int> m_thread_id{0};
    std::atomic<bool> m_holds{false};
    std::atomic<bool> m_released{false};
    std::thread m_thread;
};

bool otherThreadCanEnter(CMutex& mutex) {
    bool entered = false;
    std::thread([&] {
        entered = mutex.tryEnter();
        if (entered) {
            mutex.leave();
        }
    }).join();
    return entered;
}

TEST(Mutex, StaticMutexWorksBeforeMain) {
    EXPECT_TRUE(g_worked_before_main);
    EXPECT_TRUE(otherThreadCanEnter(g_static_mutex));
}

TEST(Mutex, EnterSleepsUntilTheHolderLeaves) {
    CMutex mutex;
    mutex.enter();
    Holder other(mutex);
    ASSERT_EVENTUALLY(other.sleeps());
    EXPECT_FALSE(other.holds());
    mutex.leave();
    EXPECT_EVENTUALLY(other.holds());
}

TEST(Mutex, EverySleeperGetsTheLockInTheEnd) {
    CMutex mutex;
    std::atomic<int> asleep{0};
    int passed = 0;
    mutex.enter();
    std::vector<std::thread> threads;
    std::vector<std::atomic<int>> ids(6);
    for (auto& id : ids) {
        threads.emplace_back([&] {
            id = kernelThreadId();
            CGuard guard(mutex);
            ++passed;
        });
    }
    for (auto& id : ids) {
        ASSERT_EVENTUALLY(id != 0 && sleepsInFutex(id));
        ++asleep;
    }
    EXPECT_EQ(0, passed);
    mutex.leave();
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(6, passed);
}

TEST(Mutex, HolderEntersAgainAndKeepsTheLockUntilItsLastLeave) {
    CMutex mutex;
    EXPECT_TRUE(mutex.enter());
    EXPECT_TRUE(mutex.enter());
    EXPECT_TRUE(mutex.tryEnter());
    EXPECT_FALSE(otherThreadCanEnter(mutex));
    EXPECT_TRUE(mutex.leave());
    EXPECT_TRUE(mutex.leave());
    EXPECT_FALSE(otherThreadCanEnter(mutex));
    EXPECT_TRUE(mutex.leave());
    EXPECT_TRUE(otherThreadCanEnter(mutex));
}

TEST(Mutex, TryEnterTakesAFreeLockAndFailsAtOnceOnAHeldOne) {
    CMutex mutex;
    ASSERT_TRUE(mutex.tryEnter());
    EXPECT_FALSE(otherThreadCanEnter(mutex));
    mutex.leave();
    Holder other(mutex);
    ASSERT_EVENTUALLY(other.holds());
    EXPECT_FALSE(mutex.tryEnter());
    other.release();
    EXPECT_EVENTUALLY(!other.holds() && mutex.tryEnter());
    mutex.leave();
}

TEST(Mutex, HeldByThisThreadKnowsOnlyTheOwnHold) {
    CMutex mutex;
    EXPECT_FALSE(mutex.heldByThisThread());
    mutex.enter();
    EXPECT_TRUE(mutex.heldByThisThread());
    bool other_holds = true;
    std::thread([&] { other_holds = mutex.heldByThisThread(); }).join();
    EXPECT_FALSE(other_holds);
    mutex.leave();
    EXPECT_FALSE(mutex.heldByThisThread());
}

// Unprotected data, entered in every way that there is: a lost update shows as a wrong sum, and a race to
// TSan.
TEST(Mutex, OneThreadAtATimeUnderStress) {
    constexpr int THREADS = 4;
    constexpr int ROUNDS = 20000;
    SeededRandom random;
    CMutex mutex;
    long sum = 0;
    std::vector<std::thread> threads;
    for (int i = 0; i < THREADS; ++i) {
        threads.emplace_back([&mutex, &sum, own = random.fork()]() mutable {
            for (int round = 0; round < ROUNDS; ++round) {
                if (!own.oneIn(4) || !mutex.tryEnter()) {
                    mutex.enter();
                }
                const int depth = own.between(0, 2);
                for (int level = 0; level < depth; ++level) {
                    mutex.enter();
                }
                ++sum;
                for (int level = 0; level < depth; ++level) {
                    mutex.leave();
                }
                mutex.leave();
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(long{THREADS} * ROUNDS, sum);
}

TEST(Mutex, GuardHoldsForItsScope) {
    CMutex mutex;
    {
        CGuard guard(mutex);
        EXPECT_TRUE(mutex.heldByThisThread());
    }
    EXPECT_FALSE(mutex.heldByThisThread());
    EXPECT_TRUE(otherThreadCanEnter(mutex));
}

TEST(Mutex, ErrnoSurvivesAWaitForTheLock) {
    CMutex mutex;
    mutex.enter();
    int errno_after = 0;
    std::atomic<int> id{0};
    std::thread other([&] {
        id = kernelThreadId();
        errno = ECONNRESET;
        CGuard guard(mutex);
        errno_after = errno;
    });
    ASSERT_EVENTUALLY(id != 0 && sleepsInFutex(id));
    errno = EPIPE;
    mutex.leave();
    EXPECT_EQ(EPIPE, errno);
    other.join();
    EXPECT_EQ(ECONNRESET, errno_after);
}

// The lock may go as soon as the last holder has left, even while the one before is still in leave().
TEST(Mutex, CanBeDestroyedByWhoeverWasLast) {
    for (int round = 0; round < 2000; ++round) {
        auto* const mutex = new CMutex;
        std::atomic<int> left{2};
        const auto use = [&] {
            mutex->enter();
            const bool last = left.fetch_sub(1) == 1;
            mutex->leave();
            if (last) {
                delete mutex;
            }
        };
        std::thread other(use);
        use();
        other.join();
    }
}

TEST(MutexDeath, UncontendedUseMakesNoSystemCall) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(runWithoutFutex([] {
                    CMutex mutex;
                    for (int i = 0; i < 100; ++i) {
                        mutex.enter();
                        mutex.tryEnter();
                        mutex.leave();
                        mutex.leave();
                    }
                }),
                testing::ExitedWithCode(WITHOUT_FUTEX), "");
}

TEST(MutexDeath, LeavingALockThatIsNotHeldFiresAnAssertion) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            CMutex mutex;
            mutex.leave();
        },
        "CMutex::leave on a thread that does not hold the lock");
}

TEST(MutexDeath, StaticMutexServesThreadsThatRunDuringExit) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            std::atomic<long> passes{0};
            std::thread([&] {
                for (;;) {
                    CGuard guard(g_static_mutex);
                    ++passes;
                }
            }).detach();
            eventually([&] { return passes > 10; });
            std::atexit([] { CGuard guard(g_static_mutex); });
            std::exit(7);
        },
        testing::ExitedWithCode(7), "");
}

}  // namespace
}  // namespace Orvex::Infra
