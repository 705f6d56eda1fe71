// CPacedReceiver_IF: a stream receiver as its thread knows it.
#pragma once

#include <atomic>
#include <cstdint>

namespace Orvex::Reticor {

/// In the order of their meaning; the numbers are fixed.
enum : int32_t {
    RECEIVER_CLOSED = 0,   ///< Waits for its thread to drop it, which ends the object: touch it no more.
    RECEIVER_CREATED = 1,  ///< On no thread.
    RECEIVER_RUNNING = 2,
    RECEIVER_STOPPED = 3,  ///< Still on its thread.
    RECEIVER_CLOSING = 4,  ///< For a moment, inside Close.
};

/// What a CReceiverThread calls, and the link and the word by which it does.
class CPacedReceiver_IF {
public:
    /// The call of one tick, for a receiver in RECEIVER_RUNNING. With no lock of the thread held.
    virtual void turn() = 0;

    /// Ends the receiver, which the thread has dropped. The object may be gone when this returns.
    virtual void close() = 0;

    /// Link of the thread's list, guarded by the thread's mutex.
    CPacedReceiver_IF* m_next = nullptr;
    /// Changed under the receiver's own mutex, but for the last change, and read by the thread without it.
    /// Whoever has stored RECEIVER_CLOSED has no right to the object any more.
    std::atomic<int32_t> m_state{RECEIVER_CREATED};

protected:
    ~CPacedReceiver_IF() = default;
};

}  // namespace Orvex::Reticor
