// StepThread: a thread that takes one step after another as the test says, and of which the test knows
// whether the step is done or the thread sleeps in it.
//
//     StepThread other;
//     other.begin([&] { mutex.enter(); });
//     EXPECT_EVENTUALLY(other.sleeps());
#pragma once

#include <atomic>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>
#include <utility>

#include "support/Eventually.h"
#include "support/KernelThread.h"

namespace Orvex::Testing {

class StepThread {
public:
    StepThread() : m_thread([this] { run(); }) {}
    // Waits for the step.
    ~StepThread() {
        {
            const std::lock_guard<std::mutex> guard(m_mutex);
            m_ended = true;
        }
        m_changed.notify_one();
        m_thread.join();
    }
    StepThread(const StepThread&) = delete;
    StepThread& operator=(const StepThread&) = delete;

    // The one before must be done. Does not wait.
    void begin(std::function<void()> step) {
        m_done = false;
        {
            const std::lock_guard<std::mutex> guard(m_mutex);
            m_step = std::move(step);
        }
        m_changed.notify_one();
    }
    // The same, and waits until it is done; false if it is not.
    bool take(std::function<void()> step) {
        begin(std::move(step));
        return eventually([this] { return done(); });
    }

    bool done() const { return m_done; }
    // Whether it sleeps in its step, in futex(2).
    bool sleeps() const { return m_in_step && !m_done && sleepsInFutex(m_thread_id); }
    bool doneOrSleeps() const { return done() || sleeps(); }
    // How often it went to sleep of its own accord, between its steps included.
    long sleepsSoFar() const { return voluntarySleeps(m_thread_id); }
    int threadId() const { return m_thread_id; }

private:
    void run() {
        m_thread_id = kernelThreadId();
        std::unique_lock<std::mutex> lock(m_mutex);
        for (;;) {
            m_changed.wait(lock, [this] { return m_ended || m_step != nullptr; });
            if (m_step == nullptr) {
                return;
            }
            const std::function<void()> step = std::exchange(m_step, nullptr);
            lock.unlock();
            m_in_step = true;
            step();
            m_in_step = false;
            m_done = true;
            lock.lock();
        }
    }

    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::function<void()> m_step;
    bool m_ended = false;
    std::atomic<int> m_thread_id{0};
    std::atomic<bool> m_in_step{false};
    std::atomic<bool> m_done{true};
    std::thread m_thread;
};

}  // namespace Orvex::Testing
