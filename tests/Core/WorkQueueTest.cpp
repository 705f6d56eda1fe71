// CWorkQueue: the parked token, the guard that watches it, and the counts of each push.
#include "Core/WorkQueue.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <thread>

#include "Core/Probes.h"
#include "support/Eventually.h"
#include "support/KernelThread.h"
#include "support/LogCapture.h"

namespace Orvex::Testing {
namespace {

using namespace Reticor;
using Records = std::vector<CEvent*>;

class WorkQueueTest : public ::testing::Test {
protected:
    void TearDown() override {
        while (queue.TryPop() != nullptr) {
        }
    }

    // Lets the queue keep the token, as it does while a guard waits.
    void park() {
        WorkQueueProbe::pretendGuard(queue, true);
        ASSERT_TRUE(queue.Park(&token));
    }
    Records queued() { return EventQueueProbe::records(queue); }
    int counts() { return EventQueueProbe::takeCounts(queue); }
    CEvent* parked() { return WorkQueueProbe::parked(queue); }
    bool guarded() { return WorkQueueProbe::guarded(queue); }

    std::atomic<uint64_t> progress{0};
    CWorkQueue queue{progress};
    CEvent token, a, b, c;
};

// A thread in PopWork.
class Worker {
public:
    explicit Worker(CWorkQueue& queue)
        : m_thread([this, &queue] {
              m_id = kernelThreadId();
              m_got = queue.PopWork();
              m_over = true;
          }) {
        EXPECT_EVENTUALLY(m_id != 0);
    }
    ~Worker() {
        if (m_thread.joinable()) {
            m_thread.join();
        }
    }
    CEvent* join() {
        m_thread.join();
        return m_got;
    }
    bool over() const { return m_over; }
    int id() const { return m_id; }

private:
    std::atomic<int> m_id{0};
    std::atomic<bool> m_over{false};
    CEvent* m_got = nullptr;
    std::thread m_thread;
};

// ---- parking ---------------------------------------------------------------------------------------------

TEST_F(WorkQueueTest, ParkingNeedsAGuard) {
    EXPECT_FALSE(queue.Park(&token));
    EXPECT_EQ(nullptr, parked());
    EXPECT_FALSE(queue.Unpark(&token));
    WorkQueueProbe::pretendGuard(queue, true);
    EXPECT_TRUE(queue.Park(&token));
    EXPECT_EQ(&token, parked());
    EXPECT_EQ(1u, WorkQueueProbe::parkings(queue));
    EXPECT_TRUE(queued().empty());
    EXPECT_EQ(0, counts());
}

TEST_F(WorkQueueTest, ParkingNeedsAnEmptyQueue) {
    WorkQueueProbe::pretendGuard(queue, true);
    queue.PushOne(&a);
    EXPECT_FALSE(queue.Park(&token));
    EXPECT_EQ(nullptr, parked());
    queue.TryPop();
    EXPECT_TRUE(queue.Park(&token));
}

TEST_F(WorkQueueTest, HolderGetsTheTokenBackOnce) {
    park();
    EXPECT_TRUE(queue.Unpark(&token));
    EXPECT_EQ(nullptr, parked());
    EXPECT_FALSE(queue.Unpark(&token));
    EXPECT_TRUE(queue.Park(&token));
    EXPECT_EQ(2u, WorkQueueProbe::parkings(queue));
}

TEST_F(WorkQueueTest, EveryPushPutsTheTokenBehindItsRecordsAndCountsIt) {
    park();
    token.m_next = &c;  // a link from earlier
    queue.PushOne(&a);
    EXPECT_EQ((Records{&a, &token}), queued());
    EXPECT_EQ(2, counts());
    EXPECT_FALSE(queue.Unpark(&token));
    queue.TryPop();
    queue.TryPop();

    park();
    a.m_next = &b;
    b.m_next = nullptr;
    queue.Push(&a);
    EXPECT_EQ((Records{&a, &b, &token}), queued());
    EXPECT_EQ(3, counts());
    EXPECT_TRUE(EventQueueProbe::tailIsLast(queue));
}

TEST_F(WorkQueueTest, PushToTheFrontPutsTheTokenBehindEverything) {
    park();
    queue.PushFront(&a);
    EXPECT_EQ((Records{&a, &token}), queued());
    EXPECT_EQ(2, counts());
    queue.PushFront(&b);
    EXPECT_EQ((Records{&b, &a, &token}), queued());
    EXPECT_EQ(1, counts());
    EXPECT_TRUE(EventQueueProbe::tailIsLast(queue));
}

TEST_F(WorkQueueTest, PollersPushIsTheReadyChainAndTheTokenBehindIt) {
    token.m_next = &c;
    a.m_next = &b;
    b.m_next = nullptr;
    queue.PushReady(&a, 2, &token);
    EXPECT_EQ((Records{&a, &b, &token}), queued());
    EXPECT_EQ(3, counts());
    while (queue.TryPop() != nullptr) {
    }
    queue.PushReady(nullptr, 0, &token);
    EXPECT_EQ(Records{&token}, queued());
    EXPECT_EQ(1, counts());
}

TEST_F(WorkQueueTest, RecordsComeOutInTheOrderOfTheirPush) {
    queue.PushOne(&a);
    queue.PushOne(&b);
    queue.PushFront(&c);
    EXPECT_EQ(&c, queue.PopWork());
    EXPECT_EQ(&a, queue.PopWork());
    EXPECT_EQ(&b, queue.PopWork());
    EXPECT_FALSE(guarded()) << "who finds work waits for nothing";
}

// ---- waiting ---------------------------------------------------------------------------------------------

TEST_F(WorkQueueTest, GuardThatFindsTheSameParkingAtTwoLooksTakesTheToken) {
    Worker guard(queue);
    ASSERT_EVENTUALLY([&] {
        ++progress;  // the pool is busy, so the guard stays
        return queue.Park(&token);
    }());
    EXPECT_EQ(&token, guard.join());
    EXPECT_EQ(nullptr, parked());
    EXPECT_FALSE(queue.Unpark(&token)) << "the holder knows by this that it has gone";
    EXPECT_FALSE(guarded());
}

TEST_F(WorkQueueTest, GuardThatSeesThePoolStandStillWaitsWithoutLimitAndWakesNoMore) {
    Worker worker(queue);
    EXPECT_EVENTUALLY(!guarded() && sleepsInFutex(worker.id()));
    const long sleeps = voluntarySleeps(worker.id());
    Infra::CThread::sleep(100);
    EXPECT_EQ(sleeps, voluntarySleeps(worker.id()));
    EXPECT_FALSE(queue.Park(&token)) << "and nobody would watch a token";
    queue.PushOne(&a);
    EXPECT_EQ(&a, worker.join());
}

TEST_F(WorkQueueTest, OneGuardIsEnough) {
    WorkQueueProbe::pretendGuard(queue, true);
    Worker worker(queue);
    EXPECT_EVENTUALLY(sleepsInFutex(worker.id()));
    const long sleeps = voluntarySleeps(worker.id());
    for (int i = 0; i < 50; ++i) {
        ++progress;
        Infra::CThread::sleep(1);
    }
    EXPECT_EQ(sleeps, voluntarySleeps(worker.id())) << "the second one waits without limit";
    queue.PushOne(&a);
    EXPECT_EQ(&a, worker.join());
    EXPECT_TRUE(guarded());
}

TEST_F(WorkQueueTest, GuardServesARecordAndGuardsNoLonger) {
    Worker guard(queue);
    ASSERT_EVENTUALLY([&] {
        ++progress;
        return guarded();
    }());
    queue.PushOne(&a);
    EXPECT_EQ(&a, guard.join());
    EXPECT_FALSE(guarded());
}

TEST_F(WorkQueueTest, PushOntoAParkedTokenWakesForBoth) {
    Worker guard(queue);
    ASSERT_EVENTUALLY([&] {
        ++progress;
        return guarded();
    }());
    Worker other(queue);
    Records got;
    if (queue.Park(&token)) {
        queue.PushOne(&a);
        got = {guard.join(), other.join()};
        EXPECT_NE(got.end(), std::find(got.begin(), got.end(), &token));
        EXPECT_NE(got.end(), std::find(got.begin(), got.end(), &a));
        return;
    }
    // The guard left in this moment, since the pool stood still.
    a.m_next = nullptr;
    queue.PushReady(&a, 1, &token);
    queue.Kick();
    guard.join();
    other.join();
}

TEST_F(WorkQueueTest, GuardThatLeavesPutsAParkedTokenInTheQueue) {
    LogCapture log(2);
    Worker guard(queue);
    ASSERT_EVENTUALLY([&] {
        ++progress;
        const Infra::CGuard hold(EventQueueProbe::mutex(queue));
        if (!queue.Park(&token)) {
            return false;
        }
        // A count whose record somebody else took: the guard wakes for nothing.
        EventQueueProbe::addCounts(queue, 1);
        return true;
    }());
    CEvent* const got = guard.join();
    EXPECT_EQ(nullptr, parked());
    if (got == nullptr) {
        EXPECT_EQ(Records{&token}, queued());
        EXPECT_EQ(1, counts());
        EXPECT_EQ(1u, log.count(2, "sem_wait error unexpected!!\n")) << log.dump();
    } else {
        EXPECT_EQ(&token, got) << "it had looked twice by then";
    }
}

TEST_F(WorkQueueTest, PollerThatFoundNothingWakesNobodyAndALeavingWorkerDoes) {
    WorkQueueProbe::pretendGuard(queue, true);
    Worker sleeper(queue);
    EXPECT_EVENTUALLY(sleepsInFutex(sleeper.id()));
    queue.PushReady(nullptr, 0, &token);
    Infra::CThread::sleep(30);
    EXPECT_FALSE(sleeper.over()) << "the poller takes the token itself";
    queue.Kick();  // unless it leaves
    EXPECT_EQ(&token, sleeper.join());
}

TEST_F(WorkQueueTest, PostWithoutARecordIsANullAndALine) {
    LogCapture log(2);
    EventQueueProbe::addCounts(queue, 1);
    EXPECT_EQ(nullptr, queue.PopWork());
    EXPECT_EQ(1u, log.count(2, "sem_wait error unexpected!!\n")) << log.dump();
}

// However parking, pushing, guarding and taking back meet: each record and the token come out once.
TEST_F(WorkQueueTest, TokenIsNeitherLostNorDoubledUnderRace) {
    constexpr int ROUNDS = 20000;
    std::atomic<int> tokens{0};
    std::atomic<int> records{0};
    std::atomic<bool> stop{false};
    CEvent quit[2];
    const auto work = [&] {
        for (;;) {
            CEvent* const ev = queue.PopWork();
            ++progress;
            if (ev == &quit[0] || ev == &quit[1]) {
                return;
            }
            ++(ev == &token ? tokens : records);
        }
    };
    std::thread first(work), second(work);
    std::thread pusher([&] {
        while (!stop) {
            if (records % 2 == 0) {
                const int before = records;
                queue.PushOne(&a);
                while (records == before) {
                    std::this_thread::yield();
                }
                ++records;  // even again: this one has been seen
            }
        }
    });
    int parkings = 0;
    for (int i = 0; i < ROUNDS; ++i) {
        ++progress;
        const int before = tokens;
        if (queue.Park(&token)) {
            ++parkings;
            if (i % 3 == 0) {
                std::this_thread::yield();
            }
            if (queue.Unpark(&token)) {
                ASSERT_EQ(before, tokens);
                continue;
            }
        } else {
            queue.PushReady(nullptr, 0, &token);
            queue.Kick();
        }
        ASSERT_EVENTUALLY(tokens == before + 1);
    }
    stop = true;
    pusher.join();
    queue.PushOne(&quit[0]);
    queue.PushOne(&quit[1]);
    first.join();
    second.join();
    EXPECT_TRUE(queued().empty());
    EXPECT_EQ(nullptr, parked());
    EXPECT_EQ(0, counts());
    std::printf("parked %d of %d times\n", parkings, ROUNDS);
}

}  // namespace
}  // namespace Orvex::Testing
