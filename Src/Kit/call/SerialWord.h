// SerialWord: one atomic word that keeps the calls for one object apart, without a lock that anybody waits
// for.
#pragma once

#include <atomic>
#include <cstdint>

namespace Orvex::Reticor::Kit {
inline namespace v1 {

/// Whoever comes and finds the word held leaves a bit, and goes; the holder serves the bits before it lets
/// go. So calls never overlap, nothing is lost, and no worker waits for another one.
///
/// Thread safety: every operation on any thread; `leave` and `abandon` by the holder.
class SerialWord {
public:
    static constexpr uint32_t HELD = 1;
    static constexpr uint32_t RUNG = 2;       ///< A doorbell message is on its way.
    static constexpr uint32_t FIRST_BIT = 4;  ///< From here on the bits are the owner's.

    explicit SerialWord(bool held) : m_word(held ? HELD : 0) {}

    /// Takes the word if nobody has it and no bit is set.
    bool enter_free() {
        uint32_t expected = 0;
        return m_word.compare_exchange_strong(expected, HELD, std::memory_order_acquire,
                                              std::memory_order_relaxed);
    }

    /// Sets the bits. True if the caller holds the word from now on; else the holder serves them.
    bool enter(uint32_t bits) {
        return (m_word.fetch_or(HELD | bits, std::memory_order_acq_rel) & HELD) == 0;
    }

    /// Sets the bits for somebody else. True if that one has to be called by a doorbell message.
    bool signal(uint32_t bits) {
        return (m_word.fetch_or(RUNG | bits, std::memory_order_acq_rel) & (HELD | RUNG)) == 0;
    }

    /// Lets go, and returns 0; or returns bits that are to be served first, and the caller holds on.
    uint32_t leave() {
        uint32_t expected = HELD;
        if (m_word.compare_exchange_strong(expected, 0, std::memory_order_acq_rel,
                                           std::memory_order_acquire)) {
            return 0;
        }
        return m_word.exchange(HELD, std::memory_order_acq_rel) & ~HELD;
    }

    /// Lets go whatever bits there are: the thread ends in the middle of a call. A `signal` must follow.
    void abandon() { m_word.fetch_and(~(HELD | RUNG), std::memory_order_acq_rel); }

private:
    std::atomic<uint32_t> m_word;
};

}  // namespace v1
}  // namespace Orvex::Reticor::Kit
