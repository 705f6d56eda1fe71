// Window: the last seconds of a stream in segments and parts, as clients of HTTP live streaming fetch them
// (RFC 8216 and its second edition).
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <vector>

#include "media_relay/mp4/Remuxer.h"

namespace relay {

/// A few pictures with their sound. Never changed: whoever is sent it holds a count on its bytes.
struct Part {
    SharedBytes bytes;
    uint64_t duration = 0;  // ticks of 90 kHz
    bool key = false;       // a player can begin within it
};

/// Parts that follow each other. Until the next one begins it is under way, and may grow.
struct Segment {
    uint64_t number = 0;
    int64_t wall_us = 0;      // when its first picture was there, since 1970
    uint64_t duration = 0;    // ticks of 90 kHz; of one under way, so far
    bool key = false;         // its first picture can be begun with
    bool jump = false;        // times or formats do not go on from the segment before
    bool inOnePiece = false;  // its parts are not listed
    uint64_t initNumber = 0;  // of the segment with which its init segment came
    SharedBytes init;
    std::vector<Part> parts;
};

/// Holds each part once. Those of the last seconds are listed; for as long again they can still be fetched,
/// by whoever has an older playlist. What the bound on bytes does not allow goes sooner, the oldest first.
///
/// Thread safety: none, its owner locks.
class Window {
public:
    static constexpr size_t MOST_BYTES = 64 << 20;

    explicit Window(size_t most_bytes = MOST_BYTES) : m_most_bytes(most_bytes) {}

    /// Before the first segment: what no segment and no part is longer than, in seconds and in ticks.
    void setTargets(unsigned target_s, uint64_t part_target) {
        m_target_s = target_s;
        m_part_target = part_target;
    }
    unsigned target_s() const { return m_target_s; }
    uint64_t partTarget() const { return m_part_target; }

    /// A segment begins; the one before must have been finished.
    void begin(Segment&& segment);
    /// The one under way has one part more.
    void add(Part&& part);
    /// The one under way is whole, and as long as that.
    void finish(uint64_t duration);
    /// Nothing follows.
    void end() { m_is_over = true; }

    /// Whether there is anything to list.
    bool isReady() const { return !m_segments.empty(); }
    bool isOver() const { return m_is_over; }

    /// The whole segments, the oldest first, and where those begin that are listed.
    const std::deque<Segment>& segments() const { return m_segments; }
    size_t firstListed() const { return m_first_listed; }

    /// The one under way; null if none is.
    const Segment* underWay() const { return m_has_open ? &m_open : nullptr; }

    /// Of the segment that is under way, or of the next one that begins.
    uint64_t nextNumber() const { return m_has_open ? m_open.number : m_next_number; }

    /// A whole one or the one under way; null if it is not there, any more or yet.
    const Segment* find(uint64_t number) const;

    /// The init segment that came with that segment; null if it has gone.
    SharedBytes findInit(uint64_t number) const;

    /// Jumps before the first segment that is listed.
    uint64_t jumpsBefore() const { return m_jumps_before; }

    size_t bytes() const { return m_bytes; }

private:
    void list();
    void drop();

    const size_t m_most_bytes;
    unsigned m_target_s = 0;
    uint64_t m_part_target = 0;
    std::deque<Segment> m_segments;
    size_t m_first_listed = 0;
    Segment m_open;
    bool m_has_open = false;
    bool m_is_over = false;
    uint64_t m_next_number = 0;
    uint64_t m_jumps_before = 0;
    size_t m_bytes = 0;
};

}  // namespace relay
