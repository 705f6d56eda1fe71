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

TEST_F(FileSlots, LoadsBeginInTheOrderOfTheirSubmissionAndOnce) {
    slots.CollectWrites();
    EXPECT_EQ(nullptr, slots.BeginLoad());
    FileSlot& other = loaded(20 * BLOCK, 1, false);
    FileSlot& earlier = *slots.TakeUnused();
    slots.SubmitLoad(earlier, 77);
    EXPECT_EQ(&other, slots.TakeAt(20 * BLOCK));
    slots.Forget(other);
    slots.SubmitLoad(other, 7 * BLOCK);
    ASSERT_LT(other.m_index, earlier.m_index);
    slots.CollectWrites();
    EXPECT_EQ(&earlier, slots.BeginLoad());
    EXPECT_EQ(&other, slots.BeginLoad());
    EXPECT_EQ(nullptr, slots.BeginLoad());
    EXPECT_EQ(nullptr, slots.TakeAt(77)) << "it is the pass's";
    EXPECT_TRUE(slots.EndLoad(earlier, 3, false)) << "somebody waits";
    EXPECT_EQ(nullptr, slots.BeginLoad());
    EXPECT_EQ(&earlier, slots.TakeAt(79));
}

TEST_F(FileSlots, ALoadIsNotBegunBeforeWhatHadToBeWrittenWasCollected) {
    slots.CollectWrites();
    dirty(0, 10);
    slots.SubmitDirty();
    EXPECT_EQ(AheadPlace::submitted, slots.LoadAhead(BLOCK, 0));
    EXPECT_EQ(nullptr, slots.BeginLoad()) << "the bytes at 0 are not on the device";
    EXPECT_EQ(std::vector<long long>{0}, offsetsToWrite());
    EXPECT_NE(nullptr, slots.BeginLoad());
}

// ---- reading ahead

TEST_F(FileSlots, AheadAWindowIsLoadedOnce) {
    EXPECT_EQ(AheadPlace::submitted, slots.LoadAhead(BLOCK, 0));
    EXPECT_EQ(AheadPlace::there, slots.LoadAhead(BLOCK, 0)) << "it is to be loaded";
    EXPECT_EQ(AheadPlace::none, slots.LoadAhead(BLOCK + 1, 0)) << "half of it is";
    loaded(4 * BLOCK, BLOCK, false);
    EXPECT_EQ(AheadPlace::there, slots.LoadAhead(4 * BLOCK, 0));
    EXPECT_EQ(AheadPlace::none, slots.LoadAhead(4 * BLOCK - 1, 0));
    EXPECT_EQ(AheadPlace::none, slots.LoadAhead(5 * BLOCK - 1, 0));
    EXPECT_EQ(AheadPlace::submitted, slots.LoadAhead(5 * BLOCK, 0));
}

TEST_F(FileSlots, AheadNothingIsLoadedAfterTheEndOfTheFile) {
    loaded(0, 10, true);
    EXPECT_EQ(AheadPlace::none, slots.LoadAhead(BLOCK, 0));
    for (long long block : {4, 5, 6}) {
        EXPECT_EQ(AheadPlace::submitted, slots.LoadAhead(block * BLOCK, 0));
    }
    slots.CollectWrites();
    FileSlot& first = *slots.BeginLoad();
    first.block();
    EXPECT_FALSE(slots.EndLoad(first, 10, true)) << "nobody waits";
    EXPECT_EQ(nullptr, slots.BeginLoad()) << "the others were given up";
}

TEST_F(FileSlots, AheadTakesTheFirstCleanWindowButNoneThatIsYetToBeRead) {
    ASSERT_TRUE(slots.Allocate(3));
    FileSlot& ahead = loaded(2 * BLOCK, BLOCK, false);
    FileSlot& behind = loaded(0, BLOCK, false);
    FileSlot& here = loaded(BLOCK, BLOCK, false);
    EXPECT_EQ(AheadPlace::submitted, slots.LoadAhead(3 * BLOCK, BLOCK));
    EXPECT_EQ(3LL * BLOCK, behind.m_file_offset);
    EXPECT_EQ(AheadPlace::none, slots.LoadAhead(4 * BLOCK, BLOCK));
    EXPECT_EQ(&here, slots.TakeAt(BLOCK));
    EXPECT_EQ(&ahead, slots.TakeAt(2 * BLOCK));
}

TEST_F(FileSlots, ALoadThatIsAwaitedIsNotGivenUpAndStaleOnesAreNotAwaited) {
    EXPECT_FALSE(slots.HasLoad(BLOCK));
    slots.LoadAhead(BLOCK, 0);
    slots.LoadAhead(2 * BLOCK, 0);
    slots.LoadAhead(3 * BLOCK, 0);
    EXPECT_TRUE(slots.AwaitLoad(2 * BLOCK - 1));
    slots.OutdateReads(3 * BLOCK);
    EXPECT_FALSE(slots.HasLoad(3 * BLOCK));
    EXPECT_FALSE(slots.AwaitLoad(3 * BLOCK));
    slots.DropLoads(false);
    slots.CollectWrites();
    FileSlot* const awaited = slots.BeginLoad();
    ASSERT_NE(nullptr, awaited);
    EXPECT_EQ(BLOCK, awaited->m_file_offset);
    EXPECT_EQ(nullptr, slots.BeginLoad());
    EXPECT_FALSE(slots.FailAhead(*awaited));
    EXPECT_TRUE(slots.HasLoad(BLOCK)) << "it has failed for good";
}

TEST_F(FileSlots, WithoutATaskAwaitedLoadsAreGivenUpTooButNotTheOneThatHasBegun) {
    slots.LoadAhead(0, 0);
    slots.CollectWrites();
    FileSlot* const begun = slots.BeginLoad();
    slots.LoadAhead(BLOCK, 0);
    EXPECT_TRUE(slots.AwaitLoad(BLOCK));
    slots.DropLoads(true);
    EXPECT_FALSE(slots.HasLoad(BLOCK));
    EXPECT_TRUE(slots.HasLoad(0));
    EXPECT_TRUE(slots.FailAhead(*begun)) << "nobody waits for it";
    EXPECT_FALSE(slots.HasLoad(0));
}

TEST_F(FileSlots, AReadElsewhereInWhatIsReadAheadTakesItsPlace) {
    slots.LoadAhead(0, 0);
    slots.LoadAhead(BLOCK, 0);
    slots.CollectWrites();
    FileSlot& begun = *slots.BeginLoad();
    begun.block();
    slots.SubmitLoad(*slots.TakeUnused(), BLOCK / 2);
    EXPECT_TRUE(slots.HasLoad(BLOCK)) << "in the new one";
    EXPECT_FALSE(slots.EndLoad(begun, BLOCK, false));
    EXPECT_EQ(nullptr, slots.TakeAt(0)) << "its bytes would be there twice";
    slots.CollectWrites();
    EXPECT_EQ(BLOCK / 2, slots.BeginLoad()->m_file_offset);
    EXPECT_EQ(nullptr, slots.BeginLoad());
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
