// The poller that serves what it found by itself: who else is served meanwhile, and that an idle pool sleeps.
#include <gtest/gtest.h>

#include <dirent.h>

#include <atomic>
#include <cstdlib>
#include <thread>

#include <Infra/Thread.h>

#include "support/KernelThread.h"
#include "support/SeededRandom.h"
#include "support/core/SockPoolFixture.h"

namespace Orvex::Testing {
namespace {

using namespace Reticor;

std::vector<int> workerThreads() {
    std::vector<int> found;
    DIR* const tasks = ::opendir("/proc/self/task");
    while (const dirent* const entry = ::readdir(tasks)) {
        const int id = std::atoi(entry->d_name);
        if (id > 0 && kernelThreadName(id) == "Reticor0") {
            found.push_back(id);
        }
    }
    ::closedir(tasks);
    return found;
}

long sleepsOf(const std::vector<int>& threads) {
    long sum = 0;
    for (const int id : threads) {
        sum += voluntarySleeps(id);
    }
    return sum;
}

// Echoes on `pair`, and blocks in the call once it was told to, with a guard on watch.
class PollHandOver : public SockPoolFixture {
protected:
    // One to block, one to poll, and somebody to serve messages and timers.
    PollHandOver() { workers = 4; }

    void SetUp() override {
        SockPoolFixture::SetUp();
        handler->on_input = [this](int fd) {
            SocketPair::drain(fd);
            if (block && WorkQueueProbe::guarded(pool().m_event)) {
                gate.pass();
            }
            EXPECT_EQ(1, ::send(fd, "y", 1, MSG_NOSIGNAL));
            return 0;
        };
        add(SOCK_READ);
    }

    // One request and its answer, as a client sees it.
    void request() {
        pair.write();
        awaitAnswer();
    }
    void awaitAnswer() { EXPECT_EVENTUALLY(SocketPair::drain(pair.far.GetHandle()) > 0); }

    // Requests until the handler blocks in the poller's own hands: so quick before that nobody is woken
    // beside it.
    bool blockInThePoller() {
        for (int i = 0; i < 100; ++i) {
            request();
        }
        block = true;
        return eventually([this] {
            pair.write();
            while (SocketPair::drain(pair.far.GetHandle()) == 0) {
                if (gate.arrived() > 0) {
                    return true;
                }
                std::this_thread::yield();
            }
            return false;
        });
    }

    std::atomic<bool> block{false};
    Gate gate;
};

TEST_F(PollHandOver, HandlerThatBlocksDoesNotStopOtherSockets) {
    SocketPair others[2];
    for (SocketPair& other : others) {
        ASSERT_EQ(0, handler->RegisterSock(other.near, SOCK_READ, 0));
    }
    ASSERT_TRUE(blockInThePoller());
    block = false;
    for (int i = 0; i < 20; ++i) {
        for (SocketPair& other : others) {
            other.write();
            ASSERT_EVENTUALLY(SocketPair::drain(other.far.GetHandle()) > 0);
        }
    }
    gate.open();
    awaitAnswer();
    request();
    for (SocketPair& other : others) {
        removeAndWait(other.near);
    }
}

TEST_F(PollHandOver, MessagesAndTimersAreServedBesideAHandlerThatBlocks) {
    ASSERT_TRUE(blockInThePoller());
    handler->Notify(handler->GetID(), 1, 0);
    handler->SetTimer(3000);
    EXPECT_EVENTUALLY(handler->life->messages == 1);
    EXPECT_EVENTUALLY(handler->life->timeouts == 1);
    gate.open();
    awaitAnswer();
    block = false;
    request();
}

// As many timers as there are workers, of which all but the one that waits for sockets sleep. Most rounds
// have them due in one tick.
TEST(TimersOfOneTick, NoneWaitsForAnotherWhileAWorkerIsIdle) {
    ASSERT_EQ(0, CNetThread::CreateThreadPool(2, false));
    CThreadPool& pool = *PoolTable::Get(0);
    const int count = ThreadPoolProbe::workers(pool);
    TestHandler* const handler = new TestHandler;
    std::atomic<int> inside{0};
    std::atomic<int> met{0};
    handler->on_timeout = [&](long) -> int64_t {
        const int all = (inside++ / count + 1) * count;
        // A heartbeat comes by every five seconds, and sets a pool going that stood still.
        met += eventually([&] { return inside >= all; }, 2000) ? 1 : 0;
        return -1;
    };
    for (int round = 1; round <= 20; ++round) {
        EXPECT_EVENTUALLY(WorkQueueProbe::sleepers(pool.m_event) == count - 1 &&
                          pool.m_event.PollerMayWait());
        for (int i = 0; i < count; ++i) {
            handler->SetTimer(5000);
        }
        EXPECT_EVENTUALLY(handler->life->timeouts == count * round);
        ASSERT_EQ(count * round, met) << "the last one began after another had ended";
    }
    const std::shared_ptr<HandlerLife> life = handler->life;
    handler->Close();
    EXPECT_EVENTUALLY(life->closes == 1);
    EXPECT_EQ(0, CNetThread::DestroyThreadPool());
}

TEST_F(PollHandOver, SlowHandlersOfOneBatchRunSideBySide) {
    SocketPair others[2];
    std::atomic<int> inside{0};
    handler->on_input = [&](int fd) {
        SocketPair::drain(fd);
        ++inside;
        EXPECT_EVENTUALLY(inside >= 3);
        return 0;
    };
    for (SocketPair& other : others) {
        ASSERT_EQ(0, handler->RegisterSock(other.near, SOCK_READ, 0));
    }
    pair.write();
    for (SocketPair& other : others) {
        other.write();
    }
    EXPECT_EVENTUALLY(handler->life->inputs == 3);
    for (SocketPair& other : others) {
        removeAndWait(other.near);
    }
}

TEST_F(PollHandOver, SeveralHandlersThatBlockOutOfOneBatchDoNotStopOtherSockets) {
    SocketPair other;
    ASSERT_EQ(0, handler->RegisterSock(other.near, SOCK_READ, 0));
    for (int i = 0; i < 300; ++i) {
        request();  // the handlers are known to be quick
    }
    // A second number for the same socket: one byte makes both ready at once.
    BorrowedSock twin(::fcntl(pair.fd(), F_DUPFD_CLOEXEC, 0));
    handler->RemoveSock(pair.near);
    EXPECT_EVENTUALLY(!look().exists);
    handler->on_input = [&](int fd) {
        if (fd != other.fd()) {
            gate.pass();
        }
        SocketPair::drain(fd);
        return 0;
    };
    ASSERT_EQ(0, handler->RegisterSock(twin, SOCK_READ, 0));
    add(SOCK_READ);
    // All workers sleep, and none on guard.
    EXPECT_EVENTUALLY(!WorkQueueProbe::guarded(pool().m_event));
    pair.write();
    ASSERT_TRUE(gate.awaitArrivals(2));
    other.write();
    const uint64_t begin = Infra::CTime::getCurrentMilliSecond();
    EXPECT_EVENTUALLY(handler->life->inputs > 300);
    // A heartbeat comes by every five seconds, and sets a pool going that stood still.
    EXPECT_LT(Infra::CTime::getCurrentMilliSecond() - begin, static_cast<uint64_t>(scaledMs(2000)));
    gate.open();
    const int number = twin.GetHandle();
    removeAndWait(twin);
    ::close(number);
    removeAndWait(other.near);
    removeAndWait(pair.near);
}

TEST_F(PollHandOver, OneRequestAtATimeWakesNobody) {
    for (int i = 0; i < 2000; ++i) {
        request();
    }
    const std::vector<int> workers_now = workerThreads();
    long sleeps = sleepsOf(workers_now);
    const uint64_t begin = Infra::CTime::getCurrentMicroSecond();
    for (int i = 0; i < 5000; ++i) {
        request();
    }
    sleeps = sleepsOf(workers_now) - sleeps;
    const uint64_t took_ms = (Infra::CTime::getCurrentMicroSecond() - begin) / 1000;
    // The poller sleeps once for each request, the guard once for each millisecond. A hand-over would add a
    // sleep to each request.
    EXPECT_LE(sleeps, static_cast<long>(5000 + 2 * took_ms + 1500)) << took_ms << " ms";
}

TEST_F(PollHandOver, IdlePoolMakesNoWakeUps) {
    for (int i = 0; i < 50; ++i) {
        request();
    }
    ASSERT_EVENTUALLY(static_cast<int>(workerThreads().size()) == ThreadPoolProbe::workers(pool()));
    const std::vector<int> workers_now = workerThreads();
    EXPECT_EVENTUALLY(!WorkQueueProbe::guarded(pool().m_event));
    const long before = sleepsOf(workers_now);
    Infra::CThread::sleep(300);
    // A heartbeat may come by. A guard that stayed would wake three hundred times.
    EXPECT_LE(sleepsOf(workers_now) - before, 15);
    request();  // the first event after that finds a pool that works
}

TEST_F(PollHandOver, TokenIsAlwaysSomewhereUnderMixedLoad) {
    SocketPair others[4];
    for (SocketPair& other : others) {
        ASSERT_EQ(0, handler->RegisterSock(other.near, SOCK_READ, 0));
    }
    std::atomic<bool> stop{false};
    std::thread messages([&] {
        while (!stop) {
            handler->Notify(handler->GetID(), 1, 0);
            std::this_thread::yield();
        }
    });
    for (int i = 0; i < 2000; ++i) {
        SocketPair& one = others[i % 4];
        one.write();
        ASSERT_EVENTUALLY(SocketPair::drain(one.far.GetHandle()) > 0);
    }
    stop = true;
    messages.join();
    for (SocketPair& other : others) {
        removeAndWait(other.near);
    }
}

// ---- the end of a pool -----------------------------------------------------------------------------------

class PollHandOverEnd : public PoolFixture {
protected:
    static CThreadPool& poolAt(int index) { return *PoolTable::Get(index); }
};

TEST_F(PollHandOverEnd, PoolEndsWhileAHandlerBlocksInThePoller) {
    for (int round = 0; round < 5; ++round) {
        // One blocks, one polls, and one takes the close message.
        const int index = CNetThread::CreatePrivatePool(4, false);
        ASSERT_GT(index, 0);
        TestHandler* const handler = new TestHandler(index);
        SocketPair pair;
        Gate gate;
        handler->on_input = [&](int fd) {
            SocketPair::drain(fd);
            if (WorkQueueProbe::guarded(poolAt(index).m_event)) {
                handler->RemoveSock(pair.near);
                gate.pass();
            }
            return 0;
        };
        ASSERT_EQ(0, handler->RegisterSock(pair.near, SOCK_READ, 0));
        ASSERT_EVENTUALLY([&] {
            pair.poke();
            return gate.arrived() > 0;
        }());
        const std::shared_ptr<HandlerLife> life = handler->life;
        const long id = handler->GetID();
        handler->Close();
        EXPECT_EVENTUALLY(!PoolTable::FindHandler(id));
        std::atomic<int> thread_id{0};
        std::thread destroyer([&] {
            thread_id = kernelThreadId();
            EXPECT_EQ(0, CNetThread::DestroyPrivatePool(index));
        });
        EXPECT_EVENTUALLY(thread_id != 0 && sleepsInFutex(thread_id));
        EXPECT_EQ(0, life->closes);
        gate.open();
        destroyer.join();
        EXPECT_EQ(1, life->closes);
    }
}

TEST_F(PollHandOverEnd, PoolEndsWhileItsWorkersGoToSleep) {
    SeededRandom random;
    for (int round = 0; round < 200; ++round) {
        const int index = CNetThread::CreatePrivatePool(8, false);
        ASSERT_GT(index, 0);
        for (int spin = random.between(0, 2000); spin > 0; --spin) {
            kernelThreadId();
        }
        ASSERT_EQ(0, CNetThread::DestroyPrivatePool(index));
    }
}

TEST_F(PollHandOverEnd, PoolOfManyWorkersEndsInTheMiddleOfTraffic) {
    for (int round = 0; round < 30; ++round) {
        const int index = CNetThread::CreatePrivatePool(8, false);
        ASSERT_GT(index, 0);
        SocketPair pairs[4];
        TestHandler* const handler = new TestHandler(index);
        const std::shared_ptr<HandlerLife> life = handler->life;
        handler->on_input = [](int fd) {
            SocketPair::drain(fd);
            return 0;
        };
        for (SocketPair& pair : pairs) {
            ASSERT_EQ(0, handler->RegisterSock(pair.near, SOCK_READ, 1000000));
        }
        std::thread traffic([&] {
            for (int i = 0; i < 50 * round; ++i) {
                pairs[i % 4].poke();
            }
        });
        for (SocketPair& pair : pairs) {
            handler->RemoveSock(pair.near);
            handler->RegisterSock(pair.near, SOCK_READ, 0);
        }
        handler->AddRef();
        EXPECT_EQ(0, CNetThread::DestroyPrivatePool(index));
        traffic.join();
        for (int i = 0; i < 4; ++i) {
            handler->DecSock();
        }
        handler->Close();
        handler->DecRef();
        handler->DecRef();  // the pool's own, which went without a word
        EXPECT_EQ(1, life->closes);
    }
}

}  // namespace
}  // namespace Orvex::Testing
