// Calls that do not come back: what is said of them, how often, and that an idle pool is left alone.
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include <Infra/Thread.h>
#include <Reticor/Stats.h>

#include "support/KernelThread.h"
#include "support/core/SockPoolFixture.h"

namespace Orvex::Testing {
namespace {

using namespace Reticor;

constexpr int LIMIT_MS = 40;

class StuckWatching : public PoolFixture {
protected:
    void SetUp() override {
        PoolFixture::SetUp();
        CNetThread::SetStuckHook(&StuckWatching::take, this);
        ASSERT_EQ(0, CNetThread::SetStuckLimit(LIMIT_MS));
    }
    void TearDown() override {
        EXPECT_EQ(0, CNetThread::SetStuckLimit(0));
        CNetThread::SetStuckHook(nullptr, nullptr);
        PoolFixture::TearDown();
    }
    static void take(void* self, const StuckCall& call) {
        auto* const test = static_cast<StuckWatching*>(self);
        const std::lock_guard<std::mutex> lock(test->m_mutex);
        test->m_calls.push_back(call);
    }
    std::vector<StuckCall> calls() {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_calls;
    }
    static ProcessStats process() {
        CStats stats;
        ProcessStats found{};
        EXPECT_EQ(0, stats.Take());
        EXPECT_EQ(0, stats.GetProcess(found));
        return found;
    }

private:
    std::mutex m_mutex;
    std::vector<StuckCall> m_calls;
};

TEST_F(StuckWatching, ACallThatBlocksIsNamedOnceWithTheKernelsFunction) {
    LogCapture log;
    Gate gate;
    auto* handler = new TestHandler;
    std::atomic<int> thread_id{0};
    handler->on_message = [&](long, unsigned int, long) {
        thread_id = kernelThreadId();
        gate.pass();
        return 0;
    };
    handler->Notify(handler->GetID(), 100, 0);
    ASSERT_EVENTUALLY(calls().size() == 1);
    const StuckCall call = calls().at(0);
    EXPECT_EQ(0, call.pool);
    EXPECT_EQ(thread_id, call.thread_id);
    EXPECT_STREQ("Orvex::Testing::TestHandler", call.class_name);
    EXPECT_STREQ("handle_message", call.call);
    EXPECT_EQ(handler->GetID(), call.handler);
    EXPECT_GE(call.run_us, LIMIT_MS * 1000u);
    EXPECT_EQ(0u, call.spins);
    EXPECT_NE(std::string(), call.where);
    EXPECT_EQ(1u, call.times);
    EXPECT_TRUE(log.containsMatching(2,
                                     "pool 0: handle_message of class Orvex::Testing::TestHandler, id -\\d+, "
                                     "has run for \\d+ ms on thread \\d+ and blocks in .+, 1 times in this "
                                     "class\n"))
        << log.dump();
    EXPECT_EVENTUALLY(process().stuck == 1);
    Infra::CThread::sleep(4 * LIMIT_MS);
    EXPECT_EQ(1u, calls().size()) << "a call is named once";
    gate.open();
    EXPECT_EVENTUALLY(process().stuck == 0);
    EXPECT_EQ(1u, process().stuck_ever);
    // The next one of the same handler is another call.
    handler->on_message = [](long, unsigned int, long) { return 0; };
    closeAndWait(handler);
}

TEST_F(StuckWatching, ACallThatSpinsIsSaidToSpin) {
    auto* handler = new TestHandler;
    std::atomic<bool> stop{false};
    handler->on_message = [&](long, unsigned int, long) {
        while (!stop) {
        }
        return 0;
    };
    handler->Notify(handler->GetID(), 100, 0);
    ASSERT_EVENTUALLY(calls().size() == 1);
    EXPECT_EQ(1u, calls().at(0).spins);
    EXPECT_STREQ("", calls().at(0).where);
    stop = true;
    closeAndWait(handler);
}

TEST_F(StuckWatching, CallsThatWaitForTheirOwnPoolAreSaidToLeaveNobody) {
    Gate gate;
    auto* waiter = new TestHandler;
    auto* helper = new TestHandler;
    helper->on_message = [&](long, unsigned int, long) {
        gate.open();
        return 0;
    };
    const int all = ThreadPoolProbe::workers(*PoolTable::Get(0));
    std::atomic<int> inside{0};
    waiter->on_message = [&](long, unsigned int, long) {
        if (++inside == all) {
            waiter->Notify(helper->GetID(), 100, 0);  // nobody is left to take it
        }
        gate.pass();
        return 0;
    };
    for (int i = 0; i < all; ++i) {
        waiter->Notify(waiter->GetID(), 100, 0);
    }
    ASSERT_EVENTUALLY(static_cast<int>(calls().size()) == all);
    EXPECT_EQ(1u, calls().back().starved);
    gate.open();
    EXPECT_EVENTUALLY(waiter->life->messages == all && helper->life->messages == 1);
    closeAndWait(waiter);
    closeAndWait(helper);
}

// Each look finds the handler in a call, as if it were the same one. On a machine that is busy otherwise a
// short call may take long, so of three tries one is enough.
TEST_F(StuckWatching, ManyShortCallsOfOneHandlerAreNotOneLongOne) {
    constexpr int LONG_MS = 5 * LIMIT_MS;
    ASSERT_EQ(0, CNetThread::SetStuckLimit(LONG_MS));
    auto* handler = new TestHandler;
    std::atomic<bool> stop{false};
    handler->on_message = [&](long, unsigned int, long) {
        Infra::CThread::sleep(1);
        if (!stop) {
            handler->Notify(handler->GetID(), 100, 0);
        }
        return 0;
    };
    handler->Notify(handler->GetID(), 100, 0);
    bool silent = false;
    for (int i = 0; i < 3 && !silent; ++i) {
        const size_t before = calls().size();
        Infra::CThread::sleep(3 * LONG_MS);
        silent = calls().size() == before;
    }
    stop = true;
    EXPECT_TRUE(silent);
    closeAndWait(handler);
}

TEST_F(StuckWatching, AnIdlePoolIsNotWokenAndTheWatchSleeps) {
    int watch = 0;
    ASSERT_EVENTUALLY((watch = kernelThreadByName("Reticor watch")) != 0);
    const auto switches = [&] {
        CStats stats;
        EXPECT_EQ(0, stats.Take());
        long sum = voluntarySleeps(watch);
        for (size_t place = 0; place < stats.GetWorkerCount(); ++place) {
            WorkerStats worker{};
            stats.GetWorker(place, worker);
            sum += worker.pool >= 0 ? voluntarySleeps(worker.thread_id) : 0;
        }
        return sum;
    };
    // A heartbeat comes every five seconds, so two of three windows are without one.
    EXPECT_EVENTUALLY([&] {
        const long before = switches();
        Infra::CThread::sleep(5 * LIMIT_MS);
        return switches() == before;
    }());
    // And it is awake when a call runs again.
    Gate gate;
    auto* handler = new TestHandler;
    handler->on_message = [&](long, unsigned int, long) {
        gate.pass();
        return 0;
    };
    handler->Notify(handler->GetID(), 100, 0);
    EXPECT_EVENTUALLY(calls().size() == 1);
    gate.open();
    closeAndWait(handler);
}

}  // namespace
}  // namespace Orvex::Testing
