// The file workers: their start, their end, and what they do with a task.
#include "Tool/file/FileThread.h"

#include <new>

#include <Infra/Log.h>
#include <Infra/Time.h>
#include <Reticor/NFile.h>

#include "Core/count/Points.h"
#include "Core/handle/CallMark.h"
#include "Core/service/Message.h"
#include "Tool/file/NFileState.h"
#include "Tool/task/FileTaskQueue.h"

namespace Orvex::Reticor {

namespace {

/// An idle worker waits here. The one that watches the time brings resting tasks back. True if there may be a
/// task.
bool wait_for_task() {
    uint64_t due_us = 0;
    if (!file_tasks().BeginWatch(&due_us)) {
        g_file_sem.pend();
        return true;
    }
    const uint64_t now_us = Infra::CTime::getCurrentMicroSecond();
    const bool got_one = g_file_sem.pendFor(due_us > now_us ? due_us - now_us : 0);
    file_tasks().EndWatch(due_us, Infra::CTime::getCurrentMicroSecond(), got_one);
    return got_one;
}

void file_thread_proc(Infra::CThreadLite& thread) {
    EnterFileWorker();
    while (thread.looping()) {
        if (wait_for_task()) {
            RunFileTask();
        }
    }
}

PassResult close(const FileTask& task) {
    if (CNFile::State::of(*task.m_file).m_device.write_left() != PassResult::done) {
        return PassResult::failed;
    }
    task.m_file->handle_close_file();
    return PassResult::done;
}

// A device that hangs is seen as a call of the file. Whoever closes the file may end it meanwhile.
PassResult run(const FileTask& task) {
    const LoneCallMark mark(*task.m_file, CallKind::FILE_TASK);
    DeviceSide& device = CNFile::State::of(*task.m_file).m_device;
    switch (task.m_type) {
        case FILE_TASK_WRITE:
            return device.write_pass(task.m_arg);
        case FILE_TASK_READ:
            return device.read_pass();
        case FILE_TASK_CLOSE:
            return close(task);
        default:
            return PassResult::done;
    }
}

void run_without_file(const FileTask& task) {
    if (task.m_type == FILE_TASK_IO_MESSAGE) {
        CMessage::HandleIOMessage();
    }
}

/// To be tried again: at once after all others when another task of the file was in the way and has ended,
/// with its end when it has not, and after a rest when the device has failed.
void put_back(FileTask* task, PassResult result) {
    if (result == PassResult::failed) {
        file_tasks().Rest(task, Infra::CTime::getCurrentMicroSecond());
    } else {
        file_tasks().Park(task);
    }
}

}  // namespace

void RunFileTask() {
    FileTask* const task = file_tasks().Get();
    if (task == nullptr) {
        return;
    }
    if (g_file_threads_stop.load()) {
        // A pass that was cut short has let its file's next task go, which may be the one that closes: what
        // is left is for teardown to write.
        file_tasks().Put(task, false);
        return;
    }
    PassResult result = PassResult::done;
    if (task->m_file == nullptr) {
        run_without_file(*task);
    } else if (task->m_type == FILE_TASK_CLOSE && file_tasks().ParkUnlessLast(task)) {
        return;
    } else {
        // Taken down first: the last task of a file can end it.
        const CNFile* const file = task->m_file;
        const int type = task->m_type;
        Points::TaskBegins(file, type);
        result = run(*task);
        Points::TaskEnds(file, type);
    }
    if ((result == PassResult::refused || result == PassResult::failed) && task->m_arg == 1) {
        put_back(task, result);
        return;
    }
    file_tasks().Release(task->m_file);
    file_task_pool().Put(task, false);
}

namespace {

/// Ends the workers that run, and clears their tasks.
void end_workers(Infra::CThreadLite** threads) {
    // Before anything else: whoever looks now works without workers, whoever has looked is waited for by
    // NFileEnd.
    g_file_threads.store(nullptr);
    g_file_threads_stop.store(true);
    const unsigned count = g_file_thread_count.load();
    for (unsigned i = 0; i < count; ++i) {
        threads[i]->cancelThread();
    }
    g_file_sem.post(static_cast<int>(count), static_cast<int>(count));
    for (unsigned i = 0; i < count; ++i) {
        threads[i]->destroyThread();
        delete threads[i];
    }
    delete[] threads;
    file_tasks().Clear(file_task_pool());
    g_file_threads_stop.store(false);
}

/// The objects of that many threads, none of which runs; null without memory.
Infra::CThreadLite** make_workers(unsigned count) {
    auto** const threads = new (std::nothrow) Infra::CThreadLite* [count] {};
    for (unsigned i = 0; threads != nullptr && i < count; ++i) {
        threads[i] = new (std::nothrow) Infra::CThreadLite(
            Infra::TFunction1<void, Infra::CThreadLite&>(&file_thread_proc), "Reticor::FileThread", 64, 0, 0);
        if (threads[i] == nullptr) {
            while (i > 0) {
                delete threads[--i];
            }
            delete[] threads;
            return nullptr;
        }
    }
    return threads;
}

}  // namespace

int StartFileThreads(unsigned n) {
    const unsigned count = 2 * n;
    Infra::CThreadLite** const threads = make_workers(count);
    if (threads == nullptr) {
        INFRA_LOG_STATIC(2, "No memory for the file threads!\n");
        return -1;
    }
    StockFileTasks();
    file_tasks().Clear(file_task_pool());
    g_file_threads_over.store(false);
    // From here on whoever posts a message posts its task as well. Those that came before get theirs now: one
    // too many finds nothing, one too few would make every later message wait for the next.
    g_file_thread_count.store(count);
    for (unsigned i = CMessage::CountIOMessages(); i > 0; --i) {
        PostFileMessageTask();
    }
    g_file_threads_stop.store(false);
    unsigned started = 0;
    for (unsigned i = 0; i < count; ++i) {
        started += threads[i]->createThread() ? 1 : 0;
    }
    if (started < count) {
        INFRA_LOG_STATIC(2, "Only %u of %u file threads could be started!\n", started, count);
    }
    g_file_threads.store(threads, std::memory_order_release);
    if (started == 0 && count > 0) {
        end_workers(threads);
        g_file_thread_count.store(0);
        return -1;
    }
    return 0;
}

int StopFileThreads() {
    Infra::CThreadLite** const threads = g_file_threads.load();
    if (threads == nullptr) {
        return 0;
    }
    end_workers(threads);
    g_file_threads_over.store(true);
    CMessage::DropIOMessages();
    return 0;
}

}  // namespace Orvex::Reticor
