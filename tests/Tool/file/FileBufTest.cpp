// CNFileBuf and CNBufPool: the window, its try-lock, and the life of the blocks.
#include <Reticor/FileBuf.h>

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "support/Eventually.h"

namespace Orvex::Reticor {

struct FileBufProbe {
    static CNBufPool* pool() { return CNFileBuf::m_buf_pool; }
    static int count() { return CNFileBuf::m_pool_ref_cnt; }
};

namespace {

constexpr unsigned SIZE = CNBufPool::BLOCK_BYTES;

// A buffer at an offset, with a block.
struct Window : CNFileBuf {
    explicit Window(long long offset) {
        m_file_offset = offset;
        Malloc();
    }
    int put(const std::string& bytes, long long offset, bool* is_full = nullptr) {
        bool full = false;
        const int n = Write(bytes.data(), static_cast<unsigned>(bytes.size()), full, offset);
        if (is_full != nullptr) {
            *is_full = full;
        }
        return n;
    }
};

// ---- the try-lock --------------------------------------------------------------------------------------

TEST(FileBuf, TryLockTwiceGivesTrueThenFalse) {
    CNFileBuf buffer;
    EXPECT_TRUE(buffer.TryLock());
    EXPECT_FALSE(buffer.TryLock());
    buffer.UnLock();
    EXPECT_TRUE(buffer.TryLock());
}

TEST(FileBuf, UnLockEndsASubmissionToo) {
    CNFileBuf buffer;
    ASSERT_TRUE(buffer.TryLock());
    buffer.Submit(CNFileBuf::SUBMIT_WRITE_FREE);
    EXPECT_EQ(CNFileBuf::SUBMIT_WRITE_FREE, buffer.GetSubmitType());
    EXPECT_FALSE(buffer.TryLock()) << "submitted, it is still busy";
    buffer.UnLock();
    EXPECT_EQ(CNFileBuf::SUBMIT_NONE, buffer.GetSubmitType());
}

TEST(FileBuf, TheSubmitValuesAreThoseThatWorkersKnow) {
    EXPECT_EQ(0, CNFileBuf::SUBMIT_NONE);
    EXPECT_EQ(1, CNFileBuf::SUBMIT_READ);
    EXPECT_EQ(2, CNFileBuf::SUBMIT_WRITE);
    EXPECT_EQ(3, CNFileBuf::SUBMIT_WRITE_FREE);
}

TEST(FileBufDeath, SubmitOfABufferThatIsNotBusyIsAsserted) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    CNFileBuf buffer;
    EXPECT_DEATH(buffer.Submit(CNFileBuf::SUBMIT_READ), "m_busy == true");
}

TEST(FileBufDeath, WritesAndReadsOutsideTheValidBytesAreAsserted) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    Window window(100);
    window.put("0123456789", 100);
    bool flag = false;
    char byte = 0;
    EXPECT_DEATH(window.Write("x", 1, flag, 99), "m_file_offset >= 0 && file_offset >= m_file_offset");
    EXPECT_DEATH(window.Write("x", 1, flag, 111),
                 "\\(uint64_t\\)\\(file_offset - m_file_offset\\) <= m_buf_offset");
    EXPECT_DEATH(window.Read(&byte, 1, flag, flag, 111),
                 "\\(uint64_t\\)\\(file_offset - m_file_offset\\) <= m_buf_offset");
    CNFileBuf unused;
    EXPECT_DEATH(unused.Read(&byte, 1, flag, flag, 0), "m_file_offset >= 0 && file_offset >= m_file_offset");
}

// ---- writing and reading -------------------------------------------------------------------------------

TEST(FileBuf, OnlyAWriteThatReachesTheLastByteIsFull) {
    bool full = false;
    Window window(0);
    EXPECT_EQ(static_cast<int>(SIZE), window.put(std::string(SIZE, 'x'), 0, &full));
    EXPECT_TRUE(full);
    EXPECT_EQ(SIZE, window.m_buf_offset);
    Window shorter(0);
    EXPECT_EQ(static_cast<int>(SIZE) - 1, shorter.put(std::string(SIZE - 1, 'x'), 0, &full));
    EXPECT_FALSE(full);
    EXPECT_EQ(1, shorter.put("ab", SIZE - 1, &full)) << "as much as the window takes";
    EXPECT_TRUE(full);
}

TEST(FileBuf, AnOverwriteDoesNotShortenTheBuffer) {
    Window window(1000);
    window.put("0123456789", 1000);
    window.m_dirty = false;
    EXPECT_EQ(3, window.put("abc", 1004));
    EXPECT_EQ(10u, window.m_buf_offset);
    EXPECT_TRUE(window.m_dirty);
    EXPECT_EQ("0123abc789", std::string(window.m_data, 10));
    EXPECT_EQ(4, window.put("WXYZ", 1008));
    EXPECT_EQ(12u, window.m_buf_offset);
}

TEST(FileBuf, ReadAtTheEndOfTheValidBytesIsDrained) {
    Window window(0);
    window.put("0123456789", 0);
    bool drained = false;
    bool eof = true;
    char out[16] = {};
    EXPECT_EQ(0, window.Read(out, 16, drained, eof, 10));
    EXPECT_TRUE(drained);
    EXPECT_FALSE(eof);
    window.m_eof = true;
    EXPECT_EQ(0, window.Read(out, 16, drained, eof, 10));
    EXPECT_TRUE(eof);
    EXPECT_EQ(4, window.Read(out, 4, drained, eof, 2));
    EXPECT_EQ("2345", std::string(out, 4));
    EXPECT_FALSE(drained);
    EXPECT_FALSE(eof) << "not before the last byte was read";
    EXPECT_EQ(8, window.Read(out, 8, drained, eof, 2));
    EXPECT_TRUE(drained);
    EXPECT_TRUE(eof);
}

TEST(FileBuf, ResetForgetsTheContentsAndKeepsTheBlock) {
    Window window(0);
    window.put("x", 0);
    window.m_eof = true;
    char* const data = window.m_data;
    window.Reset();
    EXPECT_EQ(-1, window.m_file_offset);
    EXPECT_EQ(0u, window.m_buf_offset);
    EXPECT_FALSE(window.m_dirty);
    EXPECT_FALSE(window.m_eof);
    EXPECT_EQ(data, window.m_data);
    EXPECT_EQ(data, window.Malloc()) << "one block is enough";
}

// ---- the pool ------------------------------------------------------------------------------------------

TEST(BufPool, ANewPoolHoldsOneBlock) {
    CNBufPool pool;
    EXPECT_EQ(1, pool.Size());
}

TEST(BufPool, BlocksComeBackInTheOrderInWhichTheyWereGiven) {
    CNBufPool pool;
    buffer_node* const first = pool.Pop();
    buffer_node* const second = pool.Pop();
    EXPECT_EQ(0, pool.Size());
    pool.Push(second);
    pool.Push(first);
    EXPECT_EQ(2, pool.Size());
    EXPECT_EQ(second, pool.Pop());
    EXPECT_EQ(first, pool.Pop());
    pool.Push(first);
    pool.Push(second);
}

TEST(BufPool, The258thNodeIsFreed) {
    CNBufPool pool;
    std::vector<buffer_node*> nodes;
    for (int i = 0; i < 258; ++i) {
        nodes.push_back(pool.Pop());
    }
    for (buffer_node* node : nodes) {
        pool.Push(node);
    }
    EXPECT_EQ(257, pool.Size());
}

// The count goes up with each pool and down with each buffer, so a pool goes with the first buffer.
TEST(FileBuf, ThePoolGoesWithTheFirstBufferAndBuffersThatLiveOnKeepTheirBlocks) {
    auto first = std::make_unique<CNFileBuf>();
    auto second = std::make_unique<CNFileBuf>();
    ASSERT_NE(nullptr, FileBufProbe::pool());
    EXPECT_EQ(1, FileBufProbe::count());
    ASSERT_NE(nullptr, second->Malloc());
    char* const kept = second->m_data;
    first.reset();
    EXPECT_EQ(nullptr, FileBufProbe::pool());
    EXPECT_EQ(0, FileBufProbe::count());
    second->Free();
    EXPECT_EQ(kept, second->m_data) << "there is nobody to give it to";
    auto third = std::make_unique<CNFileBuf>();
    ASSERT_NE(nullptr, FileBufProbe::pool());
    EXPECT_EQ(1, FileBufProbe::count());
    second->Free();
    EXPECT_EQ(nullptr, second->m_data);
    EXPECT_EQ(2, FileBufProbe::pool()->Size());
    third.reset();
    second.reset();
    EXPECT_EQ(-1, FileBufProbe::count());
}

TEST(FileBuf, WithoutAPoolThereIsNoBlockAndNoneIsLeaked) {
    auto first = std::make_unique<CNFileBuf>();
    auto second = std::make_unique<CNFileBuf>();
    auto third = std::make_unique<CNFileBuf>();
    third->Malloc();
    first.reset();
    EXPECT_EQ(nullptr, second->Malloc());
    third.reset();  // a leak checker sees whether the block went, too
}

TEST(FileBuf, BlocksAreTakenAndGivenWhileOthersEndThePool) {
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    for (int i = 0; i < 2; ++i) {
        threads.emplace_back([&] {
            CNFileBuf buffer;
            while (!stop) {
                if (char* const data = buffer.Malloc()) {
                    data[SIZE - 1] = 'x';
                }
                buffer.Free();
            }
        });
    }
    for (int i = 0; i < 500; ++i) {
        CNFileBuf shortest;
        shortest.Malloc();
    }
    stop = true;
    for (std::thread& thread : threads) {
        thread.join();
    }
}

}  // namespace
}  // namespace Orvex::Reticor
