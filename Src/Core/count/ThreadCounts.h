// ThreadCounts: what each thread counts for itself, so that counting needs no lock and shares no cache line.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>

#include <Infra/LockClasses.h>
#include <Infra/Mutex.h>

#include "Core/count/ClassRows.h"
#include "Core/count/Spread.h"
#include "Core/count/Tally.h"

namespace Orvex::Reticor {

/// What a worker can take from its queue.
enum class Served : unsigned { SOCKET, MESSAGE, SERIAL, TIMER, POLL, DRAIN, HEARTBEAT, COUNT };
constexpr size_t SERVED_COUNT = static_cast<size_t>(Served::COUNT);

/// Which operation of a handler is called. Fits into the byte that is the same in all ids of handlers.
enum class CallKind : uint8_t {
    NONE,
    INPUT,
    OUTPUT,
    EXCEPTION,
    INPUT_TIMEOUT,
    OUTPUT_TIMEOUT,
    TIMEOUT,
    MESSAGE,
    CLOSE,
    STREAM_INPUT,
    STREAM_WRITE,
    PASSIVE_INPUT,
    FILE_TASK,
    COUNT
};

/// "handle_input" and so on, "file task" for what a file has done on a worker; empty for NONE.
const char* call_name(CallKind kind);

/// What is counted for a class of handlers. 32 bytes, so that a row is found by a shift.
struct ClassTally {
    Tally calls;
    Tally closed;   ///< Objects whose handle_close was called.
    Tally time_ns;  ///< In calls that were timed.
    Tally timed;    ///< Calls that were timed.
};
static_assert(sizeof(ClassTally) == 32, "the offset of a row is kept in each handler");

/// What all threads of a kind have counted: of the workers of one pool, or of all others.
struct PoolTally {
    Tally served[SERVED_COUNT];
    Tally calls;       ///< Into handlers, by threads that have ended; those of others are in their rows.
    SpreadTally wait;  ///< From the push of a record until its call. While timing is on.
    SpreadTally run;   ///< Of calls. While timing is on.
};

/// One block for each thread that works for the library, written by that thread alone. Threads without one,
/// which are never workers, share one; of what two of them count at once there, a part can be lost.
struct alignas(128) ThreadCounts {
    /// The call that runs: the handler's id, with the CallKind in its highest byte, which is 0xFF in every
    /// id; 0 between calls. There is no pointer to the handler, so that anybody may look.
    std::atomic<uint64_t> m_call{0};
    Tally m_begun;  ///< Calls from the loops of the library: tells a call from the next one of its kind.
    PoolTally m_pool_tally;
    ClassTally m_classes[ClassRows::COUNT];

    /// Of a worker, -1 for other threads.
    int m_pool = -1;
    int m_thread_id = 0;
    pthread_t m_thread{};

    /// Of the calling thread: its own, or the one that is shared.
    static ThreadCounts& Mine() { return *t_mine; }

    /// Gives the calling thread a block of its own for the rest of its life, if there is memory: as a worker
    /// of that pool, or of none with -1. Nothing if it has one.
    static void Attach(int pool);

    /// The same with a block that was made ahead of the thread, as those of workers are.
    static void Attach(int pool, std::unique_ptr<ThreadCounts> block);

    /// Calls `visit(const ThreadCounts&)` for the block of each living thread that has one. They do not end
    /// meanwhile, so `visit` takes no other lock.
    template <class Visitor>
    static void ForEach(Visitor visit) {
        Infra::CGuard guard(sm_mutex);
        for (const ThreadCounts* block = sm_first; block != nullptr; block = block->m_next) {
            visit(*block);
        }
    }

    /// The same with what threads that have ended, and those without a block, have counted: calls
    /// `visit_class(row, const ClassTally&)` for each row, and for each pool
    /// `visit_pool(pool, const PoolTally&, calls)`; `calls` are to be added to those of the tally. Nothing
    /// that a thread has counted is missing, or there twice.
    template <class ClassVisitor, class PoolVisitor>
    static void ForEachTally(ClassVisitor visit_class, PoolVisitor visit_pool) {
        Infra::CGuard guard(sm_mutex);
        for (const ThreadCounts* block = sm_first; block != nullptr; block = block->m_next) {
            visit_rows(*block, visit_class);
            visit_pool(block->m_pool, block->m_pool_tally, block->Calls());
        }
        visit_rows(sm_shared, visit_class);
        visit_rows(sm_ended, visit_class);
        for (int pool = 0; pool < POOLS; ++pool) {
            visit_pool(pool, sm_ended_pools[pool], uint64_t{0});
        }
    }

    /// All calls into handlers that the thread has made.
    uint64_t Calls() const;

    static constexpr int KIND_SHIFT = 56;

    /// Part of CallMark: the word for a call.
    static uint64_t call_word(int64_t id, CallKind kind) {
        return static_cast<uint64_t>(id) ^ static_cast<uint64_t>(kind) << KIND_SHIFT;
    }
    static CallKind kind_in(uint64_t word) {
        return word == 0 ? CallKind::NONE : static_cast<CallKind>((word >> KIND_SHIFT) ^ 0xFF);
    }
    static int64_t id_in(uint64_t word) { return static_cast<int64_t>(word | uint64_t{0xFF} << KIND_SHIFT); }

    /// Row of a class in this block by its offset, `offset_of(row)`: spares a multiplication.
    ClassTally& at_offset(uint32_t offset) {
        return *reinterpret_cast<ClassTally*>(reinterpret_cast<char*>(m_classes) + offset);
    }
    static constexpr uint32_t offset_of(uint32_t row) {
        return row * static_cast<uint32_t>(sizeof(ClassTally));
    }
    static constexpr uint32_t row_at(uint32_t offset) {
        return offset / static_cast<uint32_t>(sizeof(ClassTally));
    }

private:
    static constexpr int POOLS = 64;

    template <class ClassVisitor>
    static void visit_rows(const ThreadCounts& block, ClassVisitor& visit) {
        for (uint32_t row = 0; row < ClassRows::COUNT; ++row) {
            visit(row, block.m_classes[row]);
        }
    }

    struct Return;
    void leave();
    static void fold(const PoolTally& ended, PoolTally& sum);

    ThreadCounts* m_next = nullptr;
    ThreadCounts** m_link = nullptr;  ///< What points to this one.

    static ThreadCounts sm_shared;
    static inline thread_local ThreadCounts* t_mine __attribute__((tls_model("initial-exec"))) = &sm_shared;
    static ThreadCounts sm_ended;            ///< Sums of the rows of threads that have ended,
    static PoolTally sm_ended_pools[POOLS];  ///< and of what they have counted for their pools.
    static Infra::CMutex sm_mutex;
    static ThreadCounts* sm_first INFRA_GUARDED_BY(sm_mutex);
};

}  // namespace Orvex::Reticor
