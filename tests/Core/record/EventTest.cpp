// CEventQueue, CEventFreeList and the per-thread stock of records.
#include "Core/record/Event.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <deque>
#include <memory>
#include <thread>
#include <vector>

#include "Core/record/EventFreeList.h"
#include "support/Eventually.h"
#include "support/KernelThread.h"
#include "support/LogCapture.h"
#include "support/SeededRandom.h"
#include "support/core/Probes.h"

namespace Orvex::Reticor {
namespace {

using Testing::LogCapture;

CEvent* record(int64_t key) {
    CEvent* ev = new CEvent;
    ev->m_key = key;
    return ev;
}

// key, key - 1, ... linked in this order.
CEvent* chain(int64_t key, int count) {
    CEvent* head = nullptr;
    for (int i = count - 1; i >= 0; --i) {
        CEvent* ev = record(key - i);
        ev->m_next = head;
        head = ev;
    }
    return head;
}

int64_t popKey(CEventQueue& queue) {
    std::unique_ptr<CEvent> ev(queue.Pop());
    return ev->m_key;
}

TEST(EventQueue, PopReturnsAPushedChainInItsOrderWithoutBlocking) {
    CEventQueue queue;
    queue.Push(chain(-200, 3));
    EXPECT_EQ(-200, popKey(queue));
    EXPECT_EQ(-201, popKey(queue));
    EXPECT_EQ(-202, popKey(queue));
    EXPECT_EQ(0, EventQueueProbe::takeCounts(queue));
}

TEST(EventQueue, AChainBehindOtherRecordsKeepsTheTailAtItsEnd) {
    CEventQueue queue;
    queue.PushOne(record(-1000));
    queue.Push(chain(-200, 2));
    queue.PushOne(record(-1001));
    for (int64_t key : {-1000, -200, -201, -1001}) {
        EXPECT_EQ(key, popKey(queue));
    }
}

TEST(EventQueue, PushFrontOnAnEmptyQueueMakesHeadAndTailOneRecord) {
    CEventQueue queue;
    CEvent* ev = record(-50);
    queue.PushFront(ev);
    EXPECT_EQ(std::vector<CEvent*>{ev}, EventQueueProbe::records(queue));
    EXPECT_TRUE(EventQueueProbe::tailIsLast(queue));
    queue.PushOne(record(-51));
    EXPECT_EQ(-50, popKey(queue));
    EXPECT_EQ(-51, popKey(queue));
}

TEST(EventQueue, PushFrontGoesAheadOfEverything) {
    CEventQueue queue;
    queue.Push(chain(-200, 2));
    queue.PushFront(record(-50));
    EXPECT_EQ(-50, popKey(queue));
    EXPECT_EQ(-200, popKey(queue));
    EXPECT_EQ(-201, popKey(queue));
}

TEST(EventQueue, PopOfTheLastRecordClearsTheTailAndTheNextPushSetsBoth) {
    CEventQueue queue;
    queue.PushOne(record(-50));
    popKey(queue);
    EXPECT_TRUE(EventQueueProbe::tailIsLast(queue));
    EXPECT_EQ(0u, EventQueueProbe::size(queue));
    queue.PushOne(record(-51));
    EXPECT_TRUE(EventQueueProbe::tailIsLast(queue));
    EXPECT_EQ(-51, popKey(queue));
}

TEST(EventQueue, PushOneForgetsTheLinkThatARecordStillCarries) {
    CEventQueue queue;
    std::unique_ptr<CEvent> stranger(record(-99));
    CEvent* ev = record(-50);
    ev->m_next = stranger.get();
    queue.PushOne(ev);
    EXPECT_EQ(1u, EventQueueProbe::size(queue));
}

TEST(EventQueue, PushSilentPostsNothing) {
    CEventQueue queue;
    queue.PushSilent(chain(-51, 2));
    EXPECT_EQ(0, EventQueueProbe::takeCounts(queue));
    EXPECT_EQ(2u, EventQueueProbe::size(queue));
}

TEST(EventQueue, TryPopTakesNoCountAndGivesNullWithoutALine) {
    LogCapture log;
    CEventQueue queue;
    queue.PushOne(record(-50));
    delete queue.TryPop();
    EXPECT_EQ(nullptr, queue.TryPop());
    EXPECT_EQ(1, EventQueueProbe::takeCounts(queue));
    EXPECT_EQ(0u, log.lines().size()) << log.dump();
}

TEST(EventQueue, PopReportsAPostWithoutARecord) {
    LogCapture log;
    CEventQueue queue;
    EventQueueProbe::addCounts(queue, 1);
    EXPECT_EQ(nullptr, queue.Pop());
    ASSERT_EQ(1u, log.count(2, "sem_wait error unexpected!!\n")) << log.dump();
    const Testing::CapturedLine line = log.lines().front();
    EXPECT_EQ("Unknown", line.module);
    EXPECT_EQ("Unknown", line.module2);
    EXPECT_EQ("Src/Core/Event.cpp", line.file);
    EXPECT_EQ("Orvex::Reticor::CEventQueue::Pop", line.function);
}

TEST(EventQueue, TheLineIsWrittenWithTheQueueUnlocked) {
    // A sink that looks at the queue from another thread would otherwise wait for ever.
    static CEventQueue* seen = nullptr;
    static bool free_for_others = false;
    CEventQueue queue;
    seen = &queue;
    const Infra::LogSink sink = {[](void*, const Infra::LogLine&) {
                                     std::thread([] {
                                         Infra::CMutex& mutex = EventQueueProbe::mutex(*seen);
                                         if (mutex.tryEnter()) {
                                             free_for_others = true;
                                             mutex.leave();
                                         }
                                     }).join();
                                 },
                                 nullptr};
    const Infra::LogSink* before = Infra::setLogSink(&sink);
    EventQueueProbe::addCounts(queue, 1);
    queue.Pop();
    Infra::setLogSink(before);
    EXPECT_TRUE(free_for_others);
}

TEST(EventQueue, PopBlocksUntilARecordComes) {
    CEventQueue queue;
    std::atomic<int> waiter{0};
    std::atomic<int64_t> key{0};
    std::thread thread([&] {
        waiter = Testing::kernelThreadId();
        key = popKey(queue);
    });
    EXPECT_EVENTUALLY(waiter != 0 && Testing::sleepsInFutex(waiter));
    queue.PushOne(record(-50));
    thread.join();
    EXPECT_EQ(-50, key);
}

TEST(EventQueue, TheDestructorDeletesWhatIsQueuedAndLeavesTheFreeListAlone) {
    CEvent* mine = get_event();
    put_event(mine);
    {
        CEventQueue queue;
        queue.Push(chain(-200, 3));
    }
    EXPECT_EQ(mine, get_event());
    put_event(mine);
}

TEST(EventQueue, ManyThreadsLoseAndDoubleNothing) {
    constexpr int RECORDS = 20000;
    CEventQueue queue;
    std::vector<std::atomic<int>> seen(2 * RECORDS);
    std::vector<std::thread> threads;
    for (int producer = 0; producer < 2; ++producer) {
        threads.emplace_back([&, producer] {
            for (int i = 0; i < RECORDS; ++i) {
                queue.PushOne(record(producer * RECORDS + i));
            }
        });
        threads.emplace_back([&] {
            for (int i = 0; i < RECORDS; ++i) {
                ++seen[static_cast<size_t>(popKey(queue))];
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    for (const std::atomic<int>& count : seen) {
        ASSERT_EQ(1, count);
    }
}

TEST(EventFreeList, ARecordComesBackWithItsOldFields) {
    CEventFreeList list;
    CEvent* ev = list.Get();
    ev->m_key = -50;
    ev->m_obj_id = -7;
    ev->m_receiver = -8;
    ev->m_msg = 9;
    ev->m_attach = 10;
    list.Put(ev);
    CEvent* again = list.Get();
    ASSERT_EQ(ev, again);
    EXPECT_EQ(-50, again->m_key);
    EXPECT_EQ(-7, again->m_obj_id);
    EXPECT_EQ(-8, again->m_receiver);
    EXPECT_EQ(9u, again->m_msg);
    EXPECT_EQ(10, again->m_attach);
    list.Put(again);
}

TEST(EventFreeList, ARecordComesBackWithoutTheLinkOfTheList) {
    CEventFreeList list;
    list.Put(record(1));
    list.Put(record(2));
    std::unique_ptr<CEvent> ev(list.Get());
    EXPECT_EQ(2, ev->m_key);
    EXPECT_EQ(nullptr, ev->m_next);
}

TEST(EventFreeList, GetBatchTakesUpToSoMany) {
    CEventFreeList list;
    for (int i = 0; i < 5; ++i) {
        list.Put(record(i));
    }
    int count = 0;
    for (CEvent* ev = list.GetBatch(3); ev != nullptr; ++count) {
        CEvent* next = ev->m_next;
        list.Put(ev);
        ev = next;
    }
    EXPECT_EQ(3, count);
    EXPECT_EQ(nullptr, CEventFreeList().GetBatch(3));
}

TEST(EventStock, ARecordPutAndTakenOnOneThreadIsTheSameOne) {
    CEvent* ev = get_event();
    ev->m_key = -4711;
    put_event(ev);
    CEvent* again = get_event();
    EXPECT_EQ(ev, again);
    EXPECT_EQ(-4711, again->m_key);
    EXPECT_EQ(nullptr, again->m_next);
    put_event(again);
}

TEST(EventStock, AThreadsEndGivesItsRecordsBack) {
    CEvent* theirs = nullptr;
    std::thread([&] {
        theirs = get_event();
        put_event(theirs);
    }).join();
    std::vector<CEvent*> taken;
    bool found = false;
    for (int i = 0; i < 200 && !found; ++i) {
        taken.push_back(get_event());
        found = taken.back() == theirs;
    }
    EXPECT_TRUE(found);
    for (CEvent* ev : taken) {
        put_event(ev);
    }
}

TEST(EventStock, AProducerAndAConsumerExchangeRecordsWithoutNewOnes) {
    // One thread takes, the other gives back: after the first rounds all records are known ones.
    std::vector<CEvent*> known;
    for (int i = 0; i < 300; ++i) {
        known.push_back(get_event());
    }
    for (CEvent* ev : known) {
        put_event(ev);
    }
    std::sort(known.begin(), known.end());
    int strangers = 0;
    for (int round = 0; round < 20; ++round) {
        std::vector<CEvent*> batch;
        for (int i = 0; i < 150; ++i) {
            batch.push_back(get_event());
            strangers += std::binary_search(known.begin(), known.end(), batch.back()) ? 0 : 1;
        }
        std::thread([&] {
            for (CEvent* ev : batch) {
                put_event(ev);
            }
        }).join();
    }
    EXPECT_EQ(0, strangers);
}

TEST(EventStock, PutEventChainGivesBackEveryRecord) {
    CEvent* first = get_event();
    CEvent* second = get_event();
    first->m_next = second;
    second->m_next = nullptr;
    put_event_chain(first);
    CEvent* a = get_event();
    CEvent* b = get_event();
    EXPECT_TRUE((a == first && b == second) || (a == second && b == first));
    put_event(a);
    put_event(b);
}

// ---- against a model -----------------------------------------------------------------------------------

// Every way to push and to take, with the counts of the semaphore: one for each record pushed with a post.
TEST(EventQueue, AnyMixOfCallsMatchesAPlainQueueAndItsCounts) {
    Testing::SeededRandom random;
    CEventQueue queue;
    std::deque<int64_t> model;
    int counts = 0;
    uint64_t pushed = 0, taken = 0;
    int64_t next = -200;
    for (int i = 0; i < 20000; ++i) {
        const int length = random.between(1, 4);
        switch (model.size() > 30 ? 6 : random.between(0, 6)) {
            case 0:
            case 1: {
                const bool posts = random.oneIn(2);
                posts ? queue.Push(chain(next, length)) : queue.PushSilent(chain(next, length));
                counts += posts ? length : 0;
                for (int n = 0; n < length; ++n) {
                    model.push_back(next--);
                }
                pushed += static_cast<uint64_t>(length);
                break;
            }
            case 2:
                queue.PushOne(record(next));
                model.push_back(next--);
                ++counts;
                ++pushed;
                break;
            case 3:
                queue.PushFront(record(next));
                model.push_front(next--);
                ++counts;
                ++pushed;
                break;
            default: {
                const bool counted = random.oneIn(2);
                const std::unique_ptr<CEvent> ev(counted ? queue.PopNow() : queue.TryPop());
                ASSERT_EQ(!model.empty() && (!counted || counts > 0), ev != nullptr);
                counts -= counted && counts > 0 ? 1 : 0;
                if (ev != nullptr) {
                    ASSERT_EQ(model.front(), ev->m_key);
                    model.pop_front();
                    ++taken;
                }
            }
        }
        const CEventQueue::Amounts amounts = queue.Count();
        ASSERT_EQ(pushed, amounts.pushed) << "after call " << i;
        ASSERT_EQ(taken, amounts.taken);
        ASSERT_EQ(model.size(), EventQueueProbe::size(queue));
        ASSERT_TRUE(EventQueueProbe::tailIsLast(queue));
    }
    EXPECT_EQ(counts, EventQueueProbe::takeCounts(queue));
}

TEST(EventQueue, PopNowTakesNoRecordThatWasPushedInSilence) {
    CEventQueue queue;
    queue.PushSilent(record(-50));
    EXPECT_EQ(nullptr, queue.PopNow());
    EXPECT_EQ(1u, EventQueueProbe::size(queue));
    EventQueueProbe::addCounts(queue, 2);
    delete queue.PopNow();
    EXPECT_EQ(0u, EventQueueProbe::size(queue));
    EXPECT_EQ(nullptr, queue.PopNow()) << "a count without a record is no reason to wait";
    EXPECT_EQ(0, EventQueueProbe::takeCounts(queue));
}

TEST(EventQueue, AChainWakesAWaiterForEachOfItsRecords) {
    CEventQueue queue;
    std::atomic<int> got{0};
    std::vector<std::thread> waiters;
    for (int i = 0; i < 3; ++i) {
        waiters.emplace_back([&] {
            delete queue.Pop();
            ++got;
        });
    }
    queue.Push(chain(-200, 3));
    EXPECT_EVENTUALLY(got == 3);
    for (std::thread& waiter : waiters) {
        waiter.join();
    }
}

}  // namespace
}  // namespace Orvex::Reticor
