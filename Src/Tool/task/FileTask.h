// FileTask: posting work for the file workers. What they do with it is in FileThread.cpp, above the files
// that are only pointers to this one.
#pragma once

#include <atomic>

#include <Infra/Semaphore.h>
#include <Infra/ThreadLite.h>

namespace Orvex::Reticor {

class CNFile;
class FileTaskQueue;
struct FileTask;

/// The file workers. The pointer is set while they run, and only then; the count stays after they were
/// stopped. Both change under the lock that serialises set-up and teardown.
extern std::atomic<Infra::CThreadLite**> g_file_threads;
extern std::atomic<unsigned> g_file_thread_count;
/// One count for each task in the list; it can run ahead of the list.
extern Infra::CSemaphore g_file_sem;
/// Set while the workers are asked to end: a pass ends after the call of the device that it is in.
extern std::atomic<bool> g_file_threads_stop;
/// Set from the end of the workers to their next start: what is posted to them now nobody would take.
extern std::atomic<bool> g_file_threads_over;

/// The work, and the free list of nodes. Never destroyed: threads may still run while static objects are.
FileTaskQueue& file_tasks();
FileTaskQueue& file_task_pool();

/// 1 if file workers were ever started, otherwise 0.
int HasFileThreads();

/// Whether file workers run now. When they were stopped and the library lives on, it says once, at level 2,
/// that files work without them.
bool FileThreadsRun();

/// Queues one task. Without workers ever started nothing is queued. Result: 0; -1 if there is no memory, with
/// a line at level 2 that counts, once a second at most.
int PostFileTask(CNFile* file, int type, long long arg);

/// The same in a node that the caller brings, which becomes the queue's. It does not fail for a file that
/// holds (FileTaskQueue::Hold).
int PostFileTask(FileTask* task, CNFile* file, int type, long long arg);

/// A task for one message of NotifyIO. Result as above.
int PostFileMessageTask();

/// Sees to it that the free list of nodes, which it fills, has a stock that the workers can go on with while
/// there is no memory.
void StockFileTasks();

/// Whether the calling thread is a file worker, and how it says so.
bool OnFileWorker();
void EnterFileWorker();

}  // namespace Orvex::Reticor
