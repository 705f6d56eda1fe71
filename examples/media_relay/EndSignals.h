// EndSignals: how the relay is told to end.
#pragma once

#include <pthread.h>
#include <csignal>

namespace relay {

/// SIGINT and SIGTERM, taken by main alone. Built before the first pool, so that every thread inherits the
/// mask.
class EndSignals {
public:
    EndSignals() {
        sigemptyset(&m_set);
        sigaddset(&m_set, SIGINT);
        sigaddset(&m_set, SIGTERM);
        pthread_sigmask(SIG_BLOCK, &m_set, nullptr);
    }
    void wait() {
        int number = 0;
        sigwait(&m_set, &number);
    }

private:
    sigset_t m_set{};
};

}  // namespace relay
