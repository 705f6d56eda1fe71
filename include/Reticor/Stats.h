// CStats: what the process does, at one moment. HandlerInfo: one handler.
#pragma once

#include <cstddef>
#include <cstdint>

#include <Reticor/Export.h>
#include <Reticor/MediaVerdicts.h>

namespace Orvex::Reticor {

/// The version of the structures below, and of the texts that are written of them. It rises when one grows.
/// Fields are only ever added at the end of a structure. `size` says what the caller knows of it: no more is
/// written there, and what the library does not know is 0.
constexpr uint32_t STATS_VERSION = 1;

/// Places of a `TimeSpread`.
constexpr size_t TIME_SPREAD_PLACES = 40;

/// How long something took, counted by powers of two: `count[i]` is of times below 2^i ns that are not below
/// 2^(i-1) ns; the last place has the rest. This structure does not grow.
struct TimeSpread {
    uint64_t count[TIME_SPREAD_PLACES];  ///< By place.
    uint64_t sum_ns;                     ///< All of them together.
    uint64_t max_ns;                     ///< The longest.

    /// How many there are.
    uint64_t GetCount() const {
        uint64_t all = 0;
        for (const uint64_t one : count) {
            all += one;
        }
        return all;
    }

    /// No less than the time below which `share` (0 to 1) of all are, and less than twice as much; the median
    /// with 0.5. 0 if there are none.
    uint64_t GetBound(double share) const {
        const double wanted = share * static_cast<double>(GetCount());
        uint64_t found = 0;
        for (size_t i = 0; i < TIME_SPREAD_PLACES; ++i) {
            found += count[i];
            if (count[i] != 0 && static_cast<double>(found) >= wanted) {
                return (uint64_t{1} << i) < max_ns ? uint64_t{1} << i : max_ns;
            }
        }
        return max_ns;
    }
};

/// The process as a whole. Counters never fall, while the process lives.
struct ProcessStats {
    uint32_t size = sizeof(ProcessStats);  ///< Bytes that the caller knows.
    uint32_t version = STATS_VERSION;      ///< For which the caller was built.
    uint64_t taken_us;                     ///< When: microseconds on the clock of Infra::CTime.
    uint32_t pools;                        ///< Pools that run.
    uint32_t timing;                       ///< 1 while times are measured (`CStats::SetTiming`).
    uint64_t handlers;                     ///< That were constructed and not yet destroyed.
    uint64_t timers_armed;                 ///< Timers of all pools that wait for their time.
    TimeSpread timer_lateness;             ///< From a timer's time until it was given to its pool.
    uint64_t stuck;       ///< Calls that run longer than `CNetThread::SetStuckLimit` says, now.
    uint64_t stuck_ever;  ///< Calls that were named for that.
    int32_t pid;          ///< The process's number, getpid(2).
    uint32_t reserved;    ///< 0.
};

/// A pool. Counters go on over all lives of the pools with that index.
struct PoolStats {
    uint32_t size = sizeof(PoolStats);  ///< Bytes that the caller knows.
    uint32_t version = STATS_VERSION;   ///< For which the caller was built.
    int32_t pool;                       ///< Its index, 0 for the public one.
    uint32_t workers;                   ///< Threads that were started.
    uint32_t busy;                      ///< Of them, those that neither sleep nor wait for sockets.
    uint32_t reserved;                  ///< 0.
    uint64_t queue_length;              ///< Records that wait for a worker, the library's own among them.
    uint64_t serial_length;             ///< Serial messages in line.
    uint64_t pushed;                    ///< Records that were ever queued, since this pool was created.
    uint64_t calls;                     ///< Of handlers, on its workers.
    // Records that workers took, by kind.
    uint64_t socket_events;    ///< Ready sockets, and idle time-outs.
    uint64_t messages;         ///< Close messages among them.
    uint64_t serial_messages;  ///< Of `NotifySerial`.
    uint64_t timers;           ///< That were due.
    uint64_t passes;           ///< Of the poller.
    uint64_t drains;           ///< Of the serial line.
    uint64_t heartbeats;       ///< Of the pool's daemon.
    // Since this pool was created.
    uint64_t reports;        ///< Of sockets that are ready, and of wake-ups.
    uint64_t strays;         ///< Reports that were about no registered socket.
    uint64_t rebuilds;       ///< What watches the sockets was built anew, for reports that did not cease.
    uint64_t epoll_refused;  ///< Times that the system had no room for a socket.
    uint64_t sockets;        ///< Registered now.
    uint64_t sockets_without_place;  ///< As `CNetThread::GetSocksWithoutPlace`.
    // Sockets that can still be watched. A socket whose handler runs leaves its place meanwhile.
    uint64_t places_left_read;    ///< For reading,
    uint64_t places_left_write;   ///< for writing,
    uint64_t places_left_except;  ///< and for exceptions.
    uint64_t timers_armed;        ///< Timers that wait for their time.
    uint64_t cpu_ns;              ///< Processor time of the workers that live.
    TimeSpread wait;              ///< From the push of a record until its call, while times are measured.
    TimeSpread run;               ///< Of calls, while times are measured; of messages one in 16.
};

/// A thread that calls handlers: a worker, or another one that has called some.
struct WorkerStats {
    uint32_t size = sizeof(WorkerStats);  ///< Bytes that the caller knows.
    uint32_t version = STATS_VERSION;     ///< For which the caller was built.
    int32_t pool;                         ///< -1 for a thread that is not a worker.
    int32_t thread_id;                    ///< The kernel's number, gettid(2).
    uint64_t cpu_ns;                      ///< Processor time of the thread.
    uint64_t calls;                       ///< Of handlers.
    uint64_t served;                      ///< Records that it took.
    int64_t handler;                      ///< The id of the handler in whose call it is; 0 for none.
    const char* call;        ///< "handle_input" and so on; empty for none. Good for the life of the process.
    const char* class_name;  ///< Of that handler, as in HandlerClassStats; empty for none. As long.
};

/// A class of handlers. Classes of equal name are one. An object whose handler was never called, and has
/// registered nothing, belongs to "not called yet"; from the 255th class on all are "other classes".
struct HandlerClassStats {
    uint32_t size = sizeof(HandlerClassStats);  ///< Bytes that the caller knows.
    uint32_t version = STATS_VERSION;           ///< For which the caller was built.
    const char* name;  ///< Readable, as the trace prints it. Good for the life of the process.
    uint64_t live;     ///< Objects whose `handle_close` was not called.
    uint64_t opened;   ///< Those, and those that were closed.
    uint64_t closed;   ///< Objects whose `handle_close` was called.
    uint64_t calls;    ///< `handle_close` among them.
    uint64_t timed;    ///< Calls that were measured,
    uint64_t time_ns;  ///< and how long they took together.
};

/// A place in the code that takes references on a handler, or gives them back (`CNetThread::SetHolderNotes`).
/// Which reference it is that a place gives back nobody knows: one that takes and never gives back stands out
/// by its count, one with a partner elsewhere by the partner's.
struct HandlerHolder {
    uint32_t size = sizeof(HandlerHolder);  ///< Bytes that the library knows.
    uint32_t version = STATS_VERSION;       ///< Of the library.
    const char* function;  ///< Readable, where the module exports its name (programs: -rdynamic); else empty.
    const char* module;    ///< The path of the program or the library; empty of one that was unloaded.
    uint64_t offset;       ///< Of the call, in that file, as addr2line(1) and debuggers take it.
    uint64_t address;     ///< Where the call returns to, in this process; 0: all places beyond the sixteenth.
    uint64_t taken;       ///< `AddRef` was called there.
    uint64_t given_back;  ///< `DecRef` was.
    uint32_t in_library;  ///< 1 if this library's own code did so, where it is linked as a shared library.
    uint32_t reserved;    ///< 0.
};

/// A handler at one moment.
struct HandlerInfo {
    uint32_t size = sizeof(HandlerInfo);  ///< Bytes that the library knows.
    uint32_t version = STATS_VERSION;     ///< Of the library.
    const char* class_name;               ///< As in HandlerClassStats. Good for the life of the process.
    const char* state;   ///< "open", "closing" (nobody took the close message yet), "detached" (there are
                         ///< references), "released" (`handle_close` was called). As long.
    int64_t id;          ///< 0 for one that is being made, or for which there was no memory.
    int32_t pool;        ///< The pool that the id names, -1 with the id 0. It may have ended.
    uint32_t reserved;   ///< 0.
    uint64_t age_ms;     ///< Since the constructor, in steps of some milliseconds.
    int64_t references;  ///< That keep it alive; one of them is the pool's until it is detached.
    int64_t sockets;     ///< Registered on it.
    uint64_t timers;     ///< Armed.

    uint32_t noted;  ///< 1 if it was made after `CNetThread::SetHolderNotes(true)`; the rest is 0 if not.
    uint32_t holder_count;  ///< Of `holders`.
    /// Places that took references or gave them back, those that hold most first. Good during the call.
    const HandlerHolder* const* holders;
    int64_t own_references;  ///< Those of no such place: the pool's, and of calls under way.
};

/// A call of a handler that does not come back.
struct StuckCall {
    uint32_t size = sizeof(StuckCall);  ///< Bytes that the library knows.
    uint32_t version = STATS_VERSION;   ///< Of the library.
    int32_t pool;                       ///< Whose worker it holds; -1 for another thread.
    int32_t thread_id;                  ///< The kernel's number, gettid(2).
    const char* class_name;             ///< As in HandlerClassStats. Good for the life of the process.
    const char* call;                   ///< "handle_input" and so on. As long.
    int64_t handler;                    ///< The handler's id.
    uint64_t run_us;                    ///< For how long it was seen to run.
    uint32_t times;                     ///< How many calls of this class were named, this one included.
    uint32_t spins;                     ///< 1 if it uses the processor, 0 if it blocks,
    char where[64];                     ///< in the kernel's function of that name; empty if it spins.
    uint32_t starved;                   ///< 1 if records wait in the pool and no worker is left.
    uint32_t reserved;                  ///< 0.
};

/// Most figures of an `ObjectStats`.
constexpr size_t OBJECT_FIGURES = 6;

/// A byte-stream sender, a file, a receiver, a tick or a lane. What they have to tell differs, so each figure
/// has its name with it. Counters only rise, from the making of the object on.
///
/// "stream_sender": `waiting_bytes`, `buffer_bytes` that may wait, `sent_bytes` that the socket took and
/// `refused_puts` for which there was no room. "file": `written_bytes` and `read_bytes` of its device,
/// `device_errors`. "receiver": `calls` of it and `running` (1). "tick": `period_us`, `ticks` so far and
/// `events` on it. "lane", of `CMediaLanes`: the number of its `buffer`, `waiting_frames` and `waiting_bytes`
/// that no worker has taken yet, `lost_frames` and `lost_bytes` for which its bounds had no room.
struct ObjectStats {
    uint32_t size = sizeof(ObjectStats);  ///< Bytes that the caller knows.
    uint32_t version = STATS_VERSION;     ///< For which the caller was built.
    const char* kind;                     ///< One of the words above. Good for the life of the process.
    int64_t id;                           ///< Of the handler.
    const char* names[OBJECT_FIGURES];    ///< Of the figures, as above; null after the last. As long.
    uint64_t values[OBJECT_FIGURES];      ///< The figures.
};

/// Memory that the library holds, of one kind and one size.
///
/// "free_records": records of work that rest on the process's list, "thread_records": in the small stocks of
/// threads, "reserved_records": kept for when there is no memory. "thread_blocks": blocks that CTsMemory
/// keeps for its workers, "shared_blocks": for all threads; a row for each size of which there are some.
/// "media_frames": frames that media buffers hold, those that are being filled among them. A packet counts in
/// each buffer that holds it. A buffer that is left out of the texts is left out here too.
struct MemoryStats {
    uint32_t size = sizeof(MemoryStats);  ///< Bytes that the caller knows.
    uint32_t version = STATS_VERSION;     ///< For which the caller was built.
    const char* kind;                     ///< One of the words above. Good for the life of the process.
    uint64_t piece_bytes;                 ///< Of each piece; 0 where they differ.
    uint64_t pieces;                      ///< Records, blocks, or frames.
    uint64_t bytes;                       ///< All of them, without what the general allocator adds.
};

/// What is wrong. Later versions may add kinds.
enum class AlarmKind : uint32_t {
    POOL_FULL,     ///< Sockets are left out by a pool, or the last place of one of its sets is taken.
    CLOCK_LATE,    ///< A timer was given to its pool more than 250 ms late, or waits there for that long.
    WORKER_STUCK,  ///< A call runs for longer than `CNetThread::SetStuckLimit` says.
};

/// Something that was wrong in a pool at least once. What is over for less than ten seconds, and comes back,
/// has not ended. Sockets that are left out and calls are noticed when it happens; timers that wait, and a
/// pool whose last place is taken, when somebody looks.
struct AlarmStats {
    uint32_t size = sizeof(AlarmStats);  ///< Bytes that the caller knows.
    uint32_t version = STATS_VERSION;    ///< For which the caller was built.
    AlarmKind kind;                      ///< What is wrong.
    int32_t pool;                        ///< Where; -1: on a thread that is not a worker.
    uint32_t lasts;                      ///< 1: it is wrong now; 0: it was.
    uint32_t reserved;                   ///< 0.
    uint64_t since_us;  ///< When it began the last time, by the clock of `ProcessStats::taken_us`.
    uint64_t ended_us;  ///< When it ended; 0 while it lasts.
    uint64_t times;     ///< How often it has begun: of a full pool since that was created, else ever.
    uint64_t amount;    ///< Now: sockets that are left out, late timers that wait, calls that run too long.
    uint64_t most_us;   ///< How late the latest timer was, how long the longest call of now has run; else 0.
    char text[128];     ///< All of this in a sentence, in English, with an end mark.
};

/// A media buffer. What one of `CMediaLanes` has not taken yet is told by the object "lane".
struct BufferStats {
    uint32_t size = sizeof(BufferStats);  ///< Bytes that the caller knows.
    uint32_t version = STATS_VERSION;     ///< For which the caller was built.
    uint64_t buffer;                      ///< Its number, the first of the process being 1.
    uint64_t senders;                     ///< On its list.
    uint64_t frames;                      ///< Complete ones that it holds,
    uint64_t bytes;                       ///< and their bytes.
    uint64_t put_bytes;                   ///< Of frames that were ever put.
    uint64_t held_frames;  ///< All that it has the packets of: complete ones, those that wait for senders
    uint64_t held_bytes;   ///< that step ahead, and the one that is being filled.
    // As in MediaBufferStats.
    uint64_t expired_frames;  ///< Frames thrown away for their age.
    uint64_t expired_bytes;   ///< Their bytes.
    uint64_t debt_bytes;      ///< Frames are let go that many bytes too late.
    uint64_t pinned_frames;   ///< Frames that cannot grow too old though no sender stands on them.
    uint64_t pinned_bytes;    ///< Their bytes.
    uint64_t kept_frames;     ///< Frames that wait for senders that step ahead.
    uint64_t kept_bytes;      ///< Their bytes.
};

/// Senders of media that have the same verdict.
struct VerdictStats {
    uint32_t size = sizeof(VerdictStats);  ///< Bytes that the caller knows.
    uint32_t version = STATS_VERSION;      ///< For which the caller was built.
    SenderVerdictKind kind;                ///< The verdict.
    uint32_t reserved;                     ///< 0.
    uint64_t senders;                      ///< That are on a buffer's list.
    uint64_t ended;                        ///< That ever ended with it, if they were looked at until then.
};

/// How much was done between two snapshots, and how fast. Rates are by second.
struct PoolRates {
    uint32_t size = sizeof(PoolRates);  ///< Bytes that the caller knows.
    uint32_t version = STATS_VERSION;   ///< For which the caller was built.
    int32_t pool;                       ///< Its index.
    uint32_t reserved;                  ///< 0.
    double seconds;                     ///< From the older one to the newer one.
    double utilisation;                 ///< Processor time of the workers, by worker: 0 to 1.
    double calls;                       ///< Of handlers.
    double socket_events;               ///< Ready sockets, and idle time-outs.
    double messages;                    ///< Serial ones as well.
    double timers;                      ///< That were due.
    double passes;                      ///< Of the poller.
    double reports;                     ///< Of ready sockets, and of wake-ups.
    TimeSpread wait;                    ///< What came between the two; max_ns is that of the newer one.
    TimeSpread run;                     ///< The same for calls.
};

/// A snapshot. Making one reads what each thread counts for itself; nobody waits for it longer than for a
/// few loads. It does not look at any object of the product but media buffers and their senders, for the
/// texts: one look at each sender (CMediaVerdicts) under the lock of its buffer; a buffer whose lock cannot
/// be had for 20 ms is left out.
///
/// Thread safety: the snapshot itself has no lock; the static operations on any thread, also inside
/// `handle_*`.
class RETICOR_API CStats {
public:
    /// Empty: no pools, no classes.
    CStats();
    /// Frees what was seen.
    ~CStats();
    /// Is moved, not copied.
    CStats(const CStats&) = delete;
    /// Is moved, not copied.
    CStats& operator=(const CStats&) = delete;
    /// Takes over what `other` saw, and leaves it empty.
    CStats(CStats&& other) noexcept;
    /// The two exchange what they saw.
    CStats& operator=(CStats&& other) noexcept;

    /// Looks at everything anew. Any number of threads may do so at a time, each with a snapshot of its own.
    /// Result: 0; -1, with the snapshot as it was, if there is no memory.
    int Take();

    // What was seen. `place` counts from 0. Result: 0; -1, with nothing written, if there is none with that
    // place, or `size` is too small to be one of ours. All but `size` and `version` is written.

    /// The process. -1 also in a snapshot that is empty.
    int GetProcess(ProcessStats& stats) const;
    /// How many pools there were.
    size_t GetPoolCount() const;
    /// The pools in the order of their indices.
    int GetPool(size_t place, PoolStats& stats) const;
    /// How many threads there were that call handlers.
    size_t GetWorkerCount() const;
    /// The threads in the order of their pools.
    int GetWorker(size_t place, WorkerStats& stats) const;
    /// How many classes of handlers there were.
    size_t GetClassCount() const;
    /// The classes, those with the most calls first.
    int GetClass(size_t place, HandlerClassStats& stats) const;
    /// How many byte-stream senders, files, receivers, ticks and lanes there were.
    size_t GetObjectCount() const;
    /// The objects, the youngest first.
    int GetObject(size_t place, ObjectStats& stats) const;

    /// How many media buffers there were.
    size_t GetBufferCount() const;
    /// Media buffers by their numbers.
    int GetBuffer(size_t place, BufferStats& stats) const;
    /// How many senders there were on the lists of media buffers.
    size_t GetSenderCount() const;
    /// Those senders, the ones that suffer most first.
    int GetSender(size_t place, SenderVerdict& verdict) const;
    /// How many senders of media have ended of which the last verdict is known: 32 at most.
    size_t GetEndedSenderCount() const;
    /// The last verdicts on those, the youngest first.
    int GetEndedSender(size_t place, SenderVerdict& verdict) const;
    /// How many kinds of verdicts there are; 0 of an empty snapshot.
    size_t GetVerdictCount() const;
    /// The kinds, each with how many senders have it, and have ended with it.
    int GetVerdict(size_t place, VerdictStats& stats) const;

    /// How many rows there were of memory.
    size_t GetMemoryCount() const;
    /// Memory, by kind and size.
    int GetMemory(size_t place, MemoryStats& stats) const;
    /// How many alarms there were, those that are over included.
    size_t GetAlarmCount() const;
    /// The alarms: those that last first, then those that ended last.
    int GetAlarm(size_t place, AlarmStats& stats) const;
    /// One word for a kind, with underscores: "pool_full". Good for the life of the process.
    static const char* GetAlarmName(AlarmKind kind);

    // As texts. The first `size` bytes are written to `room`, without an end mark. Result: the length of the
    // whole text, whatever the room; 0 of an empty snapshot, or without memory.

    /// For people.
    size_t toText(char* room, size_t size) const;
    /// One object, on one line. Ids are strings: many readers keep numbers of 53 bits.
    size_t toJson(char* room, size_t size) const;
    /// The text exposition format of metrics, with `reticor_build_info`; pools are told by the label `pool`.
    size_t toPrometheus(char* room, size_t size) const;

    /// Has clocks read from now on, or not any more: for `wait`, `run` and `time_ns`. Off at the start.
    static void SetTiming(bool on);

    /// Below.
    friend int StatsDiff(const CStats& older, const CStats& newer, int pool, PoolRates& rates);

private:
    struct State;
    State* m_state;  ///< Owned.
};

/// What the pool with that index did between two snapshots. Result: 0; -1, with nothing written, if one of
/// the two does not have the pool, they are not in order, or `size` is too small.
RETICOR_API int StatsDiff(const CStats& older, const CStats& newer, int pool, PoolRates& rates);

}  // namespace Orvex::Reticor
