// CNetThread: set-up, counting, private pools, scheduling values and teardown.
#include <Reticor/NetThread.h>

#include <dirent.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <unistd.h>

#include <atomic>
#include <climits>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <Infra/Thread.h>
#include <Reticor/R3.h>
#include <Reticor/Stats.h>

#include "Core/handle/ObjectId.h"
#include "Core/pool/PoolTable.h"
#include "Core/service/Message.h"
#include "R3/print/FuncBox.h"
#include "support/Eventually.h"
#include "support/KernelThread.h"
#include "support/LogCapture.h"
#include "support/SeededRandom.h"
#include "support/TestHandler.h"
#include "support/ThreadFault.h"
#include "support/core/Probes.h"
#include "support/socket/Allocations.h"

namespace Orvex::Reticor {
namespace {

using Testing::HandlerLife;
using Testing::LogCapture;
using Testing::TestHandler;

constexpr int PRIVATE_POOLS = 63;

int openDescriptors() {
    DIR* dir = ::opendir("/proc/self/fd");
    int count = 0;
    while (::readdir(dir) != nullptr) {
        ++count;
    }
    ::closedir(dir);
    return count;
}

// Threads of the library with a public pool. A sanitizer has threads of its own.
int libraryThreads() {
    int count = 0;
    for (const char* name : {"Reticor0", "Reticor0 daemon", "Timer_Thread", "Sock_Timer_Thre"}) {
        count += Testing::kernelThreadByName(name) != 0 ? 1 : 0;
    }
    return count;
}

// A handler of the pool gets a message and is closed again.
void expectPoolWorks(int pool) {
    auto* handler = new TestHandler(pool);
    const std::shared_ptr<HandlerLife> life = handler->life;
    handler->Notify(handler->GetID(), 1, 0);
    EXPECT_EVENTUALLY(life->messages == 1);
    handler->Close();
    EXPECT_EVENTUALLY(life->closes == 1);
}

// ---- counting ------------------------------------------------------------------------------------------

TEST(NetThread, TwoCreationsNeedTwoDestructionsAndTheSecondsArgumentsHaveNoEffect) {
    LogCapture log;
    EXPECT_EQ(0, CNetThread::CreateThreadPool(2, false));
    CThreadPool* const pool = PoolTable::Get(0);
    const int workers = ThreadPoolProbe::workers(*pool);
    EXPECT_EQ(0, CNetThread::CreateThreadPool(50, false));
    EXPECT_EQ(pool, PoolTable::Get(0));
    EXPECT_EQ(workers, ThreadPoolProbe::workers(*pool));
    EXPECT_EQ(0, CNetThread::DestroyThreadPool());
    EXPECT_EQ(pool, PoolTable::Get(0));
    expectPoolWorks(0);
    EXPECT_EQ(0, CNetThread::DestroyThreadPool());
    EXPECT_EQ(nullptr, PoolTable::Get(0));
    EXPECT_EQ(
        1u, log.count(4, "-                 Reticor Version:Unknown, Compiled Date:.                  -\n"));
}

TEST(NetThread, ThePlainFunctionsDoTheSame) {
    EXPECT_EQ(0, CreateThreadPool(2, 0));
    expectPoolWorks(0);
    EXPECT_EQ(0, SetRecvThreadPriority(5, 1, 0));
    EXPECT_EQ(-1, SetRecvThreadPriority(64, 2, 0));
    EXPECT_EQ(0, SetRecvThreadPriority(64, 0, 0));
    EXPECT_EQ(0, DestroyThreadPool());
    EXPECT_EQ(nullptr, PoolTable::Get(0));
}

TEST(NetThread, NoThreadsIsLoggedAndStillSucceeds) {
    LogCapture log;
    EXPECT_EQ(0, CNetThread::CreateThreadPool(0, false));
    EXPECT_EQ(1u, log.count(2, "Invalid thread num 0, Please check it!\n")) << log.dump();
    EXPECT_EQ(0, CNetThread::DestroyThreadPool());
}

TEST(NetThread, DestroyingBeforeAnyCreationIsLoggedAndCountsDown) {
    LogCapture log;
    EXPECT_EQ(-1, CNetThread::DestroyThreadPool());
    EXPECT_EQ(1u, log.count(2, "The private pool 0 not exist! Can't close it!\n")) << log.dump();
    EXPECT_EQ(0u, log.lines().front().start.find("[Src/Core/NetThread.cpp:"));
    // The count is one lower now: set-up takes it to 0, the creation to 1, and one destruction does not end
    // it.
    EXPECT_EQ(0, CNetThread::CreateThreadPool(2, false));
    EXPECT_EQ(0, CNetThread::CreateThreadPool(2, false));
    EXPECT_EQ(0, CNetThread::DestroyThreadPool());
    EXPECT_EQ(nullptr, PoolTable::Get(0));
}

TEST(NetThread, AfterAFullTeardownEverythingIsSetUpAgain) {
    for (int round = 0; round < 3; ++round) {
        ASSERT_EQ(0, CNetThread::CreateThreadPool(2, false));
        expectPoolWorks(0);
        ASSERT_EQ(0, CNetThread::DestroyThreadPool());
        EXPECT_EQ(nullptr, PoolTable::Get(0));
    }
}

// ---- private pools -------------------------------------------------------------------------------------

TEST(NetThread, APrivatePoolSetsTheLibraryUpAndTakesItDown) {
    const int pool = CNetThread::CreatePrivatePool(2, false);
    EXPECT_EQ(1, pool);
    EXPECT_NE(nullptr, PoolTable::Get(0));
    expectPoolWorks(pool);
    EXPECT_EQ(0, CNetThread::DestroyPrivatePool(pool));
    EXPECT_EQ(nullptr, PoolTable::Get(pool));
    EXPECT_EQ(nullptr, PoolTable::Get(0));
}

TEST(NetThread, APrivatePoolKeepsTheLibraryUp) {
    ASSERT_EQ(0, CNetThread::CreateThreadPool(2, false));
    const int pool = CNetThread::CreatePrivatePool(2, false);
    EXPECT_EQ(0, CNetThread::DestroyThreadPool());
    EXPECT_NE(nullptr, PoolTable::Get(0));
    expectPoolWorks(pool);
    expectPoolWorks(0);
    EXPECT_EQ(0, CNetThread::DestroyPrivatePool(pool));
    EXPECT_EQ(nullptr, PoolTable::Get(0));
}

TEST(NetThread, TheLowestEmptySlotIsTaken) {
    ASSERT_EQ(0, CNetThread::CreateThreadPool(2, false));
    EXPECT_EQ(1, CNetThread::CreatePrivatePool(2, false));
    EXPECT_EQ(2, CNetThread::CreatePrivatePool(2, false));
    EXPECT_EQ(3, CNetThread::CreatePrivatePool(2, false));
    EXPECT_EQ(0, CNetThread::DestroyPrivatePool(2));
    EXPECT_EQ(2, CNetThread::CreatePrivatePool(2, false));
    for (int pool : {1, 2, 3}) {
        EXPECT_EQ(0, CNetThread::DestroyPrivatePool(pool));
    }
    EXPECT_EQ(0, CNetThread::DestroyThreadPool());
}

TEST(NetThread, SixtyThreePrivatePoolsWorkAndTheSixtyFourthIsRefused) {
    ASSERT_EQ(0, CNetThread::CreateThreadPool(2, false));
    for (int pool = 1; pool <= PRIVATE_POOLS; ++pool) {
        ASSERT_EQ(pool, CNetThread::CreatePrivatePool(2, false));
    }
    LogCapture log(2);
    EXPECT_EQ(-1, CNetThread::CreatePrivatePool(2, false));
    EXPECT_EQ(1u, log.count(2, "No more private pool can be created!\n")) << log.dump();
    for (int pool = 0; pool <= PRIVATE_POOLS; ++pool) {
        expectPoolWorks(pool);
    }
    for (int pool = 1; pool <= PRIVATE_POOLS; ++pool) {
        ASSERT_EQ(0, CNetThread::DestroyPrivatePool(pool));
    }
    EXPECT_EQ(0, CNetThread::DestroyThreadPool());
    EXPECT_EQ(nullptr, PoolTable::Get(0));
}

TEST(NetThread, DestroyingAPoolThatCannotBePrivateIsMinusOneWithoutALine) {
    LogCapture log;
    for (int index : {0, 64, -1, 1000}) {
        EXPECT_EQ(-1, CNetThread::DestroyPrivatePool(index));
    }
    EXPECT_EQ(0u, log.lines().size()) << log.dump();
}

TEST(NetThread, DestroyingAnEmptySlotIsLogged) {
    ASSERT_EQ(0, CNetThread::CreateThreadPool(2, false));
    LogCapture log(2);
    EXPECT_EQ(-1, CNetThread::DestroyPrivatePool(63));
    EXPECT_EQ(1u, log.count(2, "The private pool 63 not exist! Can't close it!\n")) << log.dump();
    EXPECT_EQ(0, CNetThread::DestroyThreadPool());
}

TEST(NetThread, HandlersOfDifferentPoolsReachEachOther) {
    ASSERT_EQ(0, CNetThread::CreateThreadPool(2, false));
    const int pool = CNetThread::CreatePrivatePool(2, false);
    auto* here = new TestHandler(0);
    auto* there = new TestHandler(pool);
    const std::shared_ptr<HandlerLife> lives[] = {here->life, there->life};
    there->on_message = [&](long sender, unsigned int msg, long attach) {
        there->Notify(sender, msg, attach + 1);
        return 0;
    };
    std::atomic<long> answer{0};
    here->on_message = [&](long, unsigned int, long attach) {
        answer = attach;
        return 0;
    };
    here->Notify(there->GetID(), 1, 41);
    EXPECT_EVENTUALLY(answer == 42);
    here->Close();
    there->Close();
    EXPECT_EVENTUALLY(lives[0]->closes == 1 && lives[1]->closes == 1);
    EXPECT_EQ(0, CNetThread::DestroyPrivatePool(pool));
    EXPECT_EQ(0, CNetThread::DestroyThreadPool());
}

// What there is after any order of creating and destroying, by a plain count.
class LifeModel {
public:
    void step(Testing::SeededRandom& random) {
        switch (random.between(0, 4)) {
            case 0:
                ASSERT_EQ(0, CNetThread::CreateThreadPool(1, false));
                ++m_users;
                break;
            case 1:
                if (m_users > 0) {
                    ASSERT_EQ(0, CNetThread::DestroyThreadPool());
                    --m_users;
                }
                break;
            case 2:
                create_private();
                break;
            default:
                destroy_private(random.between(1, 5));
        }
        compare();
    }
    bool up() const { return m_users > 0 || !m_private.empty(); }
    void end() {
        while (!m_private.empty()) {
            destroy_private(*m_private.begin());
        }
        for (; m_users > 0; --m_users) {
            EXPECT_EQ(0, CNetThread::DestroyThreadPool());
        }
        compare();
    }

private:
    void create_private() {
        int lowest = 1;
        while (m_private.count(lowest) != 0) {
            ++lowest;
        }
        ASSERT_EQ(lowest, CNetThread::CreatePrivatePool(1, false));
        m_private.insert(lowest);
    }
    void destroy_private(int index) {
        const bool there = m_private.erase(index) != 0;
        ASSERT_EQ(there ? 0 : -1, CNetThread::DestroyPrivatePool(index));
    }
    void compare() const {
        ASSERT_EQ(up(), PoolTable::Get(0) != nullptr);
        for (int index = 1; index < PoolTable::POOL_LIMIT; ++index) {
            ASSERT_EQ(m_private.count(index) != 0, PoolTable::Get(index) != nullptr) << index;
        }
    }

    int m_users = 0;
    std::set<int> m_private;
};

TEST(NetThread, AnyOrderOfCreatingAndDestroyingAgreesWithAPlainCount) {
    LogCapture quiet;  // of those that do not exist
    Testing::SeededRandom random;
    LifeModel model;
    int lives = 0;
    for (int step = 0; step < 400 && !::testing::Test::HasFatalFailure(); ++step) {
        const bool before = model.up();
        model.step(random);
        lives += !before && model.up() ? 1 : 0;
    }
    EXPECT_GE(lives, 1);
    model.end();
    EXPECT_EVENTUALLY(libraryThreads() == 0);
}

TEST(NetThread, PrivatePoolsOfManyThreadsNeverShareAnIndex) {
    ASSERT_EQ(0, CNetThread::CreateThreadPool(1, false));
    std::atomic<bool> taken[PRIVATE_POOLS + 1] = {};
    std::vector<std::thread> threads;
    for (int n = 0; n < 3; ++n) {
        threads.emplace_back([&] {
            for (int i = 0; i < 15; ++i) {
                const int index = CNetThread::CreatePrivatePool(1, false);
                ASSERT_GT(index, 0);
                EXPECT_FALSE(taken[index].exchange(true));
                auto* const handler = new TestHandler(index);
                const std::shared_ptr<HandlerLife> life = handler->life;
                handler->Notify(handler->GetID(), 1, 0);
                handler->Close();
                EXPECT_EVENTUALLY(life->closes == 1);
                taken[index] = false;
                EXPECT_EQ(0, CNetThread::DestroyPrivatePool(index));
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(0, CNetThread::DestroyThreadPool());
    EXPECT_EQ(nullptr, PoolTable::Get(0));
}

// ---- looking on ----------------------------------------------------------------------------------------

TEST(NetThread, WithoutPoolsThereIsNothingToList) {
    EXPECT_EQ(0, CNetThread::TraversalSock());
    for (int pool : {0, 1, 63, 64, -1, INT_MAX}) {
        EXPECT_EQ(-1, CNetThread::GetSocksWithoutPlace(pool)) << pool;
    }
    const auto never = [](void*, const HandlerInfo&) {
        ADD_FAILURE() << "nobody is there";
        return false;
    };
    EXPECT_EQ(0, CNetThread::ListHandlers(never, nullptr));
}

TEST(NetThread, ListingHandlersWithoutMemoryIsMinus1AndCallsNobody) {
    ASSERT_EQ(0, CNetThread::CreateThreadPool(1, false));
    auto* const handler = new TestHandler;
    const std::shared_ptr<HandlerLife> life = handler->life;
    handler->SetTimer(3600000000);
    int calls = 0;
    const auto count = [](void* context, const HandlerInfo&) {
        ++*static_cast<int*>(context);
        return true;
    };
    for (size_t successes : {0u, 1u, 2u}) {
        const Testing::NoMemory none(successes);
        EXPECT_EQ(-1, CNetThread::ListHandlers(count, &calls)) << successes;
    }
    EXPECT_EQ(0, calls);
    EXPECT_EQ(1, CNetThread::ListHandlers(count, &calls));
    EXPECT_EQ(1, calls);
    handler->Close();
    EXPECT_EVENTUALLY(life->closes == 1);
    EXPECT_EQ(0, CNetThread::DestroyThreadPool());
}

TEST(NetThread, WatchingAndServingGoOnWhateverPoolsThereAre) {
    char folder[] = "/tmp/reticor_life_XXXXXX";
    ASSERT_NE(nullptr, ::mkdtemp(folder));
    const std::string path = std::string(folder) + "/socket";
    EXPECT_EQ(0, CNetThread::ServeStats(path.c_str()));
    EXPECT_EQ(0, CNetThread::SetStuckLimit(1000));
    for (int life = 0; life < 2; ++life) {
        ASSERT_EQ(0, CNetThread::CreateThreadPool(1, false));
        expectPoolWorks(0);
        EXPECT_EQ(0, CNetThread::DestroyThreadPool());
        EXPECT_EVENTUALLY(Testing::kernelThreadByName("Reticor stats") != 0);
        EXPECT_EVENTUALLY(Testing::kernelThreadByName("Reticor watch") != 0);
        EXPECT_EQ(0, ::access(path.c_str(), F_OK));
    }
    EXPECT_EQ(0, CNetThread::SetStuckLimit(0));
    EXPECT_EQ(0, CNetThread::StopServingStats());
    EXPECT_EVENTUALLY(Testing::kernelThreadByName("Reticor stats") == 0 &&
                      Testing::kernelThreadByName("Reticor watch") == 0);
    EXPECT_EQ(0, ::rmdir(folder));
}

// ---- scheduling values ---------------------------------------------------------------------------------

TEST(NetThread, WrongSchedulingValuesAreLoggedAndRefused) {
    LogCapture log;
    EXPECT_EQ(-1, CNetThread::SetThreadPriority(50, 0, 0));
    EXPECT_EQ(1u,
              log.count(2, "Orvex::Reticor::CNetThread::SetThreadPriority : Thread priority set error!\n"))
        << log.dump();
    EXPECT_EQ(-1, CNetThread::SetThreadPriority(64, 2, 0));
    EXPECT_EQ(1u, log.count(2, "Orvex::Reticor::CNetThread::SetThreadPriority : Thread policy set error!\n"))
        << log.dump();
    EXPECT_EQ(-1, CNetThread::SetRecvThreadPriority(64, -1, 0));
    EXPECT_EQ(1u,
              log.count(2, "Orvex::Reticor::CNetThread::SetRecvThreadPriority : Thread policy set error!\n"))
        << log.dump();
    EXPECT_EQ(0, CNetThread::SetRecvThreadPriority(4711, 1, 0));  // the priority is taken as given
    EXPECT_EQ(0, CNetThread::SetRecvThreadPriority(64, 0, 0));
    for (int priority : {1, 64, 127}) {
        EXPECT_EQ(0, CNetThread::SetThreadPriority(priority, 0, 0));
    }
    EXPECT_EQ(0, CNetThread::SetThreadPriority(64, 1, 0));
    EXPECT_EQ(0, CNetThread::SetThreadPriority(64, 0, 0));
}

// The nice value of a thread of that name, field 19 of stat in proc(5).
int niceOf(const std::string& thread_name) {
    int thread = 0;
    EXPECT_EVENTUALLY((thread = Testing::kernelThreadByName(thread_name)) != 0);
    std::string stat;
    std::getline(Testing::openTaskFile(thread, "stat"), stat);
    std::istringstream fields(stat.substr(stat.rfind(')') + 2));
    std::string field;
    for (int i = 3; i <= 19; ++i) {
        fields >> field;
    }
    return std::atoi(field.c_str());
}

TEST(NetThread, SchedulingValuesHoldForTheNextPoolAlone) {
    ASSERT_EQ(0, CNetThread::CreateThreadPool(2, false));
    ASSERT_EQ(0, CNetThread::SetThreadPriority(50, 0, 0) + 1);
    ASSERT_EQ(0, CNetThread::SetThreadPriority(1, 0, 0));
    ASSERT_EQ(1, CNetThread::CreatePrivatePool(2, false));
    ASSERT_EQ(2, CNetThread::CreatePrivatePool(2, false));
    const int usual = niceOf("Reticor2");
    EXPECT_EVENTUALLY(niceOf("Reticor1") > usual);
    EXPECT_EQ(niceOf("Reticor0"), usual);
    EXPECT_EQ(0, CNetThread::DestroyPrivatePool(1));
    EXPECT_EQ(0, CNetThread::DestroyPrivatePool(2));
    EXPECT_EQ(0, CNetThread::DestroyThreadPool());
}

// ---- faults --------------------------------------------------------------------------------------------

TEST(NetThread, WithoutTheSocketTimersThreadSetUpFailsAndCanBeTriedAgain) {
    LogCapture log;
    {
        Testing::ThreadFault fault(0);
        EXPECT_EQ(-1, CNetThread::CreateThreadPool(2, false));
    }
    EXPECT_EQ(1u, log.count(2, "CNetThread::check_on_init, CNetSock init environment failed!\n"))
        << log.dump();
    EXPECT_EQ(nullptr, PoolTable::Get(0));
    EXPECT_EQ(0, CNetThread::CreateThreadPool(2, false));
    expectPoolWorks(0);
    EXPECT_EQ(0, CNetThread::DestroyThreadPool());
}

TEST(NetThread, WithoutTheTimerThreadSetUpFailsAndLeavesNoThread) {
    LogCapture log;
    {
        Testing::ThreadFault fault(1);
        EXPECT_EQ(-1, CNetThread::CreatePrivatePool(2, false));
    }
    EXPECT_EQ(1u, log.count(2, "CNetThread::check_on_init, CNetTimer init failed!\n")) << log.dump();
    EXPECT_EVENTUALLY(libraryThreads() == 0);
    EXPECT_EQ(0, CNetThread::CreateThreadPool(2, false));
    expectPoolWorks(0);
    EXPECT_EQ(0, CNetThread::DestroyThreadPool());
}

// Threads that set-up needs besides the workers of the public pool: two timers and the pool's daemon.
constexpr int OTHER_THREADS = 3;

TEST(NetThread, APoolThatGotSomeOfItsWorkersRunsAndSaysHowMany) {
    LogCapture log(2);
    {
        Testing::ThreadFault fault(OTHER_THREADS + 1);
        EXPECT_EQ(0, CNetThread::CreateThreadPool(2, false));
    }
    EXPECT_EQ(1, ThreadPoolProbe::workers(*PoolTable::Get(0)));
    EXPECT_EQ(1u, log.count(2, "Only 1 of 2 threads of pool 0 could be started!\n")) << log.dump();
    expectPoolWorks(0);
    EXPECT_EQ(0, CNetThread::DestroyThreadPool());
}

TEST(NetThread, APoolThatGotNoneOfItsWorkersIsUndone) {
    LogCapture log(2);
    {
        Testing::ThreadFault fault(OTHER_THREADS);
        EXPECT_EQ(-1, CNetThread::CreateThreadPool(2, false));
    }
    EXPECT_EQ(1u, log.count(2, "Only 0 of 2 threads of pool 0 could be started!\n")) << log.dump();
    EXPECT_EQ(nullptr, PoolTable::Get(0));
    EXPECT_EVENTUALLY(libraryThreads() == 0);
    EXPECT_EQ(0, CNetThread::CreateThreadPool(2, false));
    expectPoolWorks(0);
    EXPECT_EQ(0, CNetThread::DestroyThreadPool());
}

TEST(NetThread, APrivatePoolThatGotNoneOfItsWorkersIsUndone) {
    {
        // The daemon gets a thread, the workers do not; and the library was set up for this pool alone.
        LogCapture log(2);
        Testing::ThreadFault fault(OTHER_THREADS + 2 + 1);
        EXPECT_EQ(-1, CNetThread::CreatePrivatePool(2, false));
        EXPECT_EQ(1u, log.count(2, "Only 0 of 2 threads of pool 1 could be started!\n")) << log.dump();
    }
    EXPECT_EQ(nullptr, PoolTable::Get(0));
    EXPECT_EVENTUALLY(libraryThreads() == 0);
    ASSERT_EQ(0, CNetThread::CreateThreadPool(2, false));
    {
        LogCapture log(2);
        Testing::ThreadFault fault(0);
        EXPECT_EQ(-1, CNetThread::CreatePrivatePool(2, false));
    }
    EXPECT_EQ(1, CNetThread::CreatePrivatePool(2, false));
    expectPoolWorks(1);
    EXPECT_EQ(0, CNetThread::DestroyPrivatePool(1));
    EXPECT_EQ(0, CNetThread::DestroyThreadPool());
}

TEST(NetThread, MoreThreadsThanAPoolCanHaveAreRefusedWithALine) {
    for (unsigned int threads : {0x80000000U, 0xFFFFFFFFU, 65537U}) {
        LogCapture log(2);
        EXPECT_EQ(-1, CreateThreadPool(threads, 0));
        EXPECT_EQ(1u, log.count(2, "Invalid thread num " + std::to_string(threads) +
                                       ", a pool has 65536 at most!\n"))
            << log.dump();
    }
    EXPECT_EVENTUALLY(libraryThreads() == 0);
    ASSERT_EQ(0, CreateThreadPool(2, 0));
    LogCapture log(2);
    EXPECT_EQ(-1, CNetThread::CreatePrivatePool(0x80000000U, false));
    EXPECT_EQ(0, CreateThreadPool(0xFFFFFFFFU, 0)) << "only the call that creates the pool counts threads";
    EXPECT_EQ(0, DestroyThreadPool());
    EXPECT_EQ(0, DestroyThreadPool());
}

// ---- the debug server ----------------------------------------------------------------------------------

TEST(NetThread, DisableR3WithoutAUseTakesTheNextOneAway) {
    ASSERT_EQ(0, CNetThread::CreateThreadPool(2, false));
    LogCapture log(2);
    EXPECT_EQ(0, CNetThread::DisableR3());
    EXPECT_EQ(0, CNetThread::EnableR3());
    EXPECT_EQ(0u, log.lines().size()) << "nothing was started: " << log.dump();
    EXPECT_EQ(0, CNetThread::DestroyThreadPool());
}

class NetThreadDeath : public ::testing::Test {};

TEST_F(NetThreadDeath, AWorkerThatDestroysItsOwnPoolIsStoppedByAnAssertion) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            CNetThread::CreateThreadPool(2, false);
            auto* handler = new TestHandler;
            handler->on_message = [](long, unsigned int, long) { return CNetThread::DestroyThreadPool(); };
            handler->Notify(handler->GetID(), 1, 0);
            ::sleep(60);
        },
        "Assertion `.*thread.*' failed");
}

TEST_F(NetThreadDeath, TheDebugServerNeedsThePublicPool) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(CNetThread::EnableR3(), "Assertion `sm_pub_pool_ref' failed");
    EXPECT_DEATH(CNetThread::DisableR3(), "Assertion `sm_pub_pool_ref' failed");
}

TEST(NetThread, TheServersEndEmptiesTheCommandBox) {
    ASSERT_NE(nullptr, g_r3_funcbox);
    EXPECT_EQ(0, R3ServerExit());
    EXPECT_EQ(nullptr, g_r3_funcbox);
    EXPECT_EQ(0, R3ServerExit());
    EXPECT_EQ(0, R3Register(reinterpret_cast<void*>(&openDescriptors), "later", nullptr));
    ASSERT_NE(nullptr, g_r3_funcbox);
    EXPECT_EQ(1, g_r3_funcbox->Count());
    R3ServerExit();
}

// ---- many lives ----------------------------------------------------------------------------------------

TEST(NetThread, TwoHundredLivesLeaveNoThreadNoDescriptorAndNoByteBehind) {
    auto live = [] {
        ASSERT_EQ(0, CNetThread::CreateThreadPool(2, false));
        expectPoolWorks(0);
        auto* handler = new TestHandler;
        const std::shared_ptr<HandlerLife> life = handler->life;
        handler->SetTimer(60000000);
        handler->Close();
        EXPECT_EVENTUALLY(life->closes == 1);
        ASSERT_EQ(0, CNetThread::DestroyThreadPool());
    };
    for (int warm = 0; warm < 20; ++warm) {
        live();
    }
    EXPECT_EVENTUALLY(libraryThreads() == 0);
    const int descriptors = openDescriptors();
    const size_t bytes = ::mallinfo2().uordblks;
    for (int round = 0; round < 180; ++round) {
        live();
    }
    EXPECT_EVENTUALLY(libraryThreads() == 0);
    EXPECT_EQ(descriptors, openDescriptors());
    // The system keeps a little per thread for reuse; a leak of one record a life would be 180 of them.
    EXPECT_LT(::mallinfo2().uordblks, bytes + 180 * sizeof(CEvent) / 2);
}

TEST(NetThread, PoolsComeAndGoUnderLoadFromOthers) {
    ASSERT_EQ(0, CNetThread::CreateThreadPool(2, false));
    auto* handler = new TestHandler;
    const std::shared_ptr<HandlerLife> life = handler->life;
    std::atomic<bool> stop{false};
    std::atomic<long> foreign{(-100L * 256 + 1) * 256};
    std::thread sender([&] {
        while (!stop) {
            CMessage::Notify(-500, foreign, 1, 0, false);
            CMessage::NotifySerial(-500, foreign, 1, 0, 0);
            handler->Notify(handler->GetID(), 1, 0);
            std::this_thread::yield();
        }
    });
    for (int round = 0; round < 30; ++round) {
        const int pool = CNetThread::CreatePrivatePool(2, false);
        ASSERT_EQ(1, pool);
        ASSERT_EQ(0, CNetThread::DestroyPrivatePool(pool));
    }
    stop = true;
    sender.join();
    handler->Close();
    EXPECT_EVENTUALLY(life->closes == 1);
    EXPECT_EQ(0, CNetThread::DestroyThreadPool());
}

}  // namespace
}  // namespace Orvex::Reticor
