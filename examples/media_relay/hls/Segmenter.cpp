// Segmenter: where a part ends, and where a segment.

#include "media_relay/hls/Segmenter.h"

#include <algorithm>
#include <cmath>

namespace relay {

namespace {

constexpr uint64_t SECOND = kVideoScale;
constexpr uint64_t PART = SECOND / 5;
constexpr uint64_t LEAST_SEGMENT = SECOND * 9 / 10 * 2;  // two seconds; encoders take a little less for them
constexpr uint64_t MOST_FIRST = 6 * SECOND;
constexpr uint64_t ROUNDING = SECOND * 49 / 100;  // a segment's length in whole seconds is what is bounded
constexpr uint64_t LEAST_TARGET_S = 2;
constexpr int64_t LOOSE_us = 500000;  // the stream's clock may be off by this much from the time of day

int64_t us_of(uint64_t ticks) {
    return static_cast<int64_t>(ticks * 100 / 9);
}

uint64_t end_of(const Mp4Fragment& fragment) {
    return fragment.time + fragment.duration;
}

}  // namespace

void Segmenter::setInit(const SharedBytes& init) {
    if (m_in_segment) {
        endSegment();
    }
    m_jumps = m_is_decided;
    m_init = init;
    m_init_number = m_number;
    m_is_open = false;
    m_held.clear();
}

bool Segmenter::put(const Mp4Fragment& fragment, int64_t now_us) {
    if (!m_is_open) {
        if (!fragment.key || m_init == nullptr) {
            return false;
        }
        m_is_open = true;
        m_end = fragment.time;
        m_init_number = m_number;
    }
    if (m_is_decided) {
        return cut(fragment, now_us);
    }
    if (!m_held.empty()) {
        const uint64_t begin = m_held.front().fragment.time;
        const uint64_t lasts = end_of(m_held.back().fragment) - begin;
        if ((fragment.key && lasts >= LEAST_SEGMENT) || end_of(fragment) > begin + MOST_FIRST) {
            decide();
            cut(fragment, now_us);
            return true;
        }
    }
    m_held.push_back({fragment, now_us});
    return false;
}

/// Nearly all pictures are not longer than this; a rest of the input is an exception.
uint64_t Segmenter::usualPicture() const {
    std::vector<uint64_t> durations;
    for (const Held& held : m_held) {
        durations.push_back(std::max<uint64_t>(held.fragment.duration, 1));
    }
    std::sort(durations.begin(), durations.end());
    return durations[durations.size() * 9 / 10];
}

/// Parts hold as many whole pictures as come nearest to what is wanted. They may be a little longer, for a
/// picture that lasts longer than the others; not more, since hardly any may be shorter than 85 % of that.
void Segmenter::decide() {
    const uint64_t picture = usualPicture();
    const uint64_t lasts = end_of(m_held.back().fragment) - m_held.front().fragment.time;
    const uint64_t target_s = std::max((lasts + SECOND / 2) / SECOND, LEAST_TARGET_S);
    m_picture = picture;
    m_part_wanted = picture * std::max<uint64_t>((PART + picture / 2) / picture, 1);
    m_part_target = m_part_wanted * 9 / 8;
    m_longest = target_s * SECOND + ROUNDING;
    m_window.setTargets(static_cast<unsigned>(target_s), m_part_target);
    m_first_in_one_piece = std::any_of(m_held.begin(), m_held.end(), [&](const Held& held) {
        return held.fragment.duration > m_part_target;
    });
    for (const Held& held : m_held) {
        cut(held.fragment, held.now_us);
    }
    endSegment();
    m_held.clear();
    m_is_decided = true;
}

/// Whether the segment under way ends before this fragment.
bool Segmenter::isFull(const Mp4Fragment& fragment, uint64_t adds) const {
    const uint64_t lasts = m_end - m_segment_begin;
    return (fragment.key && lasts >= LEAST_SEGMENT) || lasts + adds > m_longest || isRest(adds);
}

/// Of the first segment no part is listed if one would be too long: there nobody waits for parts.
bool Segmenter::isRest(uint64_t adds) const {
    return m_is_decided && adds > m_part_target;
}

bool Segmenter::cut(const Mp4Fragment& fragment, int64_t now_us) {
    const uint64_t adds = end_of(fragment) > m_end ? end_of(fragment) - m_end : 0;
    const bool rest = isRest(adds);
    bool shows = false;
    if (m_in_segment && isFull(fragment, adds)) {
        endSegment();
        shows = true;
    }
    if (!m_in_segment) {
        beginSegment(fragment, now_us, m_is_decided ? rest : m_first_in_one_piece);
    } else if (!m_part.empty() && m_end + adds - m_part_begin > m_part_target) {
        endPart();
        shows = true;
    }
    m_part.insert(m_part.end(), fragment.bytes->begin(), fragment.bytes->end());
    m_part_is_key = m_part_is_key || fragment.key;
    m_end += adds;
    if (rest) {
        endSegment();
        return true;
    }
    if (m_end - m_part_begin + m_picture / 2 > m_part_wanted) {
        endPart();
        shows = true;
    }
    return shows;
}

void Segmenter::beginSegment(const Mp4Fragment& fragment, int64_t now_us, bool in_one_piece) {
    const int64_t zero_us = now_us - us_of(std::max(end_of(fragment), m_end));
    if (m_zero_us == 0 || std::abs(zero_us - m_zero_us) > LOOSE_us) {
        m_zero_us = zero_us;
    }
    Segment segment;
    segment.number = m_number;
    segment.wall_us = m_zero_us + us_of(m_end);
    segment.key = fragment.key;
    segment.jump = m_jumps;
    segment.inOnePiece = in_one_piece;
    segment.initNumber = m_init_number;
    segment.init = m_init;
    m_window.begin(std::move(segment));
    m_jumps = false;
    m_in_segment = true;
    m_segment_begin = m_end;
    m_part_begin = m_end;
}

void Segmenter::endPart() {
    Part part;
    part.duration = m_end - m_part_begin;
    part.key = m_part_is_key;
    part.bytes = std::make_shared<const std::vector<uint8_t>>(std::move(m_part));
    m_part = std::vector<uint8_t>();
    m_part_is_key = false;
    m_part_begin = m_end;
    m_window.add(std::move(part));
}

void Segmenter::endSegment() {
    if (!m_part.empty()) {
        endPart();
    }
    const uint64_t lasts = m_end - m_segment_begin;
    m_jumps = m_jumps || lasts > m_longest;
    m_window.finish(std::min(lasts, m_longest));
    m_in_segment = false;
    ++m_number;
}

void Segmenter::end() {
    if (!m_is_decided && !m_held.empty()) {
        decide();
    }
    if (m_in_segment) {
        endSegment();
    }
    m_window.end();
}

}  // namespace relay
