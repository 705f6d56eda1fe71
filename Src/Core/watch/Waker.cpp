// Waker: ends a pool's wait for sockets from any thread.
#include "Core/watch/Waker.h"

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>

namespace Orvex::Reticor {

Waker::~Waker() {
    Infra::CGuard guard(m_pipe_mutex);
    close_ends();
}

bool Waker::Open() {
    Infra::CGuard guard(m_pipe_mutex);
    return open();
}

bool Waker::open() {
    if (!m_pipe.CreatePipe(false) || !m_epoll.WatchWakeEnd(m_pipe.m_read_fd)) {
        close_ends();
        return false;
    }
    m_open.store(true, std::memory_order_relaxed);
    return true;
}

/// The new pair stands before the old one goes: a wait that is under way is never without a wake end. Without
/// a new one the old one's end is what ends that wait.
Waker::Pair Waker::renew() {
    CWINPipe old = m_pipe;
    m_pipe = CWINPipe();
    m_pipe_pending = 0;
    m_open.store(false, std::memory_order_relaxed);
    m_lost = !open();
    if (old.m_read_fd != -1) {
        ::shutdown(old.m_read_fd, SHUT_RDWR);
    }
    if (m_lost) {
        m_pipe.m_read_fd = old.m_read_fd;  // until the wait has heard of it
    } else if (old.m_read_fd != -1) {
        CWINPipe::Close(old.m_read_fd);
    }
    if (old.m_write_fd != -1) {
        CWINPipe::Close(old.m_write_fd);
    }
    return m_lost ? Pair::lost : Pair::renewed;
}

void Waker::close_ends() {
    for (int* fd : {&m_pipe.m_read_fd, &m_pipe.m_write_fd}) {
        if (*fd != -1) {
            CWINPipe::Close(*fd);
            *fd = -1;
        }
    }
}

Waker::Pair Waker::Wake() {
    Infra::CGuard guard(m_pipe_mutex);
    if (m_pipe.m_write_fd == -1 || m_pipe_pending >= 1) {
        return Pair::sound;
    }
    int written = CWINPipe::Write(m_pipe.m_write_fd, "M", 1);
    const Pair pair = written < 0 ? renew() : Pair::sound;
    if (pair == Pair::renewed) {
        written = CWINPipe::Write(m_pipe.m_write_fd, "M", 1);
    }
    if (written > 0) {
        m_pipe_pending += written;
    }
    return pair;
}

Waker::Pair Waker::Drain() {
    Infra::CGuard guard(m_pipe_mutex);
    if (m_lost) {
        close_ends();  // the wait has ended, and does without from now on
        return Pair::sound;
    }
    char buffer[256];
    const int got = CWINPipe::Read(m_pipe.m_read_fd, buffer, sizeof(buffer));
    if (got < 0) {
        const Pair pair = renew();
        if (pair == Pair::lost) {
            close_ends();
        }
        return pair;
    }
    m_pipe_pending -= std::min(got, m_pipe_pending);
    return Pair::sound;
}

Waker::Pair Waker::Restore() {
    Infra::CGuard guard(m_pipe_mutex);
    if (!m_lost) {
        return Pair::sound;
    }
    close_ends();
    m_lost = !open();
    return m_lost ? Pair::lost : Pair::renewed;
}

void Waker::Pause(int limit_ms) {
    pollfd wake_end{-1, POLLIN, 0};  // -1 is passed over
    {
        Infra::CGuard guard(m_pipe_mutex);
        wake_end.fd = m_pipe.m_read_fd;
    }
    ::poll(&wake_end, 1, limit_ms);
}

bool Waker::ReplaceEpoll() {
    Infra::CGuard guard(m_pipe_mutex);
    return m_epoll.Replace(m_pipe.m_read_fd);
}

}  // namespace Orvex::Reticor
