// FileTask: posting to the file workers.
#include "Tool/task/FileTask.h"

#include <cstdint>
#include <new>

#include <Infra/CountedLine.h>
#include <Infra/Forever.h>
#include <Infra/Log.h>

#include "Tool/task/FileTaskQueue.h"

namespace Orvex::Reticor {

namespace {

thread_local bool t_file_worker = false;

std::atomic<bool> g_told_of_no_threads{false};
Infra::CountedLine g_dropped;

void count_dropped() {
    if (const uint64_t dropped = g_dropped.Count()) {
        INFRA_LOG_STATIC(2, "PostFileTask, no memory, tasks dropped: %ju\n", static_cast<uintmax_t>(dropped));
    }
}

}  // namespace

std::atomic<Infra::CThreadLite**> g_file_threads{nullptr};
std::atomic<unsigned> g_file_thread_count{0};
Infra::CSemaphore g_file_sem{0};
std::atomic<bool> g_file_threads_stop{false};
std::atomic<bool> g_file_threads_over{false};

FileTaskQueue& file_tasks() {
    static Infra::Forever<FileTaskQueue> room;
    static FileTaskQueue& g_file_tasks = room.make(&g_file_sem);
    return g_file_tasks;
}

FileTaskQueue& file_task_pool() {
    static Infra::Forever<FileTaskQueue> room;
    static FileTaskQueue& g_file_task_pool = room.make(nullptr);
    return g_file_task_pool;
}

int HasFileThreads() {
    return g_file_thread_count.load(std::memory_order_relaxed) > 0 ? 1 : 0;
}

bool FileThreadsRun() {
    if (HasFileThreads() == 0) {
        return false;
    }
    if (g_file_threads.load(std::memory_order_acquire) != nullptr) {
        return true;
    }
    if (!g_told_of_no_threads.exchange(true)) {
        INFRA_LOG_STATIC(2, "The file threads have been stopped, files call their devices directly!\n");
    }
    return false;
}

int PostFileTask(CNFile* file, int type, long long arg) {
    if (HasFileThreads() == 0) {
        return 0;
    }
    FileTask* task = file_task_pool().Get();
    if (task == nullptr) {
        task = new (std::nothrow) FileTask;
    }
    if (task == nullptr) {
        count_dropped();
        return -1;
    }
    return PostFileTask(task, file, type, arg);
}

int PostFileTask(FileTask* task, CNFile* file, int type, long long arg) {
    task->m_file = file;
    task->m_type = type;
    task->m_arg = arg;
    task->m_wait_ms = 0;
    if (!file_tasks().Put(task, true)) {
        file_task_pool().Put(task, false);
        count_dropped();
        return -1;
    }
    g_file_sem.post();
    return 0;
}

int PostFileMessageTask() {
    return PostFileTask(nullptr, FILE_TASK_IO_MESSAGE, 0);
}

void StockFileTasks() {
    constexpr int STOCK = 256;
    static bool sm_stocked = false;  // under the lock of set-up and teardown
    if (sm_stocked) {
        return;
    }
    sm_stocked = true;
    static_cast<void>(file_tasks().Hold());  // for the messages, which are without a file
    for (int i = 0; i < STOCK; ++i) {
        if (FileTask* const task = new (std::nothrow) FileTask) {
            file_task_pool().Put(task, false);
        }
    }
}

bool OnFileWorker() {
    return t_file_worker;
}

void EnterFileWorker() {
    t_file_worker = true;
}

}  // namespace Orvex::Reticor
