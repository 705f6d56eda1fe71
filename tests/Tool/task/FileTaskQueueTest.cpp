// FileTaskQueue: its order, its counts, and the places beside it.
#include "Tool/task/FileTaskQueue.h"

#include <memory>
#include <vector>

#include <gtest/gtest.h>

namespace Orvex::Reticor {
namespace {

// Only addresses: the queue never looks into a file.
CNFile* const ONE = reinterpret_cast<CNFile*>(0x1000);
CNFile* const OTHER = reinterpret_cast<CNFile*>(0x2000);

class FileTaskQueueOrder : public ::testing::Test {
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

TEST_F(FileTaskQueueOrder, TasksComeInTheOrderInWhichTheyWerePut) {
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

TEST_F(FileTaskQueueOrder, CountsTheTasksOfEachFile) {
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

TEST_F(FileTaskQueueOrder, AParkedTaskComesBackWhenAnotherOneOfItsFileEnds) {
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

TEST_F(FileTaskQueueOrder, AnEndBetweenTheRefusalAndTheParkingIsNotMissed) {
    put(ONE);
    FileTask* const refused = put(ONE);
    queue.Get();
    queue.Get();
    queue.Release(ONE);
    queue.Park(refused);
    EXPECT_EQ(1, posts());
    EXPECT_EQ(refused, queue.Get());
}

TEST_F(FileTaskQueueOrder, TheLastTaskOfAFileIsNotParked) {
    FileTask* const close = put(ONE);
    FileTask* const write = put(ONE);
    queue.Get();
    EXPECT_TRUE(queue.ParkUnlessLast(close));
    ASSERT_EQ(write, queue.Get());
    queue.Release(ONE);
    ASSERT_EQ(close, queue.Get());
    EXPECT_FALSE(queue.ParkUnlessLast(close));
}

TEST_F(FileTaskQueueOrder, ATaskThatFailsRestsTwiceAsLongEachTimeUpToAQuarterOfASecond) {
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

TEST_F(FileTaskQueueOrder, ARestLetsParkedTasksOfTheFileGo) {
    FileTask* const failing = put(ONE);
    FileTask* const refused = put(ONE);
    queue.Get();
    queue.Get();
    queue.Park(refused);
    queue.Rest(failing, 0);
    EXPECT_EQ(refused, queue.Get());
}

TEST_F(FileTaskQueueOrder, OneIdleWorkerWatchesTheTime) {
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

TEST_F(FileTaskQueueOrder, ClearTakesWhatWaitsAnywhere) {
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

}  // namespace
}  // namespace Orvex::Reticor
