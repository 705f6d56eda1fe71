// TimerHeap: the order of expiry, removal by id, and the chains of one tick.
#include "Core/service/TimerHeap.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <map>
#include <memory>
#include <optional>
#include <thread>
#include <vector>

#include "Core/handle/ObjectId.h"
#include "Core/record/EventFreeList.h"
#include "support/SeededRandom.h"
#include "support/core/AlignedAllocations.h"
#include "support/core/Probes.h"
#include "support/core/StillPool.h"
#include "support/socket/Allocations.h"

namespace Orvex::Reticor {

namespace {

int64_t timerId(int64_t place, int pool) {
    return ((CObjectId::FIRST_COUNTER - place) * 256 + pool) * 256;
}

ArmedTimer timer(int64_t place, uint64_t expire, int pool = 0) {
    return {timerId(place, pool), timerId(100000, pool), expire, 0};
}

// The ids of a chain. Gives the records back.
std::vector<int64_t> keys(CEvent* chain) {
    std::vector<int64_t> found;
    for (const CEvent* ev = chain; ev != nullptr; ev = ev->m_next) {
        found.push_back(ev->m_key);
    }
    put_event_chain(chain);
    return found;
}

int64_t idOf(const std::optional<ArmedTimer>& timer) {
    return timer ? timer->id : 0;
}

TEST(TimerHeap, ArmingTellsWhetherTheTimerIsTheSoonest) {
    TimerHeap heap;
    EXPECT_EQ(0u, heap.Peek());
    EXPECT_TRUE(TimerHeapProbe::arm(heap, timer(0, 500)));
    EXPECT_FALSE(TimerHeapProbe::arm(heap, timer(1, 700)));
    EXPECT_TRUE(TimerHeapProbe::arm(heap, timer(2, 300)));
    EXPECT_EQ(300u, heap.Peek());
    EXPECT_EQ(3, heap.Count());
}

TEST(TimerHeap, PopDueTakesWhatIsNotAboveTheLimit) {
    TimerHeap heap;
    auto a = timer(0, 100);
    auto b = timer(1, 200);
    auto c = timer(2, 201);
    for (const ArmedTimer& each : {c, a, b}) {
        TimerHeapProbe::arm(heap, each);
    }
    DueChains due;
    heap.PopDue(99, due);
    EXPECT_EQ(0, due.m_active_num);
    heap.PopDue(200, due);
    EXPECT_EQ(1, due.m_active_num);
    EXPECT_EQ(2u, keys(due.m_chain[0]).size());
    EXPECT_EQ(1, heap.Count());
    EXPECT_EQ(201u, heap.Peek());
}

TEST(TimerHeap, WithinATickTheLastDueRunsFirst) {
    TimerHeap heap;
    auto a = timer(0, 100);
    auto b = timer(1, 200);
    auto c = timer(2, 300);
    for (const ArmedTimer& each : {b, c, a}) {
        TimerHeapProbe::arm(heap, each);
    }
    DueChains due;
    heap.PopDue(1000, due);
    EXPECT_EQ((std::vector<int64_t>{c.id, b.id, a.id}), keys(due.m_chain[0]));
}

TEST(TimerHeap, EachPoolGetsAChainInTheOrderOfFirstAppearance) {
    TimerHeap heap;
    auto a = timer(0, 100, 5);
    auto b = timer(0, 200, 3);
    auto c = timer(1, 300, 5);
    for (const ArmedTimer& each : {a, b, c}) {
        TimerHeapProbe::arm(heap, each);
    }
    DueChains due;
    heap.PopDue(1000, due);
    ASSERT_EQ(2, due.m_active_num);
    EXPECT_EQ(5, due.m_active[0]);
    EXPECT_EQ(3, due.m_active[1]);
    EXPECT_EQ((std::vector<int64_t>{c.id, a.id}), keys(due.m_chain[5]));
    EXPECT_EQ((std::vector<int64_t>{b.id}), keys(due.m_chain[3]));
}

TEST(TimerHeap, RemoveByIdFindsOnlyWhatIsIn) {
    TimerHeap heap;
    auto a = timer(0, 100);
    auto b = timer(1, 200);
    TimerHeapProbe::arm(heap, a);
    TimerHeapProbe::arm(heap, b);
    for (long unknown : {-1L, -101L, 0L, 5L, static_cast<long>(timerId(7, 0)),
                         static_cast<long>(timerId(0, 9)), static_cast<long>(timerId(1 << 20, 0)),
                         static_cast<long>(timerId(0, 64)), static_cast<long>(a.id + 1)}) {
        EXPECT_FALSE(heap.RemoveById(unknown)) << unknown;
    }
    EXPECT_EQ(a.id, idOf(heap.RemoveById(static_cast<long>(a.id))));
    EXPECT_FALSE(heap.RemoveById(static_cast<long>(a.id)));
    EXPECT_EQ(200u, heap.Peek());
    EXPECT_EQ(b.id, idOf(heap.RemoveById(static_cast<long>(b.id))));
    EXPECT_EQ(0u, heap.Peek());
}

TEST(TimerHeap, RemovePoolTakesThatPoolsTimersAlone) {
    TimerHeap heap;
    for (int i = 0; i < 300; ++i) {
        TimerHeapProbe::arm(heap, timer(i, static_cast<uint64_t>((i * 7919) % 1000), i % 3));
    }
    heap.RemovePool(1, CObjectId::FIRST_COUNTER);
    EXPECT_EQ(200, heap.Count());
    heap.RemovePool(1, CObjectId::FIRST_COUNTER);
    EXPECT_EQ(200, heap.Count());
    DueChains due;
    heap.PopDue(1000, due);
    EXPECT_EQ(nullptr, due.m_chain[1]);
    EXPECT_EQ(100u, keys(due.m_chain[0]).size());
    EXPECT_EQ(100u, keys(due.m_chain[2]).size());
}

// Spans of time that reach from one bucket over all of them to beyond the last one.
constexpr uint64_t BUCKET = TimerBuckets::SPAN_US;
constexpr uint64_t ALL_BUCKETS = TimerBuckets::COUNT * BUCKET;

TEST(TimerHeap, TimersOfAllDistancesComeOutInTheOrderOfExpiry) {
    TimerHeap heap;
    const std::vector<uint64_t> expiries = {
        3 * BUCKET,      5,   ALL_BUCKETS + 7, BUCKET - 1,  BUCKET,        BUCKET + 1, ALL_BUCKETS,
        2 * ALL_BUCKETS, 900, 3 * BUCKET + 1,  10 * BUCKET, 3 * BUCKET - 1};
    int64_t place = 0;
    for (uint64_t expire : expiries) {
        TimerHeapProbe::arm(heap, timer(place++, expire));
    }
    std::vector<uint64_t> sorted = expiries;
    std::sort(sorted.begin(), sorted.end());
    for (uint64_t expire : sorted) {
        EXPECT_EQ(expire, heap.Peek());
        DueChains due;
        heap.PopDue(expire - 1, due);
        EXPECT_EQ(0, due.m_active_num);
        heap.PopDue(expire, due);
        ASSERT_EQ(1, due.m_active_num);
        EXPECT_EQ(expire, due.m_chain[0]->m_expire);
        EXPECT_EQ(1u, keys(due.m_chain[0]).size());
    }
    EXPECT_EQ(0, heap.Count());
}

TEST(TimerHeap, OneLateTickTakesTimersOfManyBuckets) {
    TimerHeap heap;
    for (int i = 0; i < 1000; ++i) {
        TimerHeapProbe::arm(heap, timer(i, static_cast<uint64_t>((i * 7919) % 1000) * BUCKET + 1));
    }
    DueChains due;
    heap.PopDue(999 * BUCKET, due);
    EXPECT_EQ(999u, keys(due.m_chain[0]).size());
    EXPECT_EQ(999 * BUCKET + 1, heap.Peek());
}

TEST(TimerHeap, AfterARemovalTheSoonestExpiryMayBeEarlyUntilItIsLookedFor) {
    TimerHeap heap;
    auto a = timer(0, 5 * BUCKET);
    auto b = timer(1, 9 * BUCKET);
    TimerHeapProbe::arm(heap, a);
    TimerHeapProbe::arm(heap, b);
    heap.RemoveById(static_cast<long>(a.id));
    EXPECT_EQ(5 * BUCKET, heap.Soonest());
    EXPECT_EQ(9 * BUCKET, heap.Peek());
    EXPECT_EQ(9 * BUCKET, heap.Soonest());
    heap.RemoveById(static_cast<long>(b.id));
    EXPECT_EQ(0u, heap.Soonest());
}

TEST(TimerHeap, AnIdArmedAgainExpiresOnceAtItsLastExpiry) {
    TimerHeap heap;
    auto a = timer(0, 0);
    for (uint64_t expire : {4 * BUCKET, 2 * BUCKET, 2 * BUCKET + 5}) {
        a.expire = expire;
        TimerHeapProbe::arm(heap, a);
        if (expire != 2 * BUCKET + 5) {
            ASSERT_TRUE(heap.RemoveById(static_cast<long>(a.id)));
        }
    }
    DueChains due;
    heap.PopDue(2 * BUCKET + 4, due);
    EXPECT_EQ(0, due.m_active_num);
    heap.PopDue(20 * BUCKET, due);
    EXPECT_EQ((std::vector<int64_t>{a.id}), keys(due.m_chain[0]));
}

// Cancelled timers would otherwise hold memory until their time comes.
TEST(TimerHeap, DeadEntriesNeverOutnumberTheArmedByMuch) {
    TimerHeap heap;
    std::vector<ArmedTimer> all;
    for (int i = 0; i < 1000; ++i) {
        all.push_back(timer(i, static_cast<uint64_t>(i) * BUCKET / 10));
        TimerHeapProbe::arm(heap, all.back());
    }
    for (int round = 0; round < 20000; ++round) {
        const ArmedTimer& each = all[static_cast<size_t>(round) % all.size()];
        ASSERT_EQ(each.id, idOf(heap.RemoveById(static_cast<long>(each.id))));
        TimerHeapProbe::arm(heap, each);
        ASSERT_LE(TimerHeapProbe::entries(heap), 2 * all.size() + 200);
    }
}

// Against a sorted map: random arming, removal by id and ticks.
void compareWithASortedMap(uint64_t farthest) {
    Testing::SeededRandom random;
    TimerHeap heap;
    std::multimap<uint64_t, ArmedTimer> model;
    std::vector<ArmedTimer> idle;
    for (int i = 0; i < 2000; ++i) {
        idle.push_back(timer(i, 0));
    }
    uint64_t now = 1;
    for (int step = 0; step < 20000; ++step) {
        const uint64_t choice = random.between<uint64_t>(0, 9);
        if (choice < 6 && !idle.empty()) {
            ArmedTimer each = idle.back();
            idle.pop_back();
            each.expire = now + random.between<uint64_t>(1, farthest);
            const uint64_t soonest = heap.Soonest();
            EXPECT_EQ(soonest == 0 || each.expire < soonest, TimerHeapProbe::arm(heap, each));
            model.emplace(each.expire, each);
        } else if (choice < 9 && !model.empty()) {
            auto it =
                std::next(model.begin(), static_cast<long>(random.between<size_t>(0, model.size() - 1)));
            ASSERT_EQ(it->second.id, idOf(heap.RemoveById(static_cast<long>(it->second.id))));
            idle.push_back(it->second);
            model.erase(it);
        } else {
            now += random.between<uint64_t>(0, farthest / 5);
            DueChains due;
            heap.PopDue(now, due);
            std::vector<int64_t> expected;
            while (!model.empty() && model.begin()->first <= now) {
                expected.push_back(model.begin()->second.id);
                idle.push_back(model.begin()->second);
                model.erase(model.begin());
            }
            std::vector<int64_t> popped = keys(due.m_chain[0]);
            std::sort(expected.begin(), expected.end());
            std::sort(popped.begin(), popped.end());
            ASSERT_EQ(expected, popped);
        }
        ASSERT_EQ(model.size(), static_cast<size_t>(heap.Count()));
        // Nobody looks at each step, but who looks finds it, and a bound is never late.
        const uint64_t expected = model.empty() ? 0 : model.begin()->first;
        ASSERT_LE(heap.Soonest(), expected);
        if (choice >= 9) {
            ASSERT_EQ(expected, heap.Peek());
        }
    }
}

TEST(TimerHeap, RandomOperationsWithinMillisecondsAgreeWithASortedMap) {
    compareWithASortedMap(500);
}

TEST(TimerHeap, RandomOperationsWithinADayAgreeWithASortedMap) {
    compareWithASortedMap(ALL_BUCKETS * 2 / 3);
}

TEST(TimerHeap, RandomOperationsWithinWeeksAgreeWithASortedMap) {
    compareWithASortedMap(ALL_BUCKETS * 10);
}

// ---- timers of pools -----------------------------------------------------------------------------------

using Testing::StillPool;

// A handler's id, of no handler that there is.
int64_t ownerOf(int pool, int64_t number = 0) {
    return timerId(200000 + number, pool);
}

long armFor(TimerHeap& heap, int pool, uint64_t expire, bool* first = nullptr, int64_t number = 0) {
    bool ignored = false;
    return heap.Arm({0, ownerOf(pool, number), expire, 1000}, first != nullptr ? *first : ignored);
}

std::vector<int64_t> ownersIn(TimerHeap& heap, int pool) {
    std::vector<int64_t> owners;
    for (size_t part = 0; heap.ListOwners(pool, part, owners); ++part) {
    }
    std::sort(owners.begin(), owners.end());
    return owners;
}

TEST(TimerHeapOfPools, ATimerWithoutAPoolIsRefused) {
    TimerHeap heap;
    bool first = true;
    EXPECT_EQ(TimerHeap::NO_POOL, armFor(heap, StillPool::INDEX, 100, &first));
    EXPECT_FALSE(first);
    EXPECT_EQ(0, heap.Count());
    EXPECT_EQ(0u, heap.Soonest());
}

TEST(TimerHeapOfPools, ATimersIdIsOfItsPoolAndItsTimerIsAsItWasArmed) {
    StillPool rig;
    TimerHeap heap;
    bool first = false;
    const long id = armFor(heap, StillPool::INDEX, 100, &first);
    EXPECT_TRUE(first);
    EXPECT_LT(id, -101);
    EXPECT_EQ(StillPool::INDEX, INDEX_OF_ID(id));
    EXPECT_NE(id, armFor(heap, StillPool::INDEX, 100, &first));
    EXPECT_FALSE(first) << "no sooner than the other one";
    const std::optional<ArmedTimer> found = heap.RemoveById(id);
    ASSERT_TRUE(found);
    EXPECT_EQ(ownerOf(StillPool::INDEX), found->obj_id);
    EXPECT_EQ(100u, found->expire);
    EXPECT_EQ(1000u, found->delay);
    heap.RemovePool(StillPool::INDEX, rig.pool().m_ids.Next());
}

TEST(TimerHeapOfPools, ATimerOnItsWayIsNotArmedAndIsArmedAgainUnderItsId) {
    StillPool rig;
    TimerHeap heap;
    const long id = armFor(heap, StillPool::INDEX, 100);
    DueChains due;
    ASSERT_TRUE(heap.PopDue(100, due));
    ASSERT_EQ((std::vector<int64_t>{id}), keys(due.m_chain[StillPool::INDEX]));
    EXPECT_FALSE(heap.RemoveById(id));
    EXPECT_EQ(0, heap.Count());
    EXPECT_EQ(0u, heap.CountOfPool(StillPool::INDEX));
    EXPECT_TRUE(ownersIn(heap, StillPool::INDEX).empty());
    EXPECT_TRUE(heap.Rearm({id, ownerOf(StillPool::INDEX), 500, 400})) << "there is no other one";
    EXPECT_EQ(1u, heap.CountOfPool(StillPool::INDEX));
    const long sooner = armFor(heap, StillPool::INDEX, 300);
    ASSERT_TRUE(heap.RemoveById(id));
    EXPECT_FALSE(heap.Rearm({sooner, ownerOf(StillPool::INDEX), 700, 400}));
    heap.RemovePool(StillPool::INDEX, rig.pool().m_ids.Next());
}

TEST(TimerHeapOfPools, WhatARefusedTimerHadTakenIsGivenBack) {
    StillPool rig;
    TimerHeap heap;
    // The heap's array; with that, the array of chunks; with both, a chunk.
    for (size_t successes : {0u, 1u, 1u}) {
        Testing::NoMemory none(successes);
        bool first = true;
        EXPECT_EQ(TimerHeap::NO_MEMORY, armFor(heap, StillPool::INDEX, 100, &first)) << successes;
        EXPECT_FALSE(first);
    }
    EXPECT_EQ(0, heap.Count());
    EXPECT_EQ(0u, heap.Peek());
    EXPECT_EQ(3u, TimerHeapProbe::waitingIds(heap, StillPool::INDEX) + ObjectIdProbe::count(rig.pool().m_ids))
        << "the ids wait for their next timer";
    const long id = armFor(heap, StillPool::INDEX, 100);
    EXPECT_LT(id, 0);
    EXPECT_TRUE(heap.RemoveById(id));
}

// A bucket that cannot be had is not a reason to refuse a timer: it is sorted at once.
TEST(TimerHeapOfPools, WithoutMemoryForABucketATimerIsArmedAndComesInTime) {
    StillPool rig;
    TimerHeap heap;
    long id = 0;
    {
        Testing::NoAlignedMemory none;
        id = armFor(heap, StillPool::INDEX, 50 * BUCKET);
        EXPECT_LT(id, 0);
        EXPECT_EQ(50 * BUCKET, heap.Peek());
    }
    DueChains due;
    heap.PopDue(50 * BUCKET - 1, due);
    EXPECT_EQ(0, due.m_active_num);
    heap.PopDue(50 * BUCKET, due);
    EXPECT_EQ((std::vector<int64_t>{id}), keys(due.m_chain[StillPool::INDEX]));
    heap.Release(id);
}

// From its arming to its end: it goes round through queues and handlers, where nobody can refuse it.
TEST(TimerHeapOfPools, ATimerThatWasArmedNeedsNoMoreMemoryHoweverOftenItComesRound) {
    StillPool rig;
    TimerHeap heap;
    std::vector<long> ids;
    for (uint64_t i = 0; i < 3000; ++i) {
        ids.push_back(armFor(heap, StillPool::INDEX, i % 7 * BUCKET + i));
    }
    DueChains due;
    for (uint64_t round = 1; round <= 3; ++round) {
        ASSERT_TRUE(heap.PopDue(round * 10 * BUCKET, due));
        due.m_active_num = 0;
        keys(std::exchange(due.m_chain[StillPool::INDEX], nullptr));
        ASSERT_EQ(0, heap.Count());
        Testing::NoMemory none;
        Testing::NoAlignedMemory none_aligned;
        const size_t before = Testing::allocationCount();
        for (const long id : ids) {
            heap.Rearm({id, ownerOf(StillPool::INDEX), (round * 10 + 3) * BUCKET, 0});
        }
        heap.Peek();
        ASSERT_EQ(before, Testing::allocationCount());
        ASSERT_EQ(3000, heap.Count());
    }
    for (const long id : ids) {
        ASSERT_TRUE(heap.RemoveById(id));
    }
    EXPECT_EQ(0u, heap.CountOfPool(StillPool::INDEX));
}

// Most timers that wait for long are cancelled before anybody has to look at them: they are not sorted.
TEST(TimerHeapOfPools, ATimerThatIsNotDueSoonIsPutAsideWhateverTheClockSays) {
    StillPool rig;
    TimerHeap heap;
    constexpr uint64_t NOW = 1700000000000000;
    bool ignored_first = false;
    const size_t before = Testing::alignedAllocationCount();
    const long far = heap.Arm({0, ownerOf(StillPool::INDEX), NOW + 5 * BUCKET, 5 * BUCKET}, ignored_first);
    EXPECT_EQ(before + 1, Testing::alignedAllocationCount()) << "it lies in a bucket";
    const long soon = heap.Arm({0, ownerOf(StillPool::INDEX), NOW + 100, 100}, ignored_first);
    EXPECT_EQ(NOW + 100, heap.Peek());
    EXPECT_TRUE(heap.RemoveById(soon));
    EXPECT_EQ(NOW + 5 * BUCKET, heap.Peek());
    EXPECT_TRUE(heap.RemoveById(far));
}

TEST(TimerHeapOfPools, TimersThatComeAndGoNeedNoMoreRoomInTheLongRun) {
    StillPool rig;
    TimerHeap heap;
    DueChains due;
    std::vector<long> ids;
    ids.reserve(1000);
    size_t before = 0;
    for (uint64_t round = 0; round < 40; ++round) {
        before = round == 2 ? TimerHeapProbe::capacity(heap) : before;
        ids.clear();
        for (int i = 0; i < 1000; ++i) {
            ids.push_back(armFor(heap, StillPool::INDEX, round * 100 + 50));
        }
        if (round % 2 == 0) {
            for (const long id : ids) {
                heap.RemoveById(id);
            }
            continue;
        }
        heap.PopDue(round * 100 + 50, due);
        put_event_chain(std::exchange(due.m_chain[StillPool::INDEX], nullptr));
        due.m_active_num = 0;
        for (const long id : ids) {
            heap.Release(id);
        }
    }
    EXPECT_EQ(before, TimerHeapProbe::capacity(heap));
}

TEST(TimerHeapOfPools, EachLifeOfAPoolNeedsNoMoreRoomAndLeavesNoEntry) {
    StillPool rig;
    TimerHeap heap;
    size_t room = 0;
    for (int life = 0; life < 20; ++life) {
        for (uint64_t i = 0; i < 3000; ++i) {
            ASSERT_LT(armFor(heap, StillPool::INDEX, i), 0);
        }
        room = life == 0 ? TimerHeapProbe::capacity(heap) : room;
        std::vector<int64_t> owners;
        EXPECT_FALSE(heap.ListOwners(StillPool::INDEX, 3, owners)) << "ids of earlier lives have no places";
        PoolTable::Set(StillPool::INDEX, nullptr);
        heap.RemovePool(StillPool::INDEX, rig.pool().m_ids.Next());
        EXPECT_LT(TimerHeapProbe::entries(heap), 200u) << "the dead are swept out";
        PoolTable::Set(StillPool::INDEX, &rig.pool());
    }
    EXPECT_EQ(room, TimerHeapProbe::capacity(heap));
}

// Between the two steps of a pool's end: ids that wait with the heap are those of a pool that is going.
TEST(TimerHeapOfPools, WaitingIdsAreNotGivenOnceTheSlotIsCleared) {
    StillPool rig;
    TimerHeap heap;
    std::vector<long> ids;
    for (int i = 0; i < 2000; ++i) {
        ids.push_back(armFor(heap, StillPool::INDEX, 5));
    }
    for (const long id : ids) {
        ASSERT_TRUE(heap.RemoveById(id));
    }
    ASSERT_GT(TimerHeapProbe::waitingIds(heap, StillPool::INDEX), 1024u);
    PoolTable::Set(StillPool::INDEX, nullptr);
    EXPECT_EQ(TimerHeap::NO_POOL, armFor(heap, StillPool::INDEX, 5));
    heap.RemovePool(StillPool::INDEX, rig.pool().m_ids.Next());
    EXPECT_EQ(0u, TimerHeapProbe::waitingIds(heap, StillPool::INDEX));
    PoolTable::Set(StillPool::INDEX, &rig.pool());
}

TEST(TimerHeapOfPools, TimersForWhichThereIsNoRecordStayArmedInTheirOrder) {
    StillPool rig;
    TimerHeap heap;
    fill_event_reserve();
    constexpr int TIMERS = 2000;
    for (int i = 0; i < TIMERS; ++i) {
        ASSERT_LT(armFor(heap, StillPool::INDEX, static_cast<uint64_t>(1000 + i)), 0);
    }
    size_t popped = 0;
    {
        Testing::NoMemory none;
        CEvent* resting = nullptr;  // whatever earlier work has left: only the reserve is to serve
        while (CEvent* const ev = get_event()) {
            ev->m_next = std::exchange(resting, ev);
        }
        DueChains due;
        EXPECT_FALSE(heap.PopDue(5000, due));
        for (const CEvent* ev = due.m_chain[StillPool::INDEX]; ev != nullptr; ev = ev->m_next) {
            ++popped;
        }
        put_event_chain(resting);
        EXPECT_LE(popped, 256u);
        EXPECT_EQ(TIMERS - static_cast<int>(popped), heap.Count());
        EXPECT_EQ(1000 + popped, heap.Peek()) << "the soonest came first";
        put_event_chain(due.m_chain[StillPool::INDEX]);
    }
    DueChains due;
    EXPECT_TRUE(heap.PopDue(5000, due));
    EXPECT_EQ(TIMERS - popped, keys(due.m_chain[StillPool::INDEX]).size());
    heap.RemovePool(StillPool::INDEX, rig.pool().m_ids.Next());
}

TEST(TimerHeapOfPools, OwnersAreListedForEachArmedTimerOfThePool) {
    StillPool first(StillPool::INDEX);
    StillPool second(StillPool::INDEX + 1);
    TimerHeap heap;
    EXPECT_TRUE(ownersIn(heap, StillPool::INDEX).empty());
    std::vector<int64_t> expected;
    std::vector<long> ids;
    for (int64_t i = 0; i < 2500; ++i) {  // more than two parts
        ids.push_back(armFor(heap, StillPool::INDEX, 10, nullptr, i % 3));
        expected.push_back(ownerOf(StillPool::INDEX, i % 3));
    }
    armFor(heap, StillPool::INDEX + 1, 10, nullptr, 9);
    ASSERT_TRUE(heap.RemoveById(ids.back()));
    expected.pop_back();
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(expected, ownersIn(heap, StillPool::INDEX));
    EXPECT_EQ(std::vector<int64_t>{ownerOf(StillPool::INDEX + 1, 9)}, ownersIn(heap, StillPool::INDEX + 1));
    heap.RemovePool(StillPool::INDEX, first.pool().m_ids.Next());
    EXPECT_TRUE(ownersIn(heap, StillPool::INDEX).empty());
    EXPECT_EQ(1u, heap.CountOfPool(StillPool::INDEX + 1));
    heap.RemovePool(StillPool::INDEX + 1, second.pool().m_ids.Next());
}

// ---- pools, ids, heap, buckets and table together ------------------------------------------------------

// The heap with three pools whose timers come, go round, end, and vanish with their pool, in virtual time,
// beside a plain sorted map.
class HeapModel {
public:
    static constexpr int FIRST = 20;
    static constexpr int POOLS = 3;

    explicit HeapModel(uint64_t farthest) : m_farthest(farthest) {
        for (int i = 0; i < POOLS; ++i) {
            m_rig[static_cast<size_t>(i)] = std::make_unique<StillPool>(FIRST + i);
        }
    }
    ~HeapModel() {
        for (int i = 0; i < POOLS; ++i) {
            end_pool(i);
        }
    }
    HeapModel(const HeapModel&) = delete;
    HeapModel& operator=(const HeapModel&) = delete;

    void step() {
        const int choice = m_random.between(0, 999);
        if (choice < 450) {
            arm(m_random.between(0, POOLS - 1));
        } else if (choice < 700) {
            remove();
        } else if (choice < 850) {
            serve();
        } else if (choice < 998) {
            tick();
        } else if (m_restarts > 0) {
            --m_restarts;
            restart(m_random.between(0, POOLS - 1));
        }
        compare();
    }

private:
    using Armed = std::multimap<uint64_t, ArmedTimer>;

    uint64_t expiry() { return m_now + m_random.between<uint64_t>(1, m_farthest); }
    uint64_t soonest() const { return m_armed.empty() ? 0 : m_armed.begin()->first; }
    bool is_known(int64_t id) const {
        const auto has = [id](const ArmedTimer& timer) { return timer.id == id; };
        return std::any_of(m_on_way.begin(), m_on_way.end(), has) ||
               std::any_of(m_armed.begin(), m_armed.end(), [&](const auto& one) { return has(one.second); });
    }

    void arm(int i) {
        ArmedTimer timer{0, ownerOf(FIRST + i, m_random.between(0, 5)), expiry(),
                         m_random.between<uint64_t>(1, 9999)};
        const uint64_t bound = m_heap.Soonest();
        bool first = false;
        const long id = m_heap.Arm(timer, first);
        if (m_rig[static_cast<size_t>(i)] == nullptr) {
            ASSERT_EQ(TimerHeap::NO_POOL, id);
            return;
        }
        ASSERT_LT(id, -101);
        ASSERT_EQ(FIRST + i, INDEX_OF_ID(id));
        ASSERT_FALSE(m_random.oneIn(50) && is_known(id)) << "an id that is in use";
        ASSERT_EQ(bound == 0 || timer.expire < bound, first);
        timer.id = id;
        m_armed.emplace(timer.expire, timer);
    }

    void remove() {
        if (m_random.oneIn(10)) {
            if (!m_on_way.empty()) {
                ASSERT_FALSE(m_heap.RemoveById(static_cast<long>(m_on_way.back().id)));
            }
            ASSERT_FALSE(m_heap.RemoveById(m_ended)) << "that timer has ended";
        } else if (!m_armed.empty()) {
            const auto gone = std::next(m_armed.begin(),
                                        static_cast<long>(m_random.between<size_t>(0, m_armed.size() - 1)));
            const std::optional<ArmedTimer> found = m_heap.RemoveById(static_cast<long>(gone->second.id));
            ASSERT_TRUE(found);
            ASSERT_EQ(gone->second.obj_id, found->obj_id);
            ASSERT_EQ(gone->second.expire, found->expire);
            ASSERT_EQ(gone->second.delay, found->delay);
            m_ended = static_cast<long>(gone->second.id);
            m_armed.erase(gone);
        }
    }

    // A worker comes back from a handler that wants the timer again, or not.
    void serve() {
        for (int n = m_random.between(0, 20); n > 0 && !m_on_way.empty(); --n) {
            ArmedTimer timer = m_on_way.back();
            m_on_way.pop_back();
            if (m_random.oneIn(2)) {
                m_heap.Release(static_cast<long>(timer.id));
                m_ended = static_cast<long>(timer.id);
                continue;
            }
            timer.expire = expiry();
            const uint64_t bound = m_heap.Soonest();
            ASSERT_EQ(bound == 0 || timer.expire < bound, m_heap.Rearm(timer));
            m_armed.emplace(timer.expire, timer);
        }
    }

    void tick() {
        m_now += m_random.between<uint64_t>(0, m_farthest / 8);
        auto due = std::make_unique<DueChains>();
        ASSERT_TRUE(m_heap.PopDue(m_now, *due));
        size_t found = 0;
        for (int i = 0; i < POOLS; ++i) {
            CEvent* const chain = due->m_chain[static_cast<size_t>(FIRST + i)];
            for (const CEvent* ev = chain; ev != nullptr; ev = ev->m_next) {
                ASSERT_TRUE(ev->m_next == nullptr || ev->m_expire >= ev->m_next->m_expire)
                    << "the last due first";
                ++found;
                take_due({ev->m_key, ev->m_obj_id, ev->m_expire, ev->m_delay});
            }
            put_event_chain(chain);
        }
        ASSERT_TRUE(m_armed.empty() || soonest() > m_now) << "one of them is still armed";
        std::shuffle(m_on_way.begin(), m_on_way.end(), m_random.engine());
    }
    void take_due(const ArmedTimer& timer) {
        ASSERT_LE(timer.expire, m_now);
        const auto [begin, end] = m_armed.equal_range(timer.expire);
        const auto same = std::find_if(begin, end, [&](const auto& one) {
            return one.second.id == timer.id && one.second.obj_id == timer.obj_id &&
                   one.second.delay == timer.delay;
        });
        ASSERT_NE(end, same) << "nobody has armed it";
        m_armed.erase(same);
        m_on_way.push_back(timer);
    }

    // The pool ends, or another one comes in its place.
    void restart(int i) {
        if (m_rig[static_cast<size_t>(i)] != nullptr) {
            end_pool(i);
        } else {
            m_rig[static_cast<size_t>(i)] = std::make_unique<StillPool>(FIRST + i);
        }
    }
    void end_pool(int i) {
        if (m_rig[static_cast<size_t>(i)] == nullptr) {
            return;
        }
        const int64_t next = m_rig[static_cast<size_t>(i)]->pool().m_ids.Next();
        m_rig[static_cast<size_t>(i)].reset();
        m_heap.RemovePool(FIRST + i, next);
        const auto of_pool = [i](const ArmedTimer& timer) {
            return INDEX_OF_ID(static_cast<long>(timer.id)) == FIRST + i;
        };
        for (auto at = m_armed.begin(); at != m_armed.end();) {
            at = of_pool(at->second) ? m_armed.erase(at) : std::next(at);
        }
        m_on_way.erase(std::remove_if(m_on_way.begin(), m_on_way.end(), of_pool), m_on_way.end());
    }

    void compare() {
        ASSERT_EQ(m_armed.size(), static_cast<size_t>(m_heap.Count()));
        ASSERT_LE(m_heap.Soonest(), soonest());
        ASSERT_EQ(m_armed.empty(), m_heap.Soonest() == 0);
        if (m_random.oneIn(20)) {
            ASSERT_EQ(soonest(), m_heap.Peek());
        }
        if (m_random.oneIn(500)) {
            for (int i = 0; i < POOLS; ++i) {
                std::vector<int64_t> owners;
                for (const auto& [expire, timer] : m_armed) {
                    if (INDEX_OF_ID(static_cast<long>(timer.id)) == FIRST + i) {
                        owners.push_back(timer.obj_id);
                    }
                }
                std::sort(owners.begin(), owners.end());
                ASSERT_EQ(owners.size(), m_heap.CountOfPool(FIRST + i));
                ASSERT_EQ(owners, ownersIn(m_heap, FIRST + i));
            }
        }
    }

    Testing::SeededRandom m_random;
    const uint64_t m_farthest;
    uint64_t m_now = 1;
    int m_restarts = 12;
    long m_ended = -102;
    TimerHeap m_heap;
    std::array<std::unique_ptr<StillPool>, POOLS> m_rig;
    Armed m_armed;
    std::vector<ArmedTimer> m_on_way;
};

void runHeapModel(uint64_t farthest) {
    HeapModel model(farthest);
    for (int step = 0; step < 12000 && !::testing::Test::HasFatalFailure(); ++step) {
        model.step();
    }
}

TEST(TimerHeapOfPools, ShortTimersOfPoolsThatComeAndGoAgreeWithASortedMap) {
    runHeapModel(20000);
}

TEST(TimerHeapOfPools, LongTimersOfPoolsThatComeAndGoAgreeWithASortedMap) {
    runHeapModel(ALL_BUCKETS * 3 / 2);
}

// ---- races ---------------------------------------------------------------------------------------------

// The slot is cleared first: whoever arms after that finds no pool, and what was armed before goes.
TEST(TimerHeapOfPools, NoTimerOutlivesItsPoolHoweverLateItIsArmed) {
    StillPool rig;
    TimerHeap heap;
    std::atomic<bool> stop{false};
    std::atomic<int> armed{0};
    std::vector<std::thread> threads;
    for (int n = 0; n < 2; ++n) {
        threads.emplace_back([&] {
            for (uint64_t i = 0; !stop; ++i) {
                const long id = armFor(heap, StillPool::INDEX, i % 1000 * BUCKET / 100);
                armed += id < 0 ? 1 : 0;
                if (id < 0 && i % 2 == 0) {
                    heap.RemoveById(id);
                }
            }
        });
    }
    for (int round = 0; round < 100; ++round) {
        const int before = armed;
        EXPECT_EVENTUALLY(armed > before + 10);
        PoolTable::Set(StillPool::INDEX, nullptr);
        heap.RemovePool(StillPool::INDEX, rig.pool().m_ids.Next());
        EXPECT_EQ(0u, heap.CountOfPool(StillPool::INDEX));
        EXPECT_EQ(0, heap.Count());
        EXPECT_EQ(0u, heap.Peek());
        PoolTable::Set(StillPool::INDEX, &rig.pool());
    }
    stop = true;
    for (std::thread& thread : threads) {
        thread.join();
    }
    heap.RemovePool(StillPool::INDEX, rig.pool().m_ids.Next());
}

// Each armed timer ends once: by the thread that removes it, or by the tick that finds it due.
TEST(TimerHeapOfPools, ATimerIsEitherRemovedOrDueAndNeverBoth) {
    StillPool rig;
    TimerHeap heap;
    constexpr int EACH = 4000;
    std::atomic<int> removed{0};
    std::atomic<int> running{2};
    std::atomic<uint64_t> now{1};
    std::vector<std::thread> threads;
    for (int n = 0; n < 2; ++n) {
        threads.emplace_back([&] {
            for (int i = 0; i < EACH; ++i) {
                const long id = armFor(heap, StillPool::INDEX, now + static_cast<uint64_t>(i % 5));
                EXPECT_LT(id, 0);
                removed += heap.RemoveById(id) ? 1 : 0;
            }
            --running;
        });
    }
    int due_count = 0;
    while (running > 0 || heap.Count() > 0) {
        now += 2;
        DueChains due;
        EXPECT_TRUE(heap.PopDue(now, due));
        for (const int64_t id : keys(due.m_chain[StillPool::INDEX])) {
            heap.Release(static_cast<long>(id));
            ++due_count;
        }
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(2 * EACH, removed + due_count);
    EXPECT_EQ(0u, heap.CountOfPool(StillPool::INDEX));
}

}  // namespace
}  // namespace Orvex::Reticor
