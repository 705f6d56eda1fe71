// FileTaskQueue: its order, its counts, and the places beside it. RunFileTask: what a worker does with a
// task.
#include "Tool/task/FileTask.h"

#include <vector>

#include "support/file/FileWorld.h"

namespace Orvex::Reticor {
namespace {

using Testing::MemoryDevice;
using Testing::StillFileFixture;

// Only addresses: the queue never looks into a file.
CNFile* const ONE = reinterpret_cast<CNFile*>(0x1000);
CNFile* const OTHER = reinterpret_cast<CNFile*>(0x2000);

class FileTaskQueueTest : public ::testing::Test {
protected:
    FileTask* put(CNFile* file, bool count = true) {
        m_tasks.push_back(std::make_unique<FileTask>());
        m_tasks.back()->m_file = file;
        queue.Put(m_tasks.back().get(), count);
        return m_tasks.back().get();
    }
    int posts() {
        int count = 0;
        while (wake.pendFor(0)) {
            ++count;
        }
        return count;
    }

    Infra::CSemaphore wake{0};
    FileTaskQueue queue{&wake};

private:
    std::vector<std::unique_ptr<FileTask>> m_tasks;
};

TEST_F(FileTaskQueueTest, TasksComeInTheOrderInWhichTheyWerePut) {
    EXPECT_EQ(nullptr, queue.Get());
    FileTask* const first = put(ONE);
    first->m_next = first;  // whatever was there
    FileTask* const second = put(OTHER);
    EXPECT_EQ(first, queue.Get());
    EXPECT_EQ(second, queue.Get());
    EXPECT_EQ(nullptr, queue.Get());
    put(ONE);
    EXPECT_NE(nullptr, queue.Get());
    EXPECT_EQ(0, posts()) << "Put leaves that to its caller";
}

TEST_F(FileTaskQueueTest, CountsTheTasksOfEachFile) {
    EXPECT_EQ(0, queue.Count(ONE));
    put(ONE);
    put(ONE);
    put(nullptr);
    EXPECT_EQ(2, queue.Count(ONE));
    EXPECT_EQ(1, queue.Count(nullptr));
    FileTask* const task = queue.Get();
    EXPECT_EQ(2, queue.Count(ONE)) << "a running task counts";
    queue.Put(task, false);
    EXPECT_EQ(2, queue.Count(ONE));
    queue.Release(ONE);
    EXPECT_EQ(1, queue.Count(ONE));
    queue.Release(ONE);
    queue.Release(ONE);
    EXPECT_EQ(0, queue.Count(ONE));
}

TEST_F(FileTaskQueueTest, AParkedTaskComesBackWhenAnotherOneOfItsFileEnds) {
    put(ONE);
    FileTask* const refused = put(ONE);
    put(OTHER);
    queue.Get();
    ASSERT_EQ(refused, queue.Get());
    queue.Get();
    queue.Park(refused);
    queue.Release(OTHER);
    EXPECT_EQ(nullptr, queue.Get()) << "that was another file's";
    queue.Release(ONE);
    EXPECT_EQ(1, posts());
    EXPECT_EQ(refused, queue.Get());
    EXPECT_EQ(1, queue.Count(ONE));
}

TEST_F(FileTaskQueueTest, AnEndBetweenTheRefusalAndTheParkingIsNotMissed) {
    put(ONE);
    FileTask* const refused = put(ONE);
    queue.Get();
    queue.Get();
    queue.Release(ONE);
    queue.Park(refused);
    EXPECT_EQ(1, posts());
    EXPECT_EQ(refused, queue.Get());
}

TEST_F(FileTaskQueueTest, TheLastTaskOfAFileIsNotParked) {
    FileTask* const close = put(ONE);
    FileTask* const write = put(ONE);
    queue.Get();
    EXPECT_TRUE(queue.ParkUnlessLast(close));
    ASSERT_EQ(write, queue.Get());
    queue.Release(ONE);
    ASSERT_EQ(close, queue.Get());
    EXPECT_FALSE(queue.ParkUnlessLast(close));
}

TEST_F(FileTaskQueueTest, ATaskThatFailsRestsTwiceAsLongEachTimeUpToAQuarterOfASecond) {
    FileTask* const task = put(ONE);
    uint64_t now = 1000;
    for (const unsigned ms : {1u, 2u, 4u, 8u, 16u, 32u, 64u, 128u, 250u, 250u, 250u}) {
        ASSERT_EQ(task, queue.Get());
        queue.Rest(task, now);
        EXPECT_EQ(nullptr, queue.Get());
        uint64_t due = 0;
        ASSERT_TRUE(queue.BeginWatch(&due));
        EXPECT_EQ(now + uint64_t{ms} * 1000, due);
        now = due;
        queue.EndWatch(due, now, false);
        EXPECT_EQ(1, posts());
    }
}

TEST_F(FileTaskQueueTest, ARestLetsParkedTasksOfTheFileGo) {
    FileTask* const failing = put(ONE);
    FileTask* const refused = put(ONE);
    queue.Get();
    queue.Get();
    queue.Park(refused);
    queue.Rest(failing, 0);
    EXPECT_EQ(refused, queue.Get());
}

TEST_F(FileTaskQueueTest, OneIdleWorkerWatchesTheTime) {
    uint64_t due = 0;
    EXPECT_FALSE(queue.BeginWatch(&due)) << "nothing rests";
    FileTask* const slow = put(ONE);
    FileTask* const soon = put(ONE);
    queue.Get();
    queue.Get();
    queue.Rest(slow, 5000);
    ASSERT_TRUE(queue.BeginWatch(&due));
    EXPECT_EQ(6000u, due);
    uint64_t earlier = 0;
    EXPECT_FALSE(queue.BeginWatch(&earlier)) << "somebody does";
    queue.Rest(soon, 2000);
    ASSERT_TRUE(queue.BeginWatch(&earlier)) << "not for that";
    EXPECT_EQ(3000u, earlier);
    queue.EndWatch(earlier, 2500, true);
    EXPECT_EQ(1, posts()) << "it has got other work: somebody else is to watch";
    EXPECT_TRUE(queue.BeginWatch(&earlier));
    queue.EndWatch(earlier, 3000, false);
    EXPECT_EQ(soon, queue.Get());
    queue.EndWatch(due, 6000, false);
    EXPECT_EQ(slow, queue.Get());
}

TEST_F(FileTaskQueueTest, ClearTakesWhatWaitsAnywhere) {
    FileTaskQueue rest(nullptr);
    for (int i = 0; i < 4; ++i) {
        put(ONE);
    }
    queue.Park(queue.Get());
    queue.Rest(queue.Get(), 0);
    queue.Clear(rest);
    EXPECT_EQ(0, queue.Count(ONE));
    EXPECT_EQ(nullptr, queue.Get());
    int found = 0;
    while (rest.Get() != nullptr) {
        ++found;
    }
    EXPECT_EQ(4, found);
}

// ---- posting -------------------------------------------------------------------------------------------

TEST(FileTask, WithoutThreadsNothingIsQueued) {
    EXPECT_EQ(0, HasFileThreads());
    EXPECT_EQ(0, PostFileTask(ONE, FILE_TASK_WRITE, 0));
    EXPECT_EQ(0, PostFileMessageTask());
    EXPECT_EQ(0, fileTasks().Count(ONE));
    EXPECT_EQ(nullptr, fileTasks().Get());
}

// ---- what a worker does --------------------------------------------------------------------------------

class RunFileTaskTest : public StillFileFixture {};

TEST_F(RunFileTaskTest, TheSemaphoreCanRunAheadOfTheList) {
    RunFileTask();
}

TEST_F(RunFileTaskTest, ATaskOfNoKnownKindIsDone) {
    CNFile* const file = open(newDevice());
    PostFileTask(file, 2, 1);
    PostFileTask(nullptr, FILE_TASK_WRITE, 1);
    EXPECT_TRUE(step());
    EXPECT_TRUE(step());
    EXPECT_EQ(0, fileTasks().Count(file));
    EXPECT_EQ(0, fileTasks().Count(nullptr));
    closed(file);
}

TEST_F(RunFileTaskTest, NodesAreUsedAgain) {
    CNFile* const file = open(newDevice());
    PostFileTask(file, 2, 0);
    step();
    FileTask* const node = fileTaskPool().Get();
    ASSERT_NE(nullptr, node);
    EXPECT_EQ(nullptr, fileTaskPool().Get());
    fileTaskPool().Put(node, false);
    PostFileTask(file, 2, 0);
    EXPECT_EQ(nullptr, fileTaskPool().Get());
    closed(file);
}

TEST_F(RunFileTaskTest, CloseWaitsForTheWritesOfItsFileWhateverTheOrder) {
    CNFile* const file = open(newDevice());
    PostFileTask(file, FILE_TASK_CLOSE, 1);
    PostFileTask(file, FILE_TASK_WRITE, 0);
    EXPECT_EQ(2, fileTasks().Count(file));
    EXPECT_TRUE(step());
    EXPECT_EQ(0, disk->closes);
    EXPECT_TRUE(step());
    EXPECT_EQ(1, fileTasks().Count(file)) << "a close task counts itself";
    EXPECT_TRUE(step());
    EXPECT_EQ(1, disk->closes);
    EXPECT_FALSE(step());
}

// While one worker is in a device call of its file, a task that must have its turn waits without a worker.
TEST_F(RunFileTaskTest, ATaskThatIsRefusedWaitsForTheRunningPassWithoutAWorker) {
    Testing::Gate gate;
    MemoryDevice* const device = newDevice();
    device->on_write = [&](unsigned) { return gate.pass(), MemoryDevice::LET_BE; };
    CNFile* const file = open(device);
    const std::string bytes(Testing::BLOCK, 'x');
    file->Write(bytes.data(), Testing::BLOCK);
    std::thread worker([] { step(); });
    ASSERT_TRUE(gate.awaitArrivals(1));
    PostFileTask(file, FILE_TASK_WRITE, 1);
    EXPECT_TRUE(step()) << "it is refused";
    EXPECT_FALSE(step()) << "and does not come again at once";
    EXPECT_EQ(2, fileTasks().Count(file));
    gate.open();
    worker.join();
    EXPECT_TRUE(step());
    EXPECT_EQ(0, fileTasks().Count(file));
    closed(file);
}

}  // namespace
}  // namespace Orvex::Reticor
