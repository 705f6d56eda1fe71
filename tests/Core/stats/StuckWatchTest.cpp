// StuckWatch: what is said of calls that do not come back, how often, and that an idle pool is left alone.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <Infra/Thread.h>
#include <Reticor/Stats.h>

#include "Core/count/WatchDoor.h"
#include "Core/handle/CallMark.h"
#include "support/KernelThread.h"
#include "support/ThreadFault.h"
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

// ---- which call ----------------------------------------------------------------------------------------

TEST_F(StuckWatching, EveryKindOfCallIsNamedByItsOperation) {
    Gate gates[3];
    auto* const handler = new TestHandler;
    handler->on_input = [&](int fd) {
        gates[0].pass();
        return SocketPair::drain(fd) * 0;
    };
    handler->on_timeout = [&](long) -> int64_t {
        gates[1].pass();
        return -1;
    };
    handler->on_output = [&](int) {
        gates[2].pass();
        return 0;
    };
    SocketPair pair;
    // On a busy machine a short call can be named as well: what matters is that this one is.
    const auto expectNamed = [&](const char* call, Gate& gate) {
        EXPECT_EVENTUALLY([&] {
            const std::vector<StuckCall> all = calls();
            return std::any_of(all.begin(), all.end(),
                               [call](const StuckCall& one) { return std::strcmp(call, one.call) == 0; });
        }());
        gate.open();
    };
    handler->RegisterSock(pair.near, SOCK_READ, 0);
    pair.write();
    expectNamed("handle_input", gates[0]);
    EXPECT_EVENTUALLY(handler->life->inputs == 1);
    handler->RemoveSock(pair.near);
    handler->SetTimer(3000);
    expectNamed("handle_timeout", gates[1]);
    EXPECT_EVENTUALLY(handler->life->timeouts == 1);
    handler->RegisterSock(pair.near, SOCK_WRITE, 0);
    expectNamed("handle_output", gates[2]);
    handler->RemoveSock(pair.near);
    closeAndWait(handler);
    EXPECT_EQ(0, CNetThread::SetStuckLimit(0));
    const std::vector<StuckCall> all = calls();
    for (size_t i = 0; i < all.size(); ++i) {
        EXPECT_EQ(i + 1, all[i].times) << "they are all of one class";
    }
    EXPECT_EQ(all.size(), process().stuck_ever);
}

TEST_F(StuckWatching, CallsOnSeveralWorkersAreNamedOneByOne) {
    Gate gate;
    auto* const one = new TestHandler;
    auto* const other = new TestHandler;
    one->on_message = [&](long, unsigned int, long) {
        gate.pass();
        return 0;
    };
    other->on_message = one->on_message;
    one->Notify(one->GetID(), 1, 0);
    other->Notify(other->GetID(), 1, 0);
    ASSERT_TRUE(gate.awaitArrivals(2));
    ASSERT_EVENTUALLY(calls().size() == 2);
    const StuckCall first = calls()[0];
    const StuckCall second = calls()[1];
    EXPECT_NE(first.thread_id, second.thread_id);
    EXPECT_EQ(one->GetID() + other->GetID(), first.handler + second.handler);
    EXPECT_EQ(3u, first.times + second.times) << "the first of the class, and the second";
    EXPECT_EVENTUALLY(process().stuck == 2);
    gate.open();
    EXPECT_EVENTUALLY(process().stuck == 0);
    closeAndWait(one);
    closeAndWait(other);
}

// A call of the product's own thread into the library is not a worker's, but it is watched if the thread is
// known.
TEST_F(StuckWatching, ACallOnAnotherThreadBelongsToNoPool) {
    Gate gate;
    auto* const handler = new TestHandler;
    std::thread caller([&] {
        ThreadCounts::Attach(-1);
        const CallMark mark(*handler, CallKind::EXCEPTION);
        WatchDoor::Knock();
        gate.pass();
    });
    ASSERT_TRUE(gate.awaitArrivals(1));
    ASSERT_EVENTUALLY(calls().size() == 1);
    EXPECT_EQ(-1, calls()[0].pool);
    EXPECT_EQ(0u, calls()[0].starved);
    EXPECT_STREQ("handle_exception", calls()[0].call);
    gate.open();
    caller.join();
    EXPECT_EVENTUALLY(process().stuck == 0);
    closeAndWait(handler);
}

// ---- limits --------------------------------------------------------------------------------------------

TEST_F(StuckWatching, NoLimitEndsTheThreadAndForgetsWhatIsStuck) {
    Gate gate;
    auto* const handler = new TestHandler;
    handler->on_message = [&](long, unsigned int, long) {
        gate.pass();
        return 0;
    };
    handler->Notify(handler->GetID(), 1, 0);
    ASSERT_EVENTUALLY(calls().size() == 1 && process().stuck == 1);
    EXPECT_EQ(0, CNetThread::SetStuckLimit(0));
    EXPECT_EQ(0u, process().stuck);
    EXPECT_EQ(1u, process().stuck_ever);
    EXPECT_EVENTUALLY(kernelThreadByName("Reticor watch") == 0);
    EXPECT_EQ(0, CNetThread::SetStuckLimit(-5)) << "the same";
    EXPECT_EQ(0, kernelThreadByName("Reticor watch"));
    // The next thread does not know that it was named.
    EXPECT_EQ(0, CNetThread::SetStuckLimit(LIMIT_MS));
    EXPECT_EVENTUALLY(calls().size() == 2 && process().stuck == 1);
    EXPECT_EQ(2u, calls().back().times);
    gate.open();
    closeAndWait(handler);
}

TEST_F(StuckWatching, AShorterLimitHoldsForCallsThatRunAlready) {
    EXPECT_EQ(0, CNetThread::SetStuckLimit(3600000));
    Gate gate;
    auto* const handler = new TestHandler;
    handler->on_message = [&](long, unsigned int, long) {
        gate.pass();
        return 0;
    };
    handler->Notify(handler->GetID(), 1, 0);
    ASSERT_TRUE(gate.awaitArrivals(1));
    EXPECT_EQ(0, CNetThread::SetStuckLimit(LIMIT_MS));
    EXPECT_EVENTUALLY(calls().size() == 1);
    gate.open();
    closeAndWait(handler);
}

TEST_F(StuckWatching, WithoutAThreadThereIsNoLimitAndItCanBeSetLater) {
    EXPECT_EQ(0, CNetThread::SetStuckLimit(0));
    {
        LogCapture quiet;
        const ThreadFault fault(0);
        EXPECT_EQ(-1, CNetThread::SetStuckLimit(LIMIT_MS));
        EXPECT_EQ(1, fault.refused());
    }
    EXPECT_EQ(0, CNetThread::SetStuckLimit(LIMIT_MS));
    Gate gate;
    auto* const handler = new TestHandler;
    handler->on_message = [&](long, unsigned int, long) {
        gate.pass();
        return 0;
    };
    handler->Notify(handler->GetID(), 1, 0);
    EXPECT_EVENTUALLY(calls().size() == 1);
    gate.open();
    closeAndWait(handler);
}

// ---- the hook ------------------------------------------------------------------------------------------

TEST_F(StuckWatching, WithoutAHookTheLineIsWrittenAllTheSame) {
    CNetThread::SetStuckHook(nullptr, nullptr);
    LogCapture log;
    Gate gate;
    auto* const handler = new TestHandler;
    handler->on_message = [&](long, unsigned int, long) {
        gate.pass();
        return 0;
    };
    handler->Notify(handler->GetID(), 1, 0);
    EXPECT_EVENTUALLY(log.containsMatching(2, "pool 0: handle_message of class .* has run for .*\n"));
    EXPECT_TRUE(calls().empty());
    gate.open();
    closeAndWait(handler);
}

// No lock is held: a hook may ask for everything, and take itself away.
TEST_F(StuckWatching, AHookMayLookAtEverythingAndTakeItselfAway) {
    struct Once {
        std::atomic<int> called{0};
        std::atomic<uint64_t> stuck_ever{0};
        static void call(void* self, const StuckCall& found) {
            auto* const once = static_cast<Once*>(self);
            CNetThread::SetStuckHook(nullptr, nullptr);
            once->stuck_ever = process().stuck_ever;
            CNetThread::ListHandlers(
                [](void*, const HandlerInfo& info) { return std::strcmp("open", info.state) == 0; }, nullptr);
            EXPECT_EQ(sizeof(StuckCall), found.size);
            ++once->called;
        }
    } once;
    CNetThread::SetStuckHook(&Once::call, &once);
    Gate gate;
    auto* const handler = new TestHandler;
    handler->on_message = [&](long, unsigned int, long) {
        gate.pass();
        return 0;
    };
    handler->Notify(handler->GetID(), 1, 0);
    handler->Notify(handler->GetID(), 1, 0);
    ASSERT_TRUE(gate.awaitArrivals(2));
    EXPECT_EVENTUALLY(process().stuck == 2);
    EXPECT_EVENTUALLY(once.called == 1);
    EXPECT_GE(once.stuck_ever, 1u);
    gate.open();
    closeAndWait(handler);
}

// The hook and its context belong together, whenever they are changed.
TEST_F(StuckWatching, AHookIsNeverCalledWithTheContextOfAnother) {
    struct Pair {
        static void first(void* context, const StuckCall&) { EXPECT_EQ(&first_context(), context); }
        static void second(void* context, const StuckCall&) { EXPECT_EQ(&second_context(), context); }
        static int& first_context() {
            static int s_context;
            return s_context;
        }
        static int& second_context() {
            static int s_context;
            return s_context;
        }
    };
    EXPECT_EQ(0, CNetThread::SetStuckLimit(1));
    std::atomic<bool> stop{false};
    std::thread changing([&] {
        while (!stop) {
            CNetThread::SetStuckHook(&Pair::first, &Pair::first_context());
            CNetThread::SetStuckHook(&Pair::second, &Pair::second_context());
        }
    });
    LogCapture quiet;
    auto* const handler = new TestHandler;
    handler->on_message = [](long, unsigned int, long) {
        const uint64_t before = process().stuck_ever;
        EXPECT_EVENTUALLY(process().stuck_ever > before);
        return 0;
    };
    for (int i = 0; i < 20; ++i) {
        handler->Notify(handler->GetID(), 1, 0);
    }
    EXPECT_EVENTUALLY(handler->life->messages == 20);
    stop = true;
    changing.join();
    closeAndWait(handler);
}

}  // namespace
}  // namespace Orvex::Testing
