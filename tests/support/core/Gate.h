// Gate: holds the threads that come by until the test opens it.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

#include "support/Eventually.h"

namespace Orvex::Testing {

class Gate {
public:
    Gate() = default;
    // Opens, and waits until the last thread is through.
    ~Gate() {
        open();
        std::unique_lock<std::mutex> lock(m_mutex);
        m_changed.wait(lock, [this] { return m_inside == 0; });
    }
    Gate(const Gate&) = delete;
    Gate& operator=(const Gate&) = delete;

    // Waits here until the gate is open.
    void pass() {
        std::unique_lock<std::mutex> lock(m_mutex);
        ++m_arrived;
        ++m_inside;
        m_changed.notify_all();
        m_changed.wait(lock, [this] { return m_open; });
        --m_inside;
        m_changed.notify_all();
    }

    // Waits until that number of threads have come by, or the deadline is over.
    bool awaitArrivals(int count) {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_changed.wait_for(lock, std::chrono::milliseconds(scaledMs(10000)),
                                  [&] { return m_arrived >= count; });
    }

    int arrived() const {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_arrived;
    }

    void open() {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_open = true;
        m_changed.notify_all();
    }

private:
    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    int m_arrived = 0;
    int m_inside = 0;
    bool m_open = false;
};

}  // namespace Orvex::Testing
