// Snapshot: what is gathered from pools, threads, classes and media, and what is done without memory.
#include "Core/stats/Snapshot.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <new>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <Infra/Time.h>

#include "Core/count/ThreadCounts.h"
#include "Core/stats/StatsServer.h"
#include "support/KernelThread.h"
#include "support/core/SockPoolFixture.h"
#include "support/socket/Allocations.h"

namespace Orvex::Testing {
namespace {

using namespace Reticor;

const std::string HANDLERS_NAME = "Orvex::Testing::TestHandler";

Snapshot gathered() {
    Snapshot snapshot;
    EXPECT_TRUE(snapshot.Gather());
    return snapshot;
}

HandlerClassStats rowOf(const Snapshot& snapshot, const std::string& name) {
    for (const HandlerClassStats& row : snapshot.classes) {
        if (name == row.name) {
            return row;
        }
    }
    return {};
}

TEST(Snapshot, WithoutTheLibraryThereAreNoPoolsAndNoWorkers) {
    const uint64_t before = Infra::CTime::getCurrentMicroSecond();
    const Snapshot snapshot = gathered();
    EXPECT_EQ(0u, snapshot.process.pools);
    EXPECT_TRUE(snapshot.pools.empty());
    EXPECT_TRUE(snapshot.workers.empty());
    EXPECT_EQ(0u, snapshot.process.handlers);
    EXPECT_EQ(0u, snapshot.process.timers_armed);
    EXPECT_EQ(0u, snapshot.process.timer_lateness.GetCount());
    EXPECT_EQ(::getpid(), snapshot.process.pid);
    EXPECT_GE(snapshot.process.taken_us, before);
    EXPECT_LE(snapshot.process.taken_us, Infra::CTime::getCurrentMicroSecond());
}

class SnapshotOfPools : public PoolFixture {};

TEST_F(SnapshotOfPools, PoolsStandInTheOrderOfTheirIndicesWhateverIsBetweenThem) {
    for (int index = 1; index <= 3; ++index) {
        ASSERT_EQ(index, CNetThread::CreatePrivatePool(1, false));
    }
    EXPECT_EQ(0, CNetThread::DestroyPrivatePool(2));
    const Snapshot snapshot = gathered();
    ASSERT_EQ(3u, snapshot.pools.size());
    EXPECT_EQ(3u, snapshot.process.pools);
    EXPECT_EQ(0, snapshot.pools[0].pool);
    EXPECT_EQ(1, snapshot.pools[1].pool);
    EXPECT_EQ(3, snapshot.pools[2].pool);
    EXPECT_EQ(0, CNetThread::DestroyPrivatePool(1));
    EXPECT_EQ(0, CNetThread::DestroyPrivatePool(3));
    EXPECT_EQ(1u, gathered().pools.size());
}

TEST_F(SnapshotOfPools, EachWorkerIsThereOnceUnderItsPoolAndTheSystemsNumber) {
    ASSERT_EQ(1, CNetThread::CreatePrivatePool(3, false));
    const size_t all = static_cast<size_t>(ThreadPoolProbe::workers(*PoolTable::Get(0)) +
                                           ThreadPoolProbe::workers(*PoolTable::Get(1)));
    EXPECT_EVENTUALLY(gathered().workers.size() == all);  // each enters itself when it has begun
    const Snapshot snapshot = gathered();
    std::set<int> numbers;
    std::pair<int, int> last{-1, 0};
    for (const WorkerStats& worker : snapshot.workers) {
        EXPECT_LT(last, std::make_pair(worker.pool, worker.thread_id)) << "by pool, then by number";
        last = {worker.pool, worker.thread_id};
        EXPECT_TRUE(numbers.insert(worker.thread_id).second);
        EXPECT_EQ("Reticor" + std::to_string(worker.pool), kernelThreadName(worker.thread_id));
    }
    EXPECT_EQ(0, CNetThread::DestroyPrivatePool(1));
    EXPECT_EVENTUALLY(gathered().workers.size() < all);
}

TEST_F(SnapshotOfPools, AThreadThatIsNoWorkerStandsBeforeThemAndGoesWithItsEnd) {
    Gate gate;
    std::atomic<int> number{0};
    std::thread other([&] {
        ThreadCounts::Attach(-1);
        ThreadCounts::Attach(0);  // it has a block already, and stays what it is
        number = kernelThreadId();
        gate.pass();
    });
    ASSERT_TRUE(gate.awaitArrivals(1));
    const Snapshot during = gathered();
    ASSERT_FALSE(during.workers.empty());
    EXPECT_EQ(-1, during.workers[0].pool);
    EXPECT_EQ(number, during.workers[0].thread_id);
    EXPECT_EQ(0, during.workers[0].handler);
    EXPECT_STREQ("", during.workers[0].call);
    gate.open();
    other.join();
    for (const WorkerStats& worker : gathered().workers) {
        EXPECT_NE(-1, worker.pool);
    }
}

// More than there was room for at the first look, which takes no memory while threads are held back.
TEST_F(SnapshotOfPools, AllOfManyThreadsAreThere) {
    constexpr int THREADS = 50;
    Gate gate;
    std::vector<std::thread> threads;
    for (int i = 0; i < THREADS; ++i) {
        threads.emplace_back([&] {
            ThreadCounts::Attach(-1);
            gate.pass();
        });
    }
    ASSERT_TRUE(gate.awaitArrivals(THREADS));
    const Snapshot snapshot = gathered();
    EXPECT_EQ(THREADS, std::count_if(snapshot.workers.begin(), snapshot.workers.end(),
                                     [](const WorkerStats& worker) { return worker.pool == -1; }));
    gate.open();
    for (std::thread& thread : threads) {
        thread.join();
    }
}

TEST_F(SnapshotOfPools, ClassesWithTheMostCallsComeFirst) {
    struct Quiet : TestHandler {};
    struct Loud : TestHandler {};
    auto* const quiet = new Quiet;
    auto* const loud = new Loud;
    quiet->Notify(quiet->GetID(), 1, 0);
    for (int i = 0; i < 50; ++i) {
        loud->Notify(loud->GetID(), 1, 0);
    }
    EXPECT_EVENTUALLY(quiet->life->messages == 1 && loud->life->messages == 50);
    const Snapshot snapshot = gathered();
    EXPECT_TRUE(std::is_sorted(
        snapshot.classes.begin(), snapshot.classes.end(),
        [](const HandlerClassStats& a, const HandlerClassStats& b) { return a.calls > b.calls; }));
    EXPECT_NE(std::string::npos, std::string(snapshot.classes.at(0).name).find("Loud"));
    EXPECT_EQ(50u, snapshot.classes.at(0).calls);
    closeAndWait(quiet);
    closeAndWait(loud);
}

TEST_F(SnapshotOfPools, AReleasedHandlerThatIsKeptCountsForTheProcessAndNotForItsClass) {
    auto* const kept = new TestHandler;
    kept->keep_after_close = true;
    kept->Notify(kept->GetID(), 1, 0);
    EXPECT_EVENTUALLY(kept->life->messages == 1);
    const Snapshot before = gathered();
    closeAndWait(kept);
    const Snapshot after = gathered();
    EXPECT_EQ(before.process.handlers, after.process.handlers);
    EXPECT_EQ(rowOf(before, HANDLERS_NAME).live - 1, rowOf(after, HANDLERS_NAME).live);
    EXPECT_EQ(rowOf(before, HANDLERS_NAME).closed + 1, rowOf(after, HANDLERS_NAME).closed);
    delete kept;
    EXPECT_EQ(before.process.handlers - 1, gathered().process.handlers);
}

// Live and closed ones are not counted at one moment; what is told must not go back all the same.
TEST_F(SnapshotOfPools, NoCounterFallsWhileHandlersComeAndGo) {
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    for (int n = 0; n < 2; ++n) {
        threads.emplace_back([&] {
            while (!stop) {
                auto* const handler = new TestHandler;
                const std::shared_ptr<HandlerLife> life = handler->life;
                handler->Notify(handler->GetID(), 1, 0);
                handler->Close();
                while (life->closes == 0) {
                    std::this_thread::yield();
                }
            }
        });
    }
    HandlerClassStats last{};
    PoolStats last_pool{};
    EXPECT_EVENTUALLY(rowOf(gathered(), HANDLERS_NAME).closed > 0);
    for (int round = 0; round < 100; ++round) {
        const Snapshot snapshot = gathered();
        const HandlerClassStats row = rowOf(snapshot, HANDLERS_NAME);
        const PoolStats& pool = snapshot.pools.at(0);
        ASSERT_GE(row.opened, last.opened);
        ASSERT_GE(row.closed, last.closed);
        ASSERT_GE(row.calls, last.calls);
        ASSERT_GE(row.opened, row.closed);
        ASSERT_GE(pool.calls, last_pool.calls);
        ASSERT_GE(pool.messages, last_pool.messages);
        ASSERT_GE(pool.pushed, last_pool.pushed);
        last = row;
        last_pool = pool;
    }
    stop = true;
    for (std::thread& thread : threads) {
        thread.join();
    }
}

// ---- memory --------------------------------------------------------------------------------------------

// Each allocation of the gathering fails in turn.
TEST_F(SnapshotOfPools, WithoutMemoryThereIsNoneAndTheNextOneIsWhole) {
    auto* const handler = new TestHandler;
    size_t failures = 0;
    for (bool whole = false; !whole && failures < 500;) {
        Snapshot snapshot;
        const NoMemory none(failures);
        whole = snapshot.Gather();
        failures += whole ? 0 : 1;
    }
    EXPECT_GE(failures, 5u) << "pools, threads, two for classes, the classes";
    EXPECT_LT(failures, 500u);
    EXPECT_EQ(1u, gathered().process.handlers);
    closeAndWait(handler);
}

TEST_F(SnapshotOfPools, WithoutMemoryACStatsKeepsWhatItSaw) {
    CStats stats;
    {
        const NoMemory none;
        EXPECT_EQ(-1, stats.Take());
    }
    EXPECT_EQ(0u, stats.GetPoolCount());
    ASSERT_EQ(0, stats.Take());
    ProcessStats seen{};
    ASSERT_EQ(0, stats.GetProcess(seen));
    for (size_t successes : {0u, 1u, 3u}) {
        const NoMemory none(successes);
        EXPECT_EQ(-1, stats.Take());
    }
    ProcessStats still{};
    EXPECT_EQ(0, stats.GetProcess(still));
    EXPECT_EQ(seen.taken_us, still.taken_us);
    char room[8];
    {
        const NoMemory none;
        EXPECT_EQ(0u, stats.toJson(room, sizeof room)) << "a text needs some too";
    }
    EXPECT_LT(100u, stats.toJson(room, sizeof room));
}

// The debug server and the socket: an exception that they know, or a line; never half a text.
TEST_F(SnapshotOfPools, WithoutMemoryAnAnswerIsALineOrNone) {
    for (const char* request : {"json", "metrics", "text", "handlers"}) {
        const std::string wanted = request;
        const size_t whole = stats_answer(wanted).size();
        size_t successes = 0;
        for (size_t size = 0; size < whole / 2 && successes < 500; ++successes) {
            const NoMemory none(successes);
            try {
                const std::string text = stats_answer(wanted);
                size = text == "no memory\n" ? 0 : text.size();
            } catch (const std::bad_alloc&) {
                size = 0;
            }
        }
        EXPECT_GT(successes, 2u) << wanted;
        EXPECT_LT(successes, 500u) << wanted;
    }
}

void mediaWithoutMemory(MediaRows&) {
    throw std::bad_alloc();
}

TEST_F(SnapshotOfPools, MediaThatFindsNoMemoryIsNoSnapshotAndWithoutMediaThereAreNoRows) {
    MediaSource::Set(&mediaWithoutMemory);
    Snapshot failed;
    EXPECT_FALSE(failed.Gather());
    MediaSource::Set(nullptr);
    EXPECT_TRUE(gathered().media.buffers.empty());
    MediaSource::Set([](MediaRows& rows) {
        rows.buffers.push_back({sizeof(BufferStats), 1, 4, 1, 2, 3, 5, 0, 0, 0, 0, 0, 0, 0, 0, 0});
    });
    const Snapshot snapshot = gathered();
    ASSERT_EQ(1u, snapshot.media.buffers.size());
    EXPECT_EQ(4u, snapshot.media.buffers[0].buffer);
    MediaSource::Set(nullptr);
}

// ---- the holder of a snapshot --------------------------------------------------------------------------

TEST_F(SnapshotOfPools, ACStatsMovesWithWhatItSaw) {
    CStats first;
    ASSERT_EQ(0, first.Take());
    ProcessStats seen{};
    ASSERT_EQ(0, first.GetProcess(seen));
    CStats second(std::move(first));
    EXPECT_EQ(1u, second.GetPoolCount());
    CStats third;
    third = std::move(second);
    ProcessStats moved{};
    ASSERT_EQ(0, third.GetProcess(moved));
    EXPECT_EQ(seen.taken_us, moved.taken_us);
    CStats& itself = third;
    third = std::move(itself);
    EXPECT_EQ(1u, third.GetPoolCount());
    CStats empty;
    PoolRates rates{};
    EXPECT_EQ(-1, StatsDiff(empty, third, 0, rates));
    EXPECT_EQ(-1, StatsDiff(third, empty, 0, rates));
    EXPECT_EQ(-1, StatsDiff(third, third, 0, rates)) << "no time between them";
    WorkerStats worker{};
    HandlerClassStats row{};
    EXPECT_EQ(-1, empty.GetWorker(0, worker));
    EXPECT_EQ(-1, empty.GetClass(0, row));
    EXPECT_EQ(0u, empty.GetWorkerCount() + empty.GetClassCount() + empty.GetPoolCount());
}

}  // namespace
}  // namespace Orvex::Testing
