// LaneInbox: a ring of entries, with a line through the frames of each level.
#include "Tool/lane/LaneInbox.h"

#include <algorithm>
#include <new>
#include <utility>

#include <Infra/Atomic.h>

#include "Tool/frame/MediaFrame.h"

namespace Orvex::Reticor {

bool LaneInbox::open() {
    Infra::CGuard guard(m_mutex);
    if (m_places == nullptr) {
        m_places.reset(new (std::nothrow) Place[PLACES]);
    }
    return m_places != nullptr;
}

void LaneInbox::set_bounds(uint32_t frames, uint64_t bytes) {
    Infra::CGuard guard(m_mutex);
    m_most_frames = std::clamp(frames, uint32_t{1}, MOST_FRAMES);
    m_most_bytes = std::max(bytes, uint64_t{1});
}

// The level counts as the buffer will have it.
int LaneInbox::line_of(int level_word) {
    return std::clamp(level_of(level_word), 1, LEVELS - 1);
}

LanePacket* LaneInbox::put(LanePacket& frame) {
    Infra::CGuard guard(m_mutex);
    if (m_count == PLACES) {
        if (LanePacket* const lost = fold_first()) {
            return lost;
        }
    }
    const uint64_t bytes = frame.frame_bytes();
    const bool fits = m_frames < m_most_frames && m_bytes + bytes <= m_most_bytes;
    if (fits || m_frames == 0) {
        append({&frame, frame.frame_level(), bytes, 0});
        return nullptr;
    }
    for (int level = LEVELS - 1; level >= line_of(frame.frame_level()); --level) {
        Line& line = m_lines[static_cast<size_t>(level)];
        if (line.first != NONE) {
            return lose_first(line);
        }
    }
    lose(frame.frame_level(), bytes);
    return &frame;
}

void LaneInbox::append(const Entry& entry) {
    const uint32_t at = place(m_count);
    m_places[at] = {entry, NONE};
    ++m_count;
    if (entry.frame == nullptr) {
        return;
    }
    Line& line = m_lines[static_cast<size_t>(line_of(entry.level_word))];
    (line.first == NONE ? line.first : m_places[line.last].next) = at;
    line.last = at;
    Infra::relaxedStore(m_frames, m_frames + 1);
    Infra::relaxedStore(m_bytes, m_bytes + entry.bytes);
}

// The oldest one of the line is out of it.
void LaneInbox::leave_line(Line& line) {
    Place& place = m_places[line.first];
    line.first = std::exchange(place.next, NONE);
    Infra::relaxedStore(m_frames, m_frames - 1);
    Infra::relaxedStore(m_bytes, m_bytes - place.entry.bytes);
}

LanePacket* LaneInbox::lose_first(Line& line) {
    Entry& entry = m_places[line.first].entry;
    leave_line(line);
    count_lost(entry.bytes);
    return std::exchange(entry.frame, nullptr);
}

void LaneInbox::lose(int level_word, uint64_t bytes) {
    count_lost(bytes);
    append({nullptr, level_word, bytes, 0});
}

// Without a place for it, it is counted alone, so that nothing that waits is lost for it.
void LaneInbox::put_lost(int level_word, uint64_t bytes) {
    Infra::CGuard guard(m_mutex);
    if (m_count != PLACES) {
        lose(level_word, bytes);
        return;
    }
    count_lost(bytes);
    add_to_sums(level_word, bytes);
}

void LaneInbox::add_to_sums(int level_word, uint64_t bytes) {
    Sum& sum = m_sums[static_cast<size_t>(channel_of(level_word)) % CHANNELS];
    const int level = line_of(level_word);
    sum.level = sum.frames == 0 ? level : std::min(sum.level, level);
    ++sum.frames;
    sum.bytes += bytes;
    m_any_sums = true;
}

void LaneInbox::count_lost(uint64_t bytes) {
    Infra::relaxedStore(m_lost_frames, m_lost_frames + 1);
    Infra::relaxedStore(m_lost_bytes, m_lost_bytes + bytes);
}

// The first entry becomes a part of the sums; gives its frame, if that was not lost before.
LanePacket* LaneInbox::fold_first() {
    const Entry entry = m_places[m_first].entry;
    if (entry.frame != nullptr) {
        leave_line(m_lines[static_cast<size_t>(line_of(entry.level_word))]);
        count_lost(entry.bytes);
    }
    add_to_sums(entry.level_word, entry.bytes);
    m_ticks = std::min(m_ticks + entry.ticks, MOST_TICKS);
    drop_first();
    return entry.frame;
}

void LaneInbox::drop_first() {
    m_first = place(1);
    --m_count;
}

void LaneInbox::put_tick() {
    Infra::CGuard guard(m_mutex);
    uint32_t& ticks = m_count != 0 ? m_places[place(m_count - 1)].entry.ticks : m_ticks;
    ticks = std::min(ticks + 1, MOST_TICKS);
}

bool LaneInbox::ring() {
    Infra::CGuard guard(m_mutex);
    const bool any = m_count != 0 || m_ticks != 0 || m_any_sums;
    return any && !std::exchange(m_rung, true);
}

void LaneInbox::ring_failed() {
    Infra::CGuard guard(m_mutex);
    m_rung = false;
}

bool LaneInbox::take(Taken& taken) {
    Infra::CGuard guard(m_mutex);
    taken.ticks = std::exchange(m_ticks, 0);
    taken.any_sums = std::exchange(m_any_sums, false);
    if (taken.any_sums) {
        taken.sums = std::exchange(m_sums, {});
    }
    taken.has_entry = m_count != 0;
    if (taken.has_entry) {
        taken.entry = m_places[m_first].entry;
        if (taken.entry.frame != nullptr) {
            leave_line(m_lines[static_cast<size_t>(line_of(taken.entry.level_word))]);
        }
        drop_first();
    }
    m_rung = taken.has_entry || taken.any_sums || taken.ticks != 0;
    return m_rung;
}

LanePacket* LaneInbox::empty() {
    Infra::CGuard guard(m_mutex);
    m_any_sums = false;
    m_sums = {};
    m_ticks = 0;
    while (m_count != 0) {
        const Entry entry = m_places[m_first].entry;
        if (entry.frame != nullptr) {
            leave_line(m_lines[static_cast<size_t>(line_of(entry.level_word))]);
        }
        drop_first();
        if (entry.frame != nullptr) {
            return entry.frame;
        }
    }
    return nullptr;
}

LaneInbox::Stats LaneInbox::stats() const {
    Infra::CGuard guard(m_mutex);
    return {m_frames, m_bytes, m_lost_frames, m_lost_bytes};
}

LaneInbox::Stats LaneInbox::glance() const INFRA_NO_THREAD_SAFETY_ANALYSIS {
    return {Infra::relaxedLoad(m_frames), Infra::relaxedLoad(m_bytes), Infra::relaxedLoad(m_lost_frames),
            Infra::relaxedLoad(m_lost_bytes)};
}

}  // namespace Orvex::Reticor
