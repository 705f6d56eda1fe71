// The end of a pool against threads that use its handlers: application threads and file workers.
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <memory>
#include <thread>
#include <vector>

#include <Reticor/NetThread.h>

#include "Core/pool/PoolTable.h"
#include "support/Eventually.h"
#include "support/LogCapture.h"
#include "support/TestHandler.h"
#include "support/core/FastClock.h"
#include "support/core/Probes.h"
#include "support/core/SocketPair.h"

namespace Orvex::Reticor {
namespace {

using Testing::FastClock;
using Testing::HandlerLife;
using Testing::LogCapture;
using Testing::SocketPair;
using Testing::TestHandler;

constexpr int TIMEOUT_US = 1000;

// Every operation once. What comes of them depends on the moment.
void useOnce(TestHandler& handler, SocketPair& pair) {
    handler.RegisterSock(pair.near, SOCK_READ | SOCK_WRITE, TIMEOUT_US);
    const long timer = handler.SetTimer(3000);
    handler.UnregisterSock(pair.near, SOCK_WRITE);
    handler.Notify(handler.GetID(), 1, 0);
    handler.NotifySerial(handler.GetID(), 2, 0, 0);
    handler.CheckSock(pair.near);
    handler.DestroyTimer(timer);
    handler.RemoveSock(pair.near);
    handler.RegisterSock(pair.near, SOCK_READ, TIMEOUT_US);
}

// Threads that use a handler on which each holds a reference.
class Users {
public:
    explicit Users(TestHandler* handler) : m_handler(handler) {
        for (int i = 0; i < COUNT; ++i) {
            m_handler->AddRef();
            m_threads.emplace_back([this] {
                SocketPair pair;
                while (!m_stop) {
                    useOnce(*m_handler, pair);
                    ++m_uses;
                }
            });
        }
        EXPECT_EVENTUALLY(m_uses > 2 * COUNT);
    }
    // Ends the threads, and drops their references.
    ~Users() {
        m_stop = true;
        for (std::thread& thread : m_threads) {
            thread.join();
        }
        for (int i = 0; i < COUNT; ++i) {
            m_handler->DecRef();
        }
    }
    Users(const Users&) = delete;
    Users& operator=(const Users&) = delete;

private:
    static constexpr int COUNT = 2;

    TestHandler* const m_handler;
    std::atomic<bool> m_stop{false};
    std::atomic<int> m_uses{0};
    std::vector<std::thread> m_threads;
};

// Close, then destroy: `destroy` ends the handler's pool while others use the handler.
template <typename Destroy>
void closeAndDestroy(TestHandler* handler, Destroy destroy) {
    const std::shared_ptr<HandlerLife> life = handler->life;
    {
        const Users users(handler);
        handler->Close();
        EXPECT_EQ(0, destroy());
    }
    EXPECT_EQ(1, life->closes);
}

// The handler is open all the time: registrations and timers meet the end of the pool as well.
template <typename Destroy>
void destroyUnderAnOpenHandler(TestHandler* handler, Destroy destroy) {
    {
        const Users users(handler);
        EXPECT_EQ(0, destroy());
    }
    handler->Close();
    delete handler;
}

TEST(PoolEnd, ThePublicPoolEndsWhileOthersUseItsHandlers) {
    LogCapture quiet(1);
    const FastClock clock;
    for (int round = 0; round < 200; ++round) {
        ASSERT_EQ(0, CNetThread::CreateThreadPool(2, false));
        auto* handler = new TestHandler;
        const auto destroy = [] { return CNetThread::DestroyThreadPool(); };
        round % 2 == 0 ? closeAndDestroy(handler, destroy) : destroyUnderAnOpenHandler(handler, destroy);
    }
}

TEST(PoolEnd, APrivatePoolEndsWhileOthersUseItsHandlers) {
    LogCapture quiet(1);
    ASSERT_EQ(0, CNetThread::CreateThreadPool(2, false));
    {
        const FastClock clock;
        for (int round = 0; round < 200; ++round) {
            const int pool = CNetThread::CreatePrivatePool(2, false);
            ASSERT_GT(pool, 0);
            auto* handler = new TestHandler(pool);
            const auto destroy = [pool] { return CNetThread::DestroyPrivatePool(pool); };
            round % 2 == 0 ? closeAndDestroy(handler, destroy) : destroyUnderAnOpenHandler(handler, destroy);
        }
    }
    EXPECT_EQ(0, CNetThread::DestroyThreadPool());
}

// The handler sends itself the next message from the file worker on which the last one arrived.
TEST(PoolEnd, APrivatePoolEndsWhileFileWorkersUseItsHandlers) {
    LogCapture quiet(1);
    ASSERT_EQ(0, CNetThread::CreateThreadPool(2, true));
    for (int round = 0; round < 200; ++round) {
        const int pool = CNetThread::CreatePrivatePool(2, false);
        ASSERT_GT(pool, 0);
        auto* handler = new TestHandler(pool);
        const std::shared_ptr<HandlerLife> life = handler->life;
        auto pairs = std::make_shared<std::array<SocketPair, 2>>();
        handler->on_message = [handler, pairs](long, unsigned int msg, long which) {
            if (msg == 3) {
                useOnce(*handler, (*pairs)[static_cast<size_t>(which)]);
                handler->NotifyIO(handler->GetID(), 3, which);
            }
            return 0;
        };
        handler->NotifyIO(handler->GetID(), 3, 0);
        handler->NotifyIO(handler->GetID(), 3, 1);
        EXPECT_EVENTUALLY(life->messages > 4);
        handler->Close();
        EXPECT_EQ(0, CNetThread::DestroyPrivatePool(pool));
        EXPECT_EVENTUALLY(life->closes == 1);
    }
    EXPECT_EQ(0, CNetThread::DestroyThreadPool());
}

// Keeps the workers of the public pool in a call from here to the moment in which the pool ends.
void occupyWorkers(TestHandler* blocker) {
    CThreadPool* const pool = PoolTable::Get(0);
    const int workers = ThreadPoolProbe::workers(*pool);
    auto inside = std::make_shared<std::atomic<int>>(0);
    blocker->on_message = [pool, inside](long, unsigned int, long) {
        ++*inside;
        while (ThreadPoolProbe::looping(*pool)) {
            std::this_thread::yield();
        }
        return 0;
    };
    for (int i = 0; i < workers; ++i) {
        blocker->Notify(blocker->GetID(), 1, 0);
    }
    EXPECT_EVENTUALLY(*inside == workers);
}

TEST(PoolEnd, CloseMessagesThatNoWorkerTookAreServedByTheLastDestroyWithNoLockHeld) {
    ASSERT_EQ(0, CNetThread::CreateThreadPool(2, false));
    auto* blocker = new TestHandler;
    auto* handler = new TestHandler;
    const std::shared_ptr<HandlerLife> lives[] = {blocker->life, handler->life};
    occupyWorkers(blocker);
    handler->on_close = [] {
        // On another thread: the lock of set-up and teardown would let this one in again.
        std::thread([] { EXPECT_EQ(0, CNetThread::TraversalSock()); }).join();
    };
    handler->Close();
    blocker->Close();
    EXPECT_EQ(0, CNetThread::DestroyThreadPool());
    EXPECT_EQ(1, lives[0]->closes);
    EXPECT_EQ(1, lives[1]->closes);
}

TEST(PoolEnd, AHandlerThatSetsTheReceivePeriodDoesNotHoldUpTheEnd) {
    ASSERT_EQ(0, CNetThread::CreateThreadPool(2, false));
    CThreadPool* const pool = PoolTable::Get(0);
    auto* handler = new TestHandler;
    std::atomic<bool> inside{false};
    handler->on_message = [&](long, unsigned int, long) {
        inside = true;
        // Who ends the pool cancels its threads with the lock of set-up and teardown held.
        while (ThreadPoolProbe::looping(*pool)) {
            std::this_thread::yield();
        }
        CNetThread::SetRcvPriority(1);
        return 0;
    };
    handler->Notify(handler->GetID(), 1, 0);
    EXPECT_EVENTUALLY(inside);
    handler->Close();
    EXPECT_EQ(0, CNetThread::DestroyThreadPool());
}

// ---- ids -----------------------------------------------------------------------------------------------

TEST(PoolEnd, IdsOfAnEndedPoolFindNothingInTheNextOne) {
    std::vector<long> ids;
    for (int life = 0; life < 3; ++life) {
        ASSERT_EQ(0, CNetThread::CreateThreadPool(2, false));
        auto* handler = new TestHandler;
        const std::shared_ptr<HandlerLife> its_life = handler->life;
        const long timer = handler->SetTimer(60000000);
        if (life == 0) {
            EXPECT_EQ(-100L * 256 * 256, handler->GetID()) << "the first life keeps its values";
            EXPECT_EQ(-101L * 256 * 256, timer);
        }
        for (long old : ids) {
            EXPECT_NE(old, handler->GetID());
            EXPECT_NE(old, timer);
            handler->Notify(old, 1, 0);
            handler->DestroyTimer(old);
            EXPECT_FALSE(PoolTable::FindHandler(old));
        }
        handler->Notify(handler->GetID(), 2, 0);
        EXPECT_EVENTUALLY(its_life->messages == 1) << "the later one, and it alone";
        ids.push_back(handler->GetID());
        ids.push_back(timer);
        handler->Close();
        EXPECT_EQ(0, CNetThread::DestroyThreadPool());
        EXPECT_EQ(1, its_life->messages);
    }
}

TEST(PoolEnd, AHandlerThatOutlivedItsPoolClosesNoStranger) {
    ASSERT_EQ(0, CNetThread::CreateThreadPool(2, false));
    auto* old = new TestHandler;
    EXPECT_EQ(0, CNetThread::DestroyThreadPool());
    ASSERT_EQ(0, CNetThread::CreateThreadPool(2, false));
    auto* handler = new TestHandler;
    const std::shared_ptr<HandlerLife> life = handler->life;
    old->Close();
    handler->Notify(handler->GetID(), 1, 0);
    EXPECT_EVENTUALLY(life->messages == 1);
    delete old;
    handler->Close();
    EXPECT_EVENTUALLY(life->closes == 1);
    EXPECT_EQ(0, CNetThread::DestroyThreadPool());
}

}  // namespace
}  // namespace Orvex::Reticor
