// CountedLine: a log line for what can happen too often to be told each time.
#pragma once

#include <atomic>
#include <cstdint>

#include <Infra/Time.h>

namespace Orvex::Infra {

/// Counts, and says at most once a second that it is time for a line.
///
///     if (const uint64_t dropped = g_dropped.Count()) {
///         INFRA_LOG_STATIC(2, "no memory, dropped: %ju\n", static_cast<uintmax_t>(dropped));
///     }
///
/// Thread safety: any thread.
class CountedLine {
public:
    constexpr CountedLine() = default;
    CountedLine(const CountedLine&) = delete;
    CountedLine& operator=(const CountedLine&) = delete;

    /// One more. Result: how many since the last line, if another one is due; otherwise 0.
    uint64_t Count() noexcept {
        m_untold.fetch_add(1, std::memory_order_relaxed);
        const uint64_t now_us = CTime::getCurrentMicroSecond();
        uint64_t due_us = m_due_us.load(std::memory_order_relaxed);
        if (now_us < due_us ||
            !m_due_us.compare_exchange_strong(due_us, now_us + PERIOD_US, std::memory_order_relaxed)) {
            return 0;
        }
        return m_untold.exchange(0, std::memory_order_relaxed);
    }

private:
    static constexpr uint64_t PERIOD_US = 1000000;

    std::atomic<uint64_t> m_untold{0};
    std::atomic<uint64_t> m_due_us{0};  ///< No line before this.
};

}  // namespace Orvex::Infra
