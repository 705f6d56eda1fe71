// Waker: ends a pool's wait for sockets from any thread.
#include "Core/watch/Waker.h"

#include <poll.h>

namespace Orvex::Reticor {

Waker::~Waker() {
    Infra::CGuard guard(m_pipe_mutex);
    close_ends();
}

bool Waker::Open() {
    Infra::CGuard guard(m_pipe_mutex);
    if (!m_pipe.CreatePipe(false) || !m_epoll.WatchWakeEnd(m_pipe.m_read_fd)) {
        close_ends();
        return false;
    }
    m_open.store(true, std::memory_order_relaxed);
    return true;
}

void Waker::close_ends() {
    for (int* fd : {&m_pipe.m_read_fd, &m_pipe.m_write_fd}) {
        if (*fd != -1) {
            CWINPipe::Close(*fd);
            *fd = -1;
        }
    }
}

void Waker::Wake() {
    Infra::CGuard guard(m_pipe_mutex);
    if (m_pipe.m_write_fd != -1 && m_pipe_pending < 1) {
        const int written = CWINPipe::Write(m_pipe.m_write_fd, "M", 1);
        if (written > 0) {
            m_pipe_pending += written;
        }
    }
}

void Waker::Drain() {
    Infra::CGuard guard(m_pipe_mutex);
    if (m_pipe_pending > 0) {
        char buffer[256];
        const int got = CWINPipe::Read(m_pipe.m_read_fd, buffer, sizeof(buffer));
        if (got > 0) {
            m_pipe_pending -= got;
        }
    }
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
