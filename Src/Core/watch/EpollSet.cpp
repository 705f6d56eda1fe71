// EpollSet: the epoll instance of a pool.
#include "Core/watch/EpollSet.h"

#include <unistd.h>

#include <cerrno>

namespace Orvex::Reticor {

EpollSet::EpollSet() {
    for (std::atomic<int>& side : m_sides) {
        side.store(-1, std::memory_order_relaxed);
    }
}

EpollSet::~EpollSet() {
    for (const std::atomic<int>& side : m_sides) {
        if (side != -1) {
            ::close(side);
        }
    }
}

bool EpollSet::Open() {
    m_sides[m_side] = ::epoll_create1(EPOLL_CLOEXEC);
    return IsOpen();
}

bool EpollSet::watch_wake_end(int epoll, int fd) {
    epoll_event interest{};
    interest.events = EPOLLIN;
    interest.data.u64 = WAKE_MARK;
    return ::epoll_ctl(epoll, EPOLL_CTL_ADD, fd, &interest) == 0;
}

void EpollSet::Enlist(CEvent* ev) {
    if (m_side != 0) {
        set_flag(ev, MUX_SIDE);
    } else {
        clear_flag(ev, MUX_SIDE);
    }
}

bool EpollSet::Tell(const CEvent* ev, int operation, uint32_t events) {
    epoll_event interest{};
    interest.events = events;
    interest.data.u64 = mark_of(ev);
    const int epoll = m_sides[has_flag(ev, MUX_SIDE) ? 1 : 0].load(std::memory_order_relaxed);
    return ::epoll_ctl(epoll, operation, static_cast<int>(ev->m_key), &interest) == 0;
}

bool EpollSet::Replace(int wake_fd) {
    const int fresh = ::epoll_create1(EPOLL_CLOEXEC);
    if (fresh == -1) {
        return false;
    }
    if (wake_fd != -1 && !watch_wake_end(fresh, wake_fd)) {
        const int error = errno;
        ::close(fresh);  // without the wake end the wait could not be ended
        errno = error;
        return false;
    }
    const unsigned int other = 1 - m_side;
    m_sides[other] = fresh;
    m_side = other;
    return true;
}

bool EpollSet::MoveOver(CEvent* ev) {
    const bool in_kernel = kernel_knows(mux_form(ev));
    const bool known = !in_kernel || Tell(ev, EPOLL_CTL_DEL, 0);
    Enlist(ev);
    return known;
}

void EpollSet::CloseFormer() {
    ::close(m_sides[1 - m_side].exchange(-1));
}

}  // namespace Orvex::Reticor
