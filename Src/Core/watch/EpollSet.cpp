// EpollSet: the epoll instance of a pool.
#include "Core/watch/EpollSet.h"

#include <unistd.h>

namespace Orvex::Reticor {

EpollSet::~EpollSet() {
    if (m_epoll != -1) {
        ::close(m_epoll);
    }
}

bool EpollSet::Open() {
    m_epoll = ::epoll_create1(EPOLL_CLOEXEC);
    return m_epoll != -1;
}

bool EpollSet::Tell(const CEvent* ev, int operation, uint32_t events) {
    epoll_event interest{};
    interest.events = events;
    interest.data.u64 = markOf(ev);
    return ::epoll_ctl(m_epoll, operation, static_cast<int>(ev->m_key), &interest) == 0;
}

bool EpollSet::watch_wake_end(int epoll, int fd) {
    epoll_event interest{};
    interest.events = EPOLLIN;
    interest.data.u64 = WAKE_MARK;
    return ::epoll_ctl(epoll, EPOLL_CTL_ADD, fd, &interest) == 0;
}

bool EpollSet::WatchWakeEnd(int fd) {
    return watch_wake_end(m_epoll, fd);
}

int EpollSet::Replace(int wake_fd) {
    const int fresh = ::epoll_create1(EPOLL_CLOEXEC);
    if (fresh == -1) {
        return -1;
    }
    if (wake_fd != -1 && !watch_wake_end(fresh, wake_fd)) {
        ::close(fresh);  // without the wake end the wait could not be ended
        return -1;
    }
    return m_epoll.exchange(fresh);
}

}  // namespace Orvex::Reticor
