// RecordTable: records by handle, over chunks that come when they are needed, and without memory.
#include "Core/watch/RecordTable.h"

#include <gtest/gtest.h>

#include <deque>
#include <map>
#include <memory>
#include <vector>

#include "support/SeededRandom.h"
#include "support/core/CountingAllocator.h"

namespace Orvex::Testing {
namespace {

using namespace Reticor;

constexpr uint32_t HANDLES_IN_A_CHUNK = 1024;

class RecordTableCases : public ::testing::Test {
protected:
    RecordTableCases() : m_blocks_before(CountingAllocator::blocksInUse()) {}
    ~RecordTableCases() override {
        table.reset();
        EXPECT_EQ(m_blocks_before, CountingAllocator::blocksInUse()) << "all chunks go with the table";
    }

    CEvent* record(uint32_t handle) {
        CEvent& ev = m_records.emplace_back();
        ev.m_key = handle;
        return &ev;
    }

    std::unique_ptr<RecordTable> table = std::make_unique<RecordTable>();

private:
    std::deque<CEvent> m_records;
    const long m_blocks_before;
};

TEST_F(RecordTableCases, AnEmptyOneFindsNothingAndHasNoMemory) {
    const long before = CountingAllocator::blocksInUse();
    const RecordTable empty;
    for (const uint32_t handle : {0u, 1u, HANDLES_IN_A_CHUNK, 0xFFFFFFFFu}) {
        EXPECT_EQ(nullptr, empty.Find(handle));
    }
    EXPECT_EQ(before, CountingAllocator::blocksInUse());
}

TEST_F(RecordTableCases, FindsEachRecordUnderItsOwnHandleOnly) {
    CEvent* const zero = record(0);
    CEvent* const last = record(HANDLES_IN_A_CHUNK - 1);
    CEvent* const next = record(HANDLES_IN_A_CHUNK);
    for (CEvent* ev : {zero, last, next}) {
        EXPECT_TRUE(table->Add(ev));
    }
    EXPECT_EQ(zero, table->Find(0));
    EXPECT_EQ(last, table->Find(HANDLES_IN_A_CHUNK - 1));
    EXPECT_EQ(next, table->Find(HANDLES_IN_A_CHUNK));
    EXPECT_EQ(nullptr, table->Find(1));
    EXPECT_EQ(nullptr, table->Find(HANDLES_IN_A_CHUNK - 2));
    EXPECT_EQ(nullptr, table->Find(HANDLES_IN_A_CHUNK + 1));
    EXPECT_EQ(nullptr, table->Find(2 * HANDLES_IN_A_CHUNK)) << "just above the last chunk";
}

TEST_F(RecordTableCases, TheLatestRecordOfAHandleCounts) {
    CEvent* const first = record(5);
    CEvent* const second = record(5);
    EXPECT_TRUE(table->Add(first));
    EXPECT_TRUE(table->Add(second));
    EXPECT_EQ(second, table->Find(5));
    EXPECT_TRUE(table->Remove(first)) << "by the handle, whoever is there";
    EXPECT_EQ(nullptr, table->Find(5));
}

TEST_F(RecordTableCases, RemovalTellsWhetherAnythingWasThere) {
    CEvent* const ev = record(2000);
    EXPECT_FALSE(table->Remove(ev)) << "of an empty table";
    EXPECT_TRUE(table->Add(ev));
    EXPECT_FALSE(table->Remove(record(2001)));
    EXPECT_FALSE(table->Remove(record(3))) << "in a chunk that was never made";
    EXPECT_FALSE(table->Remove(record(100000))) << "above all chunks";
    EXPECT_TRUE(table->Remove(ev));
    EXPECT_FALSE(table->Remove(ev));
}

// A great handle costs a list of chunks and one chunk, not all those below it.
TEST_F(RecordTableCases, AGreatHandleTakesOneChunk) {
    const long before = CountingAllocator::blocksInUse();
    EXPECT_TRUE(table->Add(record(1000000)));
    EXPECT_EQ(before + 2, CountingAllocator::blocksInUse());
    EXPECT_TRUE(table->Add(record(1000000 - HANDLES_IN_A_CHUNK * 3)));
    EXPECT_EQ(before + 3, CountingAllocator::blocksInUse());
    EXPECT_TRUE(table->Add(record(1000001)));
    EXPECT_EQ(before + 3, CountingAllocator::blocksInUse());
    EXPECT_EQ(nullptr, table->Find(0));
}

TEST_F(RecordTableCases, RecordsStayWhenTheTableGrows) {
    std::vector<CEvent*> added;
    for (uint32_t chunk = 0; chunk < 20; ++chunk) {
        added.push_back(record(chunk * HANDLES_IN_A_CHUNK + chunk));
        EXPECT_TRUE(table->Add(added.back()));
        for (const CEvent* ev : added) {
            ASSERT_EQ(ev, table->Find(static_cast<uint32_t>(ev->m_key)));
        }
    }
}

TEST_F(RecordTableCases, WithoutMemoryNothingIsAddedAndNothingLost) {
    CEvent* const there = record(7);
    EXPECT_TRUE(table->Add(there));
    CEvent* const same_chunk = record(8);
    CEvent* const far = record(4000);
    for (long grace = 0; grace < 2; ++grace) {  // the list of chunks, and the chunk
        const CountingAllocator::NoMemory no_memory(grace);
        EXPECT_FALSE(table->Add(far));
        EXPECT_EQ(nullptr, table->Find(4000));
        EXPECT_FALSE(table->Remove(far));
        EXPECT_EQ(there, table->Find(7));
    }
    {
        const CountingAllocator::NoMemory no_memory;
        EXPECT_TRUE(table->Add(same_chunk)) << "its chunk is there";
        EXPECT_TRUE(table->Remove(same_chunk));
        EXPECT_TRUE(table->Add(same_chunk));
    }
    EXPECT_TRUE(table->Add(far));
    EXPECT_EQ(far, table->Find(4000));
}

TEST_F(RecordTableCases, AnyMixOfCallsMatchesAMapWhileMemoryFailsNowAndThen) {
    SeededRandom random;
    std::map<uint32_t, CEvent*> model;
    std::vector<uint32_t> handles;
    for (int i = 0; i < 300; ++i) {
        handles.push_back(random.between(0u, 1u << random.between(4, 17)));
    }
    for (int i = 0; i < 5000; ++i) {
        const uint32_t handle = handles[random.between(size_t{0}, handles.size() - 1)];
        CEvent* const ev = record(handle);
        if (random.oneIn(2)) {
            bool added = false;
            if (random.oneIn(4)) {
                const CountingAllocator::NoMemory no_memory(random.between(0, 1));
                added = table->Add(ev);
            } else {
                added = table->Add(ev);
                ASSERT_TRUE(added);
            }
            if (added) {
                model[handle] = ev;
            }
        } else {
            ASSERT_EQ(model.erase(handle) != 0, table->Remove(ev));
        }
        for (const uint32_t any : handles) {
            const auto known = model.find(any);
            ASSERT_EQ(known != model.end() ? known->second : nullptr, table->Find(any)) << "call " << i;
        }
    }
}

}  // namespace
}  // namespace Orvex::Testing
