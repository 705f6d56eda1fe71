// StrayWatch: tells a lasting report of a socket that nobody knows from one that is merely late.
#pragma once

#include <algorithm>
#include <cstdint>

namespace Orvex::Reticor {

/// A report without a record usually is the last one of a socket that was removed a moment ago. But the
/// kernel goes on about a closed number while a copy of the descriptor lives elsewhere, and there is no way
/// to name it any more: a report that comes again is a lasting one. Several copies may take turns, so the
/// report that is waited for stands while others pass, each time for longer.
///
/// Thread safety: for the holder of the poll token.
class StrayWatch {
public:
    /// Takes note of a stray report. True if it came before.
    bool ComesAgain(uint64_t mark) {
        if (mark == m_awaited) {
            return true;
        }
        if (++m_passed >= m_patience) {
            m_awaited = mark;
            m_passed = 0;
            m_patience = std::min(2 * m_patience, PATIENCE_LIMIT);
        }
        return false;
    }

    /// Forgets all reports.
    void Reset() { *this = StrayWatch(); }

private:
    static constexpr int PATIENCE_LIMIT = 4096;
    static constexpr uint64_t NONE = ~uint64_t{0};

    uint64_t m_awaited = NONE;
    int m_passed = 0;    ///< Others since then.
    int m_patience = 1;  ///< How many of them before the awaited one gives way.
};

}  // namespace Orvex::Reticor
