// CObjectTable: handlers by id, stale and foreign ids, and lookups while handlers come and go.
#include "Core/handle/ObjectTable.h"

#include <gtest/gtest.h>

#include <atomic>
#include <deque>
#include <limits>
#include <map>
#include <memory>
#include <thread>
#include <vector>

#include "support/PoolFixture.h"
#include "support/SeededRandom.h"
#include "support/core/SocketPair.h"
#include "support/socket/Allocations.h"

namespace Orvex::Testing {
namespace {

using namespace Reticor;

constexpr size_t TABLE_CHUNK = 1024;

int64_t idAt(size_t place, int64_t generation = 0) {
    return ((CObjectId::FIRST_COUNTER - static_cast<int64_t>(place)) * 256 + 1) * 256 + generation;
}

// A handler of a real pool stands for all owners.
class ObjectTableCases : public PoolFixture {
protected:
    void SetUp() override {
        PoolFixture::SetUp();
        handler = new TestHandler;
    }
    void TearDown() override {
        EXPECT_EQ(1, HandlerInternal::Of(*handler).m_ref.load()) << "no lookup left a reference";
        closeAndWait(handler);
        PoolFixture::TearDown();
    }

    ObjectEntry entry(int64_t id) { return {id, handler}; }

    TestHandler* handler = nullptr;
    CObjectTable table{CObjectId::FIRST_COUNTER};
};

TEST_F(ObjectTableCases, WhatIsFoundIsPinned) {
    ObjectEntry own = entry(idAt(0));
    EXPECT_TRUE(table.Insert(&own));
    {
        const HandlerPin found = table.Find(own.m_id);
        EXPECT_EQ(handler, found.get());
        EXPECT_EQ(2, HandlerInternal::Of(*handler).m_ref.load());
    }
    EXPECT_TRUE(table.Has(own.m_id));
    EXPECT_EQ(&own, table.Remove(own.m_id));
    EXPECT_FALSE(table.Find(own.m_id));
    EXPECT_FALSE(table.Has(own.m_id));
    EXPECT_EQ(nullptr, table.Remove(own.m_id)) << "once";
}

TEST_F(ObjectTableCases, AnIdOfAnotherGenerationOrPoolIsAStranger) {
    ObjectEntry own = entry(idAt(3, 5));
    EXPECT_TRUE(table.Insert(&own));
    for (const int64_t stranger :
         {idAt(3, 4), idAt(3, 6), idAt(3, 0), idAt(2, 5), idAt(4, 5), own.m_id + 256, own.m_id - 256}) {
        EXPECT_FALSE(table.Find(stranger)) << stranger;
        EXPECT_FALSE(table.Has(stranger)) << stranger;
        EXPECT_EQ(nullptr, table.Remove(stranger)) << stranger;
    }
    EXPECT_EQ(&own, table.Remove(own.m_id)) << "none of them took it out";
}

TEST_F(ObjectTableCases, ANumberThatIsNotAnIdIsNotFound) {
    ObjectEntry own = entry(idAt(0));
    EXPECT_TRUE(table.Insert(&own));
    for (const int64_t number : {int64_t{0}, int64_t{-1}, int64_t{-50}, int64_t{-101}, int64_t{7},
                                 std::numeric_limits<int64_t>::max(), std::numeric_limits<int64_t>::min()}) {
        EXPECT_FALSE(table.Find(number)) << number;
        EXPECT_FALSE(table.Has(number)) << number;
        EXPECT_EQ(nullptr, table.Remove(number)) << number;
    }
    table.Remove(own.m_id);
}

// A pool's next life begins with lower counters; ids of the life before it are above its first one.
TEST_F(ObjectTableCases, AnIdOfAnEarlierLifeOfThePoolIsNotFound) {
    CObjectTable later{CObjectId::FIRST_COUNTER - 500};
    ObjectEntry own = entry(idAt(500));
    EXPECT_TRUE(later.Insert(&own));
    EXPECT_TRUE(later.Has(own.m_id));
    for (const size_t place : {size_t{0}, size_t{499}}) {
        EXPECT_FALSE(later.Has(idAt(place)));
        EXPECT_EQ(nullptr, later.Remove(idAt(place)));
    }
}

TEST_F(ObjectTableCases, TheLastPlaceOfAChunkAndTheFirstOfTheNextAreTwo) {
    std::deque<ObjectEntry> entries;
    for (const size_t place : {TABLE_CHUNK - 1, TABLE_CHUNK, 3 * TABLE_CHUNK}) {
        entries.push_back(entry(idAt(place)));
        EXPECT_TRUE(table.Insert(&entries.back()));
    }
    EXPECT_FALSE(table.Has(idAt(2 * TABLE_CHUNK + 5))) << "a chunk that was never used";
    EXPECT_EQ(nullptr, table.Remove(idAt(2 * TABLE_CHUNK + 5)));
    for (ObjectEntry& own : entries) {
        EXPECT_EQ(&own, table.Remove(own.m_id));
    }
}

TEST_F(ObjectTableCases, AClosedHandlerIsFoundUntilItIsDetachedButIsNotThere) {
    auto* const closing = new TestHandler;
    HandlerPin kept = HandlerPin::Take(closing);
    ObjectEntry own{idAt(9), closing};
    EXPECT_TRUE(table.Insert(&own));
    EXPECT_TRUE(table.Has(own.m_id));
    closing->Close();
    EXPECT_FALSE(table.Has(own.m_id));
    EXPECT_EQ(closing, table.Find(own.m_id).get());
    EXPECT_EQ(&own, table.Remove(own.m_id));
}

TEST_F(ObjectTableCases, TheClassOfAnOpenHandlerIsToldWithoutAReference) {
    auto* const closing = new TestHandler;
    const HandlerPin kept = HandlerPin::Take(closing);
    ObjectEntry own{idAt(9), closing};
    EXPECT_TRUE(table.Insert(&own));
    ASSERT_TRUE(table.RowOf(own.m_id));
    EXPECT_EQ(uint32_t{ClassRows::NOT_CALLED}, *table.RowOf(own.m_id));
    SocketPair pair;
    ASSERT_EQ(0, closing->RegisterSock(pair.near, SOCK_READ, 0));
    closing->RemoveSock(pair.near);
    EXPECT_STREQ("Orvex::Testing::TestHandler", ClassRows::Name(*table.RowOf(own.m_id)));
    EXPECT_FALSE(table.RowOf(idAt(9, 1))) << "another generation";
    EXPECT_FALSE(table.RowOf(idAt(8)));
    closing->Close();
    EXPECT_FALSE(table.RowOf(own.m_id)) << "a closed one is nobody's";
    EXPECT_EQ(&own, table.Remove(own.m_id));
}

TEST_F(ObjectTableCases, WithoutMemoryAnInsertChangesNothing) {
    ObjectEntry first = entry(idAt(0));
    ObjectEntry same_chunk = entry(idAt(1));
    ObjectEntry far = entry(idAt(5 * TABLE_CHUNK));
    for (size_t successes = 0; successes < 2; ++successes) {  // the list of chunks, and the chunk
        const OneAllocationFails fault(successes);
        EXPECT_FALSE(table.Insert(&first));
    }
    EXPECT_FALSE(table.Has(first.m_id));
    EXPECT_TRUE(table.Insert(&first));
    {
        const NoMemory no_memory;
        EXPECT_TRUE(table.Insert(&same_chunk)) << "there is a place for it";
        EXPECT_FALSE(table.Insert(&far));
    }
    EXPECT_FALSE(table.Has(far.m_id));
    EXPECT_EQ(nullptr, table.Remove(far.m_id));
    EXPECT_TRUE(table.Has(first.m_id));
    EXPECT_TRUE(table.Insert(&far));
    EXPECT_TRUE(table.Has(far.m_id));
    for (ObjectEntry* own : {&first, &same_chunk, &far}) {
        EXPECT_EQ(own, table.Remove(own->m_id));
    }
}

TEST_F(ObjectTableCases, AnyMixOfCallsMatchesAMapWhileMemoryFailsNowAndThen) {
    SeededRandom random;
    CObjectId ids(1);
    std::map<int64_t, std::unique_ptr<ObjectEntry>> there;
    std::vector<int64_t> gone{0, -50};
    for (int i = 0; i < 20000; ++i) {
        if (there.empty() || random.oneIn(2)) {
            auto own = std::make_unique<ObjectEntry>(entry(ids.Alloc()));
            bool inserted = false;
            if (random.oneIn(50)) {
                const OneAllocationFails fault(random.between(size_t{0}, size_t{1}));
                inserted = table.Insert(own.get());
            } else {
                inserted = table.Insert(own.get());
                ASSERT_TRUE(inserted);
            }
            const int64_t id = own->m_id;
            if (inserted) {
                there.emplace(id, std::move(own));
            } else {
                ids.Release(id);
                gone.push_back(id);
            }
        } else {
            auto any = there.lower_bound(-random.between<int64_t>(0, 1 << 30));
            any = any == there.end() ? there.begin() : any;
            ASSERT_EQ(any->second.get(), table.Remove(any->first));
            ids.Release(any->first);
            gone.push_back(any->first);
            there.erase(any);
        }
        const int64_t stale = gone[random.between(size_t{0}, gone.size() - 1)];
        ASSERT_EQ(there.count(stale) != 0, table.Has(stale));
        ASSERT_EQ(there.count(stale) != 0, static_cast<bool>(table.Find(stale)));
    }
    for (const auto& [id, own] : there) {
        ASSERT_EQ(handler, table.Find(id).get());
        ASSERT_EQ(own.get(), table.Remove(id));
    }
}

// What is found cannot be ended before the pin is dropped, however soon it is taken out.
TEST_F(ObjectTableCases, LookupsRaceWithHandlersThatGo) {
    std::atomic<int64_t> wanted{0};
    std::atomic<bool> stop{false};
    std::atomic<int> found{0};
    std::vector<std::thread> seekers;
    for (int i = 0; i < 2; ++i) {
        seekers.emplace_back([&] {
            while (!stop) {
                if (const HandlerPin pin = table.Find(wanted)) {
                    EXPECT_NE(0, static_cast<TestHandler*>(pin.get())->life.use_count());
                    ++found;
                }
                std::this_thread::yield();
            }
        });
    }
    for (size_t i = 0; i < 300; ++i) {
        auto* const mortal = new TestHandler;
        const std::shared_ptr<HandlerLife> life = mortal->life;
        ObjectEntry own{idAt(i * 5), mortal};
        EXPECT_TRUE(table.Insert(&own));
        wanted = own.m_id;
        const int before = found;
        if (i % 10 == 0) {
            EXPECT_EVENTUALLY(found > before);
        }
        EXPECT_EQ(&own, table.Remove(own.m_id));
        mortal->Close();
        EXPECT_EVENTUALLY(life->deleted == 1);
    }
    stop = true;
    for (std::thread& seeker : seekers) {
        seeker.join();
    }
}

}  // namespace
}  // namespace Orvex::Testing
