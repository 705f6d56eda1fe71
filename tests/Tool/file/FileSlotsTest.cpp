// CFileSlots: the places of a file's buffers, and the orders in which they are found and written.
#include "Tool/file/FileSlots.h"

#include <ctime>

#include "support/file/FileWorld.h"

namespace Orvex::Reticor {
namespace {

using Testing::BLOCK;

TEST(SlotSet, GivesItsNumbersInOrder) {
    SlotSet set;
    set.Resize(4096);
    EXPECT_EQ(SlotSet::NONE, set.Next(0));
    for (const unsigned number : {4095u, 64u, 0u, 63u}) {
        set.Add(number);
    }
    EXPECT_EQ(0u, set.Next(0));
    EXPECT_EQ(63u, set.Next(1));
    EXPECT_EQ(64u, set.Next(64));
    EXPECT_EQ(4095u, set.Next(65));
    EXPECT_EQ(SlotSet::NONE, set.Next(4096));
    set.Remove(4095);
    EXPECT_EQ(SlotSet::NONE, set.Next(65));
}

class FileSlots : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(slots.Allocate(8)); }

    // The first unused buffer, as a window at `offset` with `bytes` bytes that are not on the device.
    FileSlot& dirty(long long offset, unsigned bytes) {
        FileSlot& slot = *slots.TakeUnused();
        slots.Occupy(slot, offset);
        slot.block();
        bool full = false;
        const std::string data(bytes, 'x');
        slot.Write(data.data(), bytes, full, offset);
        slots.Changed(slot);
        slot.UnLock();
        return slot;
    }
    FileSlot& loaded(long long offset, unsigned bytes, bool eof) {
        FileSlot& slot = *slots.TakeUnused();
        slots.SubmitLoad(slot, offset);
        slot.block();
        slots.EndLoad(slot, bytes, eof);
        return slot;
    }
    std::vector<long long> offsetsToWrite() {
        std::vector<long long> offsets;
        for (const FileSlot* const slot : slots.CollectWrites()) {
            offsets.push_back(slot->m_file_offset);
        }
        return offsets;
    }

    CFileSlots slots;
};

TEST_F(FileSlots, AWindowIsFoundByEachOffsetInIt) {
    FileSlot& far = loaded(10 * BLOCK, 5, false);
    FileSlot& near = loaded(BLOCK, BLOCK, false);
    for (const long long offset : {0LL, BLOCK - 1LL, 2LL * BLOCK, 11LL * BLOCK}) {
        EXPECT_EQ(nullptr, slots.TakeAt(offset)) << offset;
    }
    EXPECT_EQ(&near, slots.TakeAt(BLOCK));
    EXPECT_EQ(nullptr, slots.TakeAt(BLOCK)) << "it is taken";
    near.UnLock();
    EXPECT_EQ(&near, slots.TakeAt(2 * BLOCK - 1));
    EXPECT_EQ(&far, slots.TakeAt(11 * BLOCK - 1));
    slots.Forget(far);
    far.UnLock();
    EXPECT_EQ(nullptr, slots.TakeAt(10 * BLOCK));
}

TEST_F(FileSlots, UnusedOnesComeByIndexAndCleanOnesInTurn) {
    EXPECT_EQ(0u, loaded(0, 1, false).m_index);
    EXPECT_EQ(1u, dirty(BLOCK, 1).m_index);
    EXPECT_EQ(2u, loaded(2 * BLOCK, 1, false).m_index);
    FileSlot* const second = slots.TakeClean(1);
    ASSERT_NE(nullptr, second);
    EXPECT_EQ(2u, second->m_index);
    second->UnLock();
    FileSlot* const again = slots.TakeClean(3);
    ASSERT_NE(nullptr, again);
    EXPECT_EQ(0u, again->m_index);
}

TEST_F(FileSlots, WhatIsDirtyIsSubmittedAndNotFoundUntilItIsWritten) {
    FileSlot& slot = dirty(0, 10);
    loaded(BLOCK, 10, false);
    EXPECT_TRUE(slots.SubmitDirty());
    EXPECT_FALSE(slots.SubmitDirty());
    EXPECT_EQ(CNFileBuf::SUBMIT_WRITE_FREE, slot.GetSubmitType());
    EXPECT_EQ(nullptr, slots.TakeAt(0));
    EXPECT_EQ((std::vector<long long>{0}), offsetsToWrite());
    slots.EndWrite(slot);
    EXPECT_TRUE(offsetsToWrite().empty());
    EXPECT_EQ(nullptr, slot.m_data) << "the block went back";
    EXPECT_EQ(&slot, slots.TakeUnused());
}

TEST_F(FileSlots, AKeptBufferIsCleanAfterItsWrite) {
    FileSlot& slot = dirty(0, 10);
    EXPECT_EQ(&slot, slots.TakeAt(3));
    slots.Submit(slot, CNFileBuf::SUBMIT_WRITE);
    slots.EndWrite(slot);
    EXPECT_EQ(&slot, slots.TakeClean(0));
    EXPECT_FALSE(slot.m_dirty);
    EXPECT_EQ(10, slot.end());
}

TEST_F(FileSlots, WritesGoByOffsetOrBySubmissionWhereTheyOverlap) {
    dirty(3 * BLOCK, 1);
    dirty(0, 1);
    slots.SubmitDirty();
    EXPECT_EQ((std::vector<long long>{0, 3 * BLOCK}), offsetsToWrite());
    dirty(3 * BLOCK - 5, 6);
    slots.SubmitDirty();
    EXPECT_EQ((std::vector<long long>{3 * BLOCK, 0, 3 * BLOCK - 5}), offsetsToWrite());
}

TEST_F(FileSlots, LoadsAreFoundByIndex) {
    EXPECT_EQ(nullptr, slots.NextLoad(0));
    FileSlot& slot = *slots.TakeUnused();
    slots.SubmitLoad(slot, 77);
    EXPECT_EQ(&slot, slots.NextLoad(0));
    EXPECT_EQ(nullptr, slots.NextLoad(1));
    EXPECT_EQ(nullptr, slots.TakeAt(77)) << "it is the pass's";
    slots.EndLoad(slot, 3, false);
    EXPECT_EQ(nullptr, slots.NextLoad(0));
    EXPECT_EQ(&slot, slots.TakeAt(79));
}

TEST_F(FileSlots, AWriteBeyondTheEndOfTheFileOutdatesWhoClaimsThatEnd) {
    loaded(0, 10, true);
    loaded(BLOCK, 10, false);
    slots.OutdateReads(BLOCK - 1);
    EXPECT_NE(nullptr, slots.TakeAt(0)) << "the write is in its window";
    slots.at(0).UnLock();
    slots.OutdateReads(2 * BLOCK);
    EXPECT_EQ(nullptr, slots.TakeAt(0));
    EXPECT_NE(nullptr, slots.TakeAt(BLOCK));
}

// A call that looks at each buffer takes twenty times as long with 4096 of them as with 4, or longer.
TEST(FileSlotsCost, ACallCostsTheSameWithAnyNumberOfBuffers) {
    const auto cost_ns = [](unsigned count) {
        CFileSlots slots;
        EXPECT_TRUE(slots.Allocate(count));
        timespec begin = {};
        timespec end = {};
        ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &begin);
        for (long long i = 0; i < 20000; ++i) {
            slots.OutdateReads(i);
            slots.TakeAt(i);
            FileSlot* const slot = slots.TakeUnused();
            slots.Occupy(*slot, i);
            slots.SubmitDirty();
            slots.CollectWrites();
            slots.Forget(*slot);
            slot->UnLock();
        }
        ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &end);
        return (end.tv_sec - begin.tv_sec) * 1000000000LL + (end.tv_nsec - begin.tv_nsec);
    };
    const long long few = cost_ns(4);
    const long long many = cost_ns(4096);
    EXPECT_LT(many, 10 * few);
}

}  // namespace
}  // namespace Orvex::Reticor
