// EpollSet: the epoll instance of a pool, and what its bits mean.
#pragma once

#include <sys/epoll.h>

#include <atomic>
#include <cstdint>

#include "Core/record/SockRecord.h"

namespace Orvex::Reticor {

/// For the kernel. EPOLLHUP and EPOLLERR are reported unasked.
inline uint32_t kernelBits(uint32_t directions) {
    return (directions & SOCK_READ ? uint32_t{EPOLLIN} : 0) |
           (directions & SOCK_WRITE ? uint32_t{EPOLLOUT} : 0) |
           (directions & SOCK_EXCEPT ? uint32_t{EPOLLPRI} : 0);
}

// How the kernel's bits are the three directions, as select(2) has it.
constexpr uint32_t READ_REPORTS = EPOLLIN | EPOLLHUP | EPOLLERR;
constexpr uint32_t WRITE_REPORTS = EPOLLOUT | EPOLLERR;

/// What of a report goes to the handler, of the directions that have a place in the sets. An exception hides
/// the others.
inline int16_t delivered(uint32_t reported, uint32_t admitted) {
    if ((admitted & SOCK_EXCEPT) && (reported & EPOLLPRI)) {
        return REVENT_EXCEPT;
    }
    const int read = (admitted & SOCK_READ) && (reported & READ_REPORTS) ? REVENT_READ : 0;
    const int write = (admitted & SOCK_WRITE) && (reported & WRITE_REPORTS) ? REVENT_WRITE : 0;
    return static_cast<int16_t>(read | write);
}

/// What the kernel says with each report: the handle, and the number of the registration, so that a report of
/// an earlier life of the handle never reaches a later one.
inline uint64_t markOf(const CEvent* ev) {
    return uint64_t{ev->m_timer.m_sequence} << 32 | static_cast<uint32_t>(ev->m_key);
}
inline uint32_t handleOf(uint64_t mark) {
    return static_cast<uint32_t>(mark);
}

/// Thread safety: Tell on any thread that holds the mutex of the record; the rest as it says.
class EpollSet {
public:
    /// The mark of the wake end. No record has it.
    static constexpr uint64_t WAKE_MARK = ~uint64_t{0};

    EpollSet() = default;
    ~EpollSet();
    EpollSet(const EpollSet&) = delete;
    EpollSet& operator=(const EpollSet&) = delete;

    /// Before any other thread knows of it. False if the system gives no instance.
    bool Open();

    /// Whether there is an instance. Any thread.
    bool IsOpen() const { return m_epoll.load(std::memory_order_relaxed) != -1; }

    /// epoll_wait. For the holder of the poll token.
    int Wait(epoll_event* reports, int most, int limit_ms) {
        return ::epoll_wait(m_epoll.load(std::memory_order_relaxed), reports, most, limit_ms);
    }

    /// epoll_ctl for a record, whose mark goes with it. False with the reason in errno.
    bool Tell(const CEvent* ev, int operation, uint32_t events);

    /// Reports from now on when `fd`, the wake end, is readable. Any thread, one at a time.
    bool WatchWakeEnd(int fd);

    /// Puts a new instance in the place of the old one, which knows nothing but the wake end, unless that is
    /// -1. Result: the old one, for the caller to close; -1 with nothing changed if the system gives none.
    int Replace(int wake_fd);

private:
    static bool watch_wake_end(int epoll, int fd);

    std::atomic<int> m_epoll{-1};

    friend struct MultiplexerProbe;  // tests
};

}  // namespace Orvex::Reticor
