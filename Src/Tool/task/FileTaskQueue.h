// FileTask: a unit of work for the file workers. FileTaskQueue: their FIFO.
#pragma once

#include <cstdint>
#include <map>

#include <Infra/LockClasses.h>
#include <Infra/Mutex.h>
#include <Infra/Semaphore.h>

namespace Orvex::Reticor {

class CNFile;

enum FileTaskType : int32_t {
    FILE_TASK_WRITE = 0,       ///< Write out what the file has submitted.
    FILE_TASK_READ = 1,        ///< Load what the file has asked for.
    FILE_TASK_CLOSE = 3,       ///< Close the file, once this is its last task.
    FILE_TASK_IO_MESSAGE = 4,  ///< Run one message of NotifyIO; without a file.
};

/// Nodes are recycled through a free list and not freed while the library runs.
struct FileTask {
    int32_t m_type = 0;
    long long m_arg = 0;  ///< 1: to be tried until it succeeds, and the caller is told. 0 otherwise.
    CNFile* m_file = nullptr;
    FileTask* m_next = nullptr;  ///< Link; cleared by every put.

    uint32_t m_seen = 0;     ///< Releases of the file when the task was taken.
    uint32_t m_wait_ms = 0;  ///< Rest before the next try; 0 before the first failure.
    uint64_t m_due_us = 0;   ///< End of the rest.
};

/// A FIFO with a count of outstanding tasks per file, and two places beside it for tasks that cannot run now.
/// A parked task waits for another task of its file; it returns to the tail when one of them ends. A resting
/// task waits for its next try after a failure. So neither keeps a worker, nor goes round and round.
///
/// Thread safety: every operation on any thread. The mutex is held inside operations only, never over a call
/// of a file.
class FileTaskQueue {
public:
    static constexpr uint64_t NEVER = UINT64_MAX;

    /// `wake` is posted once for each task that comes back to the tail by itself; null for a free list.
    explicit FileTaskQueue(Infra::CSemaphore* wake) : m_wake(wake) {}
    FileTaskQueue(const FileTaskQueue&) = delete;
    FileTaskQueue& operator=(const FileTaskQueue&) = delete;

    /// A file that is opened holds the memory that its tasks need beside their nodes, and drops it at its
    /// end. False if there is none. Whoever does not hold needs memory with the first task.
    bool Hold();
    void Drop();

    /// Appends the task; with `count` it is one more of its file. Posts nothing. False, with the task left to
    /// the caller, if there is no memory to count.
    bool Put(FileTask* task, bool count);

    /// The first task, or null.
    FileTask* Get();

    /// One task of the file is over. Parked tasks of the file return to the tail.
    void Release(CNFile* file);

    /// Tasks of the file that are queued, waiting or running.
    int Count(CNFile* file);

    /// Parks a task that was taken and refused; if a task of its file has ended since it was taken, it goes
    /// to the tail instead.
    void Park(FileTask* task);

    /// The same, unless it is the only task of its file, which is what the result false says.
    bool ParkUnlessLast(FileTask* task);

    /// Puts a task that was taken and failed at rest: 1 ms after its first failure, twice the time after each
    /// further one, 250 ms at most. Its pass is over, so parked tasks of the file return to the tail.
    void Rest(FileTask* task, uint64_t now_us);

    /// The calling worker is idle: whether it is to watch the time, because a rest ends at `*due_us` and
    /// nobody watches for that yet. Whoever watches calls EndWatch afterwards with the same time.
    bool BeginWatch(uint64_t* due_us);

    /// Tasks whose rest is over return to the tail. With `leaving` the caller has got other work, and another
    /// worker is woken to watch on if any task rests.
    void EndWatch(uint64_t due_us, uint64_t now_us, bool leaving);

    /// Empties the queue and forgets all counts; the tasks go to `rest`, in no order.
    void Clear(FileTaskQueue& rest);

private:
    struct Chain {
        FileTask* head = nullptr;
        FileTask* tail = nullptr;
        void append(FileTask* task);
        FileTask* take();
    };
    struct FileEntry {
        int count = 0;
        uint32_t releases = 0;
        Chain parked;
    };

    using Entries = std::map<CNFile*, FileEntry>;

    Entries::iterator entry_of(CNFile* file) INFRA_REQUIRES(m_mutex);
    void rest_entry(Entries::iterator entry) INFRA_REQUIRES(m_mutex);
    void park(FileEntry& entry, FileTask* task) INFRA_REQUIRES(m_mutex);
    void let_go(FileEntry& entry) INFRA_REQUIRES(m_mutex);
    void put_again(FileTask* task) INFRA_REQUIRES(m_mutex);
    void insert_resting(FileTask* task) INFRA_REQUIRES(m_mutex);

    Infra::CSemaphore* const m_wake;
    Infra::CMutex m_mutex{Infra::LockClass::FILE_TASKS};
    /// A file with no task out has no entry.
    Entries m_pending INFRA_GUARDED_BY(m_mutex);
    /// Entries that rest. With those in use they are as many as there are files that hold, or more.
    std::multimap<CNFile*, FileEntry> m_spare INFRA_GUARDED_BY(m_mutex);
    Chain m_list INFRA_GUARDED_BY(m_mutex);
    /// By the end of the rest, the soonest first.
    FileTask* m_resting INFRA_GUARDED_BY(m_mutex) = nullptr;
    /// Until when an idle worker watches; NEVER if none does.
    uint64_t m_watched_us INFRA_GUARDED_BY(m_mutex) = NEVER;
};

}  // namespace Orvex::Reticor
