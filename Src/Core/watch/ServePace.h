// ServePace: how many workers a batch of ready sockets is worth.
#pragma once

#include <algorithm>
#include <cstdint>

#include <Infra/Time.h>

namespace Orvex::Reticor {

/// Estimates how long the handlers of a pool take for one ready socket, from the time that passes until the
/// poll token comes back after a batch. Quick handlers are served by the worker that polled; for each
/// WORTH_A_WORKER_US of work another one is woken.
///
/// Thread safety: for the holder of the poll token.
class ServePace {
public:
    /// The token is back: the last batch is served, or in other hands.
    void TokenBack() {
        if (m_timed) {
            const uint64_t took_ns = (Infra::CTime::getCurrentMicroSecond() - m_begin_us) * 1000;
            // A sliding mean, falling faster than it rises: one batch during which the system ran something
            // else must not look like slow handlers.
            const uint64_t sample = std::min(took_ns / static_cast<uint64_t>(m_batch), LONGEST_NS);
            m_record_ns = sample < m_record_ns ? (m_record_ns + sample) / 2 : (7 * m_record_ns + sample) / 8;
        }
    }

    /// Begins a batch of `count` sockets. Result: how many workers to wake for it beside the caller.
    int WorkersFor(int count) {
        m_batch = count;
        m_timed = count > 0 && m_batches++ % TIMED_EACH == 0;
        if (m_timed) {
            m_begin_us = Infra::CTime::getCurrentMicroSecond();
        }
        return static_cast<int>(static_cast<uint64_t>(count) * m_record_ns / (WORTH_A_WORKER_US * 1000));
    }

private:
    static constexpr uint64_t WORTH_A_WORKER_US = 50;
    /// One batch of this number is timed; a clock costs as much as a lock.
    static constexpr uint32_t TIMED_EACH = 8;
    static constexpr uint64_t LONGEST_NS = 200000;

    uint64_t m_record_ns = WORTH_A_WORKER_US * 1000;  ///< Unknown at first: as if each were worth a worker.
    uint64_t m_begin_us = 0;
    uint32_t m_batches = 0;
    int m_batch = 0;
    bool m_timed = false;
};

}  // namespace Orvex::Reticor
