// CThread: start, end, restart, cancellation, sleep and signals.
#include <Infra/ThreadLite.h>

#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <Infra/Semaphore.h>
#include <Infra/Time.h>
#include "support/Eventually.h"
#include "support/KernelThread.h"
#include "support/LogCapture.h"
#include "support/SeededRandom.h"
#include "support/ThreadFault.h"

namespace Orvex::Infra {
namespace {

using namespace Testing;

// A body that loops until it is cancelled, and counts.
struct Body {
    std::atomic<int> starts{0};
    std::atomic<long> passes{0};
    std::atomic<int> ends{0};
    std::atomic<CThreadLite*> seen{nullptr};
    std::atomic<int> thread_id{0};

    void loop(CThreadLite& thread) {
        begin(thread);
        while (thread.looping()) {
            ++passes;
            thread.pause(1);
        }
        ++ends;
    }
    void once(CThreadLite& thread) {
        begin(thread);
        ++ends;
    }
    void begin(CThreadLite& thread) {
        thread_id = CThread::getCurrentThreadID();
        seen = &thread;
        ++starts;
    }
};

TFunction1<void, CThreadLite&> looping(Body& body) {
    return {&Body::loop, &body};
}
TFunction1<void, CThreadLite&> once(Body& body) {
    return {&Body::once, &body};
}

// Threads of the process while none is ours. A sanitizer starts one of its own with the first thread.
int threadsAtRest() {
    int first = 0;
    std::thread([&] { first = kernelThreadId(); }).join();
    // The kernel lists a joined thread for a moment longer.
    EXPECT_EVENTUALLY(kernelThreadName(first).empty());
    return kernelThreadCount();
}

TEST(Thread, ConstructionStartsNothingAndANeverStartedThreadIsOver) {
    const int at_rest = threadsAtRest();
    Body body;
    CThreadLite thread(looping(body), "Idle");
    EXPECT_TRUE(thread.isThreadOver());
    EXPECT_TRUE(thread.looping());
    EXPECT_EVENTUALLY(kernelThreadCount() == at_rest);
    EXPECT_EQ(0, body.starts);
}

TEST(Thread, BodyGetsItsThreadAndRunsUntilItReturns) {
    Body body;
    CThreadLite thread(looping(body), "Runner");
    ASSERT_TRUE(thread.createThread());
    EXPECT_EVENTUALLY(body.passes > 2);
    EXPECT_EQ(&thread, body.seen);
    EXPECT_FALSE(thread.isThreadOver());
    EXPECT_TRUE(thread.looping());
    EXPECT_TRUE(thread.cancelThread());
    EXPECT_FALSE(thread.looping());
    EXPECT_EVENTUALLY(thread.isThreadOver());
    EXPECT_EQ(1, body.ends);
}

TEST(Thread, DestroyRequestsTheEndItselfAndWaitsForIt) {
    const int at_rest = threadsAtRest();
    Body body;
    CThreadLite thread(looping(body), "Runner");
    ASSERT_TRUE(thread.createThread());
    EXPECT_TRUE(thread.destroyThread());
    EXPECT_TRUE(thread.isThreadOver());
    EXPECT_EQ(body.starts, body.ends);
    EXPECT_EVENTUALLY(kernelThreadCount() == at_rest);
}

TEST(Thread, DestroyAfterCancelAndDestroyTwiceDoNoHarm) {
    Body body;
    CThreadLite thread(looping(body), "Runner");
    EXPECT_TRUE(thread.destroyThread());
    ASSERT_TRUE(thread.createThread());
    thread.cancelThread();
    EXPECT_TRUE(thread.destroyThread());
    EXPECT_TRUE(thread.destroyThread());
    EXPECT_EQ(1, body.ends);
}

TEST(Thread, DestroyFromSeveralThreadsWaitsInEachOfThem) {
    for (int round = 0; round < 50; ++round) {
        Body body;
        CThreadLite thread(looping(body), "Runner");
        ASSERT_TRUE(thread.createThread());
        std::vector<std::thread> others;
        for (int i = 0; i < 3; ++i) {
            others.emplace_back([&] {
                thread.destroyThread();
                EXPECT_EQ(1, body.ends);
                EXPECT_TRUE(thread.isThreadOver());
            });
        }
        for (auto& other : others) {
            other.join();
        }
    }
}

// A new thread that announced itself as looping would overwrite the request and run for ever.
TEST(Thread, CancelBeforeTheBodysFirstStepIsNotLost) {
    Body body;
    CThreadLite thread(looping(body), "Runner");
    for (int round = 1; round <= 300; ++round) {
        ASSERT_TRUE(thread.createThread());
        thread.cancelThread();
        ASSERT_EVENTUALLY(thread.isThreadOver());
        ASSERT_EQ(round, body.ends);
    }
}

TEST(Thread, CanBeStartedAgainAfterEachWayToEnd) {
    const int at_rest = threadsAtRest();
    Body body;
    CThreadLite thread(looping(body), "Runner");
    for (int round = 0; round < 30; ++round) {
        ASSERT_TRUE(thread.createThread());
        ASSERT_EVENTUALLY(body.starts == 2 * round + 1);
        thread.destroyThread();
        ASSERT_TRUE(thread.createThread());
        EXPECT_TRUE(thread.looping());
        ASSERT_EVENTUALLY(body.starts == 2 * round + 2);
        thread.cancelThread();
    }
    thread.destroyThread();
    EXPECT_EQ(60, body.starts);
    EXPECT_EQ(60, body.ends);
    EXPECT_EVENTUALLY(kernelThreadCount() == at_rest);
}

// A run that is not joined keeps its stack, 8 MiB of address space as a rule.
TEST(Thread, StartAfterANaturalEndJoinsTheEarlierRun) {
    const int at_rest = threadsAtRest();
    Body body;
    CThreadLite thread(once(body), "Once");
    constexpr int RUNS = 100;
    constexpr long ALLOWED_GROWTH = 300L * 1024 * 1024;
    const long size_before = addressSpace();
    for (int run = 1; run <= RUNS; ++run) {
        ASSERT_TRUE(thread.createThread());
        ASSERT_EVENTUALLY(thread.isThreadOver());
        EXPECT_EQ(run, body.ends);
    }
    EXPECT_LT(addressSpace() - size_before, ALLOWED_GROWTH);
    thread.destroyThread();
    EXPECT_EVENTUALLY(kernelThreadCount() == at_rest);
}

TEST(Thread, ARunningThreadIsNotStartedTwice) {
    Body body;
    CThreadLite thread(looping(body), "Runner");
    ASSERT_TRUE(thread.createThread());
    EXPECT_FALSE(thread.createThread());
    thread.destroyThread();
    EXPECT_EQ(1, body.starts);
}

TEST(Thread, DeletionJoinsARunningThreadAndOneThatIsOver) {
    const int at_rest = threadsAtRest();
    Body body;
    std::unique_ptr<CThread> thread = std::make_unique<CThreadLite>(looping(body), "Runner");
    ASSERT_TRUE(thread->createThread());
    ASSERT_EVENTUALLY(body.starts == 1);
    thread.reset();
    EXPECT_EQ(1, body.ends);
    thread = std::make_unique<CThreadLite>(once(body), "Once");
    ASSERT_TRUE(thread->createThread());
    ASSERT_EVENTUALLY(thread->isThreadOver());
    thread.reset();
    EXPECT_EVENTUALLY(kernelThreadCount() == at_rest);
}

// The thread's first step may come when the deletion is under way: the whole object must still be there.
TEST(Thread, CanBeDeletedRightAfterItsStart) {
    for (int round = 0; round < 300; ++round) {
        Body body;
        auto thread = std::make_unique<CThreadLite>(looping(body), "Runner");
        ASSERT_TRUE(thread->createThread());
        thread.reset();
        ASSERT_EQ(1, body.ends);
    }
}

// The owner may delete the object as soon as it is over: the thread must not touch it after saying so. ASan
// and TSan watch.
TEST(Thread, CanBeDeletedTheMomentItIsOver) {
    for (int round = 0; round < 300; ++round) {
        Body body;
        auto thread = std::make_unique<CThreadLite>(once(body), "Once");
        ASSERT_TRUE(thread->createThread());
        while (!thread->isThreadOver()) {
        }
    }
}

TEST(Thread, FailureToCreateLeavesItOverLoggedAndStartable) {
    LogCapture log;
    Body body;
    CThreadLite thread(looping(body), "Runner");
    {
        const ThreadFault fault;
        EXPECT_FALSE(thread.createThread());
        EXPECT_EQ(1, fault.refused());
    }
    EXPECT_TRUE(thread.isThreadOver());
    EXPECT_TRUE(
        log.contains(2,
                     "Orvex::Infra::CThread::createThread : thread \"Runner\" cannot be created, error : 11, "
                     "Resource temporarily unavailable\n"))
        << log.dump();
    EXPECT_TRUE(thread.destroyThread());
    ASSERT_TRUE(thread.createThread());
    EXPECT_EVENTUALLY(body.starts == 1);
}

TEST(Thread, FailureOfARestartKeepsTheEarlierRunsEnd) {
    LogCapture log;
    Body body;
    CThreadLite thread(once(body), "Once");
    ASSERT_TRUE(thread.createThread());
    ASSERT_EVENTUALLY(thread.isThreadOver());
    const ThreadFault fault;
    EXPECT_FALSE(thread.createThread());
    EXPECT_TRUE(thread.isThreadOver());
    EXPECT_TRUE(thread.destroyThread());
    EXPECT_EQ(1, body.ends);
}

TEST(Thread, AsynchronousSignalsAreBlockedAndFaultsAreNot) {
    sigset_t mask_before;
    ::pthread_sigmask(SIG_SETMASK, nullptr, &mask_before);
    struct Asker {
        sigset_t mask;
        void ask(CThreadLite&) { ::pthread_sigmask(SIG_SETMASK, nullptr, &mask); }
    } asker;
    CThreadLite thread({&Asker::ask, &asker}, "Asker");
    ASSERT_TRUE(thread.createThread());
    ASSERT_EVENTUALLY(thread.isThreadOver());
    thread.destroyThread();
    for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGUSR1, SIGUSR2, SIGALRM, SIGPIPE, SIGCHLD,
                             SIGPROF, SIGVTALRM, SIGWINCH, SIGIO, SIGRTMIN, SIGRTMAX}) {
        EXPECT_EQ(1, ::sigismember(&asker.mask, signal)) << signal;
    }
    for (const int signal : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGTRAP, SIGSYS}) {
        EXPECT_EQ(0, ::sigismember(&asker.mask, signal)) << signal;
    }
    sigset_t mask_after;
    ::pthread_sigmask(SIG_SETMASK, nullptr, &mask_after);
    for (int signal = 1; signal < NSIG; ++signal) {
        EXPECT_EQ(::sigismember(&mask_before, signal), ::sigismember(&mask_after, signal)) << signal;
    }
}

TEST(Thread, PauseEndsWithItsTimeOrEarlyWithACancel) {
    struct Pauser {
        std::atomic<bool> first{false};
        std::atomic<bool> second{true};
        std::atomic<int> thread_id{0};
        void pause(CThreadLite& thread) {
            first = thread.pause(5) && thread.pause(0) && thread.pause(-1);
            thread_id = CThread::getCurrentThreadID();
            second = thread.pause(24 * 3600 * 1000);
        }
    } pauser;
    CThreadLite thread({&Pauser::pause, &pauser}, "Pauser");
    const uint64_t start_us = CTime::getCurrentMicroSecond();
    ASSERT_TRUE(thread.createThread());
    ASSERT_EVENTUALLY(pauser.thread_id != 0 && sleepsInFutex(pauser.thread_id));
    EXPECT_GE(CTime::getCurrentMicroSecond() - start_us, 5000u);
    EXPECT_TRUE(pauser.first);
    thread.destroyThread();
    EXPECT_FALSE(pauser.second);
    EXPECT_FALSE(thread.pause(1000));
}

std::atomic<int> g_signals{0};
void countSignal(int) {
    ++g_signals;
}

// Every two milliseconds a signal to the thread that made it. The kernel sends them, so no other thread has
// to run for that.
class SignalsToThisThread {
public:
    SignalsToThisThread() {
        struct sigevent event = {};
        event.sigev_notify = SIGEV_THREAD_ID;
        event.sigev_signo = SIGUSR1;
        event._sigev_un._tid = kernelThreadId();
        EXPECT_EQ(0, ::timer_create(CLOCK_MONOTONIC, &event, &m_timer));
        const timespec step = {0, 2000000};
        const itimerspec times = {step, step};
        EXPECT_EQ(0, ::timer_settime(m_timer, 0, &times, nullptr));
    }
    ~SignalsToThisThread() { ::timer_delete(m_timer); }

private:
    timer_t m_timer{};
};

TEST(Thread, SleepLastsItsTimeWhateverSignalsArrive) {
    struct sigaction action = {};
    action.sa_handler = &countSignal;
    struct sigaction before;
    ASSERT_EQ(0, ::sigaction(SIGUSR1, &action, &before));
    {
        const SignalsToThisThread signals;
        const uint64_t start_us = CTime::getCurrentMicroSecond();
        CThread::sleep(60);
        EXPECT_GE(CTime::getCurrentMicroSecond() - start_us, 60000u);
    }
    EXPECT_GT(g_signals, 0);
    ::sigaction(SIGUSR1, &before, nullptr);
    CThread::sleep(0);
    CThread::sleep(-5);
}

TEST(Thread, ThreadIdIsTheKernelsAlsoInAForkedChild) {
    EXPECT_EQ(kernelThreadId(), CThread::getCurrentThreadID());
    EXPECT_EQ(kernelThreadId(), CThread::getCurrentThreadID());
    std::thread([] { EXPECT_EQ(kernelThreadId(), CThread::getCurrentThreadID()); }).join();
    const pid_t child = ::fork();
    if (child == 0) {
        ::_exit(CThread::getCurrentThreadID() == kernelThreadId() ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(child, ::waitpid(child, &status, 0));
    EXPECT_EQ(0, status);
}

// Starts, cancels and ends in a seeded order by several threads at once: nothing hangs, nothing is left.
TEST(Thread, StartsAndEndsRacedLeaveNoThread) {
    const int at_rest = threadsAtRest();
    SeededRandom random;
    Body body;
    CThreadLite thread(looping(body), "Runner");
    std::vector<std::thread> others;
    for (int i = 0; i < 3; ++i) {
        others.emplace_back([&thread, own = random.fork()]() mutable {
            for (int step = 0; step < 200; ++step) {
                switch (own.between(0, 3)) {
                    case 0:
                        thread.cancelThread();
                        break;
                    case 1:
                        thread.destroyThread();
                        break;
                    default:
                        thread.cancelThread();
                        thread.createThread();
                        break;
                }
            }
        });
    }
    for (auto& other : others) {
        other.join();
    }
    thread.destroyThread();
    EXPECT_TRUE(thread.isThreadOver());
    EXPECT_EQ(body.starts, body.ends);
    EXPECT_EVENTUALLY(kernelThreadCount() == at_rest);
}

struct Selfish {
    void destroy(CThreadLite& thread) { thread.destroyThread(); }
    void create(CThreadLite& thread) { thread.createThread(); }
};

TEST(ThreadDeath, DestroyOnTheThreadItselfFiresAnAssertion) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    Selfish selfish;
    EXPECT_DEATH(
        {
            CThreadLite thread({&Selfish::destroy, &selfish}, "Selfish");
            thread.createThread();
            eventually([&] { return thread.isThreadOver(); });
        },
        "CThread::destroyThread called by the thread itself, which would wait for its own end");
}

TEST(ThreadDeath, StartOnTheThreadItselfFiresAnAssertion) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    Selfish selfish;
    EXPECT_DEATH(
        {
            CThreadLite thread({&Selfish::create, &selfish}, "Selfish");
            thread.createThread();
            eventually([&] { return thread.isThreadOver(); });
        },
        "CThread::createThread called by the thread itself, which would wait for its own end");
}

}  // namespace
}  // namespace Orvex::Infra
