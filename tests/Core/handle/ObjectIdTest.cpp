// Ids of objects: the order of issue, the ring of returned ids, generations.
#include "Core/handle/ObjectId.h"

#include <gtest/gtest.h>

#include <deque>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

#include "support/SeededRandom.h"
#include "support/core/CountingAllocator.h"
#include "support/core/Probes.h"

namespace {

using Orvex::Reticor::CObjectId;
using Orvex::Reticor::INDEX_OF_ID;
using Orvex::Reticor::ObjectIdProbe;
using Orvex::Testing::CountingAllocator;

long freshId(long place, long pool) {
    return ((-100 - place) * 256 + pool) * 256;
}

std::vector<long> allocate(CObjectId& ids, int count) {
    std::vector<long> result;
    for (int i = 0; i < count; ++i) {
        result.push_back(ids.Alloc());
    }
    return result;
}

void releaseAll(CObjectId& ids, const std::vector<long>& list) {
    for (const long id : list) {
        ids.Release(id);
    }
}

long nextGeneration(long id) {
    return (id & ~255L) | ((id + 1) & 255);
}

TEST(ObjectId, FirstIdCarriesCounterPoolAndGeneration) {
    CObjectId public_pool(0);
    EXPECT_EQ(-6553600, public_pool.Alloc());
    CObjectId third(3);
    EXPECT_EQ(-6552832, third.Alloc());
    EXPECT_EQ(third.Alloc(), (-101L * 256 + 3) * 256);
    EXPECT_EQ(third.Alloc(), (-102L * 256 + 3) * 256);
}

TEST(ObjectId, EveryIdIsBelowTheNumbersOfKindsAndNamesItsPool) {
    for (int pool = 0; pool < 64; ++pool) {
        CObjectId ids(pool);
        for (int i = 0; i < 3000; ++i) {
            const long id = ids.Alloc();
            ASSERT_LT(id, -101);
            ASSERT_EQ(INDEX_OF_ID(id), pool);
            if (i % 2 == 0) {
                ids.Release(id);
            }
        }
    }
}

TEST(ObjectId, PlaceCountsTheCountersOfAPool) {
    CObjectId ids(7);
    for (size_t i = 0; i < 100; ++i) {
        EXPECT_EQ(CObjectId::place_of(ids.Alloc()), i);
    }
    EXPECT_EQ(5U, CObjectId::place_of(freshId(5, 7) + 200)) << "whatever the generation";
    EXPECT_GT(CObjectId::place_of(0), size_t{1} << 40);
    EXPECT_GT(CObjectId::place_of(-50), size_t{1} << 40);
}

TEST(ObjectId, NothingIsReusedWhileAtMost1024Wait) {
    CObjectId ids(0);
    releaseAll(ids, allocate(ids, 1024));
    EXPECT_EQ(ids.Alloc(), freshId(1024, 0));
    EXPECT_EQ(ids.Alloc(), freshId(1025, 0)) << "a fresh id takes none from those that wait";
}

TEST(ObjectId, Release1025BringsBackTheFirstWithTheNextGeneration) {
    CObjectId ids(2);
    const std::vector<long> given = allocate(ids, 1025);
    releaseAll(ids, given);
    EXPECT_EQ(ids.Alloc(), given.front() + 1);
    EXPECT_EQ(2, INDEX_OF_ID(given.front() + 1));
    EXPECT_EQ(ids.Alloc(), freshId(1025, 2)) << "1024 wait again";
    ids.Release(given.front() + 1);
    EXPECT_EQ(ids.Alloc(), given[1] + 1) << "what was released first is reused first";
}

TEST(ObjectId, Generation255WrapsToZeroAndLeavesThePoolIndexAlone) {
    CObjectId ids(63);
    releaseAll(ids, allocate(ids, 1024));
    const long first = freshId(5000, 63) + 255;
    ids.Release(first);
    for (int i = 0; i < 1024; ++i) {
        const long id = ids.Alloc();
        ASSERT_EQ(id, freshId(i, 63) + 1);
        ids.Release(id);
    }
    const long wrapped = ids.Alloc();
    EXPECT_EQ(wrapped, freshId(5000, 63));
    EXPECT_EQ(63, INDEX_OF_ID(wrapped));
}

TEST(ObjectId, IdMatchesAgainAfter256Reuses) {
    CObjectId ids(1);
    const std::vector<long> given = allocate(ids, 1025);
    releaseAll(ids, given);
    std::vector<long> seen;
    for (int i = 0; i < 256 * 1025; ++i) {
        const long id = ids.Alloc();
        if ((id & ~255L) == given.front()) {
            seen.push_back(id);
        }
        ids.Release(id);
    }
    ASSERT_EQ(256U, seen.size());
    EXPECT_EQ(seen.back(), given.front());
    EXPECT_EQ(256U, std::set<long>(seen.begin(), seen.end()).size());
}

TEST(ObjectId, FullRingOf2048DoublesAndKeepsTheOrder) {
    CObjectId ids(0);
    std::vector<long> given = allocate(ids, 2049 + 1000);
    // The oldest id stands in the middle of the ring when it fills.
    const std::vector<long> early(given.begin(), given.begin() + 1000);
    const std::vector<long> late(given.begin() + 1000, given.end());
    releaseAll(ids, early);
    releaseAll(ids, {late.begin(), late.begin() + 1000});
    std::deque<long> waiting(given.begin(), given.begin() + 2000);
    for (int i = 0; i < 900; ++i) {
        ASSERT_EQ(ids.Alloc(), nextGeneration(waiting.front()));
        waiting.pop_front();
    }
    for (size_t i = 1000; i < late.size(); ++i) {
        ids.Release(late[i]);
        waiting.push_back(late[i]);
    }
    EXPECT_EQ(4096U, ObjectIdProbe::capacity(ids)) << "with " << waiting.size() << " ids";
    EXPECT_GT(waiting.size(), 2048U);
    while (waiting.size() > 1024) {
        ASSERT_EQ(ids.Alloc(), nextGeneration(waiting.front()));
        waiting.pop_front();
    }
}

TEST(ObjectId, RingDoublesExactlyWhenItIsFull) {
    CObjectId ids(0);
    const std::vector<long> given = allocate(ids, 2049);
    releaseAll(ids, {given.begin(), given.end() - 1});
    EXPECT_EQ(2048U, ObjectIdProbe::capacity(ids));
    EXPECT_EQ(2048U, ObjectIdProbe::count(ids));
    ids.Release(given.back());
    EXPECT_EQ(4096U, ObjectIdProbe::capacity(ids));
    EXPECT_EQ(2049U, ObjectIdProbe::count(ids));
    for (size_t i = 0; i < 1025; ++i) {
        ASSERT_EQ(ids.Alloc(), given[i] + 1);
    }
}

TEST(ObjectId, RingNeverHoldsMoreThan204800AndLosesTheRest) {
    CObjectId ids(4);
    const std::vector<long> given = allocate(ids, 204800 + 10);
    releaseAll(ids, given);
    EXPECT_EQ(204800U, ObjectIdProbe::capacity(ids)) << "131072 doubled would be more";
    EXPECT_EQ(204800U, ObjectIdProbe::count(ids));
    for (size_t i = 0; i < 204800 - 1024; ++i) {
        ASSERT_EQ(ids.Alloc(), given[i] + 1);
    }
    EXPECT_EQ(ids.Alloc(), freshId(204810, 4)) << "the last ten are lost, and the allocator goes on";
}

TEST(ObjectId, IdIsLostWhenThereIsNoMemoryToDouble) {
    CObjectId ids(0);
    const std::vector<long> given = allocate(ids, 2050);
    releaseAll(ids, {given.begin(), given.begin() + 2048});
    {
        const CountingAllocator::NoMemory no_memory;
        ids.Release(given[2048]);
    }
    EXPECT_EQ(2048U, ObjectIdProbe::count(ids));
    EXPECT_EQ(2048U, ObjectIdProbe::capacity(ids));
    ids.Release(given[2049]);
    EXPECT_EQ(2049U, ObjectIdProbe::count(ids)) << "the next one tries again";
    for (size_t i = 0; i < 1025; ++i) {
        ASSERT_EQ(ids.Alloc(), given[i] + 1);
    }
}

TEST(ObjectId, AllocatorWithoutARingGivesFreshIdsAndMakesUpForIt) {
    const CountingAllocator::NoMemory* no_memory = new CountingAllocator::NoMemory;
    CObjectId ids(0);
    EXPECT_EQ(ids.Alloc(), freshId(0, 0));
    ids.Release(freshId(0, 0));
    EXPECT_EQ(0U, ObjectIdProbe::count(ids));
    delete no_memory;
    ids.Release(freshId(1, 0));
    EXPECT_EQ(1U, ObjectIdProbe::count(ids));
    EXPECT_EQ(2048U, ObjectIdProbe::capacity(ids));
}

TEST(ObjectId, RingIsFreedWithTheAllocator) {
    const long before = CountingAllocator::blocksInUse();
    {
        CObjectId ids(0);
        releaseAll(ids, allocate(ids, 10000));
    }
    EXPECT_EQ(CountingAllocator::blocksInUse(), before);
}

/// The allocator once more, as a queue without places.
class Model {
public:
    explicit Model(long pool) : m_pool(pool) {}
    long Alloc() {
        if (m_waiting.size() <= 1024) {
            return freshId(m_fresh++, m_pool);
        }
        const long id = nextGeneration(m_waiting.front());
        m_waiting.pop_front();
        return id;
    }
    void Release(long id) {
        if (m_waiting.size() < 204800) {
            m_waiting.push_back(id);
        }
    }

private:
    const long m_pool;
    long m_fresh = 0;
    std::deque<long> m_waiting;
};

TEST(ObjectId, AnyMixOfCallsMatchesAPlainQueue) {
    Orvex::Testing::SeededRandom random;
    CObjectId ids(9);
    Model model(9);
    std::vector<long> in_use;
    for (int round = 0; round < 60; ++round) {
        const bool grow = random.oneIn(2);
        for (int i = random.between(1, 6000); i > 0; --i) {
            if (in_use.empty() || random.oneIn(grow ? 4 : 2) == false) {
                const long id = ids.Alloc();
                ASSERT_EQ(id, model.Alloc());
                in_use.push_back(id);
            } else {
                const size_t place = random.between(size_t{0}, in_use.size() - 1);
                std::swap(in_use[place], in_use.back());
                ids.Release(in_use.back());
                model.Release(in_use.back());
                in_use.pop_back();
            }
        }
        if (!grow) {
            for (const long id : in_use) {
                ids.Release(id);
                model.Release(id);
            }
            in_use.clear();
        }
    }
}

TEST(ObjectId, ThreadsNeverHoldTheSameId) {
    CObjectId ids(0);
    std::mutex mutex;
    std::set<long> in_use;
    std::vector<std::thread> threads;
    bool twice = false;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            std::deque<long> mine;
            for (int i = 0; i < 5000; ++i) {
                mine.push_back(ids.Alloc());
                {
                    const std::lock_guard<std::mutex> guard(mutex);
                    twice = !in_use.insert(mine.back()).second || twice;
                }
                if (mine.size() > 600) {
                    {
                        const std::lock_guard<std::mutex> guard(mutex);
                        in_use.erase(mine.front());
                    }
                    ids.Release(mine.front());
                    mine.pop_front();
                }
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_FALSE(twice);
}

TEST(ObjectId, CounterLeaves32BitsWithoutTruncation) {
    CObjectId ids(5);
    long last = 0;
    for (long i = 0; i < 40000; ++i) {
        last = ids.Alloc();
        ASSERT_EQ(last, freshId(i, 5));
    }
    EXPECT_LT(last, -2147483648L);
    EXPECT_EQ(5, INDEX_OF_ID(last));
}

}  // namespace
