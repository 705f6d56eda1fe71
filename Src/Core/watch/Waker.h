// Waker: ends a pool's wait for sockets from any thread.
#pragma once

#include <atomic>

#include <Infra/LockClasses.h>
#include <Infra/Mutex.h>

#include "Core/watch/EpollSet.h"
#include "Core/watch/WakePipe.h"

namespace Orvex::Reticor {

/// A CWINPipe whose read end the pool's epoll instance watches. At most one byte is under way, however many
/// changes are made: all it has to do is to end one wait.
///
/// Thread safety: any thread; Open before any other thread knows of it. The mutex is a leaf.
class Waker {
public:
    /// The epoll set outlives it.
    explicit Waker(EpollSet& epoll) : m_epoll(epoll) {}
    ~Waker();

    Waker(const Waker&) = delete;
    Waker& operator=(const Waker&) = delete;

    /// Builds the pair and has it watched. False, with nothing left open, if one of the two fails.
    bool Open();

    /// Whether there is a pair. Without one the wait looks round by itself.
    bool IsOpen() const { return m_open.load(std::memory_order_relaxed); }

    /// How the pair was found.
    enum class Pair {
        sound,
        renewed,  ///< Broken; a new one has its place.
        lost,     ///< Broken, and there is no new one: the wait looks round by itself until Restore has one.
    };

    /// Ends the wait that is under way, or the next one.
    Pair Wake();

    /// Takes the byte, after the wake end was reported. A report without a byte is the end of the pair.
    Pair Drain();

    /// Builds the pair that was lost. For the holder of the poll token. `sound` if none is lost, `lost` if it
    /// fails again.
    Pair Restore();

    /// Waits until the pair was written to, and for `limit_ms` at most. For the holder of the poll token.
    void Pause(int limit_ms);

    /// Puts a new epoll instance to use, as EpollSet::Replace does.
    bool ReplaceEpoll();

private:
    Pair renew() INFRA_REQUIRES(m_pipe_mutex);
    bool open() INFRA_REQUIRES(m_pipe_mutex);
    void close_ends() INFRA_REQUIRES(m_pipe_mutex);

    EpollSet& m_epoll;
    /// Guards the pair and the pending count, and is held over its use.
    Infra::CMutex m_pipe_mutex{Infra::LockClass::SELECT_PIPE};
    CWINPipe m_pipe INFRA_GUARDED_BY(m_pipe_mutex);
    int m_pipe_pending INFRA_GUARDED_BY(m_pipe_mutex) = 0;
    bool m_lost INFRA_GUARDED_BY(m_pipe_mutex) = false;
    std::atomic<bool> m_open{false};

    friend struct MultiplexerProbe;  // tests
};

}  // namespace Orvex::Reticor
