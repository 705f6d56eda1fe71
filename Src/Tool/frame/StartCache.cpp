// StartCache: entries, and the one frame that is held.
#include "Tool/frame/StartCache.h"

namespace Orvex::Reticor {

namespace {

constexpr uint8_t ALL = 255;

bool is_older(const CFrame& one, const CFrame& other) {
    return one.m_kept_number < other.m_kept_number;
}

}  // namespace

void StartCache::set_bounds(uint64_t keep_us, uint64_t most_bytes) {
    const bool on = keep_us != 0 && most_bytes != 0;
    m_keep_us = on ? keep_us : 0;
    m_most_bytes = on ? most_bytes : 0;
    if (!on) {
        forget();
    }
}

/// A client begins with the channels that predict; without such, with any.
uint8_t StartCache::first_channels(uint8_t mask, const ChannelBook& book) {
    const uint8_t predicting = book.predicting(mask);
    return predicting != 0 ? predicting : mask;
}

CFrame* StartCache::oldest(uint8_t mask) const {
    CFrame* found = nullptr;
    for (int i = 0; i < CHANNELS; ++i) {
        CFrame* const from = m_entries[i].from;
        if ((mask & 1U << i) != 0 && from != nullptr && (found == nullptr || is_older(*from, *found))) {
            found = from;
        }
    }
    return found;
}

void StartCache::enter(CFrame& frame, const ChannelBook& book) {
    if (frame.is_key()) {
        Entry& entry = m_entries[frame.channel()];
        entry = {&frame, &frame};
        if (book.predicting(frame.channel_bit()) != 0) {
            const uint8_t others = static_cast<uint8_t>(~frame.channel_bit());
            const uint8_t followers = static_cast<uint8_t>(others & ~book.predicting(ALL));
            for (int i = 0; i < CHANNELS; ++i) {
                CFrame* const last = m_entries[i].key;
                if ((followers & 1U << i) != 0 && last != nullptr && is_older(*last, *entry.from) &&
                    frame.m_complete_us - last->m_complete_us <= LEAD_IN_US) {
                    entry.from = last;
                }
            }
        }
    }
    hold_oldest(book);
}

/// Without a group, the last frames of the others wait for one. What is older is not held, so nothing may
/// know it.
void StartCache::hold_oldest(const ChannelBook& book) {
    CFrame* const group = oldest(first_channels(ALL, book));
    CFrame* const from = group != nullptr ? group : oldest(ALL);
    for (Entry& entry : m_entries) {
        if (from == nullptr || (entry.from != nullptr && is_older(*entry.from, *from))) {
            entry = {};
        }
    }
    hold(from);
}

void StartCache::hold(CFrame* from) {
    if (from == m_from) {
        return;
    }
    if (from != nullptr) {
        from->add_holder();
    }
    if (m_from != nullptr) {
        m_from->remove_holder();
    }
    m_from = from;
}

void StartCache::trim(uint64_t now_us, uint64_t kept_total, const ChannelBook& book) {
    while (m_from != nullptr &&
           (now_us > m_from->m_complete_us + m_keep_us || kept_total - m_from->m_kept_begin > m_most_bytes)) {
        for (Entry& entry : m_entries) {
            if (entry.from == m_from) {
                entry = {};
            }
        }
        ++m_drops;
        hold_oldest(book);
    }
}

void StartCache::forget() {
    for (Entry& entry : m_entries) {
        entry = {};
    }
    hold(nullptr);
}

CFrame* StartCache::start(uint8_t mask, const ChannelBook& book) const {
    return oldest(first_channels(mask, book));
}

CFrame* StartCache::start_at(const CFrame& key, uint8_t mask, const ChannelBook& book) const {
    const bool begins = (first_channels(mask, book) & key.channel_bit()) != 0;
    const Entry& entry = m_entries[key.channel()];
    return begins && entry.key == &key ? entry.from : nullptr;
}

}  // namespace Orvex::Reticor
