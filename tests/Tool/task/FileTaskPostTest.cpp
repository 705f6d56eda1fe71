// FileTask: posting without a file worker in sight: what a task carries, and what comes of it without memory.
#include "Tool/task/FileTask.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "Tool/task/FileTaskQueue.h"
#include "support/HandClock.h"
#include "support/LogCapture.h"
#include "support/socket/Allocations.h"

namespace Orvex::Testing {

using namespace Reticor;

namespace {

// Only addresses: nobody looks into a file.
CNFile* const FIRST_FILE = reinterpret_cast<CNFile*>(0x1000);
CNFile* const SECOND_FILE = reinterpret_cast<CNFile*>(0x2000);

// As if workers ran, which take nothing.
class FileTaskPost : public ::testing::Test {
protected:
    FileTaskPost() { g_file_thread_count = 1; }
    ~FileTaskPost() override {
        g_file_thread_count = 0;
        g_file_threads = nullptr;
        file_tasks().Clear(file_task_pool());
        while (g_file_sem.pendFor(0)) {
        }
        while (FileTask* const node = file_task_pool().Get()) {
            delete node;
        }
    }
    static int posts() {
        int count = 0;
        while (g_file_sem.pendFor(0)) {
            ++count;
        }
        return count;
    }
    // Takes the first task off the list, and drops it.
    static bool next_is(CNFile* file, int type, long long arg) {
        FileTask* const task = file_tasks().Get();
        if (task == nullptr) {
            return false;
        }
        const bool same = task->m_file == file && task->m_type == type && task->m_arg == arg;
        file_tasks().Release(task->m_file);
        file_task_pool().Put(task, false);
        return same;
    }
};

TEST_F(FileTaskPost, ATaskCarriesWhatItWasPostedWithAndOneCountIsPosted) {
    EXPECT_EQ(1, HasFileThreads());
    EXPECT_EQ(0, PostFileTask(FIRST_FILE, FILE_TASK_READ, 7));
    EXPECT_EQ(0, PostFileTask(SECOND_FILE, FILE_TASK_CLOSE, 1LL << 40));
    EXPECT_EQ(0, PostFileMessageTask());
    EXPECT_EQ(3, posts());
    EXPECT_EQ(1, file_tasks().Count(FIRST_FILE));
    EXPECT_EQ(1, file_tasks().Count(nullptr)) << "messages are without a file";
    EXPECT_TRUE(next_is(FIRST_FILE, FILE_TASK_READ, 7));
    EXPECT_TRUE(next_is(SECOND_FILE, FILE_TASK_CLOSE, 1LL << 40));
    EXPECT_TRUE(next_is(nullptr, FILE_TASK_IO_MESSAGE, 0));
    EXPECT_FALSE(next_is(nullptr, 0, 0));
}

// A node that failed and rested before it was used again must not rest as long the next time.
TEST_F(FileTaskPost, ANodeThatIsUsedAgainHasNotFailedYet) {
    auto* const node = new FileTask;
    node->m_wait_ms = 250;
    EXPECT_EQ(0, PostFileTask(node, FIRST_FILE, FILE_TASK_WRITE, 1));
    EXPECT_EQ(node, file_tasks().Get());
    EXPECT_EQ(0U, node->m_wait_ms);
    file_tasks().Release(FIRST_FILE);
    file_task_pool().Put(node, false);
}

TEST_F(FileTaskPost, WithoutMemoryNothingIsPostedAndALineCounts) {
    const HandClock clock;
    const LogCapture log;
    for (int i = 0; i < 2; ++i) {
        const OneAllocationFails node(0);  // The line has memory.
        EXPECT_EQ(-1, PostFileTask(FIRST_FILE, FILE_TASK_WRITE, 0));
    }
    EXPECT_EQ(0, posts());
    EXPECT_EQ(0, file_tasks().Count(FIRST_FILE));
    ASSERT_EQ(1U, log.lines().size()) << log.dump();
    EXPECT_TRUE(log.contains(2, "PostFileTask, no memory, tasks dropped: 1\n"));
    EXPECT_NE(std::string::npos, log.lines()[0].start.find("[Src/Tool/FileTask.cpp:"));
}

TEST_F(FileTaskPost, ASecondLaterTheLineCountsWhatWasDroppedMeanwhile) {
    HandClock clock;
    const LogCapture log;
    const auto drop = [](int times) {
        for (int i = 0; i < times; ++i) {
            const OneAllocationFails node(0);
            EXPECT_EQ(-1, PostFileTask(FIRST_FILE, FILE_TASK_WRITE, 0));
        }
    };
    drop(4);
    clock.advanceUs(1000000);
    drop(1);
    EXPECT_TRUE(log.contains(2, "PostFileTask, no memory, tasks dropped: 4\n")) << log.dump();
    EXPECT_EQ(2U, log.lines().size());
}

// The node is there, the place in the count is not: the node is the pool's from now on.
TEST_F(FileTaskPost, ANodeThatCannotBeCountedGoesToThePool) {
    const LogCapture log;
    auto* const node = new FileTask;
    {
        const OneAllocationFails count(0);
        EXPECT_EQ(-1, PostFileTask(node, FIRST_FILE, FILE_TASK_WRITE, 0));
    }
    EXPECT_EQ(nullptr, file_tasks().Get());
    EXPECT_EQ(0, posts());
    EXPECT_EQ(node, file_task_pool().Get());
    EXPECT_EQ(1U, log.countLevel(2));
    delete node;
}

TEST_F(FileTaskPost, AFileThatHoldsPostsWithoutMemory) {
    ASSERT_TRUE(file_tasks().Hold());
    auto* const node = new FileTask;
    auto* const second = new FileTask;
    {
        const NoMemory none;
        EXPECT_EQ(0, PostFileTask(node, FIRST_FILE, FILE_TASK_WRITE, 0));
        EXPECT_EQ(0, PostFileTask(second, FIRST_FILE, FILE_TASK_READ, 0)) << "it is counted already";
    }
    EXPECT_EQ(2, file_tasks().Count(FIRST_FILE));
    EXPECT_TRUE(next_is(FIRST_FILE, FILE_TASK_WRITE, 0));
    EXPECT_TRUE(next_is(FIRST_FILE, FILE_TASK_READ, 0));
    // What was held rests again, for any file.
    auto* const third = new FileTask;
    {
        const NoMemory none;
        EXPECT_EQ(0, PostFileTask(third, SECOND_FILE, FILE_TASK_WRITE, 0));
    }
    EXPECT_TRUE(next_is(SECOND_FILE, FILE_TASK_WRITE, 0));
    file_tasks().Drop();
}

TEST(FileTaskQueueMemory, HoldsAreAsManyAsThereWasMemoryFor) {
    FileTaskQueue queue(nullptr);
    {
        const NoMemory none;
        EXPECT_FALSE(queue.Hold());
    }
    EXPECT_TRUE(queue.Hold());
    FileTask first;
    first.m_file = FIRST_FILE;
    FileTask second;
    second.m_file = SECOND_FILE;
    const NoMemory none;
    EXPECT_TRUE(queue.Put(&first, true));
    EXPECT_FALSE(queue.Put(&second, true)) << "the one hold is in use";
    EXPECT_EQ(0, queue.Count(SECOND_FILE));
    EXPECT_TRUE(queue.Put(&second, false)) << "without a count it needs none";
    EXPECT_EQ(&first, queue.Get());
    EXPECT_EQ(&second, queue.Get());
    queue.Release(FIRST_FILE);
    queue.Drop();
    EXPECT_FALSE(queue.Put(&first, true)) << "nothing is held any more";
    queue.Drop();
}

TEST(FileTaskQueueMemory, ATaskThatIsOverTwiceOrOfNoFileChangesNothing) {
    FileTaskQueue queue(nullptr);
    queue.Release(FIRST_FILE);
    EXPECT_EQ(0, queue.Count(FIRST_FILE));
    FileTask task;
    task.m_file = FIRST_FILE;
    ASSERT_TRUE(queue.Put(&task, true));
    EXPECT_EQ(&task, queue.Get());
    queue.Release(FIRST_FILE);
    queue.Release(FIRST_FILE);
    EXPECT_EQ(0, queue.Count(FIRST_FILE));
}

// Several workers watch in turn: whoever has got other work wakes the next one, if anything rests.
TEST(FileTaskQueueMemory, AWatcherThatLeavesWakesAnotherOneWhileATaskRests) {
    Infra::CSemaphore wake{0};
    FileTaskQueue queue(&wake);
    FileTask task;
    task.m_file = FIRST_FILE;
    ASSERT_TRUE(queue.Put(&task, true));
    EXPECT_EQ(&task, queue.Get());
    queue.Rest(&task, 1000000);
    uint64_t due_us = 0;
    ASSERT_TRUE(queue.BeginWatch(&due_us));
    EXPECT_EQ(1001000U, due_us);
    queue.EndWatch(due_us, 1000500, true);
    EXPECT_TRUE(wake.pendFor(0));
    EXPECT_FALSE(wake.pendFor(0));
    EXPECT_EQ(nullptr, queue.Get()) << "it rests on";
    ASSERT_TRUE(queue.BeginWatch(&due_us));
    queue.EndWatch(due_us, 1001000, true);
    EXPECT_TRUE(wake.pendFor(0)) << "for the task";
    EXPECT_FALSE(wake.pendFor(0)) << "and nobody is needed to watch";
    EXPECT_EQ(&task, queue.Get());
}

TEST_F(FileTaskPost, WorkersThatWereStoppedAreToldOfOnce) {
    const LogCapture log;
    EXPECT_FALSE(FileThreadsRun());
    EXPECT_FALSE(FileThreadsRun());
    EXPECT_EQ(1U, log.count(2, "The file threads have been stopped, files call their devices directly!\n"))
        << log.dump();
    Infra::CThreadLite* none[1] = {};
    g_file_threads = none;
    EXPECT_TRUE(FileThreadsRun());
    g_file_thread_count = 0;
    EXPECT_FALSE(FileThreadsRun()) << "there were never any";
    EXPECT_EQ(1U, log.lines().size());
}

TEST_F(FileTaskPost, TheStockIsMadeOnceAndServesWithoutMemory) {
    StockFileTasks();
    StockFileTasks();
    std::vector<FileTask*> nodes;
    while (FileTask* const node = file_task_pool().Get()) {
        nodes.push_back(node);
    }
    EXPECT_EQ(256U, nodes.size());
    for (FileTask* const node : nodes) {
        file_task_pool().Put(node, false);
    }
    const NoMemory none;
    for (int i = 0; i < 256; ++i) {
        ASSERT_EQ(0, PostFileMessageTask()) << "messages are held for";
    }
}

TEST(FileWorker, IsWhoeverSaidSoOnThatThreadAlone) {
    EXPECT_FALSE(OnFileWorker());
    std::thread([] {
        EnterFileWorker();
        EXPECT_TRUE(OnFileWorker());
        std::thread([] { EXPECT_FALSE(OnFileWorker()); }).join();
    }).join();
    EXPECT_FALSE(OnFileWorker());
}

}  // namespace
}  // namespace Orvex::Testing
