// FastClock: runs the clock of the socket timer as fast as the processor allows, beside the timer's own
// thread.
#pragma once

#include <atomic>
#include <thread>

#include "support/core/Probes.h"

namespace Orvex::Testing {

class FastClock {
public:
    FastClock()
        : m_thread([this] {
              while (!m_stop) {
                  Reticor::SockTimerProbe::pass(Reticor::sock_timer());
                  std::this_thread::yield();
              }
          }) {}
    ~FastClock() {
        m_stop = true;
        m_thread.join();
    }
    FastClock(const FastClock&) = delete;
    FastClock& operator=(const FastClock&) = delete;

private:
    std::atomic<bool> m_stop{false};
    std::thread m_thread;
};

}  // namespace Orvex::Testing
