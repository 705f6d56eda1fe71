// EpollSet: the epoll instance of a pool, and what its bits mean.
#pragma once

#include <sys/epoll.h>

#include <atomic>
#include <cstdint>

#include "Core/record/SockRecord.h"

namespace Orvex::Reticor {

/// For the kernel. EPOLLHUP and EPOLLERR are reported unasked.
inline uint32_t kernel_bits(uint32_t directions) {
    return (directions & SOCK_READ ? uint32_t{EPOLLIN} : 0) |
           (directions & SOCK_WRITE ? uint32_t{EPOLLOUT} : 0) |
           (directions & SOCK_EXCEPT ? uint32_t{EPOLLPRI} : 0);
}

/// How the kernel's bits are the three directions, as select(2) has it.
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
inline uint64_t mark_of(const CEvent* ev) {
    return uint64_t{ev->m_timer.m_sequence} << 32 | static_cast<uint32_t>(ev->m_key);
}
inline uint32_t handle_in_mark(uint64_t mark) {
    return static_cast<uint32_t>(mark);
}

/// There are two places for an instance, since it can be replaced while sockets come and go: a record says in
/// which of them it is (MUX_SIDE), and moves over when its turn comes.
///
/// Thread safety: the operations on a record on any thread that holds its mutex; the rest as it says.
class EpollSet {
public:
    /// The mark of the wake end. No record has it.
    static constexpr uint64_t WAKE_MARK = ~uint64_t{0};

    EpollSet();
    ~EpollSet();
    EpollSet(const EpollSet&) = delete;
    EpollSet& operator=(const EpollSet&) = delete;

    /// Before any other thread knows of it. False if the system gives no instance.
    bool Open();

    /// Whether there is an instance. Any thread.
    bool IsOpen() const { return in_use() != -1; }

    /// epoll_wait. For the holder of the poll token.
    int Wait(epoll_event* reports, int most, int limit_ms) {
        return ::epoll_wait(in_use(), reports, most, limit_ms);
    }

    /// Reports from now on when `fd`, the wake end, is readable. Any thread, one at a time.
    bool WatchWakeEnd(int fd) { return watch_wake_end(in_use(), fd); }

    /// A new record, which no instance knows yet, belongs to the one in use.
    void Enlist(CEvent* ev);

    /// epoll_ctl for a record, whose mark goes with it. False with the reason in errno.
    bool Tell(const CEvent* ev, int operation, uint32_t events);

    // The holder of the poll token replaces the instance in three steps: Replace, MoveOver for each record,
    // CloseFormer. Between them a record is told to the instance that it belongs to.

    /// Puts a new instance to use, which knows nothing but the wake end, unless that is -1. False, with the
    /// reason in errno and nothing changed, if the system gives none. Not while WatchWakeEnd runs.
    bool Replace(int wake_fd);

    /// Has the record belong to the instance in use, which does not watch it yet. False if the former one did
    /// not know its number any more, though it was told to.
    bool MoveOver(CEvent* ev);

    void CloseFormer();

private:
    static bool watch_wake_end(int epoll, int fd);
    int in_use() const {
        return m_sides[m_side.load(std::memory_order_relaxed)].load(std::memory_order_relaxed);
    }

    std::atomic<int> m_sides[2];          ///< The instances, -1 where there is none.
    std::atomic<unsigned int> m_side{0};  ///< Which of them is in use.

    friend struct MultiplexerProbe;  // tests
};

}  // namespace Orvex::Reticor
