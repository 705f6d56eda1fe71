// CEventFreeList, the stock of each thread and the reserve: records without memory, chains, limits.
#include "Core/record/EventFreeList.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <deque>
#include <memory>
#include <set>
#include <thread>
#include <vector>

#include "support/SeededRandom.h"
#include "support/core/DrainedRecords.h"
#include "support/socket/Allocations.h"

namespace Orvex::Testing {
namespace {

using namespace Reticor;
using Taken = std::vector<CEvent*>;

constexpr int STOCK_LIMIT = 64;    // of each thread
constexpr int STOCK_BATCH = 32;    // between a thread and the process
constexpr int RESERVE_SIZE = 256;  // of the process

Taken linked(CEvent* ev) {
    Taken found;
    for (; ev != nullptr; ev = ev->m_next) {
        found.push_back(ev);
    }
    return found;
}

// A list of its own with a few records in it, first to last.
class FreeListCases : public ::testing::Test {
protected:
    void fill(int count) {
        for (int i = 0; i < count; ++i) {
            records.push_back(new CEvent);
            list.Put(records.back());
        }
        std::reverse(records.begin(), records.end());
    }
    static void drop(CEvent* chain) {
        for (CEvent* ev : linked(chain)) {
            delete ev;
        }
    }

    CEventFreeList list;
    Taken records;
};

TEST_F(FreeListCases, ABatchOfNoneIsNullAndTakesNothing) {
    fill(2);
    EXPECT_EQ(nullptr, list.GetBatch(0));
    EXPECT_EQ(nullptr, list.GetBatch(-1));
    CEvent* const all = list.GetBatch(10);
    EXPECT_EQ(records, linked(all)) << "both are still there, and linked";
    drop(all);
}

TEST_F(FreeListCases, ABatchIsAChainWithAnEndAndTheRestStays) {
    fill(5);
    CEvent* const first = list.GetBatch(3);
    EXPECT_EQ(Taken(records.begin(), records.begin() + 3), linked(first));
    CEvent* const rest = list.GetBatch(3);
    EXPECT_EQ(Taken(records.begin() + 3, records.end()), linked(rest)) << "as many as there are";
    EXPECT_EQ(nullptr, list.GetBatch(3));
    drop(first);
    drop(rest);
}

TEST_F(FreeListCases, AChainIsPutAheadOfWhatRests) {
    fill(1);
    CEvent* const last = new CEvent;
    CEvent* const first = new CEvent;
    first->m_next = last;
    last->m_next = first;  // an old link, which must not count
    list.PutChain(first, last, 2);
    CEvent* const all = list.GetBatch(10);
    EXPECT_EQ((Taken{first, last, records[0]}), linked(all));
    drop(all);
}

TEST_F(FreeListCases, TheRecordsOnTheListAreCounted) {
    EXPECT_EQ(0u, list.Count());
    fill(5);
    EXPECT_EQ(5u, list.Count());
    CEvent* const two = list.GetBatch(2);
    EXPECT_EQ(3u, list.Count());
    list.PutChain(two, two->m_next, 2);
    EXPECT_EQ(5u, list.Count());
    CEvent* const one = list.Get();
    EXPECT_EQ(4u, list.Count());
    drop(list.GetBatch(10));
    EXPECT_EQ(0u, list.Count());
    delete list.Get();
    EXPECT_EQ(0u, list.Count()) << "a new one was never on it";
    delete one;
}

TEST_F(FreeListCases, AnEmptyListAllocatesAndWithoutMemoryIsNull) {
    {
        const NoMemory no_memory;
        EXPECT_EQ(nullptr, list.Get());
    }
    const size_t before = allocationCount();
    CEvent* const fresh = list.Get();
    ASSERT_NE(nullptr, fresh);
    EXPECT_EQ(before + 1, allocationCount());
    list.Put(fresh);
    {
        const NoMemory no_memory;
        EXPECT_EQ(fresh, list.Get()) << "a record that rests needs none";
    }
    delete fresh;
}

TEST_F(FreeListCases, AnyMixOfCallsMatchesAPlainList) {
    SeededRandom random;
    fill(20);
    std::deque<CEvent*> rests(records.begin(), records.end());
    std::deque<CEvent*> out;
    for (int i = 0; i < 5000; ++i) {
        switch (random.between(0, 3)) {
            case 0: {
                const int most = random.between(-1, 8);
                const Taken batch = linked(list.GetBatch(most));
                const size_t expected = std::min(rests.size(), static_cast<size_t>(std::max(most, 0)));
                ASSERT_EQ(expected, batch.size());
                for (CEvent* ev : batch) {
                    ASSERT_EQ(rests.front(), ev);
                    rests.pop_front();
                    out.push_back(ev);
                }
                break;
            }
            case 1:
                if (!rests.empty()) {
                    CEvent* const ev = list.Get();
                    ASSERT_EQ(rests.front(), ev);
                    ASSERT_EQ(nullptr, ev->m_next);
                    rests.pop_front();
                    out.push_back(ev);
                }
                break;
            case 2:
                if (!out.empty()) {
                    list.Put(out.front());
                    rests.push_front(out.front());
                    out.pop_front();
                }
                break;
            default:
                if (out.size() >= 2) {
                    out[0]->m_next = out[1];
                    list.PutChain(out[0], out[1], 2);
                    rests.push_front(out[1]);
                    rests.push_front(out[0]);
                    out.erase(out.begin(), out.begin() + 2);
                }
        }
    }
    for (CEvent* ev : out) {
        delete ev;
    }
}

// ---- the stock of a thread -----------------------------------------------------------------------------

// How many records another thread gets without memory, which are gone then.
int recordsForOthers() {
    Taken got;
    std::thread([&got] {
        got.reserve(2 * STOCK_LIMIT);
        const NoMemory no_memory;
        while (CEvent* const ev = get_event()) {
            got.push_back(ev);
        }
    }).join();
    for (CEvent* ev : got) {
        delete ev;
    }
    return static_cast<int>(got.size());
}

TEST(RecordStock, GivesTheLastRecordThatWasPutFirst) {
    const Taken taken{get_event(), get_event(), get_event()};
    for (CEvent* ev : taken) {
        put_event(ev);
    }
    EXPECT_EQ(taken[2], get_event());
    EXPECT_EQ(taken[1], get_event());
    EXPECT_EQ(taken[0], get_event());
    for (CEvent* ev : taken) {
        put_event(ev);
    }
}

TEST(RecordStock, HasNoRecordWithALinkOrWithoutMemory) {
    const DrainedRecords drained;
    {
        const NoMemory no_memory;
        EXPECT_EQ(nullptr, get_event());
    }
    CEvent* const ev = get_event();
    ASSERT_NE(nullptr, ev);
    ev->m_next = ev;
    put_event(ev);
    EXPECT_EQ(ev, get_event());
    EXPECT_EQ(nullptr, ev->m_next);
    put_event(ev);
}

TEST(RecordStock, TheRecordsOfAllThreadsAreCounted) {
    constexpr uint64_t OWN = 7;
    const RestingRecords before = count_resting_records();
    std::atomic<bool> ready{false};
    std::atomic<bool> end{false};
    std::thread other([&] {
        for (uint64_t i = 0; i < OWN; ++i) {
            put_event(new CEvent);
        }
        ready = true;
        while (!end) {
            std::this_thread::yield();
        }
    });
    while (!ready) {
        std::this_thread::yield();
    }
    const RestingRecords during = count_resting_records();
    EXPECT_EQ(before.stocked + OWN, during.stocked);
    EXPECT_EQ(before.listed, during.listed);
    end = true;
    other.join();
    EXPECT_EQ(before.stocked, count_resting_records().stocked);
    EXPECT_EQ(before.listed + OWN, count_resting_records().listed);
}

TEST(RecordStock, TheCountFollowsRefillsAndBatches) {
    const DrainedRecords drained;
    const RestingRecords none = count_resting_records();
    for (int i = 0; i < STOCK_LIMIT + 1; ++i) {
        put_event(new CEvent);
    }
    EXPECT_EQ(none.stocked + STOCK_LIMIT + 1 - STOCK_BATCH, count_resting_records().stocked);
    EXPECT_EQ(none.listed + STOCK_BATCH, count_resting_records().listed);
    Taken mine;
    for (int i = 0; i < STOCK_LIMIT + 1 - STOCK_BATCH; ++i) {
        mine.push_back(get_event());
    }
    EXPECT_EQ(none.stocked, count_resting_records().stocked);
    mine.push_back(get_event());  // out of a batch from the list
    EXPECT_EQ(none.stocked + STOCK_BATCH - 1, count_resting_records().stocked);
    EXPECT_EQ(none.listed, count_resting_records().listed);
    for (int i = 1; i < STOCK_BATCH; ++i) {
        mine.push_back(get_event());
    }
    for (CEvent* ev : mine) {
        delete ev;
    }
}

// What one thread has too many of, another one gets without memory, a batch at a time.
TEST(RecordStock, AFullOneHandsABatchToTheOthers) {
    const DrainedRecords drained;
    Taken many;
    for (int i = 0; i < STOCK_LIMIT + 1; ++i) {
        many.push_back(new CEvent);
    }
    for (int i = 0; i < STOCK_LIMIT; ++i) {
        put_event(many[static_cast<size_t>(i)]);
    }
    EXPECT_EQ(0, recordsForOthers()) << "up to its limit a thread keeps all for itself";
    put_event(many.back());
    EXPECT_EQ(STOCK_BATCH, recordsForOthers());
    Taken left;
    left.reserve(STOCK_LIMIT);
    {
        const NoMemory no_memory;
        while (CEvent* const ev = get_event()) {
            left.push_back(ev);
        }
    }
    EXPECT_EQ(static_cast<size_t>(STOCK_LIMIT + 1 - STOCK_BATCH), left.size());
    EXPECT_EQ(many.back(), left.front());
    for (CEvent* ev : left) {
        delete ev;
    }
}

TEST(RecordStock, WhatCameFromTheProcessCountsTowardsTheLimit) {
    const DrainedRecords drained;
    std::thread([] {
        for (int i = 0; i < STOCK_BATCH; ++i) {
            put_event(new CEvent);
        }
    }).join();
    CEvent* const first = get_event();
    EXPECT_EQ(nullptr, first->m_next) << "the others of its batch are in the stock";
    for (int i = STOCK_BATCH - 1; i < STOCK_LIMIT; ++i) {
        put_event(new CEvent);
    }
    EXPECT_EQ(0, recordsForOthers());
    put_event(first);
    EXPECT_EQ(STOCK_BATCH, recordsForOthers());
    Taken left;
    left.reserve(STOCK_LIMIT);
    {
        const NoMemory no_memory;
        while (CEvent* const ev = get_event()) {
            left.push_back(ev);
        }
    }
    EXPECT_EQ(static_cast<size_t>(STOCK_LIMIT + 1 - STOCK_BATCH), left.size());
    for (CEvent* ev : left) {
        EXPECT_EQ(nullptr, ev->m_next);
        delete ev;
    }
}

TEST(RecordStock, AnEmptyOneIsFilledUpWithABatchOfTheProcess) {
    const DrainedRecords drained;
    std::thread([] {  // gives all of its own back at its end
        for (int i = 0; i < STOCK_BATCH + 5; ++i) {
            put_event(new CEvent);
        }
    })
        .join();
    Taken mine;
    const auto takeAll = [](Taken& got, size_t most) {
        got.reserve(STOCK_LIMIT);
        const NoMemory no_memory;
        while (CEvent* const ev = got.size() < most ? get_event() : nullptr) {
            got.push_back(ev);
        }
    };
    takeAll(mine, 1);  // 31 more are in the stock by now, and five are left for everybody
    Taken others;
    std::thread([&] {
        takeAll(others, STOCK_LIMIT);
        for (CEvent* ev : others) {
            put_event(ev);
        }
    }).join();
    EXPECT_EQ(5u, others.size());
    takeAll(mine, STOCK_LIMIT);
    EXPECT_EQ(static_cast<size_t>(STOCK_BATCH + 5), mine.size());
    for (CEvent* ev : mine) {
        put_event(ev);
    }
}

// Objects of a thread that go after its stock still put and get.
struct LateUser {
    bool used = false;
    std::atomic<int>* done = nullptr;
    ~LateUser() {
        if (used) {
            CEvent* const ev = get_event();
            put_event(ev);
            put_event(new CEvent);
            const std::unique_ptr<CEvent> last(get_event());
            *done += last != nullptr ? 1 : 0;
        }
    }
};
thread_local LateUser t_late_user;

TEST(RecordStock, AThreadAtItsVeryEndGivesToTheProcess) {
    const DrainedRecords drained;
    std::atomic<int> done{0};
    std::thread([&] {
        t_late_user.used = true;  // made first, so it goes last
        t_late_user.done = &done;
        put_event(get_event());
    }).join();
    EXPECT_EQ(1, done);
    const NoMemory no_memory;
    CEvent* const left = get_event();
    EXPECT_NE(nullptr, left) << "one of its two records was put and not taken again";
    EXPECT_EQ(nullptr, get_event());
    put_event(left);
}

// ---- the reserve ---------------------------------------------------------------------------------------

// How many records the reserve gives while there is no memory.
Taken takeReserve() {
    Taken got;
    got.reserve(2 * RESERVE_SIZE);
    const NoMemory no_memory;
    while (CEvent* const ev = get_event_reserved()) {
        got.push_back(ev);
    }
    return got;
}

TEST(RecordReserve, IsEmptyUntilItIsFilled) {
    const DrainedRecords drained;
    EXPECT_TRUE(takeReserve().empty());
}

TEST(RecordReserve, HoldsItsSizeAndIsFilledUpByWhatIsMissing) {
    const DrainedRecords drained;
    fill_event_reserve();
    const size_t before = allocationCount();
    fill_event_reserve();
    EXPECT_EQ(before, allocationCount()) << "it is full";
    Taken got;
    got.reserve(RESERVE_SIZE);
    {
        const NoMemory no_memory;
        for (int i = 0; i < 10; ++i) {
            got.push_back(get_event_reserved());
        }
    }
    const size_t then = allocationCount();
    fill_event_reserve();
    EXPECT_EQ(then + 10, allocationCount());
    const Taken rest = takeReserve();
    EXPECT_EQ(static_cast<size_t>(RESERVE_SIZE), rest.size());
    EXPECT_EQ(rest.size(), std::set<CEvent*>(rest.begin(), rest.end()).size());
    for (CEvent* ev : rest) {
        EXPECT_EQ(nullptr, ev->m_next);
    }
    got.insert(got.end(), rest.begin(), rest.end());
    for (CEvent* ev : got) {
        delete ev;
    }
}

TEST(RecordReserve, IsNotTouchedWhileARecordRestsOrThereIsMemory) {
    const DrainedRecords drained;
    fill_event_reserve();
    CEvent* const fresh = get_event_reserved();
    put_event(fresh);
    EXPECT_EQ(fresh, get_event_reserved());
    const Taken all = takeReserve();
    EXPECT_EQ(static_cast<size_t>(RESERVE_SIZE), all.size());
    for (CEvent* ev : all) {
        delete ev;
    }
    delete fresh;
}

TEST(RecordReserve, IsFilledAsFarAsThereIsMemory) {
    const DrainedRecords drained;
    {
        const NoMemory after_seven(7);
        fill_event_reserve();
    }
    const Taken some = takeReserve();
    EXPECT_EQ(7u, some.size());
    fill_event_reserve();
    const Taken all = takeReserve();
    EXPECT_EQ(static_cast<size_t>(RESERVE_SIZE), all.size());
    for (const Taken& taken : {some, all}) {
        for (CEvent* ev : taken) {
            delete ev;
        }
    }
}

TEST(RecordReserve, ThreadsShareItAndGetEachRecordOnce) {
    const DrainedRecords drained;
    fill_event_reserve();
    std::vector<Taken> got(3);
    std::vector<std::thread> takers;
    for (Taken& mine : got) {
        takers.emplace_back([&mine] { mine = takeReserve(); });
    }
    std::set<CEvent*> all;
    for (size_t i = 0; i < takers.size(); ++i) {
        takers[i].join();
        all.insert(got[i].begin(), got[i].end());
    }
    EXPECT_EQ(static_cast<size_t>(RESERVE_SIZE), all.size());
    EXPECT_EQ(all.size(), got[0].size() + got[1].size() + got[2].size());
    for (CEvent* ev : all) {
        delete ev;
    }
}

}  // namespace
}  // namespace Orvex::Testing
