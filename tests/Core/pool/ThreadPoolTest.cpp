// CThreadPool: its workers, the daemon, the tokens, the listing of sockets, and its end.
#include "Core/pool/ThreadPool.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <Reticor/NetThread.h>
#include <Reticor/SockStream.h>

#include "Core/pool/PoolTable.h"
#include "Core/record/EventFreeList.h"
#include "Core/service/Message.h"
#include "support/KernelThread.h"
#include "support/PoolFixture.h"
#include "support/ThreadFault.h"
#include "support/core/Probes.h"

namespace Orvex::Reticor {
namespace {

using Testing::HandlerLife;
using Testing::LogCapture;
using Testing::PoolFixture;
using Testing::TestHandler;

constexpr char FRAME[] = "-------------------------------------------------------------------------------\n";
constexpr char VERSION[] = "-                 Reticor Version:Unknown, Compiled Date:.                  -\n";

constexpr CThreadPool::WorkerBody WORK = &CThreadPool::ThreadProc;

// ---- construction --------------------------------------------------------------------------------------

TEST(ThreadPool, TheNumberOfWorkersIsAMultipleOfTheProcessors) {
    EXPECT_EQ(4, CThreadPool::worker_count(1, 4));
    EXPECT_EQ(4, CThreadPool::worker_count(3, 4));
    EXPECT_EQ(4, CThreadPool::worker_count(4, 4));
    EXPECT_EQ(8, CThreadPool::worker_count(5, 4));
    EXPECT_EQ(4, CThreadPool::worker_count(0, 4));
    EXPECT_EQ(2, CThreadPool::worker_count(2, 2));
    EXPECT_EQ(0, CThreadPool::worker_count(0, 1));
    EXPECT_EQ(3, CThreadPool::worker_count(3, 1));
}

TEST(ThreadPool, APoolOfOneThreadOnFourProcessorsHasFourWorkers) {
    CThreadPool pool(7, 1, 64, 0, 0, WORK, 4);
    EXPECT_EQ(4, ThreadPoolProbe::workers(pool));
}

TEST(ThreadPool, APoolOfNoThreadsOnOneProcessorLogsAndHasNoWorkers) {
    LogCapture log;
    CThreadPool pool(7, 0, 64, 0, 0, nullptr, 1);
    EXPECT_EQ(1u, log.count(2, "Invalid thread num 0, Please check it!\n")) << log.dump();
    EXPECT_EQ(0, ThreadPoolProbe::workers(pool));
    CEvent* ev = get_event();
    ev->m_key = EVENT_KEY_HEARTBEAT;
    pool.m_event.PushOne(ev);
    pool.Stop();
    EXPECT_GE(EventQueueProbe::size(pool.m_event), 3u);  // both tokens and this one: nothing was taken
    EXPECT_EQ(0u, ThreadPoolProbe::loopCount(pool));
}

TEST(ThreadPool, TheVersionFrameIsLoggedAtLevel4) {
    LogCapture log;
    { CThreadPool pool(7, 2, 64, 0, 0, WORK, 2); }
    EXPECT_EQ(2u, log.count(4, FRAME)) << log.dump();
    EXPECT_EQ(1u, log.count(4, VERSION)) << log.dump();
}

TEST(ThreadPool, WorkersAndDaemonBearTheirNames) {
    CThreadPool pool(63, 2, 64, 0, 0, WORK, 2);
    EXPECT_EVENTUALLY(Testing::kernelThreadByName("Reticor63") != 0);
    EXPECT_EVENTUALLY(Testing::kernelThreadByName("Reticor63 daemo") != 0);  // 15 characters are shown
    EXPECT_STREQ("Reticor63 daemon", ThreadPoolProbe::daemon(pool)->name());
}

TEST(ThreadPool, TheFirstDrainTurnsTheSerialLineIdle) {
    CThreadPool pool(7, 2, 64, 0, 0, WORK, 2);
    EXPECT_EVENTUALLY(ThreadPoolProbe::serialIdle(pool));
}

TEST(ThreadPool, TheDaemonSendsAHeartbeatAndAWorkerTakesIt) {
    CThreadPool pool(7, 2, 64, 0, 0, WORK, 2);
    EXPECT_EVENTUALLY(ThreadPoolProbe::heartbeat(pool) != nullptr);
    // Poll token, drain token and heartbeat have all been taken, and the token was queued again.
    EXPECT_EVENTUALLY(ThreadPoolProbe::loopCount(pool) >= 3);
    EXPECT_EVENTUALLY(EventQueueProbe::size(pool.m_event) == 0);
}

TEST(ThreadPool, ThreadsThatCannotStartLeaveAPoolThatCanBeDestroyed) {
    Testing::ThreadFault fault(0);  // no thread can be created
    LogCapture log;
    CThreadPool pool(7, 2, 64, 0, 0, WORK, 2);
    EXPECT_GE(log.countLevel(2), 3u) << log.dump();
}

// ---- records of unknown kind ------------------------------------------------------------------------------

void pushKey(CThreadPool& pool, int64_t key) {
    CEvent* ev = get_event();
    ev->m_key = key;
    pool.m_event.PushOne(ev);
}

TEST(ThreadPoolDeath, AnUnknownKeyIsLoggedAndAsserted) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    for (int64_t key : {-100, -101, -1, -49, -52, -79}) {
        EXPECT_DEATH(
            {
                CThreadPool pool(7, 2, 64, 0, 0, WORK, 2);
                pushKey(pool, key);
                ::sleep(60);
            },
            "\\[Src/Core/WorkerLoop.cpp:[0-9]+\\] this:0x[0-9a-f]+ tid:[0-9]+, Exist unexpected event, "
            "Please check it, "
            "key : \\[" +
                std::to_string(key) + "\\]!\n(.|\n)*Assertion `0' failed");
    }
}

TEST(ThreadPoolDeath, AForeignRecordInTheSerialLineIsLoggedAndAsserted) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            CThreadPool pool(7, 2, 64, 0, 0, WORK, 2);
            CEvent* ev = get_event();
            ev->m_key = EVENT_KEY_MESSAGE;
            ev->m_next = nullptr;
            pool.PushSerial(ev);
            ::sleep(60);
        },
        "Exist unexpected event_serial, Please check it, key : \\[-50\\]!\n(.|\n)*Assertion `0' failed");
}

// ---- the work of a pool -----------------------------------------------------------------------------------

class RunningPool : public PoolFixture {
protected:
    RunningPool() { workers = 4; }
    CThreadPool& pool() { return *PoolTable::Get(0); }
};

TEST_F(RunningPool, WhileAllWorkersAreInLongCallsSocketsAreNotPolled) {
    auto* handler = new TestHandler;
    std::atomic<bool> go{false};
    std::atomic<int> busy{0};
    handler->on_message = [&](long, unsigned int, long) {
        ++busy;
        EXPECT_EVENTUALLY(go);
        return 0;
    };
    int ends[2];
    ASSERT_EQ(0, ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends));
    CSockStream near;
    near.Attach(ends[0]);
    handler->on_input = [&](int fd) {
        char byte;
        return static_cast<int>(::recv(fd, &byte, 1, 0)) - 1;
    };
    handler->RegisterSock(near, 1, 0);
    const int all = ThreadPoolProbe::workers(pool());
    for (int i = 0; i < all; ++i) {
        handler->Notify(handler->GetID(), 1, 0);
    }
    // The last worker waits for sockets; it comes out of that, and takes the last message.
    EXPECT_EVENTUALLY(busy == all);
    EXPECT_EQ(1, ::send(ends[1], "x", 1, MSG_NOSIGNAL));
    for (int i = 0; i < 3; ++i) {
        pushKey(pool(), EVENT_KEY_HEARTBEAT);
    }
    EXPECT_GE(EventQueueProbe::size(pool().m_event), 4u);  // heartbeats pile up after the token
    EXPECT_EQ(0, handler->life->inputs);
    go = true;
    EXPECT_EVENTUALLY(handler->life->inputs == 1);
    handler->RemoveSock(near);
    ::close(ends[1]);
    closeAndWait(handler);
}

TEST_F(RunningPool, TheListingNamesEverySocketWithItsOwner) {
    auto* handler = new TestHandler;
    std::vector<std::unique_ptr<CSockStream>> socks;
    for (int i = 0; i < 20; ++i) {
        socks.push_back(std::make_unique<CSockStream>());
        socks.back()->Attach(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        handler->RegisterSock(*socks.back(), 4, 0);
    }
    LogCapture log;
    EXPECT_EQ(20, pool().TraversalSock());
    EXPECT_EQ(20, CNetThread::TraversalSock());
    for (const auto& sock : socks) {
        EXPECT_EQ(
            2u, log.countMatching(4, "CThreadPool::Traversal, sock fd: " + std::to_string(sock->GetHandle()) +
                                         ", owner: 0x[0-9a-f]+, owner type:Orvex::Testing::TestHandler \n"))
            << log.dump();
    }
    for (const auto& sock : socks) {
        handler->RemoveSock(*sock);
    }
    EXPECT_EQ(0, pool().TraversalSock());
    closeAndWait(handler);
}

TEST_F(RunningPool, ADeadOwnerHidesTheSocketsInTheSubtreeBelowIt) {
    // Handles in ascending order: the split of the eighth makes the fourth the root of three and four.
    auto* handler = new TestHandler;
    auto* dead = new TestHandler;
    dead->AddRef();
    std::vector<std::unique_ptr<CSockStream>> socks;
    for (int i = 0; i < 8; ++i) {
        socks.push_back(std::make_unique<CSockStream>());
        socks.back()->Attach(::dup(0));
        TestHandler* owner = i == 3 ? dead : handler;
        owner->RegisterSock(*socks.back(), 0, 0);
    }
    const long id = dead->GetID();
    dead->Close();
    EXPECT_EVENTUALLY(!PoolTable::FindHandler(id));
    EXPECT_EQ(4, pool().TraversalSock());
    for (const auto& sock : socks) {
        handler->RegisterSock(*sock, 0, 0);  // takes the orphan over
        handler->RemoveSock(*sock);
    }
    dead->DecRef();
    handler->AddSock();  // the orphan was counted on its first owner
    closeAndWait(handler);
}

TEST_F(RunningPool, TheListingCanBeWhatEndsAnOwner) {
    // The pin of the listing is the last reference; handle_close removes the socket, and no lock stands in
    // its way.
    auto* handler = new TestHandler;
    const std::shared_ptr<HandlerLife> life = handler->life;
    auto sock = std::make_unique<CSockStream>();
    sock->Attach(::dup(0));
    handler->RegisterSock(*sock, 0, 0);
    static TestHandler* ending;
    static CSockStream* its_socket;
    ending = handler;
    its_socket = sock.get();
    handler->on_close = [] { ending->RemoveSock(*its_socket); };
    // The line of the listing is the moment at which the pin is held: the handler is closed and detached
    // there.
    const Infra::LogSink sink = {[](void*, const Infra::LogLine& line) {
                                     if (std::string(line.text).find("Traversal") != std::string::npos) {
                                         const long id = ending->GetID();
                                         ending->Close();
                                         while (PoolTable::FindHandler(id)) {
                                             std::this_thread::yield();
                                         }
                                     }
                                 },
                                 nullptr};
    const Infra::LogSink* before = Infra::setLogSink(&sink);
    const int level = Infra::setLogLevel(4);
    EXPECT_EQ(1, pool().TraversalSock());
    Infra::setLogLevel(level);
    Infra::setLogSink(before);
    EXPECT_EVENTUALLY(life->deleted == 1);
    EXPECT_EQ(0, pool().TraversalSock());
}

TEST(ThreadPool, TheOnlyWorkerServesMessagesAndTimersBetweenItsWaits) {
    CThreadPool* pool = new CThreadPool(5, 1, 64, 0, 0, WORK, 1);
    PoolTable::Set(5, pool);
    ASSERT_EQ(1, ThreadPoolProbe::workers(*pool));
    auto* handler = new TestHandler(5);
    const std::shared_ptr<HandlerLife> life = handler->life;
    const uint64_t begin = Infra::CTime::getCurrentMicroSecond();
    for (int i = 0; i < 100; ++i) {
        handler->Notify(handler->GetID(), 1, 0);
        handler->NotifySerial(handler->GetID(), 1, 0, 0);
        EXPECT_EVENTUALLY(life->messages == 2 * (i + 1));
    }
    // A heartbeat comes by every five seconds, and would set the worker going too.
    EXPECT_LT(Infra::CTime::getCurrentMicroSecond() - begin,
              static_cast<uint64_t>(Testing::scaledMs(4000)) * 1000);
    handler->Close();
    EXPECT_EVENTUALLY(life->closes == 1);
    pool->Stop();
    PoolTable::Set(5, nullptr);
    delete pool;
}

TEST_F(RunningPool, AMessageEndsTheWaitForSocketsWhenAllOthersAreBusy) {
    auto* handler = new TestHandler;
    std::atomic<int> busy{0};
    const int all = ThreadPoolProbe::workers(pool());
    handler->on_message = [&](long, unsigned int, long) {
        ++busy;
        EXPECT_EVENTUALLY(busy == all);
        return 0;
    };
    for (int i = 0; i < all; ++i) {
        handler->Notify(handler->GetID(), 1, 0);
    }
    EXPECT_EVENTUALLY(handler->life->messages == all);
    closeAndWait(handler);
}

// ---- the end -------------------------------------------------------------------------------------------

TEST(ThreadPoolEnd, StopReturnsWhileWorkersPostToTheirOwnPool) {
    for (int round = 0; round < 20; ++round) {
        ASSERT_EQ(0, CNetThread::CreateThreadPool(2, false));
        const int index = CNetThread::CreatePrivatePool(4, false);
        auto* handler = new TestHandler(index);
        const std::shared_ptr<HandlerLife> life = handler->life;
        const long id = handler->GetID();
        handler->on_message = [&](long, unsigned int, long) {
            handler->Notify(id, 1, 0);
            handler->NotifySerial(id, 1, 0, 0);
            handler->DestroyTimer(handler->SetTimer(3000));
            handler->SetTimer(3000);
            return 0;
        };
        for (int i = 0; i < 8; ++i) {
            handler->Notify(id, 1, 0);
        }
        EXPECT_EVENTUALLY(life->messages > 100);
        EXPECT_EQ(0, CNetThread::DestroyPrivatePool(index));
        // Its close message finds no pool, so the handler is ours again.
        handler->Close();
        EXPECT_EQ(0, life->closes);
        delete handler;
        EXPECT_EQ(0, CNetThread::DestroyThreadPool());
    }
}

TEST(ThreadPoolEnd, HandleCloseMayPostWhileItsPoolStops) {
    for (int round = 0; round < 20; ++round) {
        ASSERT_EQ(0, CNetThread::CreateThreadPool(2, false));
        const int index = CNetThread::CreatePrivatePool(2, false);
        auto* handler = new TestHandler(index);
        const std::shared_ptr<HandlerLife> life = handler->life;
        const long id = handler->GetID();
        handler->on_close = [id] { CMessage::Notify(id, id, 1, 0, false); };
        handler->Close();
        EXPECT_EQ(0, CNetThread::DestroyPrivatePool(index));
        if (life->closes == 0) {
            delete handler;  // the pool stopped before a worker took the close message
        }
        EXPECT_EQ(0, CNetThread::DestroyThreadPool());
    }
}

TEST(ThreadPoolEnd, APoolStopsPromptly) {
    // The daemon's rests and the workers' waits are ended, not waited for.
    CThreadPool pool(7, 2, 64, 0, 0, WORK, 2);
    EXPECT_EVENTUALLY(ThreadPoolProbe::loopCount(pool) >= 3);
    const uint64_t begin = Infra::CTime::getCurrentMicroSecond();
    pool.Stop();
    EXPECT_LT(Infra::CTime::getCurrentMicroSecond() - begin,
              static_cast<uint64_t>(Testing::scaledMs(150)) * 1000);
}

TEST(ThreadPoolEnd, StopTwiceIsNoHarm) {
    CThreadPool pool(7, 2, 64, 0, 0, WORK, 2);
    pool.Stop();
    pool.Stop();
    EXPECT_EQ(0, ThreadPoolProbe::workers(pool));
}

TEST(ThreadPoolEnd, WhatIsQueuedAfterTheStopIsDeletedWithThePool) {
    auto pool = std::make_unique<CThreadPool>(7, 2, 64, 0, 0, WORK, 2);
    pool->Stop();
    for (int64_t key : {EVENT_KEY_MESSAGE, EVENT_KEY_HEARTBEAT, int64_t{-6553600}}) {
        pushKey(*pool, key);
    }
    CEvent* serial = get_event();
    serial->m_key = EVENT_KEY_SERIAL;
    pool->PushSerial(serial);
    pool.reset();  // the sanitizer counts what is left
}

TEST(ThreadPoolEnd, ADrainThatIsCutShortLosesNoRecord) {
    for (int round = 0; round < 20; ++round) {
        ASSERT_EQ(0, CNetThread::CreateThreadPool(2, false));
        const int index = CNetThread::CreatePrivatePool(2, false);
        auto* handler = new TestHandler(index);
        std::atomic<int> calls{0};
        handler->on_message = [&](long, unsigned int, long) {
            ++calls;
            return 0;
        };
        for (int i = 0; i < 5000; ++i) {
            handler->NotifySerial(handler->GetID(), 1, 0, 0);
        }
        EXPECT_EVENTUALLY(calls > 0);
        EXPECT_EQ(0, CNetThread::DestroyPrivatePool(index));
        handler->Close();
        delete handler;
        EXPECT_EQ(0, CNetThread::DestroyThreadPool());
    }
}

}  // namespace
}  // namespace Orvex::Reticor
