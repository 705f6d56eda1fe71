// FileTaskQueue against a model: any order of posts, takes, refusals, failures, ends and watches.
#include "Tool/task/FileTaskQueue.h"

#include <algorithm>
#include <deque>
#include <map>
#include <memory>
#include <vector>

#include <gtest/gtest.h>

#include "support/SeededRandom.h"

namespace Orvex::Testing {

using namespace Reticor;

namespace {

// What the queue promises, in the plainest form.
class QueueModel {
public:
    struct Known {
        uint32_t seen = 0;
        uint32_t wait_ms = 0;
        uint64_t due_us = 0;
    };

    void put(FileTask* task, bool count) {
        if (count) {
            ++m_files[task->m_file].count;
        }
        m_list.push_back(task);
    }
    FileTask* get() {
        if (m_list.empty()) {
            return nullptr;
        }
        FileTask* const task = m_list.front();
        m_list.pop_front();
        known[task].seen = releases(task->m_file);
        return task;
    }
    void release(CNFile* file) {
        const auto found = m_files.find(file);
        if (found != m_files.end()) {
            let_go(found->second);
            if (--found->second.count == 0) {
                m_files.erase(found);
            }
        }
    }
    void park(FileTask* task) {
        const auto found = m_files.find(task->m_file);
        if (found == m_files.end() || found->second.releases != known[task].seen) {
            put_again(task);
        } else {
            found->second.parked.push_back(task);
        }
    }
    bool park_unless_last(FileTask* task) {
        const auto found = m_files.find(task->m_file);
        if (found == m_files.end() || found->second.count == 1) {
            return false;
        }
        park(task);
        return true;
    }
    void rest(FileTask* task, uint64_t now_us) {
        Known& of = known[task];
        of.wait_ms = of.wait_ms == 0 ? 1 : std::min(2 * of.wait_ms, 250U);
        of.due_us = now_us + uint64_t{of.wait_ms} * 1000;
        const auto later = std::find_if(m_resting.begin(), m_resting.end(),
                                        [&](FileTask* other) { return known[other].due_us > of.due_us; });
        m_resting.insert(later, task);
        const auto found = m_files.find(task->m_file);
        if (found != m_files.end()) {
            let_go(found->second);
        }
    }
    uint64_t soonest() { return m_resting.empty() ? FileTaskQueue::NEVER : known[m_resting.front()].due_us; }
    void end_rests(uint64_t now_us) {
        while (!m_resting.empty() && known[m_resting.front()].due_us <= now_us) {
            put_again(m_resting.front());
            m_resting.pop_front();
        }
    }
    int count(CNFile* file) const {
        const auto found = m_files.find(file);
        return found != m_files.end() ? found->second.count : 0;
    }
    std::vector<FileTask*> clear() {
        std::vector<FileTask*> all(m_list.begin(), m_list.end());
        all.insert(all.end(), m_resting.begin(), m_resting.end());
        for (auto& [file, entry] : m_files) {
            all.insert(all.end(), entry.parked.begin(), entry.parked.end());
        }
        m_list.clear();
        m_resting.clear();
        m_files.clear();
        return all;
    }

    std::map<FileTask*, Known> known;
    int wakes = 0;

private:
    struct File {
        int count = 0;
        uint32_t releases = 0;
        std::deque<FileTask*> parked;
    };

    uint32_t releases(CNFile* file) const {
        const auto found = m_files.find(file);
        return found != m_files.end() ? found->second.releases : 0;
    }
    void put_again(FileTask* task) {
        m_list.push_back(task);
        ++wakes;
    }
    void let_go(File& file) {
        ++file.releases;
        for (FileTask* const task : file.parked) {
            put_again(task);
        }
        file.parked.clear();
    }

    std::deque<FileTask*> m_list;
    std::deque<FileTask*> m_resting;
    std::map<CNFile*, File> m_files;
};

class FileTaskQueueModel : public ::testing::Test {
protected:
    static CNFile* file(unsigned number) {  // only an address: the queue never looks into a file
        return number == 0 ? nullptr : reinterpret_cast<CNFile*>(uintptr_t{number} * 0x1000);
    }
    FileTask* fresh() {
        m_tasks.push_back(std::make_unique<FileTask>());
        m_tasks.back()->m_file = file(random.between(0U, 3U));
        return m_tasks.back().get();
    }
    void takeNext() {
        FileTask* const task = queue.Get();
        ASSERT_EQ(model.get(), task);
        if (task != nullptr) {
            running.push_back(task);
        }
    }
    // The memory that files bring changes nothing else.
    void holdOrDrop() {
        if (random.oneIn(2)) {
            EXPECT_TRUE(queue.Hold());
        } else {
            queue.Drop();
        }
    }
    // What becomes of a task that a worker has taken.
    void endOne() {
        const size_t index = random.between<size_t>(0, running.size() - 1);
        FileTask* const task = running[index];
        running.erase(running.begin() + static_cast<std::ptrdiff_t>(index));
        const int what = random.between(0, 4);
        if (what == 0) {
            queue.Park(task);
            model.park(task);
        } else if (what == 1) {
            const bool parked = model.park_unless_last(task);
            ASSERT_EQ(parked, queue.ParkUnlessLast(task));
            if (!parked) {
                running.push_back(task);
            }
        } else if (what == 2) {
            queue.Rest(task, now_us);
            model.rest(task, now_us);
            ASSERT_EQ(model.known[task].due_us, task->m_due_us);
        } else {
            queue.Release(task->m_file);
            model.release(task->m_file);
        }
    }
    void expectSame() {
        for (unsigned i = 0; i <= 3; ++i) {
            ASSERT_EQ(model.count(file(i)), queue.Count(file(i))) << i;
        }
        while (wake.pendFor(0)) {
            ++m_posts;
        }
        ASSERT_EQ(model.wakes, m_posts);
    }
    void watch() {
        uint64_t due_us = 0;
        ASSERT_EQ(model.soonest() != FileTaskQueue::NEVER, queue.BeginWatch(&due_us));
        if (model.soonest() != FileTaskQueue::NEVER) {
            ASSERT_EQ(model.soonest(), due_us);
            ASSERT_FALSE(queue.BeginWatch(&due_us)) << "one watches";
            now_us += random.between<uint64_t>(0, 300000);
            queue.EndWatch(due_us, now_us, false);
            model.end_rests(now_us);
        }
    }

    SeededRandom random;
    Infra::CSemaphore wake{0};
    FileTaskQueue queue{&wake};
    QueueModel model;
    uint64_t now_us = 1000000;
    std::vector<FileTask*> running;

private:
    std::vector<std::unique_ptr<FileTask>> m_tasks;
    int m_posts = 0;
};

TEST_F(FileTaskQueueModel, EveryTaskIsWhereItBelongs) {
    for (int step = 0; step < 20000 && !HasFatalFailure(); ++step) {
        const int what = random.between(0, 9);
        if (what < 3) {
            FileTask* const task = fresh();
            ASSERT_TRUE(queue.Put(task, true));
            model.put(task, true);
        } else if (what < 5) {
            takeNext();
        } else if (what == 5) {
            watch();
        } else if (what == 6) {
            holdOrDrop();
        } else if (!running.empty()) {
            endOne();
        }
        expectSame();
    }
    FileTaskQueue rest(nullptr);
    queue.Clear(rest);
    std::vector<FileTask*> expected = model.clear();
    std::vector<FileTask*> found;
    while (FileTask* const task = rest.Get()) {
        found.push_back(task);
    }
    std::sort(expected.begin(), expected.end());
    std::sort(found.begin(), found.end());
    EXPECT_EQ(expected, found);
    EXPECT_EQ(nullptr, queue.Get());
    expectSame();
}

}  // namespace
}  // namespace Orvex::Testing
