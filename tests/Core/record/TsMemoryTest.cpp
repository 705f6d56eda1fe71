// CTsMemory: size classes, tables of threads and the shared one, and what happens without memory.
#include <Reticor/TsMemory.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <deque>
#include <mutex>
#include <thread>
#include <type_traits>
#include <vector>

#include "Core/record/MemTables.h"
#include "support/Eventually.h"
#include "support/KernelThread.h"
#include "support/SeededRandom.h"
#include "support/core/CountingAllocator.h"

namespace Orvex::Reticor {

/// Opens the state of CTsMemory to its tests.
struct TsMemoryProbe {
    static constexpr int CLASS_COUNT = MemTables::CLASS_COUNT;
    static unsigned long key() {
        Infra::CGuard guard(MemTables::sm_key_mutex);
        return MemTables::sm_key;
    }
    static Infra::CMutex& poolMutex() { return MemTables::sm_pool_mutex; }
    static mem_head* shared() { return MemTables::sm_shared; }
    static const mem_head& classAt(int index) { return MemTables::TEMPLATE[index]; }
};

}  // namespace Orvex::Reticor

namespace {

using Orvex::Reticor::CTsMemory;
using Orvex::Reticor::mem_head;
using Orvex::Reticor::TsMemoryProbe;
using Orvex::Testing::CountingAllocator;

constexpr unsigned long NO_KEY = static_cast<unsigned long>(-1);

/// What stands in front of a block.
struct Header {
    int32_t index;
    int32_t size;
    void* next;
};

Header headerOf(const void* block) {
    Header header;
    std::memcpy(&header, static_cast<const char*>(block) - sizeof(Header), sizeof(Header));
    return header;
}

/// The 45 sizes, written down once more.
const std::vector<unsigned int>& classSizes() {
    static const std::vector<unsigned int> sizes = {
        8,     16,     24,     32,     40,     48,     56,     64,     72,    80,    88,    96,
        104,   112,    120,    128,    256,    512,    1500,   4096,   8192,  12288, 16384, 20480,
        24576, 28672,  32768,  36864,  40960,  45056,  49152,  53248,  57344, 61440, 65536, 81920,
        98304, 114688, 131072, 147456, 163840, 180224, 196608, 212992, 229376};
    return sizes;
}

int smallestClass(unsigned int size) {
    int index = 0;
    while (classSizes()[static_cast<std::size_t>(index)] < size) {
        ++index;
    }
    return index;
}

unsigned int mostBlocks(int index) {
    return index == 18 ? 4096U : index <= 20 ? 2048U : index <= 36 ? 128U : 64U;
}

/// Every case runs on a thread with a table, and leaves nothing behind.
class TsMemory : public testing::Test {
protected:
    void SetUp() override {
        m_blocks_before = CountingAllocator::blocksInUse();
        CTsMemory::InitStaticVal();
        CTsMemory::CreateMemPool();
    }
    void TearDown() override {
        CTsMemory::DestroyThreadMemPool();
        CTsMemory::DestroyMemPool();
        EXPECT_EQ(CountingAllocator::blocksInUse(), m_blocks_before) << "blocks were lost";
    }

private:
    long m_blocks_before = 0;
};

/// Runs `body` on a thread without a table.
template <typename Body>
void onPlainThread(Body body) {
    std::thread thread(body);
    thread.join();
}

TEST(TsMemoryAtLoad, ThereIsNoSlotAndNoSharedTable) {
    EXPECT_EQ(NO_KEY, TsMemoryProbe::key());
    EXPECT_EQ(nullptr, TsMemoryProbe::shared());
    void* own = CTsMemory::TsMalloc(10);
    void* shared = CTsMemory::Malloc(10);
    EXPECT_EQ(-1, headerOf(own).index);
    EXPECT_EQ(-1, headerOf(shared).index);
    CTsMemory::TsFree(own);
    CTsMemory::Free(shared);
    CTsMemory::DestroyMemPool();
}

TEST_F(TsMemory, EveryClassHasItsSizeAndItsLimit) {
    ASSERT_EQ(46, TsMemoryProbe::CLASS_COUNT);
    ASSERT_EQ(45U, classSizes().size());
    for (int i = 0; i < 45; ++i) {
        const mem_head& head = TsMemoryProbe::classAt(i);
        EXPECT_EQ(head.m_size, classSizes()[static_cast<std::size_t>(i)]) << "class " << i;
        EXPECT_EQ(head.m_max, mostBlocks(i)) << "class " << i;
        EXPECT_EQ(0, head.m_count);
        EXPECT_EQ(nullptr, head.m_first);
    }
    EXPECT_EQ(0U, TsMemoryProbe::classAt(45).m_size);
    EXPECT_EQ(0, TsMemoryProbe::classAt(45).m_max);
}

TEST_F(TsMemory, EverySizeGetsTheSmallestClassThatHoldsIt) {
    for (unsigned int size = 1; size <= 229376; ++size) {
        void* block = CTsMemory::TsMalloc(size);
        const Header header = headerOf(block);
        CTsMemory::TsFree(block);
        ASSERT_EQ(header.index, smallestClass(size)) << "size " << size;
        ASSERT_EQ(static_cast<unsigned int>(header.size),
                  classSizes()[static_cast<std::size_t>(header.index)]);
    }
}

TEST_F(TsMemory, SharedTableUsesTheSameClasses) {
    for (const unsigned int size : classSizes()) {
        for (const unsigned int asked : {size, size + 1}) {
            void* block = CTsMemory::Malloc(asked);
            EXPECT_EQ(headerOf(block).index, asked > 229376 ? -1 : smallestClass(asked)) << asked;
            CTsMemory::Free(block);
        }
    }
}

TEST_F(TsMemory, LargestPooledSizeIsOfTheLastClassAndKept) {
    void* block = CTsMemory::TsMalloc(229376);
    EXPECT_EQ(44, headerOf(block).index);
    EXPECT_EQ(229376, headerOf(block).size);
    CTsMemory::TsFree(block);
    EXPECT_EQ(CTsMemory::TsMalloc(229376), block);
    CTsMemory::TsFree(block);
}

TEST_F(TsMemory, OneByteMoreIsOutsideTheClassesAndGoesBackToTheGeneralAllocator) {
    const long before = CountingAllocator::blocksInUse();
    void* block = CTsMemory::TsMalloc(229377);
    EXPECT_EQ(-1, headerOf(block).index);
    std::memset(block, 0x5A, 229377);
    EXPECT_EQ(CountingAllocator::blocksInUse(), before + 1);
    CTsMemory::TsFree(block);
    EXPECT_EQ(CountingAllocator::blocksInUse(), before);
}

TEST_F(TsMemory, SharedTableSendsLargeBlocksBackToo) {
    const long before = CountingAllocator::blocksInUse();
    void* block = CTsMemory::Malloc(300000);
    EXPECT_EQ(-1, headerOf(block).index);
    CTsMemory::Free(block);
    EXPECT_EQ(CountingAllocator::blocksInUse(), before);
}

TEST_F(TsMemory, Size1500IsAPacketAndSize1501IsAPage) {
    void* packet = CTsMemory::TsMalloc(1500);
    void* page = CTsMemory::TsMalloc(1501);
    EXPECT_EQ(18, headerOf(packet).index);
    EXPECT_EQ(19, headerOf(page).index);
    CTsMemory::TsFree(packet);
    CTsMemory::TsFree(page);
}

TEST_F(TsMemory, SizeZeroCountsAsOne) {
    void* own = CTsMemory::TsMalloc(0);
    void* shared = CTsMemory::Malloc(0);
    EXPECT_EQ(0, headerOf(own).index);
    EXPECT_EQ(0, headerOf(shared).index);
    CTsMemory::TsFree(own);
    CTsMemory::Free(shared);
    onPlainThread([] {
        void* block = CTsMemory::TsMalloc(0);
        EXPECT_EQ(17U, CountingAllocator::lastSize());
        CTsMemory::TsFree(block);
    });
}

TEST_F(TsMemory, FreeingNullDoesNothing) {
    const long before = CountingAllocator::blocksFreed();
    CTsMemory::TsFree(nullptr);
    CTsMemory::Free(nullptr);
    onPlainThread([] { CTsMemory::TsFree(nullptr); });
    EXPECT_EQ(CountingAllocator::blocksFreed(), before);
}

TEST_F(TsMemory, BlocksAreAlignedAndUsableToTheirLastByte) {
    std::vector<void*> blocks;
    for (const unsigned int size : classSizes()) {
        void* block = CTsMemory::TsMalloc(size);
        EXPECT_EQ(0U, reinterpret_cast<std::uintptr_t>(block) % 16);
        std::memset(block, 0xA5, size);
        blocks.push_back(block);
    }
    for (void* block : blocks) {
        CTsMemory::TsFree(block);
    }
}

TEST_F(TsMemory, FreedBlocksComeBackFirstInFirstOut) {
    void* blocks[5];
    for (void*& block : blocks) {
        block = CTsMemory::TsMalloc(64);
    }
    const int order[5] = {3, 0, 4, 1, 2};
    for (const int i : order) {
        CTsMemory::TsFree(blocks[i]);
    }
    const long given = CountingAllocator::blocksInUse();
    for (const int i : order) {
        EXPECT_EQ(CTsMemory::TsMalloc(57), blocks[i]) << "any size of the class takes the oldest block";
    }
    EXPECT_EQ(CountingAllocator::blocksInUse(), given);
    for (void* block : blocks) {
        CTsMemory::TsFree(block);
    }
}

TEST_F(TsMemory, ListThatRanEmptyFillsAgain) {
    void* first = CTsMemory::TsMalloc(4096);
    CTsMemory::TsFree(first);
    EXPECT_EQ(CTsMemory::TsMalloc(4096), first);
    void* second = CTsMemory::TsMalloc(4096);
    CTsMemory::TsFree(second);
    CTsMemory::TsFree(first);
    EXPECT_EQ(CTsMemory::TsMalloc(4096), second);
    EXPECT_EQ(CTsMemory::TsMalloc(4096), first);
    CTsMemory::TsFree(first);
    CTsMemory::TsFree(second);
}

TEST_F(TsMemory, LinkIsNullWhileABlockIsInUse) {
    void* blocks[3];
    for (void*& block : blocks) {
        block = CTsMemory::TsMalloc(512);
        EXPECT_EQ(nullptr, headerOf(block).next) << "fresh";
    }
    for (void* block : blocks) {
        CTsMemory::TsFree(block);
    }
    EXPECT_NE(nullptr, headerOf(blocks[0]).next) << "in the list, with another after it";
    for (void* expected : blocks) {
        void* block = CTsMemory::TsMalloc(512);
        EXPECT_EQ(block, expected);
        EXPECT_EQ(nullptr, headerOf(block).next) << "recycled";
    }
    for (void* block : blocks) {
        CTsMemory::TsFree(block);
    }
    void* shared = CTsMemory::Malloc(512);
    CTsMemory::Free(shared);
    void* again = CTsMemory::Malloc(512);
    EXPECT_EQ(nullptr, headerOf(again).next);
    CTsMemory::Free(again);
}

/// Frees `spare` blocks more than the class keeps, and counts what the general allocator gets of them.
template <typename Take, typename Give>
void fillBeyondTheLimit(Take take, Give give, unsigned int size, unsigned int limit) {
    constexpr unsigned int SPARE = 3;
    std::vector<void*> blocks;
    for (unsigned int i = 0; i < limit + SPARE; ++i) {
        blocks.push_back(take(size));
    }
    const long before = CountingAllocator::blocksFreed();
    for (unsigned int i = 0; i < limit; ++i) {
        give(blocks[i]);
    }
    EXPECT_EQ(CountingAllocator::blocksFreed(), before) << "up to the limit all are kept";
    for (unsigned int i = limit; i < limit + SPARE; ++i) {
        give(blocks[i]);
    }
    EXPECT_EQ(CountingAllocator::blocksFreed(), before + SPARE) << "beyond it none is";
    for (unsigned int i = 0; i < limit; ++i) {
        ASSERT_EQ(take(size), blocks[i]);
    }
    for (unsigned int i = 0; i < limit; ++i) {
        give(blocks[i]);
    }
    EXPECT_EQ(CountingAllocator::blocksFreed(), before + SPARE) << "room that was taken from is room again";
}

TEST_F(TsMemory, FullClassSendsTheNextFreedBlockToTheGeneralAllocator) {
    for (const unsigned int size : {8U, 512U, 1500U, 8192U, 12288U, 98304U, 114688U, 229376U}) {
        SCOPED_TRACE(size);
        fillBeyondTheLimit(CTsMemory::TsMalloc, CTsMemory::TsFree, size, mostBlocks(smallestClass(size)));
    }
}

TEST_F(TsMemory, FullSharedClassDoesSoToo) {
    fillBeyondTheLimit(CTsMemory::Malloc, CTsMemory::Free, 131072, 64);
}

TEST_F(TsMemory, LimitHoldsThroughAnyMixOfTakingAndPutting) {
    Orvex::Testing::SeededRandom random;
    constexpr std::size_t LIMIT = 64;
    std::vector<void*> in_use;
    std::size_t in_list = 0;
    for (int step = 0; step < 20000; ++step) {
        const bool take = in_use.empty() || (in_use.size() < 3 * LIMIT && random.oneIn(2));
        const long freed = CountingAllocator::blocksFreed();
        if (take) {
            in_use.push_back(CTsMemory::TsMalloc(120000));
            in_list -= in_list > 0 ? 1 : 0;
        } else {
            CTsMemory::TsFree(in_use.back());
            in_use.pop_back();
            const bool kept = CountingAllocator::blocksFreed() == freed;
            ASSERT_EQ(kept, in_list < LIMIT) << "step " << step << ", in the list: " << in_list;
            in_list += kept ? 1 : 0;
        }
    }
    for (void* block : in_use) {
        CTsMemory::TsFree(block);
    }
}

TEST_F(TsMemory, ThreadWithoutATableAllocatesOutsideTheClasses) {
    onPlainThread([] {
        const long before = CountingAllocator::blocksInUse();
        void* block = CTsMemory::TsMalloc(64);
        EXPECT_EQ(-1, headerOf(block).index);
        EXPECT_EQ(nullptr, headerOf(block).next);
        EXPECT_EQ(64U + 16U, CountingAllocator::lastSize());
        CTsMemory::TsFree(block);
        EXPECT_EQ(CountingAllocator::blocksInUse(), before);
    });
}

TEST_F(TsMemory, ClassBlockFreedOnAThreadWithoutATableGoesToTheGeneralAllocator) {
    void* block = CTsMemory::TsMalloc(64);
    ASSERT_EQ(7, headerOf(block).index);
    onPlainThread([block] {
        const long before = CountingAllocator::blocksFreed();
        CTsMemory::TsFree(block);
        EXPECT_EQ(CountingAllocator::blocksFreed(), before + 1);
    });
}

TEST_F(TsMemory, ClassBlockFreedAfterTheSharedTableWentGoesToTheGeneralAllocator) {
    void* block = CTsMemory::Malloc(1500);
    CTsMemory::DestroyMemPool();
    const long before = CountingAllocator::blocksFreed();
    CTsMemory::Free(block);
    EXPECT_EQ(CountingAllocator::blocksFreed(), before + 1);
    void* outside = CTsMemory::Malloc(1500);
    EXPECT_EQ(-1, headerOf(outside).index);
    CTsMemory::Free(outside);
}

TEST_F(TsMemory, BlockJoinsTheTableItIsFreedTo) {
    void* from_thread = nullptr;
    onPlainThread([&from_thread] {
        CTsMemory::CreateMemPool();
        from_thread = CTsMemory::TsMalloc(100);
        CTsMemory::DestroyThreadMemPool();
    });
    EXPECT_EQ(12, headerOf(from_thread).index) << "a block in use outlives the table that it came from";
    CTsMemory::TsFree(from_thread);
    EXPECT_EQ(CTsMemory::TsMalloc(100), from_thread);

    CTsMemory::Free(from_thread);
    EXPECT_EQ(CTsMemory::Malloc(100), from_thread);

    CTsMemory::TsFree(from_thread);
    EXPECT_EQ(CTsMemory::TsMalloc(100), from_thread);
    CTsMemory::TsFree(from_thread);
}

TEST_F(TsMemory, SecondCreateKeepsTheTable) {
    void* block = CTsMemory::TsMalloc(64);
    CTsMemory::TsFree(block);
    mem_head* shared = TsMemoryProbe::shared();
    const long before = CountingAllocator::blocksInUse();
    CTsMemory::CreateMemPool();
    EXPECT_EQ(CountingAllocator::blocksInUse(), before);
    EXPECT_EQ(TsMemoryProbe::shared(), shared);
    EXPECT_EQ(CTsMemory::TsMalloc(64), block);
    CTsMemory::TsFree(block);
}

TEST_F(TsMemory, DestroyThreadMemPoolFreesTheListsAndForgetsTheTable) {
    std::vector<void*> blocks;
    for (const unsigned int size : classSizes()) {
        blocks.push_back(CTsMemory::TsMalloc(size));
        blocks.push_back(CTsMemory::TsMalloc(size));
    }
    const long before = CountingAllocator::blocksInUse();
    for (void* block : blocks) {
        CTsMemory::TsFree(block);
    }
    EXPECT_EQ(CountingAllocator::blocksInUse(), before);
    CTsMemory::DestroyThreadMemPool();
    EXPECT_EQ(CountingAllocator::blocksInUse(), before - static_cast<long>(blocks.size()) - 1)
        << "all blocks and the table itself";
    void* block = CTsMemory::TsMalloc(64);
    EXPECT_EQ(-1, headerOf(block).index);
    CTsMemory::TsFree(block);
    CTsMemory::DestroyThreadMemPool();
    EXPECT_EQ(CountingAllocator::blocksInUse(), before - static_cast<long>(blocks.size()) - 1)
        << "a second call finds nothing";
}

TEST_F(TsMemory, ThreadGetsANewTableAfterItGaveUpTheFirst) {
    CTsMemory::DestroyThreadMemPool();
    CTsMemory::CreateMemPool();
    void* block = CTsMemory::TsMalloc(64);
    EXPECT_EQ(7, headerOf(block).index);
    CTsMemory::TsFree(block);
    EXPECT_EQ(CTsMemory::TsMalloc(64), block);
    CTsMemory::TsFree(block);
}

TEST_F(TsMemory, SlotNumberIsSetByTheFirstTableAndKeptUntilTheNextStart) {
    CTsMemory::DestroyMemPool();
    CTsMemory::InitStaticVal();
    EXPECT_EQ(NO_KEY, TsMemoryProbe::key());
    EXPECT_EQ(nullptr, TsMemoryProbe::shared());
    CTsMemory::CreateMemPool();
    const unsigned long key = TsMemoryProbe::key();
    EXPECT_NE(NO_KEY, key);
    EXPECT_NE(nullptr, TsMemoryProbe::shared());
    CTsMemory::DestroyMemPool();
    EXPECT_EQ(nullptr, TsMemoryProbe::shared());
    EXPECT_EQ(TsMemoryProbe::key(), key);
    CTsMemory::InitStaticVal();
    EXPECT_EQ(NO_KEY, TsMemoryProbe::key());
}

TEST_F(TsMemory, SumsDoNotWrapRoundForTheLargestSizes) {
    const CountingAllocator::NoMemory no_memory;
    for (const unsigned int size : {0xFFFFFFF0U, 0xFFFFFFF1U, 0xFFFFFFFFU}) {
        EXPECT_EQ(nullptr, CTsMemory::TsMalloc(size));
        EXPECT_EQ(CountingAllocator::lastSize(), static_cast<std::size_t>(size) + 16);
        EXPECT_EQ(nullptr, CTsMemory::Malloc(size));
        EXPECT_EQ(CountingAllocator::lastSize(), static_cast<std::size_t>(size) + 16);
    }
}

TEST_F(TsMemory, NoMemoryGivesNull) {
    void* kept = CTsMemory::TsMalloc(64);
    CTsMemory::TsFree(kept);
    {
        const CountingAllocator::NoMemory no_memory;
        EXPECT_EQ(nullptr, CTsMemory::TsMalloc(300));
        EXPECT_EQ(nullptr, CTsMemory::TsMalloc(300000));
        EXPECT_EQ(nullptr, CTsMemory::Malloc(300));
        EXPECT_EQ(CTsMemory::TsMalloc(64), kept) << "what waits in a list is still to be had";
        onPlainThread([] { EXPECT_EQ(nullptr, CTsMemory::TsMalloc(64)); });
    }
    CTsMemory::TsFree(kept);
}

TEST_F(TsMemory, NoMemoryForATableLeavesTheThreadWithoutOne) {
    CTsMemory::DestroyMemPool();
    onPlainThread([] {
        {
            const CountingAllocator::NoMemory no_memory;
            CTsMemory::CreateMemPool();
        }
        void* block = CTsMemory::TsMalloc(64);
        EXPECT_EQ(-1, headerOf(block).index);
        CTsMemory::TsFree(block);
        EXPECT_EQ(nullptr, TsMemoryProbe::shared());
        CTsMemory::DestroyThreadMemPool();
    });
    CTsMemory::CreateMemPool();
    EXPECT_NE(nullptr, TsMemoryProbe::shared()) << "the next worker makes up for it";
}

TEST_F(TsMemory, WorkersThatStartTogetherShareOneTableAndLoseNone) {
    for (int round = 0; round < 50; ++round) {
        CTsMemory::DestroyMemPool();
        const long before = CountingAllocator::blocksInUse();
        std::atomic<int> ready{0};
        std::vector<std::thread> threads;
        for (int i = 0; i < 4; ++i) {
            threads.emplace_back([&ready] {
                ++ready;
                while (ready < 4) {
                    std::this_thread::yield();
                }
                CTsMemory::CreateMemPool();
                CTsMemory::DestroyThreadMemPool();
            });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
        ASSERT_EQ(CountingAllocator::blocksInUse(), before + 1) << "the shared table alone stays";
    }
}

TEST_F(TsMemory, WorkerThatComesSecondWithTheSharedTableGivesItsOwnBack) {
    CTsMemory::DestroyMemPool();
    const long before = CountingAllocator::blocksInUse();
    mem_head* of_the_first = nullptr;
    std::thread second([&of_the_first] {
        // Its own table is the first allocation. The shared one is the second, and somebody is quicker.
        CountingAllocator::runAtAllocation(1, [&of_the_first] {
            onPlainThread([] {
                CTsMemory::CreateMemPool();
                CTsMemory::DestroyThreadMemPool();
            });
            of_the_first = TsMemoryProbe::shared();
        });
        CTsMemory::CreateMemPool();
        CTsMemory::DestroyThreadMemPool();
    });
    second.join();
    EXPECT_NE(nullptr, of_the_first);
    EXPECT_EQ(TsMemoryProbe::shared(), of_the_first);
    EXPECT_EQ(CountingAllocator::blocksInUse(), before + 1);
}

TEST_F(TsMemory, ThreadsExchangeBlocksThroughTheSharedTable) {
    std::vector<std::thread> threads;
    std::atomic<void*> mailbox{nullptr};
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&mailbox, t] {
            CTsMemory::CreateMemPool();
            for (int i = 0; i < 5000; ++i) {
                const unsigned int size = static_cast<unsigned int>(1 + (i * 37 + t) % 3000);
                void* block = (i & 1) != 0 ? CTsMemory::Malloc(size) : CTsMemory::TsMalloc(size);
                std::memset(block, t, size);
                void* other = mailbox.exchange(block);
                (i & 2) != 0 ? CTsMemory::Free(other) : CTsMemory::TsFree(other);
            }
            CTsMemory::DestroyThreadMemPool();
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    CTsMemory::Free(mailbox);
}

TEST_F(TsMemory, SharedTableMayGoWhileOthersUseIt) {
    std::atomic<bool> stop{false};
    std::thread user([&stop] {
        while (!stop) {
            CTsMemory::Free(CTsMemory::Malloc(200));
        }
    });
    for (int i = 0; i < 200; ++i) {
        CTsMemory::DestroyMemPool();
        CTsMemory::CreateMemPool();
    }
    stop = true;
    user.join();
}

TEST_F(TsMemory, ThreadThatWaitedForTheSharedTableSeesThatItHasGone) {
    CTsMemory::Free(CTsMemory::Malloc(64));
    std::atomic<int> thread_id{0};
    std::thread other;
    {
        Orvex::Infra::CGuard guard(TsMemoryProbe::poolMutex());
        other = std::thread([&thread_id] {
            thread_id = Orvex::Testing::kernelThreadId();
            void* block = CTsMemory::Malloc(64);
            EXPECT_EQ(7, headerOf(block).index);
            std::memset(block, 1, 64);
            CTsMemory::Free(block);
        });
        EXPECT_EVENTUALLY(thread_id != 0 && Orvex::Testing::sleepsInFutex(thread_id));
        CTsMemory::DestroyMemPool();
    }
    other.join();
}

TEST_F(TsMemory, ObjectsOfTheClassHoldNothing) {
    CTsMemory first;
    CTsMemory second(first);
    second = first;
    EXPECT_TRUE(std::is_empty_v<CTsMemory>);
}

// ---- against a model -------------------------------------------------------------------------------------

/// A class of a table as a plain queue: blocks in it, first in, first out. What does not fit is gone.
struct ClassModel {
    std::deque<void*> kept;
};

/// One of the two ways to memory, with the list of each class.
struct WayModel {
    void* (*take)(unsigned int);
    void (*give)(void*);
    std::vector<ClassModel> classes = std::vector<ClassModel>(45);
};

struct LentBlock {
    unsigned char* bytes;
    unsigned int size;
    unsigned char mark;
};

// Blocks go back by either way, whichever they came by, and memory fails now and then.
TEST_F(TsMemory, AnyMixOfBothWaysMatchesQueuesByClass) {
    Orvex::Testing::SeededRandom random;
    std::vector<WayModel> ways{{&CTsMemory::TsMalloc, &CTsMemory::TsFree},
                               {&CTsMemory::Malloc, &CTsMemory::Free}};
    std::vector<LentBlock> lent;
    for (int i = 0; i < 30000; ++i) {
        WayModel& way = ways[random.between(std::size_t{0}, std::size_t{1})];
        if (lent.size() < 300 && random.oneIn(2)) {
            const unsigned int size = random.between(0u, 1u << random.between(0, 18));
            const bool pooled = size <= 229376;
            std::deque<void*>* const kept =
                pooled ? &way.classes[static_cast<std::size_t>(smallestClass(size))].kept : nullptr;
            const bool fails = random.oneIn(20);
            void* block = nullptr;
            if (fails) {
                const CountingAllocator::NoMemory no_memory;
                block = way.take(size);
            } else {
                block = way.take(size);
            }
            if (pooled && !kept->empty()) {
                ASSERT_EQ(kept->front(), block) << "size " << size;
                kept->pop_front();
            } else {
                ASSERT_EQ(fails, block == nullptr) << "size " << size;
            }
            if (block != nullptr) {
                const auto mark = static_cast<unsigned char>(random.between(0, 255));
                std::memset(block, mark, size);
                lent.push_back({static_cast<unsigned char*>(block), size, mark});
            }
        } else if (!lent.empty()) {
            std::swap(lent[random.between(std::size_t{0}, lent.size() - 1)], lent.back());
            const LentBlock block = lent.back();
            lent.pop_back();
            for (unsigned int n = 0; n < block.size; n += 1 + block.size / 64) {
                ASSERT_EQ(block.mark, block.bytes[n]) << "at " << n << " of " << block.size;
            }
            const int index = headerOf(block.bytes).index;
            if (index != -1) {
                std::deque<void*>& kept = way.classes[static_cast<std::size_t>(index)].kept;
                if (kept.size() < mostBlocks(index)) {
                    kept.push_back(block.bytes);
                }
            }
            way.give(block.bytes);
        }
    }
    for (const LentBlock& block : lent) {
        CTsMemory::TsFree(block.bytes);
    }
}

// ---- how much is kept -------------------------------------------------------------------------------------

uint64_t keptOf(unsigned int size, bool shared = false) {
    const auto all = Orvex::Reticor::count_free_blocks();
    const auto& one = all[static_cast<std::size_t>(smallestClass(size))];
    EXPECT_EQ(classSizes()[static_cast<std::size_t>(smallestClass(size))], one.bytes_each);
    return shared ? one.shared : one.of_threads;
}

TEST_F(TsMemory, KeptBlocksAreCountedByClassAndTable) {
    EXPECT_EQ(0u, keptOf(64));
    std::vector<void*> lent;
    for (int i = 0; i < 5; ++i) {
        lent.push_back(CTsMemory::TsMalloc(60));
    }
    EXPECT_EQ(0u, keptOf(64)) << "what is lent is not kept";
    for (void* block : lent) {
        CTsMemory::TsFree(block);
    }
    EXPECT_EQ(5u, keptOf(64));
    EXPECT_EQ(0u, keptOf(72));
    EXPECT_EQ(0u, keptOf(64, true));
    void* const again = CTsMemory::TsMalloc(64);
    EXPECT_EQ(4u, keptOf(64));
    CTsMemory::Free(again);
    EXPECT_EQ(4u, keptOf(64));
    EXPECT_EQ(1u, keptOf(64, true)) << "it went to the table that it was freed to";
}

TEST_F(TsMemory, BlocksBeyondTheLimitOfAClassAreNotCounted) {
    std::vector<void*> lent;
    for (unsigned int i = 0; i < mostBlocks(36) + 3; ++i) {
        lent.push_back(CTsMemory::TsMalloc(98304));
    }
    for (void* block : lent) {
        CTsMemory::TsFree(block);
    }
    EXPECT_EQ(mostBlocks(36), keptOf(98304));
}

TEST_F(TsMemory, TheTablesOfAllThreadsAreCountedAndGoWithThem) {
    std::atomic<int> ready{0};
    std::atomic<bool> end{false};
    std::vector<std::thread> threads;
    for (int t = 0; t < 3; ++t) {
        threads.emplace_back([&] {
            CTsMemory::CreateMemPool();
            CTsMemory::TsFree(CTsMemory::TsMalloc(512));
            ++ready;
            while (!end) {
                std::this_thread::yield();
            }
            CTsMemory::DestroyThreadMemPool();
        });
    }
    EXPECT_EVENTUALLY(ready == 3);
    CTsMemory::TsFree(CTsMemory::TsMalloc(512));
    EXPECT_EQ(4u, keptOf(512));
    end = true;
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(1u, keptOf(512));
}

// No lock is between the two; a look is whole all the same, and never counts more than there can be.
TEST_F(TsMemory, TablesCanBeCountedWhileTheirThreadsUseThem) {
    std::atomic<bool> end{false};
    std::thread worker([&] {
        CTsMemory::CreateMemPool();
        while (!end) {
            void* const first = CTsMemory::TsMalloc(8);
            void* const second = CTsMemory::TsMalloc(8);
            CTsMemory::TsFree(first);
            CTsMemory::TsFree(second);
        }
        CTsMemory::DestroyThreadMemPool();
    });
    for (int look = 0; look < 2000; ++look) {
        ASSERT_LE(keptOf(8), mostBlocks(0));
    }
    end = true;
    worker.join();
    EXPECT_EQ(0u, keptOf(8));
}

/// A block that goes from hand to hand, with a mark in every byte.
TEST_F(TsMemory, BlocksThatWanderBetweenThreadsKeepTheirBytesAndNoneIsLentTwice) {
    constexpr int ROUNDS = 3000;
    std::mutex mutex;
    std::deque<LentBlock> wandering;
    std::atomic<bool> wrong{false};
    std::vector<std::thread> threads;
    for (unsigned char t = 0; t < 3; ++t) {
        threads.emplace_back([&, t] {
            CTsMemory::CreateMemPool();
            for (unsigned int i = 0; i < ROUNDS; ++i) {
                const unsigned int size = 1 + i * 37 % 2000;
                void* const block = i % 3 == 0 ? CTsMemory::Malloc(size) : CTsMemory::TsMalloc(size);
                const auto mark = static_cast<unsigned char>(i + t);
                std::memset(block, mark, size);
                LentBlock other{nullptr, 0, 0};
                {
                    const std::lock_guard<std::mutex> guard(mutex);
                    wandering.push_back({static_cast<unsigned char*>(block), size, mark});
                    if (wandering.size() > 20) {
                        other = wandering.front();
                        wandering.pop_front();
                    }
                }
                for (unsigned int n = 0; n < other.size; ++n) {
                    wrong = wrong || other.bytes[n] != other.mark;
                }
                i % 2 == 0 ? CTsMemory::Free(other.bytes) : CTsMemory::TsFree(other.bytes);
            }
            CTsMemory::DestroyThreadMemPool();
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    for (const LentBlock& block : wandering) {
        CTsMemory::Free(block.bytes);
    }
    EXPECT_FALSE(wrong);
}

}  // namespace
