// CSemaphore: counts, waits, deadlines and wake-ups.
#include <Infra/Semaphore.h>

#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <time.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <memory>
#include <thread>
#include <vector>

#include <Infra/Time.h>
#include "support/Eventually.h"
#include "support/KernelThread.h"
#include "support/NoFutex.h"
#include "support/SeededRandom.h"

namespace Orvex::Infra {
namespace {

using namespace Testing;

INFRA_CONSTINIT CSemaphore g_static_semaphore(1);
const int g_result_before_main = g_static_semaphore.pend();

// A thread that waits in pend() once.
class Waiter {
public:
    explicit Waiter(CSemaphore& semaphore)
        : m_thread([this, &semaphore] {
              m_thread_id = kernelThreadId();
              m_result = semaphore.pend();
              m_returned = true;
          }) {}
    ~Waiter() { m_thread.join(); }

    bool sleeps() const { return m_thread_id != 0 && sleepsInFutex(m_thread_id); }
    bool returned() const { return m_returned; }
    int result() const { return m_result; }
    int threadId() const { return m_thread_id; }
    pthread_t handle() { return m_thread.native_handle(); }

private:
    std::atomic<int> m_thread_id{0};
    std::atomic<int> m_result{-2};
    std::atomic<bool> m_returned{false};
    std::thread m_thread;
};

using Waiters = std::vector<std::unique_ptr<Waiter>>;

Waiters sleepingWaiters(CSemaphore& semaphore, int count) {
    Waiters waiters;
    for (int i = 0; i < count; ++i) {
        waiters.push_back(std::make_unique<Waiter>(semaphore));
        EXPECT_EVENTUALLY(waiters.back()->sleeps());
    }
    return waiters;
}

int returnedOf(const Waiters& waiters) {
    int count = 0;
    for (const auto& waiter : waiters) {
        count += waiter->returned() ? 1 : 0;
    }
    return count;
}

int countsIn(CSemaphore& semaphore) {
    int count = 0;
    while (semaphore.pend(0u) == 0) {
        ++count;
    }
    return count;
}

TEST(Semaphore, StaticSemaphoreWorksBeforeMain) {
    EXPECT_EQ(0, g_result_before_main);
}

TEST(Semaphore, InitialCountCanBeTaken) {
    CSemaphore semaphore(3);
    EXPECT_EQ(3, countsIn(semaphore));
}

TEST(Semaphore, NegativeInitialCountIsZero) {
    CSemaphore semaphore(-5);
    EXPECT_EQ(0, countsIn(semaphore));
    semaphore.post();
    EXPECT_EQ(1, countsIn(semaphore));
}

TEST(Semaphore, PostsAddUpWhileNobodyWaits) {
    CSemaphore semaphore(0);
    EXPECT_EQ(0, semaphore.post());
    EXPECT_EQ(0, semaphore.post());
    EXPECT_EQ(0, semaphore.post(5, 1));
    EXPECT_EQ(0, semaphore.pend());
    EXPECT_EQ(6, countsIn(semaphore));
}

TEST(Semaphore, PostOfNothingAddsNothing) {
    CSemaphore semaphore(0);
    EXPECT_EQ(0, semaphore.post(0, 1));
    EXPECT_EQ(0, semaphore.post(-3, 1));
    EXPECT_EQ(0, countsIn(semaphore));
}

TEST(Semaphore, PendSleepsUntilAPost) {
    CSemaphore semaphore(0);
    const Waiters waiters = sleepingWaiters(semaphore, 1);
    EXPECT_FALSE(waiters[0]->returned());
    semaphore.post();
    EXPECT_EVENTUALLY(waiters[0]->returned());
    EXPECT_EQ(0, waiters[0]->result());
    EXPECT_EQ(0, countsIn(semaphore));
}

TEST(Semaphore, OnePostReleasesOneWaiter) {
    CSemaphore semaphore(0);
    const Waiters waiters = sleepingWaiters(semaphore, 3);
    for (int released = 1; released <= 3; ++released) {
        semaphore.post();
        EXPECT_EVENTUALLY(returnedOf(waiters) == released);
        for (const auto& waiter : waiters) {
            EXPECT_EVENTUALLY(waiter->returned() || waiter->sleeps());
        }
        EXPECT_EQ(released, returnedOf(waiters));
    }
}

TEST(Semaphore, PostWakesAtMostAsManyWaitersAsAsked) {
    CSemaphore semaphore(0);
    const Waiters waiters = sleepingWaiters(semaphore, 3);
    semaphore.post(3, 1);
    EXPECT_EVENTUALLY(returnedOf(waiters) == 1);
    for (const auto& waiter : waiters) {
        EXPECT_EVENTUALLY(waiter->returned() || waiter->sleeps());
    }
    EXPECT_EQ(1, returnedOf(waiters));
    EXPECT_EQ(1, semaphore.wakeOne());
    EXPECT_EVENTUALLY(returnedOf(waiters) == 2);
    EXPECT_EQ(1, semaphore.wakeOne());
    EXPECT_EVENTUALLY(returnedOf(waiters) == 3);
    EXPECT_EQ(0, countsIn(semaphore));
}

TEST(Semaphore, PostOfManyWakesMany) {
    CSemaphore semaphore(0);
    const Waiters waiters = sleepingWaiters(semaphore, 3);
    semaphore.post(4, INT_MAX);
    EXPECT_EVENTUALLY(returnedOf(waiters) == 3);
    EXPECT_EQ(1, countsIn(semaphore));
}

TEST(Semaphore, WaiterThatIsWokenWithNothingToTakeSleepsOn) {
    CSemaphore semaphore(0);
    EXPECT_EQ(0, semaphore.wakeOne());
    const Waiters waiters = sleepingWaiters(semaphore, 1);
    const long sleeps_before = voluntarySleeps(waiters[0]->threadId());
    EXPECT_EQ(1, semaphore.wakeOne());
    EXPECT_EVENTUALLY(voluntarySleeps(waiters[0]->threadId()) > sleeps_before && waiters[0]->sleeps());
    EXPECT_FALSE(waiters[0]->returned());
    semaphore.post();
}

void ignoreSignal(int) {}

TEST(Semaphore, PendGoesOnWaitingAfterSignals) {
    struct sigaction action = {};
    action.sa_handler = &ignoreSignal;  // without SA_RESTART, so that system calls end with EINTR
    struct sigaction before;
    ASSERT_EQ(0, ::sigaction(SIGUSR1, &action, &before));
    {
        CSemaphore semaphore(0);
        const Waiters waiters = sleepingWaiters(semaphore, 1);
        for (int i = 0; i < 10; ++i) {
            const long sleeps_before = voluntarySleeps(waiters[0]->threadId());
            ASSERT_EQ(0, ::pthread_kill(waiters[0]->handle(), SIGUSR1));
            EXPECT_EVENTUALLY(voluntarySleeps(waiters[0]->threadId()) > sleeps_before &&
                              waiters[0]->sleeps());
            EXPECT_FALSE(waiters[0]->returned());
        }
        semaphore.post();
        EXPECT_EVENTUALLY(waiters[0]->returned());
        EXPECT_EQ(0, waiters[0]->result());
    }
    ::sigaction(SIGUSR1, &before, nullptr);
}

TEST(Semaphore, TimedPendGivesUpAfterItsTimeAndNotBefore) {
    CSemaphore semaphore(0);
    const uint64_t start_us = CTime::getCurrentMicroSecond();
    EXPECT_EQ(-1, semaphore.pend(20u));
    EXPECT_FALSE(semaphore.pendFor(15000));
    EXPECT_GE(CTime::getCurrentMicroSecond() - start_us, 35000u);
    EXPECT_FALSE(semaphore.pendFor(0));
    semaphore.post();
    EXPECT_EQ(1, countsIn(semaphore));
}

TEST(Semaphore, TimedPendTakesAPostThatComesInTime) {
    CSemaphore semaphore(0);
    std::atomic<int> id{0};
    bool taken = false;
    std::thread waiter([&] {
        id = kernelThreadId();
        taken = semaphore.pendFor(static_cast<uint64_t>(scaledMs(10000)) * 1000);
    });
    ASSERT_EVENTUALLY(id != 0 && sleepsInFutex(id));
    semaphore.post();
    waiter.join();
    EXPECT_TRUE(taken);
    EXPECT_EQ(0, countsIn(semaphore));
}

TEST(Semaphore, AnUnboundedTimeIsNoTimeOut) {
    CSemaphore semaphore(0);
    std::atomic<int> id{0};
    bool taken = false;
    std::thread waiter([&] {
        id = kernelThreadId();
        taken = semaphore.pendFor(UINT64_MAX);
    });
    ASSERT_EVENTUALLY(id != 0 && sleepsInFutex(id));
    semaphore.post();
    waiter.join();
    EXPECT_TRUE(taken);
}

TEST(Semaphore, WaitingCostsNoProcessorTime) {
    CSemaphore semaphore(0);
    const Waiters waiters = sleepingWaiters(semaphore, 1);
    clockid_t clock;
    ASSERT_EQ(0, ::pthread_getcpuclockid(waiters[0]->handle(), &clock));
    timespec before;
    timespec after;
    ::clock_gettime(clock, &before);
    EXPECT_EQ(-1, CSemaphore(0).pend(200u));
    ::clock_gettime(clock, &after);
    EXPECT_EQ(before.tv_sec, after.tv_sec);
    EXPECT_EQ(before.tv_nsec, after.tv_nsec);
    semaphore.post();
}

TEST(Semaphore, ErrnoSurvivesATimeOut) {
    CSemaphore semaphore(0);
    errno = ECONNRESET;
    EXPECT_EQ(-1, semaphore.pend(1u));
    EXPECT_EQ(ECONNRESET, errno);
}

// Every count that is posted is taken once, whatever mixture of waits and time-outs takes it. A lost wake-up
// hangs.
TEST(Semaphore, CountsAreNeitherLostNorDoubledUnderStress) {
    constexpr int POSTS = 30000;
    constexpr int TAKERS = 4;
    SeededRandom random;
    CSemaphore semaphore(0);
    std::atomic<int> taken{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < TAKERS; ++i) {
        threads.emplace_back([&, own = random.fork()]() mutable {
            while (taken < POSTS) {
                const bool got = own.oneIn(3) ? semaphore.pendFor(own.between<uint64_t>(0, 300))
                                              : semaphore.pend(own.between(1u, 20u)) == 0;
                taken += got ? 1 : 0;
            }
        });
    }
    for (int posted = 0; posted < POSTS;) {
        const int count = std::min(random.between(1, 4), POSTS - posted);
        semaphore.post(count, count);
        posted += count;
        if (random.oneIn(64)) {
            std::this_thread::yield();
        }
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(POSTS, taken);
    EXPECT_EQ(0, countsIn(semaphore));
}

TEST(Semaphore, UntimedWaitersAllReturnUnderStress) {
    constexpr int ROUNDS = 20000;
    CSemaphore ping(0);
    CSemaphore pong(0);
    std::thread other([&] {
        for (int i = 0; i < ROUNDS; ++i) {
            ping.pend();
            pong.post();
        }
    });
    for (int i = 0; i < ROUNDS; ++i) {
        ping.post();
        pong.pend();
    }
    other.join();
    EXPECT_EQ(0, countsIn(ping));
    EXPECT_EQ(0, countsIn(pong));
}

// Whoever took the last count may destroy the semaphore, even while its poster is still in post(). ASan and
// TSan watch.
TEST(Semaphore, CanBeDestroyedByWhoTookTheLastCount) {
    for (int round = 0; round < 2000; ++round) {
        auto* const semaphore = new CSemaphore(0);
        std::thread poster([semaphore] { semaphore->post(); });
        semaphore->pend();
        delete semaphore;
        poster.join();
    }
}

// What was written before the post is seen after the pend; TSan checks the order.
TEST(Semaphore, PostHandsOverWhatWasWrittenBefore) {
    CSemaphore semaphore(0);
    std::vector<int> data;
    std::thread writer([&] {
        data.assign(100, 7);
        semaphore.post();
    });
    semaphore.pend();
    EXPECT_EQ(std::vector<int>(100, 7), data);
    writer.join();
}

TEST(SemaphoreDeath, PostAndPendMakeNoSystemCallWhileNobodyWaits) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(runWithoutFutex([] {
                    CSemaphore semaphore(0);
                    for (int i = 0; i < 100; ++i) {
                        semaphore.post();
                        semaphore.post(2, 2);
                        semaphore.wakeOne();
                        semaphore.pend();
                        semaphore.pend(5u);
                        semaphore.pendFor(0);
                    }
                }),
                testing::ExitedWithCode(WITHOUT_FUTEX), "");
}

TEST(SemaphoreDeath, CountBeyondItsLimitFiresAnAssertion) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            CSemaphore semaphore(INT_MAX);
            semaphore.post();
        },
        "Assertion");
}

}  // namespace
}  // namespace Orvex::Infra
