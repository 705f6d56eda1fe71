// AlarmSpan: since when something is wrong, and how often it has begun.
#pragma once

#include <atomic>
#include <cstdint>

namespace Orvex::Reticor {

/// What is over for less than ten seconds and comes back has not ended: it is one time, since its beginning.
///
/// Thread safety: any thread. Where two note at a time, each figure is that of one of them; the next look
/// notes how it really is.
class AlarmSpan {
public:
    static constexpr uint64_t HOLD_US = 10000000;

    struct Facts {
        bool lasts;
        uint64_t since_us;  ///< When it began; 0: never.
        uint64_t ended_us;  ///< 0 while it lasts.
        uint64_t times;     ///< How often it has begun.
    };

    /// So it is at `now_us`; if it begins now, it has been so since `since_us`. True if a new time begins.
    bool Note(bool wrong, uint64_t now_us, uint64_t since_us) {
        if (m_lasts.exchange(wrong, std::memory_order_relaxed) == wrong) {
            return false;
        }
        const uint64_t ended_us = m_ended_us.exchange(wrong ? 0 : now_us, std::memory_order_relaxed);
        if (!wrong || (ended_us != 0 && now_us < ended_us + HOLD_US)) {
            return false;
        }
        m_since_us.store(since_us, std::memory_order_relaxed);
        m_times.fetch_add(1, std::memory_order_relaxed);
        return true;
    }
    bool Note(bool wrong, uint64_t now_us) { return Note(wrong, now_us, now_us); }

    Facts Read() const {
        return {m_lasts.load(std::memory_order_relaxed), m_since_us.load(std::memory_order_relaxed),
                m_ended_us.load(std::memory_order_relaxed), m_times.load(std::memory_order_relaxed)};
    }

private:
    std::atomic<bool> m_lasts{false};
    std::atomic<uint64_t> m_since_us{0};
    std::atomic<uint64_t> m_ended_us{0};
    std::atomic<uint64_t> m_times{0};
};

}  // namespace Orvex::Reticor
