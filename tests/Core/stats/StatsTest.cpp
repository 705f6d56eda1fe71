// CStats: what a snapshot says of pools, workers, classes and times, against what the test has done.
#include <Reticor/Stats.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <string>

#include "support/core/SockPoolFixture.h"

namespace Orvex::Testing {
namespace {

using namespace Reticor;

PoolStats poolStats(int pool = 0) {
    CStats stats;
    EXPECT_EQ(0, stats.Take());
    for (size_t place = 0; place < stats.GetPoolCount(); ++place) {
        PoolStats found{};
        EXPECT_EQ(0, stats.GetPool(place, found));
        if (found.pool == pool) {
            return found;
        }
    }
    ADD_FAILURE() << "no pool " << pool;
    return {};
}

HandlerClassStats classStats(const std::string& name) {
    CStats stats;
    EXPECT_EQ(0, stats.Take());
    for (size_t place = 0; place < stats.GetClassCount(); ++place) {
        HandlerClassStats found{};
        EXPECT_EQ(0, stats.GetClass(place, found));
        if (name == found.name) {
            return found;
        }
    }
    return {};
}

const std::string TEST_HANDLER = "Orvex::Testing::TestHandler";

class Stats : public SockPoolFixture {};

// ---- pools ---------------------------------------------------------------------------------------------

TEST_F(Stats, CountWhatAPoolServedByKind) {
    const PoolStats before = poolStats();
    add(SOCK_READ);
    for (int i = 1; i <= 3; ++i) {
        pair.write();
        EXPECT_EVENTUALLY(handler->life->inputs >= i);
    }
    const long id = handler->GetID();
    for (int i = 0; i < 20; ++i) {
        handler->Notify(id, 100, i);
    }
    for (int i = 0; i < 5; ++i) {
        handler->NotifySerial(id, 101, i, 0);
    }
    handler->SetTimer(3000);
    EXPECT_EVENTUALLY(handler->life->messages == 25 && handler->life->timeouts == 1);
    EXPECT_EVENTUALLY(poolStats().calls - before.calls >= 29);
    const PoolStats after = poolStats();
    EXPECT_GE(after.socket_events - before.socket_events, 3u);
    EXPECT_GE(after.messages - before.messages, 20u);
    EXPECT_EQ(5u, after.serial_messages - before.serial_messages);
    EXPECT_EQ(1u, after.timers - before.timers);
    EXPECT_GE(after.passes - before.passes, 3u);
    EXPECT_GE(after.reports - before.reports, 3u);
    EXPECT_GE(after.pushed - before.pushed, 29u);
    EXPECT_EQ(1u, after.sockets);
    EXPECT_EQ(0u, after.sockets_without_place);
    EXPECT_EVENTUALLY(poolStats().places_left_read == 4094u) << "the wake end's, and this socket's";
    EXPECT_EQ(4096u, after.places_left_write);
}

TEST_F(Stats, BusyAreTheWorkersInCallsAndTheQueueIsWhatWaitsForThem) {
    const uint32_t all = poolStats().workers;
    EXPECT_EVENTUALLY(poolStats().busy == 0 && poolStats().queue_length == 0);
    Gate gate;
    holdInMessage(gate);
    EXPECT_EVENTUALLY(poolStats().busy == 1);
    for (uint32_t i = 0; i < all + 7; ++i) {
        handler->Notify(handler->GetID(), 100, 0);
    }
    ASSERT_TRUE(gate.awaitArrivals(static_cast<int>(all)));
    EXPECT_EQ(all, poolStats().busy);
    EXPECT_GE(poolStats().queue_length, 8u);  // and the poll token
    gate.open();
    EXPECT_EVENTUALLY(poolStats().busy == 0);
}

TEST_F(Stats, CountersGoOnInTheNextPoolOfTheIndex) {
    uint64_t last = 0;
    for (int life = 0; life < 3; ++life) {
        const int index = CNetThread::CreatePrivatePool(1, false);
        ASSERT_GT(index, 0);
        auto* other = new TestHandler(index);
        other->Notify(other->GetID(), 100, 0);
        EXPECT_EVENTUALLY(other->life->messages == 1);
        closeAndWait(other);
        EXPECT_EVENTUALLY(poolStats(index).calls >= last + 2);
        EXPECT_LE(poolStats(index).calls, last + 2) << "one message, one close";
        last = poolStats(index).calls;
        CNetThread::DestroyPrivatePool(index);
    }
}

TEST_F(Stats, WorkersTellInWhichCallTheyAre) {
    Gate gate;
    holdInMessage(gate);
    CStats stats;
    ASSERT_EQ(0, stats.Take());
    int found = 0;
    for (size_t place = 0; place < stats.GetWorkerCount(); ++place) {
        WorkerStats worker{};
        ASSERT_EQ(0, stats.GetWorker(place, worker));
        EXPECT_GT(worker.thread_id, 0);
        if (worker.handler == handler->GetID()) {
            ++found;
            EXPECT_STREQ("handle_message", worker.call);
            EXPECT_STREQ("Orvex::Testing::TestHandler", worker.class_name);
            EXPECT_EQ(0, worker.pool);
        } else {
            EXPECT_EQ(0, worker.handler);
            EXPECT_STREQ("", worker.call);
            EXPECT_STREQ("", worker.class_name);
        }
    }
    EXPECT_EQ(1, found);
}

TEST_F(Stats, ArmedTimersAreCountedByPool) {
    const uint64_t before = poolStats().timers_armed;
    const long first = handler->SetTimer(3600000000);
    handler->SetTimer(3600000000);
    EXPECT_EQ(before + 2, poolStats().timers_armed);
    handler->DestroyTimer(first);
    EXPECT_EQ(before + 1, poolStats().timers_armed);
}

// ---- classes -------------------------------------------------------------------------------------------

TEST_F(Stats, AClassIsCountedFromTheFirstCallOn) {
    const uint64_t silent = classStats("not called yet").live;
    auto* other = new TestHandler;
    EXPECT_EQ(silent + 1, classStats("not called yet").live);
    const HandlerClassStats before = classStats(TEST_HANDLER);
    other->Notify(other->GetID(), 100, 0);
    EXPECT_EVENTUALLY(other->life->messages == 1);
    EXPECT_EQ(silent, classStats("not called yet").live);
    HandlerClassStats now = classStats(TEST_HANDLER);
    EXPECT_EQ(before.live + 1, now.live);
    EXPECT_EQ(before.opened + 1, now.opened);
    EXPECT_EQ(before.calls + 1, now.calls);
    closeAndWait(other);
    EXPECT_EVENTUALLY(classStats(TEST_HANDLER).live == before.live);
    now = classStats(TEST_HANDLER);
    EXPECT_EQ(before.closed + 1, now.closed);
    EXPECT_EQ(before.opened + 1, now.opened);
}

TEST_F(Stats, ARegistrationATimerOrACloseTellTheClassAsWell) {
    const uint64_t silent = classStats("not called yet").live;
    auto* timed = new TestHandler;
    timed->SetTimer(3600000000);
    auto* closed = new TestHandler;
    closed->AddRef();
    closed->Close();
    auto* watching = new TestHandler;
    SocketPair other;
    watching->RegisterSock(other.near, SOCK_READ, 0);
    EXPECT_EQ(silent, classStats("not called yet").live);
    EXPECT_EVENTUALLY(classStats(TEST_HANDLER).live >= 3);
    closed->DecRef();
    watching->RemoveSock(other.near);
    closeAndWait(timed);
    closeAndWait(watching);
}

class Base : public TestHandler {
public:
    // A call while the derived class is still to come, as a product does that arms its timer too early.
    Base() { SetTimer(3600000000); }
};
class Derived : public Base {};

TEST_F(Stats, AnObjectThatWasCalledWhileItWasMadeMovesToItsOwnClass) {
    const std::string base = "Orvex::Testing::(anonymous namespace)::Base";
    const std::string derived = "Orvex::Testing::(anonymous namespace)::Derived";
    auto* other = new Derived;
    EXPECT_EQ(1u, classStats(base).live);
    other->Notify(other->GetID(), 100, 0);
    EXPECT_EVENTUALLY(other->life->messages == 1);
    EXPECT_EQ(0u, classStats(base).live);
    EXPECT_EQ(1u, classStats(derived).live);
    closeAndWait(other);
    EXPECT_EVENTUALLY(classStats(derived).closed == 1);
    EXPECT_EQ(0u, classStats(base).closed);
}

// ---- times ---------------------------------------------------------------------------------------------

TEST_F(Stats, TimesAreMeasuredOnlyWhileTheyAreSwitchedOn) {
    add(SOCK_READ);
    pair.write();
    EXPECT_EVENTUALLY(handler->life->inputs >= 1);
    EXPECT_EQ(0u, poolStats().wait.GetCount());
    EXPECT_EQ(0u, poolStats().run.GetCount());
    CStats::SetTiming(true);
    EXPECT_EVENTUALLY((pair.poke(), poolStats().wait.GetCount() >= 3 && poolStats().run.GetCount() >= 3));
    EXPECT_GT(poolStats().run.max_ns, 0u);
    EXPECT_GT(classStats(TEST_HANDLER).time_ns, 0u);
    CStats::SetTiming(false);
}

TEST_F(Stats, OfMessagesOneIn16IsTimed) {
    CStats::SetTiming(true);
    const uint64_t before = classStats(TEST_HANDLER).timed;
    for (int i = 0; i < 160; ++i) {
        handler->Notify(handler->GetID(), 100, i);
    }
    EXPECT_EVENTUALLY(handler->life->messages == 160);
    EXPECT_EVENTUALLY(classStats(TEST_HANDLER).timed - before == 10);
    CStats::SetTiming(false);
}

// A call that takes long, and what stood behind it in the queue.
TEST_F(Stats, LongCallsAndLongWaitsAreInTheirPlaces) {
    CStats::SetTiming(true);
    handler->on_input = [](int fd) {
        SocketPair::drain(fd);
        Infra::CThread::sleep(20);
        return 0;
    };
    add(SOCK_READ);
    pair.write();
    EXPECT_EVENTUALLY(poolStats().run.max_ns >= 20000000);
    const TimeSpread run = poolStats().run;
    EXPECT_GE(run.GetBound(1.0), 20000000u);
    EXPECT_GE(run.sum_ns, 20000000u);
    CStats::SetTiming(false);
}

TEST(TimeSpread, BoundsAreNoLessThanWhatTheyBound) {
    TimeSpread spread{};
    spread.count[5] = 90;   // below 32 ns
    spread.count[10] = 10;  // below 1024 ns
    spread.max_ns = 700;
    EXPECT_EQ(32u, spread.GetBound(0.5));
    EXPECT_EQ(32u, spread.GetBound(0.9));
    EXPECT_EQ(700u, spread.GetBound(0.99));
    EXPECT_EQ(0u, TimeSpread{}.GetBound(0.5));
}

// ---- structures of other sizes ---------------------------------------------------------------------------

TEST_F(Stats, ACallerOfAnotherVersionGetsWhatBothKnow) {
    CStats stats;
    ASSERT_EQ(0, stats.Take());
    struct Later : ProcessStats {
        uint64_t more = 77;
    } later{};
    later.size = sizeof(Later);
    later.more = 77;
    EXPECT_EQ(0, stats.GetProcess(later));
    EXPECT_EQ(0u, later.more) << "what the library does not know is 0";
    EXPECT_NE(0u, later.pools);
    ProcessStats earlier{};
    std::memset(static_cast<void*>(&earlier), 0x55, sizeof earlier);
    earlier.size = offsetof(ProcessStats, pools);
    EXPECT_EQ(0, stats.GetProcess(earlier));
    EXPECT_NE(0x5555555555555555u, earlier.taken_us);
    EXPECT_EQ(0x55555555u, earlier.pools) << "no more than its size is written";
    earlier.size = 4;
    EXPECT_EQ(-1, stats.GetProcess(earlier));
    PoolStats none{};
    EXPECT_EQ(-1, stats.GetPool(stats.GetPoolCount(), none));
    EXPECT_EQ(-1, CStats().GetProcess(later));
}

TEST_F(Stats, TheDifferenceOfTwoSnapshotsIsRates) {
    CStats older;
    CStats newer;
    ASSERT_EQ(0, older.Take());
    for (int i = 0; i < 100; ++i) {
        handler->Notify(handler->GetID(), 100, i);
    }
    EXPECT_EVENTUALLY(handler->life->messages == 100);
    PoolRates rates{};
    EXPECT_EVENTUALLY(newer.Take() == 0 && StatsDiff(older, newer, 0, rates) == 0 &&
                      rates.messages * rates.seconds >= 99.5);
    EXPECT_LT(rates.messages * rates.seconds, 102.0);
    EXPECT_GT(rates.utilisation, 0.0);
    EXPECT_LE(rates.utilisation, 1.1);
    EXPECT_EQ(-1, StatsDiff(newer, older, 0, rates)) << "in the wrong order";
    EXPECT_EQ(-1, StatsDiff(older, newer, 5, rates)) << "no such pool";
}

}  // namespace
}  // namespace Orvex::Testing
