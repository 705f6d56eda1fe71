// The file workers: their start, their end, and what they do with a task.
#include "Tool/file/FileThread.h"

#include <Infra/Time.h>
#include <Reticor/NFile.h>

#include "Core/pool/ThreadPool.h"
#include "Core/service/Message.h"
#include "Tool/file/NFileState.h"

namespace Orvex::Reticor {

namespace {

constexpr int DONE = 1;

/// An idle worker waits here. The one that watches the time brings resting tasks back. True if there may be a
/// task.
bool wait_for_task() {
    uint64_t due_us = 0;
    if (!fileTasks().BeginWatch(&due_us)) {
        g_file_sem.pend();
        return true;
    }
    const uint64_t now_us = Infra::CTime::getCurrentMicroSecond();
    const bool got_one = g_file_sem.pendFor(due_us > now_us ? due_us - now_us : 0);
    fileTasks().EndWatch(due_us, Infra::CTime::getCurrentMicroSecond(), got_one);
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

/// The task is over; what was refused or has failed is not.
int run(const FileTask& task) {
    switch (task.m_type) {
        case FILE_TASK_WRITE:
            return task.m_file->handle_write_file(task.m_arg);
        case FILE_TASK_READ:
            return task.m_file->handle_read_file();
        case FILE_TASK_CLOSE:
            return task.m_file->handle_close_file();
        default:
            return DONE;
    }
}

int run_without_file(const FileTask& task) {
    if (task.m_type == FILE_TASK_IO_MESSAGE) {
        CMessage::HandleIOMessage();
    }
    return DONE;
}

/// To be tried again: at once behind all others when another task of the file was in the way and has ended,
/// with its end when it has not, and after a rest when the device has failed.
void put_back(FileTask* task) {
    if (TakeTaskFailed()) {
        fileTasks().Rest(task, Infra::CTime::getCurrentMicroSecond());
    } else {
        fileTasks().Park(task);
    }
}

}  // namespace

void RunFileTask() {
    FileTask* const task = fileTasks().Get();
    if (task == nullptr) {
        return;
    }
    if (g_file_threads_stop.load()) {
        // A pass that was cut short has let its file's next task go, which may be the one that closes: what
        // is left is for teardown to write.
        fileTasks().Put(task, false);
        return;
    }
    int result = DONE;
    TakeTaskFailed();
    if (task->m_file == nullptr) {
        result = run_without_file(*task);
    } else if (task->m_type == FILE_TASK_CLOSE && fileTasks().ParkUnlessLast(task)) {
        return;
    } else {
        result = run(*task);
    }
    if (result == 0 && task->m_arg == 1) {
        put_back(task);
        return;
    }
    fileTasks().Release(task->m_file);
    fileTaskPool().Put(task, false);
}

namespace {

/// Ends the workers that run, and clears their tasks.
void end_workers(Infra::CThreadLite** threads) {
    // Before anything else: whoever looks now works without workers, whoever has looked is waited for by
    // EndFiles.
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
    fileTasks().Clear(fileTaskPool());
    g_file_threads_stop.store(false);
}

}  // namespace

int StartFileThreads(unsigned n) {
    const unsigned count = 2 * n;
    fileTasks().Clear(fileTaskPool());
    g_file_threads_over.store(false);
    // From here on whoever posts a message posts its task as well. Those that came before get theirs now: one
    // too many finds nothing, one too few would make every later message wait for the next.
    g_file_thread_count.store(count);
    for (unsigned i = CMessage::CountIOMessages(); i > 0; --i) {
        PostFileMessageTask();
    }
    g_file_threads_stop.store(false);
    auto** const threads = new Infra::CThreadLite*[count];
    unsigned started = 0;
    for (unsigned i = 0; i < count; ++i) {
        threads[i] = new Infra::CThreadLite(Infra::TFunction1<void, Infra::CThreadLite&>(&file_thread_proc),
                                            "Reticor::FileThread", 64, 0, 0);
        started += threads[i]->createThread() ? 1 : 0;
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

void EndFiles(CThreadPool& pool) {
    CMessage::DropIOMessages();
    while (const HandlerPin file = CNFile::State::next_to_end(pool)) {
        CNFile::State::end(static_cast<CNFile&>(*file.get()), pool);
    }
}

}  // namespace Orvex::Reticor
