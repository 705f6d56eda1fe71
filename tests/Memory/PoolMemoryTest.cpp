// CNetThread while memory runs out: a pool that cannot be made is undone.
#include <gtest/gtest.h>

#include <Reticor/NetThread.h>
#include <Reticor/Stats.h>

#include "Core/pool/PoolTable.h"
#include "Core/pool/ThreadPool.h"
#include "support/Eventually.h"
#include "support/KernelThread.h"
#include "support/TestHandler.h"
#include "support/core/Gate.h"
#include "support/memory/MemorySweep.h"

namespace Orvex::Testing {
namespace {

using Reticor::CNetThread;

void expectAMessageArrives(int pool) {
    auto* const handler = new TestHandler(pool);
    const std::shared_ptr<HandlerLife> life = handler->life;
    handler->Notify(handler->GetID(), 1, 0);
    EXPECT_EVENTUALLY(life->messages == 1);
    handler->Close();
    EXPECT_EVENTUALLY(life->closes == 1);
}

TEST(PoolMemory, TheFirstPoolIsMadeOrUndone) {
    for (const bool file_io : {false, true}) {
        const int threads_before = threadsAtRest();
        sweep([&](size_t successes, Extent extent) {
            int result = 1;
            const Swept swept =
                withFault(successes, extent, [&] { result = CNetThread::CreateThreadPool(2, file_io); });
            if (result == 0) {
                expectAMessageArrives(0);
                EXPECT_EQ(0, CNetThread::DestroyThreadPool());
            } else {
                EXPECT_EQ(-1, result);
                EXPECT_GE(swept.lines, 1u);
            }
            EXPECT_EVENTUALLY(threads_before == kernelThreadCount());
            EXPECT_EQ(-1, CNetThread::GetSocksWithoutPlace(0));
            return swept.hit;
        });
        EXPECT_EQ(0, CNetThread::CreateThreadPool(2, file_io));
        expectAMessageArrives(0);
        EXPECT_EQ(0, CNetThread::DestroyThreadPool());
    }
}

TEST(PoolMemory, APrivatePoolIsMadeOrUndoneWithTheLibraryThatWasStartedForIt) {
    const int threads_before = threadsAtRest();
    sweep([&](size_t successes, Extent extent) {
        int index = 0;
        const Swept swept =
            withFault(successes, extent, [&] { index = CNetThread::CreatePrivatePool(2, false); });
        if (index == 1) {
            expectAMessageArrives(1);
            EXPECT_EQ(0, CNetThread::DestroyPrivatePool(1));
        } else {
            EXPECT_EQ(-1, index);
            EXPECT_GE(swept.lines, 1u);
        }
        EXPECT_EVENTUALLY(threads_before == kernelThreadCount());
        return swept.hit;
    });
}

TEST(PoolMemory, APrivatePoolThatFailsLeavesTheOthersAlone) {
    ASSERT_EQ(0, CNetThread::CreateThreadPool(2, false));
    const int threads_before = threadsAtRest();
    sweep([&](size_t successes, Extent extent) {
        int index = 0;
        const Swept swept =
            withFault(successes, extent, [&] { index = CNetThread::CreatePrivatePool(2, false); });
        if (index == 1) {
            EXPECT_EQ(0, CNetThread::DestroyPrivatePool(1));
        } else {
            EXPECT_EQ(-1, index);
            EXPECT_EQ(1u, swept.lines) << swept.text;
        }
        EXPECT_EVENTUALLY(threads_before == kernelThreadCount());
        expectAMessageArrives(0);
        return swept.hit;
    });
    EXPECT_EQ(0, CNetThread::DestroyThreadPool());
}

TEST(PoolMemory, TheOtherThreadsOfThePoolStartWithoutMemoryToo) {
    for (const Extent extent : {Extent::ONE, Extent::ALL}) {
        for (size_t successes = 0; successes < 8; ++successes) {
            SCOPED_TRACE(successes);
            MemoryFault fault(Whose::OTHERS, extent, successes);
            ASSERT_EQ(0, CNetThread::CreateThreadPool(2, true));
            fault.end();
            expectAMessageArrives(0);
            ASSERT_EQ(0, CNetThread::DestroyThreadPool());
        }
    }
}

// Neither statistics nor the watch over calls saw a worker that had found no memory at its start.
TEST(PoolMemory, WorkersThatStartWithoutMemoryAreInEverySnapshot) {
    MemoryFault fault(Whose::OTHERS, Extent::ALL);
    ASSERT_EQ(0, CNetThread::CreateThreadPool(2, false));
    Gate gate;
    auto* const handler = new TestHandler;
    handler->on_message = [&](long, unsigned int, long) {
        gate.pass();
        return 0;
    };
    const std::shared_ptr<HandlerLife> life = handler->life;
    const int workers = static_cast<int>(Reticor::PoolTable::Get(0)->Workers());
    for (int i = 0; i < workers; ++i) {
        handler->Notify(handler->GetID(), 1, 0);
    }
    ASSERT_TRUE(gate.awaitArrivals(workers));
    fault.end();
    Reticor::CStats stats;
    EXPECT_EQ(0, stats.Take());
    int in_the_call = 0;
    for (size_t place = 0; place < stats.GetWorkerCount(); ++place) {
        Reticor::WorkerStats found{};
        EXPECT_EQ(0, stats.GetWorker(place, found));
        in_the_call += found.pool == 0 && found.handler == handler->GetID() ? 1 : 0;
    }
    EXPECT_EQ(workers, in_the_call);
    gate.open();
    handler->Close();
    EXPECT_EVENTUALLY(life->closes == 1);
    ASSERT_EQ(0, CNetThread::DestroyThreadPool());
}

}  // namespace
}  // namespace Orvex::Testing
