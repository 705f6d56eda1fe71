// SenderJudge: the rules, in the order in which they are asked.
#include "Tool/judge/SenderJudge.h"

#include <algorithm>

namespace Orvex::Reticor {

namespace {

uint32_t bounded(uint64_t later, uint64_t earlier) {
    return static_cast<uint32_t>(std::min<uint64_t>(later - earlier, UINT32_MAX));
}

/// Both are of the same connection, in this order.
bool go_on(const SenderReading& earlier, const SenderReading& later) {
    return later.now_us > earlier.now_us && later.produced >= earlier.produced &&
           later.written >= earlier.written && later.blocked_us >= earlier.blocked_us &&
           later.tcp.known == earlier.tcp.known && later.tcp.acked >= earlier.tcp.acked &&
           later.tcp.busy_us >= earlier.tcp.busy_us && later.tcp.closed_us >= earlier.tcp.closed_us &&
           later.tcp.segments >= earlier.tcp.segments && later.tcp.retransmitted >= earlier.tcp.retransmitted;
}

}  // namespace

void SenderJudge::add(const SenderReading& reading, uint64_t window_us) {
    if (m_last.now_us == 0 || !go_on(m_last, reading)) {
        *this = SenderJudge();
        m_last = reading;
        m_moved_us = reading.now_us;
        return;
    }
    put(reading);
    settle(judge(window_us));
}

void SenderJudge::put(const SenderReading& reading) {
    if (reading.taken() != m_last.taken() || reading.in_kernel() + reading.backlog == 0) {
        m_moved_us = reading.now_us;
    }
    m_slots[m_next] = {bounded(reading.now_us, m_last.now_us),
                       bounded(reading.produced, m_last.produced),
                       bounded(reading.taken(), m_last.taken()),
                       bounded(reading.blocked_us, m_last.blocked_us),
                       bounded(reading.tcp.busy_us, m_last.tcp.busy_us),
                       bounded(reading.tcp.closed_us, m_last.tcp.closed_us),
                       bounded(reading.tcp.segments, m_last.tcp.segments),
                       bounded(reading.tcp.retransmitted, m_last.tcp.retransmitted)};
    m_next = (m_next + 1) % SLOTS;
    m_count = std::min(m_count + 1, SLOTS);
    m_last = reading;
}

// Whoever takes something has not stalled: one answer is enough for that.
void SenderJudge::settle(SenderVerdictKind answer) {
    const bool took =
        slot(0).taken != 0 && (m_kind == SenderVerdictKind::STALLED || m_kind == SenderVerdictKind::SILENT);
    ++m_held;
    if (took && answer != m_kind) {
        m_kind = answer;
        m_answer = answer;
        m_held = 1;
    } else if (answer == m_kind) {
        m_answer = m_kind;
    } else if (answer == m_answer) {
        m_kind = answer;
        m_held = m_tried + 1;
    } else {
        m_answer = answer;
        m_tried = 0;
    }
    ++m_tried;
}

SenderJudge::Sums SenderJudge::sum(size_t count) const {
    Sums sums;
    for (size_t age = 0; age < std::min(count, m_count); ++age) {
        const Slot& one = slot(age);
        sums.time_us += one.time_us;
        sums.produced += one.produced;
        sums.taken += one.taken;
        sums.blocked_us += one.blocked_us;
        sums.busy_us += one.busy_us;
        sums.closed_us += one.closed_us;
        sums.segments += one.segments;
        sums.retransmitted += one.retransmitted;
    }
    return sums;
}

SenderJudge::Sums SenderJudge::held() const {
    return sum(m_held);
}

SenderJudge::Sums SenderJudge::newest(uint64_t least_us) const {
    size_t count = 0;
    for (uint64_t time_us = 0; count < m_count && time_us < least_us; ++count) {
        time_us += slot(count).time_us;
    }
    return sum(count);
}

uint64_t SenderJudge::quiet_us(uint64_t now_us) const {
    return now_us > m_moved_us ? now_us - m_moved_us : 0;
}

SenderVerdictKind SenderJudge::judge(uint64_t window_us) const {
    const Sums now = newest(window_us / SLOTS * 2);
    const TcpFigures& tcp = m_last.tcp;
    if (!m_last.joined) {
        return SenderVerdictKind::WAITING;
    }
    const Sums all = sum(SLOTS);
    const uint64_t fine = std::max(ALWAYS_FINE, Sums::rate(all.produced, all.time_us) / 4);
    if (now.blocked_us * 20 < now.time_us && m_last.in_kernel() <= fine) {
        return SenderVerdictKind::KEEPS_UP;
    }
    if (now.taken == 0 && m_last.in_kernel() + m_last.backlog != 0 && !is_pause()) {
        // A peer that says that it has no room is there; so is one that has acknowledged all that was sent.
        const bool closed = tcp.window_known && tcp.window == 0;
        if (!tcp.known || closed || tcp.unacked == 0) {
            return SenderVerdictKind::STALLED;
        }
        return SenderVerdictKind::SILENT;
    }
    if (!tcp.limits_known) {
        return SenderVerdictKind::BOTH;
    }
    if (now.busy_us * 2 >= now.time_us && now.closed_us * 2 >= now.busy_us) {
        return SenderVerdictKind::SLOW_READER;
    }
    if (is_burst(now)) {
        return SenderVerdictKind::BURST;
    }
    return now.closed_us * 10 <= now.busy_us ? SenderVerdictKind::NETWORK : SenderVerdictKind::BOTH;
}

// Some read a lot, and then nothing for seconds: such a one has stalled when it rests for longer than before.
bool SenderJudge::is_pause() const {
    size_t run = 0;
    size_t now = 0;
    bool newest = true;
    for (size_t age = 0; age < m_count; ++age) {
        const Slot& one = slot(age);
        const bool waits = uint64_t{std::max(one.busy_us, one.blocked_us)} * 2 >= one.time_us;
        if (one.taken != 0 || !waits) {
            newest = false;
            run = 0;
            continue;
        }
        ++run;
        if (newest) {
            now = run;
        } else if (run >= now) {
            return true;
        }
    }
    return false;
}

// One time has more than twice of what the others have, and the client takes what these have: it is for that
// one alone that it is late. Below four times nothing can be said of what is usual.
bool SenderJudge::is_burst(const Sums& now) const {
    if (m_count < 4) {
        return false;
    }
    uint64_t rates[SLOTS];
    for (size_t age = 0; age < m_count; ++age) {
        rates[age] = Sums::rate(slot(age).produced, slot(age).time_us);
    }
    std::sort(rates, rates + m_count);
    const uint64_t median = rates[(m_count - 1) / 2];
    return rates[m_count - 1] > 2 * median && Sums::rate(now.taken, now.time_us) >= median;
}

}  // namespace Orvex::Reticor
