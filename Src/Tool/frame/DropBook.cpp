// DropBook: counting, which is rare.
#include "Tool/frame/DropBook.h"

#include <algorithm>
#include <new>

namespace Orvex::Reticor {

bool DropBook::open() {
    if (m_pages == nullptr) {
        m_pages.reset(new (std::nothrow) Pages);
    }
    return m_pages != nullptr;
}

void DropBook::pass(const CFrame& frame, DropCause cause, uint64_t last) {
    if (!open()) {
        return;
    }
    const auto channel = static_cast<size_t>(frame.channel());
    const uint8_t level = LevelRing::place_of(frame.level());
    MediaDrops& drops = m_pages->drops[static_cast<size_t>(cause)];
    ++drops.by_level[level];
    ++drops.by_channel[channel];

    const bool moved_on = cause == DropCause::FILTERED && last != 0;
    Passed& passed = m_pages->passed[channel];
    if (passed.last + (moved_on ? 1 : 0) != last) {
        passed = Passed();
    }
    passed.last = last;
    passed.withheld += moved_on ? 1 : 0;
    ++passed.by_level[level];
}

void DropBook::lose(const CFrame& frame, uint64_t frames, uint64_t last, const LevelRing* ring) {
    if (frames == 0 || !open()) {
        return;
    }
    const auto channel = static_cast<size_t>(frame.channel());
    Passed& passed = m_pages->passed[channel];
    if (passed.last != last) {
        passed = Passed();
    }
    uint32_t seen[MEDIA_DROP_LEVELS] = {};
    if (ring != nullptr) {
        const uint64_t first = std::max(last - passed.withheld + 1, ring->oldest(channel));
        for (uint64_t one = first; one < frame.m_ordinal; ++one) {
            ++seen[ring->level(channel, one)];
        }
    }
    MediaDrops& drops = m_pages->drops[static_cast<size_t>(DropCause::TOO_OLD)];
    auto left = static_cast<uint32_t>(frames);
    for (size_t level = 1; level < MEDIA_DROP_LEVELS; ++level) {
        const uint32_t gone = std::min(left, seen[level] - std::min(seen[level], passed.by_level[level]));
        drops.by_level[level] += gone;
        left -= gone;
    }
    drops.by_level[0] += left;
    drops.by_channel[channel] += static_cast<uint32_t>(frames);
}

void DropBook::forget_order() {
    if (m_pages != nullptr) {
        for (Passed& passed : m_pages->passed) {
            passed = Passed();
        }
    }
}

}  // namespace Orvex::Reticor
