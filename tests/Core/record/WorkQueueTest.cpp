// CWorkQueue: who is woken by which push, and the guard that looks for what nobody took.
#include "Core/record/WorkQueue.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <deque>
#include <memory>
#include <thread>
#include <vector>

#include <Infra/Thread.h>

#include "support/Eventually.h"
#include "support/KernelThread.h"
#include "support/SeededRandom.h"
#include "support/core/Probes.h"

namespace Orvex::Testing {
namespace {

using namespace Reticor;
using Records = std::vector<CEvent*>;

class WorkQueue : public ::testing::Test {
protected:
    void TearDown() override {
        while (queue.TryPop() != nullptr) {
        }
    }

    Records queued() { return EventQueueProbe::records(queue); }
    bool guarded() { return WorkQueueProbe::guarded(queue); }
    int sleepers() { return WorkQueueProbe::sleepers(queue); }

    CWorkQueue queue;
    CEvent token, a, b, c;
};

// A thread in PopWork.
class Worker {
public:
    explicit Worker(CWorkQueue& queue)
        : m_queue(queue), m_thread([this, &queue] {
              m_id = kernelThreadId();
              m_got = queue.PopWork();
              m_over = true;
          }) {
        EXPECT_EVENTUALLY(m_id != 0);
    }
    ~Worker() {
        if (m_thread.joinable()) {
            EXPECT_EVENTUALLY(m_over || (m_queue.WakeAll(), false));
            m_thread.join();
        }
    }
    CEvent* join() {
        EXPECT_EVENTUALLY(m_over) << "nobody woke it";
        m_queue.WakeAll();
        m_thread.join();
        return m_got;
    }
    bool over() const { return m_over; }
    int id() const { return m_id; }

private:
    CWorkQueue& m_queue;
    std::atomic<int> m_id{0};
    std::atomic<bool> m_over{false};
    CEvent* m_got = nullptr;
    std::thread m_thread;
};

// ---- timers that wait -----------------------------------------------------------------------------------

TEST_F(WorkQueue, OldTimersAreCountedAmongOtherRecordsAndTheFirstIsTold) {
    EXPECT_EQ(0u, queue.FindOldTimers(~uint64_t{0}).count);
    a.m_key = b.m_key = -5000;
    a.m_expire = 700;
    b.m_expire = 300;
    c.m_key = EVENT_KEY_MESSAGE;
    c.m_receiver = 1;  // in the place of a timer's time
    queue.PushOne(&a);
    queue.PushOne(&c);
    queue.PushOne(&b);
    EXPECT_EQ(0u, queue.FindOldTimers(299).count);
    EXPECT_EQ(0u, queue.FindOldTimers(299).oldest_us);
    EXPECT_EQ(1u, queue.FindOldTimers(300).count);
    EXPECT_EQ(2u, queue.FindOldTimers(700).count);
    EXPECT_EQ(300u, queue.FindOldTimers(700).oldest_us) << "not that of the first in line";
    EXPECT_EQ((Records{&a, &c, &b}), queued()) << "a look takes nothing";
}

TEST_F(WorkQueue, ALookAtOldTimersEndsInALongQueue) {
    std::deque<CEvent> many(1500);
    for (CEvent& ev : many) {
        ev.m_key = -5000;
        ev.m_expire = 1;
        queue.PushOne(&ev);
    }
    EXPECT_EQ(1000u, queue.FindOldTimers(1).count);
    while (queue.TryPop() != nullptr) {
    }
}

// ---- order ---------------------------------------------------------------------------------------------

TEST_F(WorkQueue, RecordsComeOutInTheOrderOfTheirPush) {
    queue.PushOne(&a);
    queue.PushOne(&b);
    queue.PushFront(&c);
    EXPECT_EQ(&c, queue.PopWork());
    EXPECT_EQ(&a, queue.PopWork());
    EXPECT_EQ(&b, queue.PopWork());
    EXPECT_FALSE(guarded()) << "who finds work waits for nothing";
    EXPECT_EQ(0, sleepers());
}

TEST_F(WorkQueue, PollersPushIsTheReadyChainAndTheTokenBehindIt) {
    token.m_next = &c;  // a link from earlier
    a.m_next = &b;
    b.m_next = nullptr;
    queue.PushReady(&a, 2, &token, 2);
    EXPECT_EQ((Records{&a, &b, &token}), queued());
    while (queue.TryPop() != nullptr) {
    }
    queue.PushReady(nullptr, 0, &token, 0);
    EXPECT_EQ(Records{&token}, queued());
    EXPECT_TRUE(EventQueueProbe::tailIsLast(queue));
}

TEST_F(WorkQueue, PushOfAnOldChainEndGoesNoFurther) {
    a.m_next = &b;  // left over from the free list
    queue.PushOne(&a);
    EXPECT_EQ(Records{&a}, queued());
}

// ---- wake-ups ------------------------------------------------------------------------------------------

TEST_F(WorkQueue, EachPushWakesOneSleeperForEachRecord) {
    Worker first(queue), second(queue), third(queue);
    EXPECT_EVENTUALLY(sleepers() == 3 && !guarded()) << "a guard might take what another is woken for";
    queue.PushOne(&a);
    EXPECT_EVENTUALLY(sleepers() == 2);
    b.m_next = &c;
    c.m_next = nullptr;
    queue.Push(&b);
    Records got{first.join(), second.join(), third.join()};
    std::sort(got.begin(), got.end());
    Records all{&a, &b, &c};
    std::sort(all.begin(), all.end());
    EXPECT_EQ(all, got);
    EXPECT_EQ(0, sleepers());
}

TEST_F(WorkQueue, PollersPushWithoutAGuardWakesOneWhateverItIsWorth) {
    Worker sleeper(queue);
    EXPECT_EVENTUALLY(sleepers() == 1 && !guarded());
    a.m_next = nullptr;
    queue.PushReady(&a, 1, &token, 0);
    EXPECT_EQ(&a, sleeper.join());
}

// The queue's mutex is held over the pushes and the looks. A sleeper that is woken could wake another one for
// the token, which it leaves behind, as soon as nobody is on guard.
TEST_F(WorkQueue, PollersPushWakesNoMoreThanItHasRecords) {
    Worker first(queue), second(queue), third(queue);
    EXPECT_EVENTUALLY(sleepers() == 3);
    a.m_next = nullptr;
    {
        Infra::CGuard guard(EventQueueProbe::mutex(queue));
        queue.PushReady(&a, 1, &token, 100);
        EXPECT_EQ(2, sleepers());
        queue.PushReady(nullptr, 0, &b, 100);
        EXPECT_EQ(2, sleepers()) << "the token alone is for the poller itself";
    }
    queue.WakeAll();
    first.join();
    second.join();
    third.join();
}

// A chain, as the timer thread pushes whatever is due in one tick.
TEST_F(WorkQueue, ThePollerIsToldOfAChainThatIsLongerThanThereAreSleepers) {
    a.m_next = &b;
    b.m_next = nullptr;
    {
        Worker sleeper(queue);
        EXPECT_EVENTUALLY(sleepers() == 1);
        WorkQueueProbe::letPollerWait(queue);
        EXPECT_TRUE(queue.Push(&a)) << "one for the sleeper, and one for the poller";
        EXPECT_FALSE(queue.PollerMayWait());
        EXPECT_EQ(&a, sleeper.join());
    }
    EXPECT_EQ(&b, queue.TryPop());
    WorkQueueProbe::letPollerWait(queue);
    Worker first(queue), second(queue);
    EXPECT_EVENTUALLY(sleepers() == 2);
    a.m_next = &b;
    EXPECT_FALSE(queue.Push(&a)) << "there is a sleeper for each";
    EXPECT_TRUE(queue.PollerMayWait());
    first.join();
    second.join();
}

TEST_F(WorkQueue, WakeAllHasEverySleeperReturnWithWhatThereIs) {
    Worker first(queue), second(queue);
    EXPECT_EVENTUALLY(sleepers() == 2);
    queue.WakeAll();
    EXPECT_EQ(nullptr, first.join());
    EXPECT_EQ(nullptr, second.join());
    EXPECT_EQ(0, sleepers());
    EXPECT_FALSE(guarded());
    queue.PushOne(&a);
    EXPECT_EQ(&a, queue.PopWork()) << "no wake-up is left over";
}

// ---- the guard -----------------------------------------------------------------------------------------

// Keeps the pool busy in the eyes of its guard.
class Busy {
public:
    explicit Busy(CWorkQueue& queue)
        : m_thread([this, &queue] {
              while (!m_stop) {
                  WorkQueueProbe::progress(queue);
                  std::this_thread::yield();
              }
          }) {}
    ~Busy() {
        m_stop = true;
        m_thread.join();
    }

private:
    std::atomic<bool> m_stop{false};
    std::thread m_thread;
};

TEST_F(WorkQueue, GuardTakesWhatThePollerWokeNobodyFor) {
    Busy busy(queue);
    Worker guard(queue);
    EXPECT_EVENTUALLY(sleepers() == 1);
    a.m_next = nullptr;
    queue.PushReady(&a, 1, &token, 0);
    EXPECT_EQ(&a, guard.join()) << "and the poller never came back for it";
    EXPECT_FALSE(guarded());
    EXPECT_EQ(Records{&token}, queued());
}

TEST_F(WorkQueue, GuardWakesAnotherForTheRest) {
    // On a machine that is busy otherwise the guard may see no progress and give up; then it is tried again.
    EXPECT_EVENTUALLY([&] {
        Busy busy(queue);
        Worker guard(queue);
        EXPECT_EVENTUALLY(sleepers() == 1);
        Worker other(queue);
        EXPECT_EVENTUALLY(sleepers() == 2);
        a.m_next = nullptr;
        const bool watched = guarded();
        queue.PushReady(&a, 1, &token, 0);
        const bool both = eventually([&] { return guard.over() && other.over(); }, watched ? 200 : 0);
        queue.WakeAll();
        Records got{guard.join(), other.join()};
        while (queue.TryPop() != nullptr) {
        }
        EXPECT_TRUE(!both || (std::count(got.begin(), got.end(), &a) == 1 &&
                              std::count(got.begin(), got.end(), &token) == 1));
        return both;
    }());
}

TEST_F(WorkQueue, GuardThatSeesThePoolStandStillWaitsWithoutLimitAndWakesNoMore) {
    Worker worker(queue);
    EXPECT_EVENTUALLY(!guarded() && sleepers() == 1 && sleepsInFutex(worker.id()));
    const long sleeps = voluntarySleeps(worker.id());
    Infra::CThread::sleep(100);
    EXPECT_EQ(sleeps, voluntarySleeps(worker.id()));
    queue.PushOne(&a);
    EXPECT_EQ(&a, worker.join());
}

TEST_F(WorkQueue, OneGuardIsEnough) {
    Busy busy(queue);
    Worker guard(queue);
    EXPECT_EVENTUALLY(sleepers() == 1);
    Worker second(queue);
    EXPECT_EVENTUALLY(sleepers() == 2 && sleepsInFutex(second.id()));
    // On a busy machine the first one may have seen the pool stand still before the second one came, which
    // is on guard then.
    const long sleeps_of_first = voluntarySleeps(guard.id());
    const long sleeps_of_second = voluntarySleeps(second.id());
    Infra::CThread::sleep(50);
    EXPECT_LE(std::min(voluntarySleeps(guard.id()) - sleeps_of_first,
                       voluntarySleeps(second.id()) - sleeps_of_second),
              1)
        << "one of them waits without limit";
    queue.WakeAll();
}

TEST_F(WorkQueue, GuardServesARecordAndGuardsNoLonger) {
    Busy busy(queue);
    Worker guard(queue);
    EXPECT_EVENTUALLY(sleepers() == 1);
    queue.PushOne(&a);
    EXPECT_EQ(&a, guard.join());
    EXPECT_FALSE(guarded());
}

// However pushes, looks of the guard and wake-ups meet: each record comes out once, and nobody sleeps beside
// one.
TEST_F(WorkQueue, NoRecordIsLostDoubledOrLeftBehindUnderRace) {
    constexpr int ROUNDS = 20000;
    std::vector<std::unique_ptr<CEvent>> records;
    for (int i = 0; i < 3 * ROUNDS; ++i) {
        records.push_back(std::make_unique<CEvent>());
        records.back()->m_key = i;
    }
    std::vector<std::atomic<int>> seen(records.size());
    std::atomic<int> taken{0};
    std::atomic<bool> stop{false};
    std::atomic<int> left{0};
    std::vector<std::thread> workers;
    for (int i = 0; i < 3; ++i) {
        workers.emplace_back([&] {
            while (!stop) {
                if (CEvent* ev = queue.PopWork()) {
                    ++seen[static_cast<size_t>(ev->m_key)];
                    ++taken;
                }
            }
            ++left;
        });
    }
    std::thread poller([&] {
        for (size_t i = 0; i < ROUNDS; ++i) {
            CEvent* ready = records[3 * i].get();
            ready->m_next = nullptr;
            queue.PushReady(ready, 1, records[3 * i + 1].get(), static_cast<int>(i % 2));
            if (i % 64 == 0) {
                std::this_thread::yield();
            }
        }
    });
    for (size_t i = 0; i < ROUNDS; ++i) {
        i % 2 ? queue.PushOne(records[3 * i + 2].get()) : queue.PushFront(records[3 * i + 2].get());
    }
    poller.join();
    EXPECT_EVENTUALLY(taken == 3 * ROUNDS);
    stop = true;
    // Without a poll token in the queue the last one may go to sleep after any of these calls.
    EXPECT_EVENTUALLY((queue.WakeAll(), left == 3));
    for (std::thread& worker : workers) {
        worker.join();
    }
    for (const std::atomic<int>& count : seen) {
        ASSERT_EQ(1, count);
    }
    EXPECT_TRUE(queued().empty());
    EXPECT_EQ(0, sleepers());
    EXPECT_EQ(0, EventQueueProbe::takeCounts(queue));
}

// ---- against a model -----------------------------------------------------------------------------------

// A chain of records that rest in `free`, the first one's link set; taken out of it.
Records takeChain(std::deque<CEvent*>& free, size_t count) {
    Records chain;
    while (chain.size() < count && !free.empty()) {
        chain.push_back(free.front());
        free.pop_front();
    }
    for (size_t i = 0; i < chain.size(); ++i) {
        chain[i]->m_next = i + 1 < chain.size() ? chain[i + 1] : nullptr;
    }
    return chain;
}

// On one thread: nobody sleeps, so what is seen is the order of the records and what the poller is told.
TEST_F(WorkQueue, AnyMixOfCallsMatchesAPlainQueueAndAPollerThatWaitsOrNot) {
    SeededRandom random;
    std::deque<CEvent> storage(40);
    const std::unique_ptr<CWorkQueue, void (*)(CWorkQueue*)> emptied(&queue, [](CWorkQueue* left) {
        while (left->TryPop() != nullptr) {
        }
    });
    std::deque<CEvent*> free;
    for (CEvent& ev : storage) {
        free.push_back(&ev);
    }
    token.m_key = EVENT_KEY_POLL;
    std::deque<CEvent*> model{&token};
    EXPECT_FALSE(queue.PushOne(&token));
    bool waits = false;  // the token was taken last, and from a queue that was empty after it
    uint64_t pushed = 1, taken = 0;
    for (int i = 0; i < 20000; ++i) {
        const bool token_is_out = std::count(model.begin(), model.end(), &token) == 0;
        const int step = random.between(0, token_is_out ? 4 : 3);
        if (step <= 1) {
            const Records chain = takeChain(free, random.between(size_t{1}, size_t{4}));
            if (!chain.empty()) {
                pushed += step == 0 ? chain.size() : 1;
                model.insert(model.end(), chain.begin(), step == 0 ? chain.end() : chain.begin() + 1);
                free.insert(free.end(), step == 0 ? chain.end() : chain.begin() + 1, chain.end());
                ASSERT_EQ(waits, step == 0 ? queue.Push(chain[0]) : queue.PushOne(chain[0]));
                waits = false;
            }
        } else if (step == 2) {
            const Records one = takeChain(free, 1);
            if (!one.empty()) {
                ++pushed;
                model.push_front(one[0]);
                ASSERT_EQ(waits, queue.PushFront(one[0]));
                waits = false;
            }
        } else if (step == 3) {
            if (!model.empty()) {
                CEvent* const ev = queue.PopWork();
                ASSERT_EQ(model.front(), ev);
                model.pop_front();
                ++taken;
                ev == &token ? void(waits = model.empty()) : free.push_back(ev);
            }
        } else {
            const Records chain = takeChain(free, random.between(size_t{0}, size_t{3}));
            model.insert(model.end(), chain.begin(), chain.end());
            model.push_back(&token);
            pushed += chain.size() + 1;
            queue.PushReady(chain.empty() ? nullptr : chain[0], static_cast<int>(chain.size()), &token,
                            random.between(0, 3));
            waits = false;
        }
        ASSERT_EQ(Records(model.begin(), model.end()), queued()) << "after call " << i;
        ASSERT_TRUE(EventQueueProbe::tailIsLast(queue));
        ASSERT_EQ(waits, queue.PollerMayWait());
        const CWorkQueue::Load load = queue.Measure();
        ASSERT_EQ(pushed, load.records.pushed);
        ASSERT_EQ(taken, load.records.taken);
        ASSERT_EQ(waits ? 1 : 0, load.resting);
        ASSERT_EQ(0, EventQueueProbe::takeCounts(queue)) << "nobody is woken who does not sleep";
    }
}

TEST_F(WorkQueue, ThoseWhoRestAreSleepersAndAPollerThatWaits) {
    EXPECT_EQ(0, queue.Measure().resting);
    WorkQueueProbe::letPollerWait(queue);
    EXPECT_EQ(1, queue.Measure().resting);
    {
        Worker first(queue), second(queue);
        EXPECT_EVENTUALLY(queue.Measure().resting == 3);
        {
            Infra::CGuard guard(EventQueueProbe::mutex(queue));
            queue.PushOne(&a);
            EXPECT_EQ(2, queue.Measure().resting) << "whoever was woken works";
        }
        EXPECT_EVENTUALLY(first.over() || second.over());
        queue.WakeAll();
    }
    EXPECT_EQ(1, queue.Measure().resting);
    EXPECT_EQ(1u, queue.Measure().records.pushed);
    EXPECT_EQ(1u, queue.Measure().records.taken);
}

TEST_F(WorkQueue, ARecordPushedAheadTakesAWakeUpToo) {
    Worker sleeper(queue);
    EXPECT_EVENTUALLY(sleepers() == 1);
    WorkQueueProbe::letPollerWait(queue);
    EXPECT_FALSE(queue.PushFront(&a)) << "there is a sleeper for it";
    EXPECT_EQ(&a, sleeper.join());
    EXPECT_TRUE(queue.PollerMayWait());
    EXPECT_TRUE(queue.PushFront(&b)) << "and now only the poller";
    EXPECT_FALSE(queue.PollerMayWait());
    EXPECT_FALSE(queue.PushFront(&c)) << "who is told once";
}

// The token stands after them: all workers may be in long calls, and nobody looks at the sockets.
TEST_F(WorkQueue, ThePollerMayNotWaitWhileRecordsStandAfterTheToken) {
    token.m_key = EVENT_KEY_POLL;
    queue.PushOne(&token);
    queue.PushOne(&a);
    EXPECT_EQ(&token, queue.PopWork());
    EXPECT_FALSE(queue.PollerMayWait());
    EXPECT_EQ(&a, queue.PopWork());
    EXPECT_FALSE(queue.PollerMayWait()) << "it was decided when the token was taken";
    queue.PushOne(&token);
    EXPECT_EQ(&token, queue.PopWork());
    EXPECT_TRUE(queue.PollerMayWait());
}

}  // namespace
}  // namespace Orvex::Testing
