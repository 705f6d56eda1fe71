// CThread from one run to the next: who waits for whom, what a cancel reaches, whose signals are whose.
#include <Infra/ThreadLite.h>

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include <Infra/Semaphore.h>
#include <Infra/Time.h>

#include "support/Eventually.h"
#include "support/HandClock.h"
#include "support/KernelThread.h"
#include "support/LogCapture.h"
#include "support/StepThread.h"

namespace Orvex::Infra {
namespace {

using namespace Testing;

// Its body stays until it is let go, whatever it is asked for.
class HeldBody : public CThread {
public:
    HeldBody() : CThread("Held", 64, 0, 0) {}
    ~HeldBody() override {
        let_go.post(1000, 1000);
        destroyThread();
    }

    CSemaphore let_go{0};
    std::atomic<int> inside{0};
    std::atomic<int> runs{0};
    std::atomic<bool> saw_looping{false};
    std::atomic<int> most_inside{0};

protected:
    void thread_proc() override {
        const int now = ++inside;
        most_inside = now > most_inside ? now : most_inside.load();
        saw_looping = looping();
        ++runs;
        let_go.pend();
        --inside;
    }
};

TEST(ThreadRuns, AClassOfItsOwnBringsItsBody) {
    static_assert(std::has_virtual_destructor_v<CThread>);
    static_assert(!std::is_copy_constructible_v<CThread> && !std::is_copy_assignable_v<CThread>);
    HeldBody body;
    ASSERT_TRUE(body.createThread());
    EXPECT_FALSE(body.isThreadOver()) << "from the start on, whether or not the body has begun";
    EXPECT_EVENTUALLY(body.runs == 1);
    EXPECT_TRUE(body.saw_looping);
    body.let_go.post();
    EXPECT_EVENTUALLY(body.isThreadOver());
    EXPECT_TRUE(body.looping()) << "an end of its own is not a request";
}

TEST(ThreadRuns, ANewStartWaitsForTheRunThatWasAskedToEnd) {
    HeldBody body;
    ASSERT_TRUE(body.createThread());
    ASSERT_EVENTUALLY(body.runs == 1);
    body.cancelThread();
    EXPECT_FALSE(body.isThreadOver()) << "asked is not over";
    StepThread other;
    bool started = false;
    other.begin([&] { started = body.createThread(); });
    ASSERT_EVENTUALLY(other.sleeps());
    EXPECT_EQ(1, body.runs);
    body.let_go.post();
    ASSERT_EVENTUALLY(other.done());
    EXPECT_TRUE(started);
    EXPECT_EVENTUALLY(body.runs == 2);
    EXPECT_TRUE(body.saw_looping);
    EXPECT_TRUE(body.looping());
    EXPECT_EQ(1, body.most_inside);
}

TEST(ThreadRuns, DestroyWaitsForABodyThatDoesNotListen) {
    HeldBody body;
    ASSERT_TRUE(body.createThread());
    ASSERT_EVENTUALLY(body.runs == 1);
    StepThread other;
    other.begin([&] { EXPECT_TRUE(body.destroyThread()); });
    ASSERT_EVENTUALLY(other.sleeps());
    EXPECT_FALSE(body.looping());
    EXPECT_FALSE(body.isThreadOver());
    body.let_go.post();
    EXPECT_EVENTUALLY(other.done());
    EXPECT_TRUE(body.isThreadOver());
}

// Of several that start it at once one succeeds, and the others see a running thread.
TEST(ThreadRuns, OneOfSeveralStartsSucceeds) {
    for (int round = 0; round < 50; ++round) {
        HeldBody body;
        std::atomic<int> started{0};
        std::vector<std::thread> others;
        for (int i = 0; i < 4; ++i) {
            others.emplace_back([&] { started += body.createThread() ? 1 : 0; });
        }
        for (std::thread& other : others) {
            other.join();
        }
        ASSERT_EQ(1, started);
        EXPECT_EVENTUALLY(body.runs == 1);
        body.let_go.post();
    }
}

TEST(ThreadRuns, ACancelBeforeTheStartIsForgottenByIt) {
    HeldBody body;
    EXPECT_TRUE(body.cancelThread());
    EXPECT_FALSE(body.looping());
    ASSERT_TRUE(body.createThread());
    EXPECT_EVENTUALLY(body.runs == 1);
    EXPECT_TRUE(body.saw_looping);
}

TEST(ThreadRuns, APauseOfAnotherThreadEndsWithTheCancelToo) {
    HeldBody body;
    ASSERT_TRUE(body.createThread());
    StepThread first;
    StepThread second;
    std::atomic<int> ended{0};
    for (StepThread* const pauser : {&first, &second}) {
        pauser->begin([&] { ended += body.pause(24 * 3600 * 1000) ? 0 : 1; });
        ASSERT_EVENTUALLY(pauser->sleeps());
    }
    body.cancelThread();
    EXPECT_EVENTUALLY(ended == 2);
}

TEST(ThreadRuns, APauseIsNotEndedByASignal) {
    struct sigaction action = {};
    action.sa_handler = [](int) {};
    struct sigaction before;
    ASSERT_EQ(0, ::sigaction(SIGUSR2, &action, &before));
    HeldBody body;
    StepThread pauser;
    std::atomic<pthread_t> handle{};
    std::atomic<bool> ended{false};
    pauser.begin([&] {
        handle = ::pthread_self();
        body.pause(24 * 3600 * 1000);
        ended = true;
    });
    for (int i = 0; i < 5; ++i) {
        ASSERT_EVENTUALLY(pauser.sleeps());
        const long sleeps = pauser.sleepsSoFar();
        ASSERT_EQ(0, ::pthread_kill(handle, SIGUSR2));
        EXPECT_EVENTUALLY(pauser.sleepsSoFar() > sleeps);
        EXPECT_FALSE(ended);
    }
    body.cancelThread();
    EXPECT_EVENTUALLY(ended);
    ::sigaction(SIGUSR2, &before, nullptr);
}

std::atomic<int> g_signalled_thread{0};
std::atomic<int> g_signal_count{0};

// A product's handlers run on its own threads, though ours are there and idle.
TEST(ThreadRuns, SignalsToTheProcessGoToTheProductsThreads) {
    struct sigaction action = {};
    action.sa_handler = [](int) {
        g_signalled_thread = kernelThreadId();
        ++g_signal_count;
    };
    struct sigaction before;
    ASSERT_EQ(0, ::sigaction(SIGUSR1, &action, &before));
    HeldBody body;
    ASSERT_TRUE(body.createThread());
    ASSERT_EVENTUALLY(body.runs == 1);
    for (int i = 1; i <= 20; ++i) {
        ASSERT_EQ(0, ::kill(::getpid(), SIGUSR1));
        ASSERT_EVENTUALLY(g_signal_count == i);
        EXPECT_EQ(kernelThreadId(), g_signalled_thread);
    }
    ::sigaction(SIGUSR1, &before, nullptr);
}

TEST(ThreadRuns, WithoutANameItsNameIsEmpty) {
    CThreadLite thread(TFunction1<void, CThreadLite&>(), nullptr);
    EXPECT_STREQ("", thread.name());
    EXPECT_TRUE(thread.destroyThread());
}

TEST(ThreadRuns, SixtyThreeBytesOfANameAreKept) {
    CThreadLite thread(TFunction1<void, CThreadLite&>(), std::string(63, 'n').c_str());
    EXPECT_EQ(std::string(63, 'n'), thread.name());
}

// The lease by the test's own clock: no thread runs, and who asks is this one.
class LeaseByHand : public testing::Test {
protected:
    ~LeaseByHand() override { CThread::setLeaseHook(nullptr); }

    size_t lapses() const { return log.countLevel(2); }
    bool lapsed_by(const std::string& ms) const {
        return log.contains(
            2, "Orvex::Infra::CThread::check_lease : the lease of thread \"Leased\" ran out " + ms +
                   " ms ago\n");
    }

    HandClock clock;
    LogCapture log;
    CThreadLite thread{TFunction1<void, CThreadLite&>(), "Leased"};
};

TEST_F(LeaseByHand, LastsToTheMicrosecond) {
    thread.setTimeout(5);
    clock.advanceUs(4999);
    EXPECT_TRUE(thread.looping());
    EXPECT_EQ(0u, lapses());
    clock.advanceUs(1);
    EXPECT_TRUE(thread.looping()) << "a lapse ends nothing";
    EXPECT_TRUE(lapsed_by("0")) << log.dump();
}

TEST_F(LeaseByHand, TellsHowLongAgoItRanOut) {
    thread.setTimeout(1000);
    clock.advanceUs(3234999);
    thread.looping();
    EXPECT_TRUE(lapsed_by("2234")) << log.dump();
    thread.looping();
    EXPECT_EQ(1u, lapses());
}

TEST_F(LeaseByHand, ARenewalCountsFromItsOwnTime) {
    thread.setTimeout(10);
    clock.advanceUs(9999);
    thread.setTimeout(10);
    clock.advanceUs(9999);
    thread.looping();
    EXPECT_EQ(0u, lapses());
    clock.advanceUs(1);
    thread.looping();
    EXPECT_EQ(1u, lapses());
}

TEST_F(LeaseByHand, ARenewalAfterTheLapseThatNobodySawHidesIt) {
    thread.setTimeout(10);
    clock.advanceUs(20000);
    thread.setTimeout(10);
    thread.looping();
    EXPECT_EQ(0u, lapses());
}

TEST_F(LeaseByHand, TheLongestLeaseIsThatOfAnInt) {
    thread.setTimeout(2147483647);
    clock.advanceUs(int64_t{2147483647} * 1000 - 1);
    thread.looping();
    EXPECT_EQ(0u, lapses());
    clock.advanceUs(1);
    thread.looping();
    EXPECT_EQ(1u, lapses());
}

TEST_F(LeaseByHand, ACancelledThreadsLeaseStillLapses) {
    thread.setTimeout(10);
    thread.cancelThread();
    clock.advanceUs(10000);
    EXPECT_FALSE(thread.looping());
    EXPECT_EQ(1u, lapses());
}

LogCapture* g_log_of_hook = nullptr;
std::atomic<int> g_lines_at_hook{-1};
std::atomic<int> g_hook_calls{0};

void look_at_the_log(const char* name) {
    EXPECT_STREQ("Leased", name);
    g_lines_at_hook = static_cast<int>(g_log_of_hook->lines().size());
    ++g_hook_calls;
}

TEST_F(LeaseByHand, TheHookComesAfterTheLineAndAlsoWithoutOne) {
    g_log_of_hook = &log;
    CThread::setLeaseHook(&look_at_the_log);
    thread.setTimeout(1);
    clock.advanceUs(1000);
    thread.looping();
    EXPECT_EQ(1, g_lines_at_hook);
    const int level = setLogLevel(1);
    thread.setTimeout(1);
    clock.advanceUs(1000);
    thread.looping();
    setLogLevel(level);
    EXPECT_EQ(2, g_hook_calls);
    EXPECT_EQ(1u, log.lines().size());
}

void count_hook_calls(const char*) {
    ++g_hook_calls;
}

// Several threads may ask for the same one: one of them reports.
TEST(ThreadRuns, ALapseIsReportedByOneOfThoseThatAsk) {
    LogCapture log;
    CThread::setLeaseHook(&count_hook_calls);
    g_hook_calls = 0;
    CThreadLite thread(TFunction1<void, CThreadLite&>(), "Leased");
    std::vector<std::thread> askers;
    std::atomic<bool> stop{false};
    for (int i = 0; i < 3; ++i) {
        askers.emplace_back([&] {
            while (!stop) {
                thread.looping();
            }
        });
    }
    for (int lapse = 1; lapse <= 20; ++lapse) {
        thread.setTimeout(1);
        EXPECT_EVENTUALLY(g_hook_calls >= lapse);
    }
    stop = true;
    for (std::thread& asker : askers) {
        asker.join();
    }
    CThread::setLeaseHook(nullptr);
    EXPECT_EQ(20, g_hook_calls);
    EXPECT_EQ(20u, log.countLevel(2));
}

}  // namespace
}  // namespace Orvex::Infra
