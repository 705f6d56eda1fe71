// CNetThread: starts and ends the library, and its pools of worker threads.
#pragma once

#include <Reticor/Export.h>

namespace Orvex::Reticor {

struct HandlerInfo;
struct StuckCall;

extern "C" {

/// `CNetThread::CreateThreadPool(threads, file_io != 0)`.
RETICOR_API int CreateThreadPool(unsigned int threads, int file_io);

/// `CNetThread::DestroyThreadPool()`.
RETICOR_API int DestroyThreadPool();

/// `CNetThread::SetRecvThreadPriority(priority, policy, stack)`.
RETICOR_API int SetRecvThreadPriority(int priority, int policy, int stack);

}  // extern "C"

/// The door through which a product starts and ends the library. All operations are static.
///
/// The public pool is shared and counted: the first `CreateThreadPool` starts the library, each further one
/// counts one user more, and the last `DestroyThreadPool` stops everything. Up to 63 private pools keep the
/// library up as well.
///
/// Thread safety: any thread, but never from inside a `handle_*` call: creating and destroying pools,
/// `TraversalSock`, `EnableR3` and `DisableR3` share one lock, which is held while the threads of a pool are
/// joined. A worker that destroys its own pool ends the process with an assertion that says so. The
/// scheduling values and `SetRcvPriority` may be set anywhere.
///
/// Other threads may go on using the handlers of a pool while it ends, as long as they know them alive: an
/// operation that comes too late finds no pool, and gives -1 or does nothing.
class RETICOR_API CNetThread {
public:
    CNetThread() = delete;

    /// Starts the library and its public pool, or counts one user more. `threads` workers, raised to a
    /// multiple of the processor count; 0 is logged as an error and raised likewise (on one processor such a
    /// pool has no workers), and more than 65536 are refused. While all of them are in calls that block,
    /// nothing else is served. `threads` counts only in the call that creates the pool. If the system gives
    /// only some of them, a line at level 2 says how many, and the pool runs with those. `file_io` starts two
    /// file workers per processor, for `CNFile` and `NotifyIO`, if no call of the process has done so yet:
    /// they serve all pools, live until the library goes down, and do not come again when it is started anew.
    /// Blocks for the start of the threads. Result: 0; -1, with a line at level 2, if the library cannot
    /// start, the system gives not one thread for the workers or for the files, or there is no memory. What
    /// was begun is then undone.
    static int CreateThreadPool(unsigned int threads, bool file_io);

    /// Starts a private pool, and the library and the file workers if need be. Result: the pool's index, 1 to
    /// 63, for `CNetHandler(int)`; -1, with a line at level 2, if the library cannot start, 63 private pools
    /// exist, the pool has no worker, or there is no memory, as above.
    static int CreatePrivatePool(unsigned int threads, bool file_io);

    /// Ends one use of the public pool, and with the last one (and no private pool alive) the library: blocks
    /// until all its threads have ended and every file that has buffers was written out (`CNFile`). Handlers
    /// of the pool should be closed before: those whose close messages no worker has taken are closed here,
    /// and the `handle_close` of the last reference then runs on this thread. Result: 0; -1 if there is no
    /// pool.
    static int DestroyThreadPool();

    /// Ends a private pool; blocks until its threads have ended. Closed handlers as above. Result: 0; -1 if
    /// `index` is not the index of a private pool.
    static int DestroyPrivatePool(int index);

    /// Scheduling values of the next pool that is created; afterwards they are back at 64, 0, 0. `priority`
    /// is 1, 64 (the default) or 127, `policy` 0 (the default) or 1 for round robin, `stack` a size in bytes
    /// or 0 for the system's default. Result: 0; -1, with a line at level 2, for other values.
    static int SetThreadPriority(int priority, int policy, int stack);

    /// Scheduling values of the stream receiver threads, used when the library starts the next time. Only
    /// `policy` is checked. Result as above.
    static int SetRecvThreadPriority(int priority, int policy, int stack);

    /// The receive period of stream receivers: level 0 is 10 ms, 2 is 25 ms, 3 is 30 ms, any other is 20 ms.
    /// Call it before the library starts, which is when the threads take their tick over.
    static void SetRcvPriority(int level);

    /// Switches the debug server on, on port 42323 or above and for clients of this machine, or counts one
    /// holder more. The public pool must exist; an assertion says so. Result: 0; -1, with a line at level 2,
    /// if the server cannot start, which is so unless it was built in (`R3ServerStart`).
    static int EnableR3();

    /// Ends one use of the debug server, and with the last one the server. A call without a use is counted
    /// too: it takes the next `EnableR3` away, which then gives 0 and starts nothing. The public pool must
    /// exist, so call this before the last `DestroyThreadPool`. Result: 0, or the result of `R3ServerExit`.
    static int DisableR3();

    /// Logs every registered socket of every pool at level 4. Result: the number of sockets listed; if memory
    /// does not suffice for all of them, a line at level 2 says so.
    static int TraversalSock();

    /// How many sockets of a pool are registered for a direction in which it watches as many as it can
    /// already (`CNetHandler::RegisterSock` tells how many that are): nothing is heard of them there until
    /// they are registered once more while there is room. 0 in a pool that was never full. Any thread, also
    /// inside `handle_*`; does not block. Result: the number, or -1 if there is no such pool.
    static int GetSocksWithoutPlace(int pool);

    /// Calls `call` for every handler of the process, the oldest first, with no lock held: what it is, and
    /// what may keep it alive. It ends early when `call` gives false. `context` is handed through. Any
    /// thread, also inside `handle_*`; waits for no handler. Result: how many there were; -1 without memory.
    static int ListHandlers(bool (*call)(void* context, const HandlerInfo& handler), void* context);

    /// Has the places noted that take references on a handler (`CNetHandler::AddRef`) or give them back, for
    /// each handler that is made from now on, or not any more: `ListHandlers` tells them, so that a handler
    /// that does not end has somebody to blame. Off at the start. A handler that was made while it was on
    /// keeps its notes, of sixteen places, in some 400 bytes of its own; one that was made before, or without
    /// memory for them, has none. Any thread, also inside `handle_*`; does not block.
    static void SetHolderNotes(bool on);

    /// Has calls of handlers named that run longer than `limit_ms` milliseconds: a line at level 2, once for
    /// each call, no later than twice the limit after its beginning. It tells pool, thread, class, id, which
    /// call, and whether it blocks, and where, or spins. 0 ends that, as it is at the start. A thread of its
    /// own looks twice in each limit while anything is called, and sleeps otherwise; calls read no clock for
    /// it. Blocks for the end of that thread with 0. Result: 0, or -1 if the system gives no thread.
    static int SetStuckLimit(int limit_ms);

    /// Has `hook` called as well for each call that is named, on the thread that looks, with no lock held.
    /// Null, as it is at the start, calls nothing. `context` is handed through. The hook changes no limit.
    static void SetStuckHook(void (*hook)(void* context, const StuckCall& call), void* context);

    /// Answers at a Unix socket at `path`, which this user alone may open, what the process does: from a
    /// thread of its own, so also while all workers hang. A client sends a line ("text", "json", "metrics",
    /// "handlers", "holders on" and so on) and gets the answer; then its connection is closed. Sixteen
    /// may be connected; whoever has been so longest gives way to the next one. A socket at the path that
    /// nobody listens at is replaced. It stays until StopServingStats, whatever pools there are. Result: 0;
    /// -1, with a line at level 2, if it serves already, the path is empty, taken or above 107 bytes, or the
    /// system gives no socket, no thread or no memory.
    static int ServeStats(const char* path);

    /// Ends that: blocks until the thread has ended, and removes the path. Result: 0; -1 if none is served.
    static int StopServingStats();
};

}  // namespace Orvex::Reticor
