// TimerHeap: the order of expiry, removal by id, and the chains of one tick.
#include "Core/TimerHeap.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <memory>
#include <vector>

#include "Core/ObjectId.h"
#include "support/SeededRandom.h"

namespace Orvex::Reticor {
namespace {

int64_t timerId(int64_t place, int pool) {
    return ((CObjectId::FIRST_COUNTER - place) * 256 + pool) * 256;
}

std::unique_ptr<CEvent> timer(int64_t place, uint64_t expire, int pool = 0) {
    auto ev = std::make_unique<CEvent>();
    ev->m_key = timerId(place, pool);
    ev->m_obj_id = timerId(100000, pool);
    ev->m_expire = expire;
    return ev;
}

std::vector<int64_t> keys(const CEvent* chain) {
    std::vector<int64_t> found;
    for (; chain != nullptr; chain = chain->m_next) {
        found.push_back(chain->m_key);
    }
    return found;
}

TEST(TimerHeap, InsertTellsTheExpiryOfANewTopAndElseZero) {
    TimerHeap heap;
    EXPECT_EQ(0u, heap.Peek());
    auto first = timer(0, 500);
    auto later = timer(1, 700);
    auto sooner = timer(2, 300);
    EXPECT_EQ(500u, heap.Insert(first.get()));
    EXPECT_EQ(0u, heap.Insert(later.get()));
    EXPECT_EQ(300u, heap.Insert(sooner.get()));
    EXPECT_EQ(300u, heap.Peek());
    EXPECT_EQ(3, heap.Count());
}

TEST(TimerHeap, PopDueTakesWhatIsNotAboveTheLimit) {
    TimerHeap heap;
    auto a = timer(0, 100);
    auto b = timer(1, 200);
    auto c = timer(2, 201);
    for (CEvent* ev : {c.get(), a.get(), b.get()}) {
        heap.Insert(ev);
    }
    DueChains due;
    heap.PopDue(99, due);
    EXPECT_EQ(0, due.m_active_num);
    heap.PopDue(200, due);
    EXPECT_EQ(1, due.m_active_num);
    EXPECT_EQ(1, heap.Count());
    EXPECT_EQ(201u, heap.Peek());
}

TEST(TimerHeap, WithinATickTheLastDueRunsFirst) {
    TimerHeap heap;
    auto a = timer(0, 100);
    auto b = timer(1, 200);
    auto c = timer(2, 300);
    for (CEvent* ev : {b.get(), c.get(), a.get()}) {
        heap.Insert(ev);
    }
    DueChains due;
    heap.PopDue(1000, due);
    EXPECT_EQ((std::vector<int64_t>{c->m_key, b->m_key, a->m_key}), keys(due.m_chain[0]));
}

TEST(TimerHeap, EachPoolGetsAChainInTheOrderOfFirstAppearance) {
    TimerHeap heap;
    auto a = timer(0, 100, 5);
    auto b = timer(0, 200, 3);
    auto c = timer(1, 300, 5);
    for (CEvent* ev : {a.get(), b.get(), c.get()}) {
        heap.Insert(ev);
    }
    DueChains due;
    heap.PopDue(1000, due);
    ASSERT_EQ(2, due.m_active_num);
    EXPECT_EQ(5, due.m_active[0]);
    EXPECT_EQ(3, due.m_active[1]);
    EXPECT_EQ((std::vector<int64_t>{c->m_key, a->m_key}), keys(due.m_chain[5]));
    EXPECT_EQ((std::vector<int64_t>{b->m_key}), keys(due.m_chain[3]));
}

TEST(TimerHeap, RemoveByIdFindsOnlyWhatIsIn) {
    TimerHeap heap;
    auto a = timer(0, 100);
    auto b = timer(1, 200);
    heap.Insert(a.get());
    heap.Insert(b.get());
    for (long unknown : {-1L, -101L, 0L, 5L, static_cast<long>(timerId(7, 0)),
                         static_cast<long>(timerId(0, 9)), static_cast<long>(timerId(1 << 20, 0)),
                         static_cast<long>(timerId(0, 64)), static_cast<long>(a->m_key + 1)}) {
        EXPECT_EQ(nullptr, heap.RemoveById(unknown)) << unknown;
    }
    EXPECT_EQ(a.get(), heap.RemoveById(static_cast<long>(a->m_key)));
    EXPECT_EQ(nullptr, heap.RemoveById(static_cast<long>(a->m_key)));
    EXPECT_EQ(200u, heap.Peek());
    EXPECT_EQ(b.get(), heap.RemoveById(static_cast<long>(b->m_key)));
    EXPECT_EQ(0u, heap.Peek());
}

TEST(TimerHeap, RemovePoolTakesThatPoolsTimersAlone) {
    TimerHeap heap;
    std::vector<std::unique_ptr<CEvent>> all;
    for (int i = 0; i < 300; ++i) {
        all.push_back(timer(i, static_cast<uint64_t>((i * 7919) % 1000), i % 3));
        heap.Insert(all.back().get());
    }
    EXPECT_EQ(100u, keys(heap.RemovePool(1)).size());
    EXPECT_EQ(200, heap.Count());
    EXPECT_EQ(nullptr, heap.RemovePool(1));
    DueChains due;
    heap.PopDue(1000, due);
    EXPECT_EQ(nullptr, due.m_chain[1]);
    EXPECT_EQ(100u, keys(due.m_chain[0]).size());
    EXPECT_EQ(100u, keys(due.m_chain[2]).size());
}

// Against a sorted map: random arming, removal by id and ticks.
TEST(TimerHeap, RandomOperationsAgreeWithASortedMap) {
    Testing::SeededRandom random;
    TimerHeap heap;
    std::multimap<uint64_t, CEvent*> model;
    std::vector<std::unique_ptr<CEvent>> all;
    for (int i = 0; i < 2000; ++i) {
        all.push_back(timer(i, 0));
    }
    std::vector<CEvent*> idle;
    for (auto& ev : all) {
        idle.push_back(ev.get());
    }
    uint64_t now = 1;
    for (int step = 0; step < 20000; ++step) {
        const uint64_t choice = random.between<uint64_t>(0, 9);
        if (choice < 6 && !idle.empty()) {
            CEvent* ev = idle.back();
            idle.pop_back();
            ev->m_expire = now + random.between<uint64_t>(0, 499) + 1;
            const uint64_t soonest = model.empty() ? ~uint64_t{0} : model.begin()->first;
            const uint64_t top = heap.Insert(ev);
            EXPECT_EQ(ev->m_expire < soonest ? ev->m_expire : 0, top);
            model.emplace(ev->m_expire, ev);
        } else if (choice < 9 && !model.empty()) {
            auto it =
                std::next(model.begin(), static_cast<long>(random.between<size_t>(0, model.size() - 1)));
            ASSERT_EQ(it->second, heap.RemoveById(static_cast<long>(it->second->m_key)));
            idle.push_back(it->second);
            model.erase(it);
        } else {
            now += random.between<uint64_t>(0, 99);
            DueChains due;
            heap.PopDue(now, due);
            std::vector<int64_t> expected;
            while (!model.empty() && model.begin()->first <= now) {
                expected.push_back(model.begin()->second->m_key);
                idle.push_back(model.begin()->second);
                model.erase(model.begin());
            }
            std::vector<int64_t> popped = keys(due.m_chain[0]);
            std::sort(expected.begin(), expected.end());
            std::sort(popped.begin(), popped.end());
            ASSERT_EQ(expected, popped);
        }
        ASSERT_EQ(model.size(), static_cast<size_t>(heap.Count()));
        ASSERT_EQ(model.empty() ? 0 : model.begin()->first, heap.Peek());
    }
}

}  // namespace
}  // namespace Orvex::Reticor
