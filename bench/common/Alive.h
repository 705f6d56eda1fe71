// Counts handlers that are alive, so that a program ends its pool only after the last handle_close.
#pragma once

#include <atomic>
#include <chrono>
#include <thread>

namespace Bench {

class Alive {
public:
    void enter() { ++m_count; }
    void leave() { --m_count; }

    // False if some are still there after ten seconds.
    bool waitForNone() const {
        for (int i = 0; i < 10000 && m_count > 0; ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        return m_count == 0;
    }

private:
    std::atomic<long> m_count{0};
};

}  // namespace Bench
