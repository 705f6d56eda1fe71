// The message rows: one producer posts, receivers on a pool note what they get, and the board sees that every
// message arrived once. Each library only says how it posts.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace Bench {

struct MessageOptions {
    unsigned threads = 2;
    std::size_t receivers = 1000;
    std::uint64_t messages = 2000000;
    std::uint64_t burst = 100000;
    unsigned bursts = 20;
};

// Ends the process with a message if the command line is wrong.
MessageOptions parseMessageOptions(int argc, char** argv, const char* description);

class MessageBoard {
public:
    explicit MessageBoard(std::size_t receivers) : m_receivers(receivers) {}

    std::size_t receivers() const { return m_receivers.size(); }

    // Called by a receiver for each message, on any worker.
    void deliver(std::size_t receiver, long value) {
        if (m_firstNs.load(std::memory_order_relaxed) == 0) {
            noteFirst();
        }
        Receiver& entry = m_receivers[receiver];
        entry.sum.fetch_add(value, std::memory_order_relaxed);
        if (entry.missing.fetch_sub(1, std::memory_order_acq_rel) == 1) {
            noteComplete();
        }
    }

    // The same for messages that must arrive one after the other, in the order of their values 1, 2, 3, ...
    void deliverInOrder(std::size_t receiver, long value) {
        if (m_lastValue.exchange(value, std::memory_order_relaxed) != value - 1) {
            m_disorder.store(true, std::memory_order_relaxed);
        }
        deliver(receiver, value);
    }

    // Messages 1 to `count` will go to the receivers in turn.
    void expect(std::uint64_t count);
    // Ends the process if they are not all there within a minute, or were doubled, mixed up or out of order.
    void waitForAll();
    // While held, every worker that takes a message stops at it, so that all that is posted is pending
    // together.
    void hold() { m_held = true; }
    void release();
    // When the first message since `expect` was delivered, by nowNs().
    std::uint64_t firstNs() const { return m_firstNs.load(); }

private:
    struct alignas(64) Receiver {
        std::atomic<std::int64_t> missing{0};
        std::atomic<std::int64_t> sum{0};
    };

    void noteFirst();
    void noteComplete();

    std::vector<Receiver> m_receivers;
    std::uint64_t m_expected = 0;
    std::atomic<std::uint64_t> m_firstNs{0};
    std::atomic<long> m_lastValue{0};
    std::atomic<bool> m_disorder{false};
    std::atomic<std::size_t> m_incomplete{0};
    std::atomic<bool> m_held{false};  // stored under m_mutex where somebody may wait for it
    std::mutex m_mutex;
    std::condition_variable m_complete;
    std::condition_variable m_released;
};

// How one library posts message `value` to `receiver`, so that the board's `deliver` (or for serial posts
// `deliverInOrder`) is called on a worker. An empty `postSerial` leaves the serial figures out.
struct MessagePost {
    std::function<void(std::size_t receiver, long value)> post;
    std::function<void(std::size_t receiver, long value)> postSerial;
};

// Posts and measures; prints the figures as JSON. `countAllocations` is that of AllocationCounter.h.
void runMessages(const MessageOptions& options, MessageBoard& board, const MessagePost& posts,
                 std::uint64_t (*countAllocations)(bool));

}  // namespace Bench
