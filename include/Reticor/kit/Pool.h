// Pool: workers that run what is posted to them, and on which connections and timers live.
#pragma once

#include <chrono>
#include <cstddef>

#include <Reticor/Export.h>
#include <Reticor/kit/UniqueFunction.h>

namespace Orvex::Reticor::Kit {
inline namespace v1 {

struct PoolState;

/// What `stop` has found. All are counts of things that the kit made.
struct StopReport {
    size_t cut = 0;     ///< Connections that were ended though bytes of theirs still waited.
    size_t stayed = 0;  ///< What a call-back that has not returned keeps. A line at level 2 names them.
};

/// A private pool of worker threads, which starts the library if need be. It is up as long as the object
/// is.
///
/// Thread safety: `post` and its kin on any thread, also one that is not the library's. Making, moving,
/// stopping and destroying a pool are for one thread, which is not a worker: they wait for the workers.
///
/// The handles that are made with a pool (connections, timers) hold references of their own, never bare
/// ids: one that outlives its pool is closed, and all its operations give false. A pool that is made later
/// never has anything to do with it.
class RETICOR_API Pool {
public:
    /// No pool: `isOpen` is false, and whatever is posted is destroyed.
    Pool() noexcept = default;

    /// Starts `threads` workers, raised to a multiple of the processors. `file_workers` starts the
    /// library's file workers as well, for `postIO`; they are started once in a process. Blocks for the
    /// start of the threads. If that fails `isOpen` is false, and the library has logged why.
    explicit Pool(unsigned int threads, bool file_workers = false);

    /// `stop` with its default.
    ~Pool();
    /// Takes the workers over; `other` has none then.
    Pool(Pool&& other) noexcept;
    /// The same; the pool that was held before ends as by the destructor.
    Pool& operator=(Pool&& other) noexcept;
    /// There is no copy.
    Pool(const Pool&) = delete;
    /// There is no copy.
    Pool& operator=(const Pool&) = delete;

    /// Whether there are workers.
    bool isOpen() const noexcept;

    /// The number for `CNetHandler(int)`, for handlers of your own on these workers; -1 without a pool.
    /// Close them before you stop the pool.
    int index() const noexcept;

    /// Runs `call` on a worker. Returns at once. Calls are begun in the order of their posting, and run
    /// side by side. It is run or destroyed exactly once, on the pool: destroyed, if the pool is cut before
    /// its turn comes. True if it was taken; false if it is empty, the pool is stopping or there is no
    /// memory, and then it is destroyed before this returns. Nothing is allocated for captures of up to 48
    /// bytes, once the pool has grown to as many calls as wait at a time.
    bool post(UniqueFunction<void()> call);

    /// The same, strictly one after another: for what must not overlap and belongs to no connection.
    bool postSerial(UniqueFunction<void()> call);

    /// The same on a file worker, which may block. False also, with a line at level 2, if no file workers
    /// run: they start with the first pool that asks for them, and do not come again once the library has
    /// gone down.
    bool postIO(UniqueFunction<void()> call);

    /// Ends the pool: takes nothing new, lets what is posted run and connections send what waits for at
    /// most `drain`, then cuts the rest, and waits for call-backs that run. When they take longer than a
    /// second more, a line at level 2 says who stays, by class, and it waits on. Not inside a call-back:
    /// that is refused with a line. A second call does nothing.
    StopReport stop(std::chrono::milliseconds drain = std::chrono::seconds(5));

private:
    friend struct PoolState;
    friend class Server;

    PoolState* m_state = nullptr;  ///< Owned.
};

/// `pool.post(call)`.
inline bool post(Pool& pool, UniqueFunction<void()> call) {
    return pool.post(std::move(call));
}
/// `pool.postSerial(call)`.
inline bool postSerial(Pool& pool, UniqueFunction<void()> call) {
    return pool.postSerial(std::move(call));
}
/// `pool.postIO(call)`.
inline bool postIO(Pool& pool, UniqueFunction<void()> call) {
    return pool.postIO(std::move(call));
}

}  // namespace v1
}  // namespace Orvex::Reticor::Kit
