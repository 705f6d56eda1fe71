// EndSignals: the signals that end a load generator, as a descriptor to wait for.
#pragma once

#include <sys/signalfd.h>
#include <unistd.h>
#include <csignal>

namespace LoadKit {

/// SIGINT, SIGTERM and SIGHUP do not end the process from here on, but make the descriptor readable.
class EndSignals {
public:
    EndSignals() {
        sigset_t set;
        sigemptyset(&set);
        sigaddset(&set, SIGINT);
        sigaddset(&set, SIGTERM);
        sigaddset(&set, SIGHUP);
        sigprocmask(SIG_BLOCK, &set, nullptr);
        m_fd = signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
    }
    ~EndSignals() {
        if (m_fd >= 0) {
            close(m_fd);
        }
    }
    EndSignals(const EndSignals&) = delete;
    EndSignals& operator=(const EndSignals&) = delete;

    int fd() const { return m_fd; }

    /// Takes what has come; whether there was any.
    bool take() {
        bool taken = false;
        signalfd_siginfo info;
        while (read(m_fd, &info, sizeof info) == sizeof info) {
            taken = true;
        }
        return taken;
    }

private:
    int m_fd = -1;
};

}  // namespace LoadKit
