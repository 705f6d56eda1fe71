// TimerHeap: the order of expiry, removal by id, and the chains of one tick.
#include "Core/service/TimerHeap.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <optional>
#include <vector>

#include "Core/handle/ObjectId.h"
#include "Core/record/EventFreeList.h"
#include "support/SeededRandom.h"
#include "support/core/Probes.h"

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

}  // namespace
}  // namespace Orvex::Reticor
