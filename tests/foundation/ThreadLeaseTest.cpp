// The liveness lease of a thread: renewal, lapse, log line and hook.
#include <Infra/ThreadLite.h>

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <string>
#include <vector>

#include "support/Eventually.h"
#include "support/LogCapture.h"

namespace Orvex::Infra {
namespace {

using namespace Testing;

constexpr char LAPSE[] =
    "Orvex::Infra::CThread::check_lease : the lease of thread \"A thread with a long name\" ran out [0-9]+ "
    "ms "
    "ago\n";

std::mutex g_hook_mutex;
std::vector<std::string> g_hook_names;

void hook(const char* thread_name) {
    const std::lock_guard<std::mutex> guard(g_hook_mutex);
    g_hook_names.emplace_back(thread_name);
}

std::vector<std::string> hookNames() {
    const std::lock_guard<std::mutex> guard(g_hook_mutex);
    return g_hook_names;
}

class ThreadLease : public testing::Test {
protected:
    ThreadLease() {
        g_hook_names.clear();
        CThread::setLeaseHook(&hook);
    }
    ~ThreadLease() override {
        thread.destroyThread();
        CThread::setLeaseHook(nullptr);
    }

    void loop(CThreadLite& self) {
        if (lease_at_start_ms > 0) {
            self.setTimeout(lease_at_start_ms);
        }
        while (self.looping()) {
            ++passes;
            self.pause(1);
        }
    }
    void waitForPasses(int count) {
        const long target = passes + count;
        EXPECT_EVENTUALLY(passes >= target);
    }

    LogCapture log;
    std::atomic<long> passes{0};
    int lease_at_start_ms = 0;
    CThreadLite thread{TFunction1<void, CThreadLite&>(&ThreadLease::loop, this), "A thread with a long name"};
};

TEST_F(ThreadLease, LapseIsLoggedOnceWithTheWholeNameAndCallsTheHook) {
    lease_at_start_ms = 3;
    ASSERT_TRUE(thread.createThread());
    EXPECT_TRUE(log.eventuallyContainsMatching(2, LAPSE)) << log.dump();
    waitForPasses(20);
    EXPECT_EQ(1u, log.countMatching(2, LAPSE)) << log.dump();
    EXPECT_EQ(std::vector<std::string>{"A thread with a long name"}, hookNames());
    EXPECT_TRUE(thread.looping());
}

TEST_F(ThreadLease, RenewedLeaseCanLapseAgain) {
    lease_at_start_ms = 3;
    ASSERT_TRUE(thread.createThread());
    ASSERT_EVENTUALLY(hookNames().size() == 1);
    thread.setTimeout(3);
    EXPECT_EVENTUALLY(hookNames().size() == 2);
    waitForPasses(10);
    EXPECT_EQ(2u, log.countMatching(2, LAPSE));
}

TEST_F(ThreadLease, RenewalKeepsTheLeaseFromLapsing) {
    lease_at_start_ms = 3600 * 1000;
    ASSERT_TRUE(thread.createThread());
    waitForPasses(5);
    thread.setTimeout(5);
    thread.setTimeout(3600 * 1000);
    waitForPasses(20);
    EXPECT_TRUE(hookNames().empty());
    EXPECT_EQ(0u, log.countLevel(2)) << log.dump();
}

TEST_F(ThreadLease, ThereIsNoLeaseBeforeTheFirstSetTimeout) {
    ASSERT_TRUE(thread.createThread());
    waitForPasses(20);
    EXPECT_TRUE(hookNames().empty());
}

TEST_F(ThreadLease, ZeroEndsTheLease) {
    ASSERT_TRUE(thread.createThread());
    thread.setTimeout(3600 * 1000);
    thread.setTimeout(0);
    thread.setTimeout(-1);
    waitForPasses(20);
    EXPECT_TRUE(hookNames().empty());
}

TEST_F(ThreadLease, NewStartHasNoLease) {
    thread.setTimeout(1);
    ASSERT_TRUE(thread.createThread());
    waitForPasses(20);
    thread.destroyThread();
    EXPECT_TRUE(hookNames().empty());
    thread.setTimeout(1);
    ASSERT_TRUE(thread.createThread());
    waitForPasses(20);
    EXPECT_TRUE(hookNames().empty());
    EXPECT_EQ(0u, log.countLevel(2)) << log.dump();
}

TEST_F(ThreadLease, WithoutAHookTheLapseIsLoggedAllTheSame) {
    CThread::setLeaseHook(nullptr);
    lease_at_start_ms = 2;
    ASSERT_TRUE(thread.createThread());
    EXPECT_TRUE(log.eventuallyContainsMatching(2, LAPSE));
    waitForPasses(5);
    EXPECT_TRUE(hookNames().empty());
}

}  // namespace
}  // namespace Orvex::Infra
