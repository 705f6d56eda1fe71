// FileTask: posting. RunFileTask: what a worker does with a task.
#include "Tool/task/FileTask.h"

#include "support/file/FileWorld.h"

namespace Orvex::Reticor {
namespace {

using Testing::MemoryDevice;
using Testing::StillFileFixture;

// ---- posting -------------------------------------------------------------------------------------------

// Only an address: nobody looks into a file.
CNFile* const SOME_FILE = reinterpret_cast<CNFile*>(0x1000);

TEST(FileTask, WithoutThreadsNothingIsQueued) {
    EXPECT_EQ(0, HasFileThreads());
    EXPECT_EQ(0, PostFileTask(SOME_FILE, FILE_TASK_WRITE, 0));
    EXPECT_EQ(0, PostFileMessageTask());
    EXPECT_EQ(0, file_tasks().Count(SOME_FILE));
    EXPECT_EQ(nullptr, file_tasks().Get());
}

// ---- what a worker does --------------------------------------------------------------------------------

class RunningFileTask : public StillFileFixture {};

TEST_F(RunningFileTask, TheSemaphoreCanRunAheadOfTheList) {
    RunFileTask();
}

TEST_F(RunningFileTask, ATaskOfNoKnownKindIsDone) {
    CNFile* const file = open(newDevice());
    PostFileTask(file, 2, 1);
    PostFileTask(nullptr, FILE_TASK_WRITE, 1);
    EXPECT_TRUE(step());
    EXPECT_TRUE(step());
    EXPECT_EQ(0, file_tasks().Count(file));
    EXPECT_EQ(0, file_tasks().Count(nullptr));
    closed(file);
}

TEST_F(RunningFileTask, NodesAreUsedAgain) {
    CNFile* const file = open(newDevice());
    PostFileTask(file, 2, 0);
    step();
    FileTask* const node = file_task_pool().Get();
    ASSERT_NE(nullptr, node);
    EXPECT_EQ(nullptr, file_task_pool().Get());
    file_task_pool().Put(node, false);
    PostFileTask(file, 2, 0);
    EXPECT_EQ(nullptr, file_task_pool().Get());
    closed(file);
}

TEST_F(RunningFileTask, CloseWaitsForTheWritesOfItsFileWhateverTheOrder) {
    CNFile* const file = open(newDevice());
    PostFileTask(file, FILE_TASK_CLOSE, 1);
    PostFileTask(file, FILE_TASK_WRITE, 0);
    EXPECT_EQ(2, file_tasks().Count(file));
    EXPECT_TRUE(step());
    EXPECT_EQ(0, disk->closes);
    EXPECT_TRUE(step());
    EXPECT_EQ(1, file_tasks().Count(file)) << "a close task counts itself";
    EXPECT_TRUE(step());
    EXPECT_EQ(1, disk->closes);
    EXPECT_FALSE(step());
}

// While one worker is in a device call of its file, a task that must have its turn waits without a worker.
TEST_F(RunningFileTask, ATaskThatIsRefusedWaitsForTheRunningPassWithoutAWorker) {
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
    EXPECT_EQ(2, file_tasks().Count(file));
    gate.open();
    worker.join();
    EXPECT_TRUE(step());
    EXPECT_EQ(0, file_tasks().Count(file));
    closed(file);
}

}  // namespace
}  // namespace Orvex::Reticor
