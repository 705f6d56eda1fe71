// BurstBook: the most that a producer has put at once lately.
#pragma once

#include <algorithm>
#include <cstdint>

namespace Orvex::Reticor {

/// Kept while somebody looks at the senders of the buffer, and for a minute after that.
///
/// Thread safety: guarded by the lock of its buffer.
class BurstBook {
public:
    /// Frames within so long are one burst. Times of that length overlap by half: what came within 25 ms is
    /// never cut in two.
    static constexpr uint64_t BURST_US = 50000;
    /// The largest burst is one of this period and the one before.
    static constexpr uint64_t PERIOD_US = 10000000;
    static constexpr uint64_t STAYS_US = 60000000;

    struct Burst {
        uint64_t bytes = 0;
        uint64_t took_us = 0;
    };

    void watch(uint64_t now_us) {
        if (!on()) {
            *this = BurstBook();
        }
        m_until_us = now_us + STAYS_US;
    }
    bool on() const { return m_until_us != 0; }

    /// A frame is complete.
    void note(uint64_t now_us, uint64_t bytes) {
        if (now_us >= m_until_us) {
            m_until_us = 0;
            return;
        }
        if (now_us - m_period_us >= PERIOD_US) {
            m_before = now_us - m_period_us < 2 * PERIOD_US ? m_largest : Burst();
            m_largest = Burst();
            m_period_us = now_us;
        }
        add(m_even, now_us / BURST_US, now_us, bytes);
        add(m_odd, (now_us + BURST_US / 2) / BURST_US, now_us, bytes);
    }

    Burst largest() const { return m_before.bytes > m_largest.bytes ? m_before : m_largest; }

private:
    /// What came in one time.
    struct Pile {
        uint64_t number = 0;  ///< Of the time.
        uint64_t begin_us = 0;
        uint64_t bytes = 0;
    };

    void add(Pile& pile, uint64_t number, uint64_t now_us, uint64_t bytes) {
        if (pile.number != number) {
            pile = {number, now_us, 0};
        }
        pile.bytes += bytes;
        if (pile.bytes > m_largest.bytes) {
            m_largest = {pile.bytes, now_us - pile.begin_us};
        }
    }

    uint64_t m_until_us = 0;  ///< 0: nobody looks.
    uint64_t m_period_us = 0;
    Pile m_even;
    Pile m_odd;
    Burst m_largest;
    Burst m_before;
};

}  // namespace Orvex::Reticor
