// FrameLine: how frames are filled, grow old and go.
#include "Tool/media/FrameLine.h"

#include <algorithm>
#include <cstdint>
#include <utility>

#include "Core/count/Points.h"
#include "Tool/frame/MediaTrace.h"
#include "Tool/media/SenderRecord.h"

namespace Orvex::Reticor {

namespace {

constexpr int STEPS_PER_LEVEL = 10;

}  // namespace

FrameLine::FrameLine(MediaCore& core, const void* name) : m_core(core), m_name(name) {
    std::fill(std::begin(m_min_level), std::end(m_min_level), LEVEL_LEAST);
    if (!m_store.hold(1 + FRAMES_OF_A_STEP)) {
        m_frame_num = 0;
        return;  // no memory: the first packet finds some, or says that there is none
    }
    m_head = m_store.make();
    m_head->Clear();
    m_current = m_head;
}

void FrameLine::begin() {
    m_head = m_store.make();
    m_current = m_head;
    ++m_frame_num;
}

void FrameLine::put_info(CMediaPacket* packet, int arg, CMediaPacket* shown) {
    begin_if_empty();
    if (packet != nullptr) {
        m_current->PutInfo(packet, arg, shown);
    }
}

void FrameLine::append(CMediaPacket* packet, int len, int mark, int level_word) {
    m_current->Put(packet, len, mark, level_word);
    m_core.add_bytes(len);
}

bool FrameLine::make_room_for(uint32_t packets) {
    if (!make_room(false)) {
        return false;
    }
    begin_if_empty();
    return m_current->make_room_for(packets) && make_room(false);
}

void FrameLine::complete() {
    CFrame& frame = *m_current;
    number(frame);
    m_core.m_levels.enter(frame);
    if (frame.m_frame_len < 1) {
        ++m_hollow_num;
    }
    Points::FramePut(frame, m_name);
}

void FrameLine::lose(int level_word, uint64_t bytes) {
    CFrame frame;
    frame.set_lost(level_word, static_cast<int64_t>(bytes));
    number(frame);
    m_core.m_levels.enter(frame);
    if (m_core.m_keepers != 0) {
        m_core.m_channels.enter_lost(frame);
    }
}

uint64_t FrameLine::take_complete_us() {
    return std::exchange(m_complete_us, 0);
}

// The frame is the youngest one of its channel.
void FrameLine::number(CFrame& frame) {
    const int channel = frame.channel();
    int32_t& min_level = m_min_level[channel];
    min_level = std::min(min_level, frame.level());
    if (min_level == frame.level()) {
        frame.set_key();
    }
    const auto length = static_cast<uint64_t>(frame.m_frame_len);
    frame.place(m_core.m_byte_total - length, ++m_ordinal[channel], m_channel_bytes[channel]);
    m_channel_bytes[channel] += length;
}

uint64_t FrameLine::bytes_of(uint8_t mask) const {
    uint64_t bytes = 0;
    for (unsigned channel = 0; channel < CHANNELS; ++channel) {
        bytes += (mask >> channel & 1U) != 0 ? m_channel_bytes[channel] : 0;
    }
    return bytes;
}

void FrameLine::open_next() {
    CFrame* const next = m_store.make();
    m_current->m_next = next;
    m_current = next;
    ++m_frame_num;
}

// Whether a sender of the list stands on the frame, which must then stay. Those that keep frames do not need
// the list for that.
bool FrameLine::is_held(const CFrame& frame) const {
    for (const SenderRecord* sender = frame.m_standing; sender != nullptr; sender = sender->m_standing_next) {
        if (sender->m_list == &m_core && !sender->m_keeps) {
            return true;
        }
    }
    return false;
}

// The one way in which a frame goes off the list, where it ends if it is not kept. It is unlinked already.
inline void FrameLine::leave(CFrame* frame) {
    if (frame->m_ordinal != 0 && frame->m_frame_len < 1) {
        --m_hollow_num;
    }
    if (frame->m_standing != nullptr || frame->m_kept) {
        leave_senders(frame);
    } else {
        m_store.end(frame);
    }
}

// Senders that still stand on it, on the list or not, are taken care of first. Those that keep frames stay
// where they are, if this one is kept.
void FrameLine::leave_senders(CFrame* frame) {
    using Rescue = SenderRecord::Rescue;
    SenderRecord::rescue_all(*frame, frame->m_kept ? Rescue::NO_KEEPERS : Rescue::ALL);
    if (frame->m_kept) {
        frame->leave_list();
    } else {
        m_store.end(frame);
    }
}

void FrameLine::drop_head() {
    leave(unlink_head());
}

CFrame* FrameLine::unlink_head() {
    CFrame* const head = m_head;
    m_head = head->m_next;
    --m_frame_num;
    return head;
}

void FrameLine::drop_all() {
    while (m_head != nullptr) {
        drop_head();
    }
    reset();
}

void FrameLine::drop_complete() {
    if (!m_starts.on()) {
        drop_kept();
    }
    while (m_head != nullptr && m_head->m_mark != 0) {
        drop_head();
    }
    m_current = m_head;
    m_core.begin_stream(m_current != nullptr ? m_current->m_frame_len : 0);
    m_byte_discard = 0;
    trim_kept();
}

void FrameLine::reset() {
    drop_kept();
    m_current = nullptr;
    m_core.begin_stream(0);
    m_byte_discard = 0;
}

uint64_t FrameLine::let_pass(uint64_t should_discard) {
    uint64_t discard_byte = should_discard > m_byte_discard ? should_discard - m_byte_discard : 0;
    if (MediaTrace::on()) {
        MediaTrace::walk_ends(m_name, should_discard, m_byte_discard);
    }
    while (m_head != nullptr) {
        const auto length = static_cast<uint64_t>(m_head->m_frame_len);
        if (m_head->m_frame_len < 1 || discard_byte == 0 || discard_byte < length || is_held(*m_head)) {
            return 0;
        }
        CFrame* const frame = unlink_head();
        discard_byte -= length;
        m_byte_discard += length;
        if (MediaTrace::on()) {
            MediaTrace::frame_passed(m_name, frame, frame->m_frame_len);
        }
        leave(frame);
    }
    m_current = nullptr;
    return discard_byte;
}

void FrameLine::age() {
    for (CFrame* frame = m_head; frame != nullptr && frame->m_frame_len >= 1; frame = frame->m_next) {
        if (frame->m_valid == 1) {
            frame->grow_older();
        }
        if (frame->level() <= 10 - frame->m_age / 10) {
            continue;
        }
        const bool counted = frame->m_sender_count != 0 && !m_policy_only;
        if (!counted && !is_held(*frame)) {
            expire(*frame);
            ++m_expired_frames;
            m_expired_bytes += static_cast<uint64_t>(frame->m_frame_len);
        }
    }
}

void FrameLine::expire(CFrame& frame) {
    frame.expire();
    Points::FrameDropped(frame, static_cast<CNetHandler*>(nullptr), TraceDrop::TOO_OLD);
    ++m_expired_now;
}

void FrameLine::count_valid() {
    uint32_t count = 0;
    for (const CFrame* frame = m_head; frame != nullptr && frame->m_frame_len >= 1; frame = frame->m_next) {
        if (frame->m_valid == 1 || frame->m_sent_len > 0) {
            ++count;
        }
    }
    m_valid_num.store(count, std::memory_order_relaxed);
    if (MediaTrace::on() && count >= 2) {
        MediaTrace::valid_frames(m_name, count, m_frame_num - count);
    }
}

const CFrame* FrameLine::walk_hollow(const CFrame* before) {
    for (CFrame* frame = before != nullptr ? before->m_next : m_head; frame != nullptr;
         frame = frame->m_next) {
        if (!frame->is_hollow() || frame == m_current) {
            continue;
        }
        const auto limit = static_cast<uint32_t>((11 - frame->level()) * STEPS_PER_LEVEL);
        if (frame->count_hollow_step() >= limit && !is_held(*frame)) {
            expire(*frame);
            return frame;
        }
    }
    return nullptr;
}

// The frame that is being filled is not a valid one either, and stays.
void FrameLine::drop_expired() {
    if (std::exchange(m_expired_now, 0) == 0) {
        return;
    }
    CFrame* frame = std::exchange(m_head, nullptr);
    CFrame** link = &m_head;
    while (frame != nullptr) {
        CFrame* const next = frame->m_next;
        if (frame->m_valid != 0 || frame == m_current) {
            frame->m_next = nullptr;
            *link = frame;
            link = &frame->m_next;
        } else {
            if (MediaTrace::on()) {
                MediaTrace::frame_expired(m_name, frame, frame->m_frame_len, m_byte_discard);
            }
            --m_frame_num;
            m_byte_discard += static_cast<uint64_t>(frame->m_frame_len);
            leave(frame);
        }
        frame = next;
    }
    if (m_head == nullptr) {
        m_head = m_current;
    }
}

// Keeping.

void FrameLine::keep(CFrame& frame) {
    if (frame.m_frame_len >= 1) {
        frame.place_among_kept(m_core.m_kept_number, m_core.m_kept_total);
        m_core.add_kept(frame.m_frame_len);
        m_core.m_channels.enter(frame);
        m_kept.append(frame);
        if (m_starts.on()) {
            m_starts.enter(frame, m_core.m_channels);
        }
    }
}

void FrameLine::begin_keeping(SenderRecord& record) {
    if (m_core.m_keepers == 0) {
        open_book();
    }
    record.begin_keeping();
}

void FrameLine::open_book() {
    drop_kept();
    m_core.m_channels.forget();
    for (CFrame* frame = m_head; frame != nullptr; frame = frame->m_next) {
        if (frame->m_valid != 0) {
            keep(*frame);
        }
    }
}

void FrameLine::set_start_bounds(uint64_t keep_us, uint64_t most_bytes) {
    const bool before = m_starts.on();
    m_starts.set_bounds(keep_us, most_bytes);
    if (m_starts.on() && !before) {
        if (m_core.m_keepers == 0) {
            open_book();
        }
        m_core.add_keeper();
    } else if (!m_starts.on() && before) {
        m_core.drop_keeper();
    }
    trim_kept();
}

void FrameLine::hold_for_starts() {
    if (m_starts.on()) {
        offer();
    }
}

// The frame is off the kept line. Senders that keep frames, and are paused or too late for it, are taken care
// of.
void FrameLine::keep_no_more(CFrame* frame) {
    SenderRecord::rescue_all(*frame,
                             frame->m_left_list ? SenderRecord::Rescue::ALL : SenderRecord::Rescue::KEEPERS);
    if (frame->m_left_list) {
        m_store.end(frame);
    }
}

void FrameLine::let_go_kept() {
    if (m_core.m_keepers == 0) {
        drop_kept();
        return;
    }
    if (m_starts.on()) {
        m_starts.trim(m_core.now(), m_core.m_kept_total, m_core.m_channels);
    }
    while (CFrame* const frame = m_kept.take_passed()) {
        keep_no_more(frame);
    }
    while (CFrame* const frame = m_kept.take_over(m_core.now(), m_starts.from())) {
        keep_no_more(frame);
    }
}

void FrameLine::drop_kept() {
    m_starts.forget();
    while (CFrame* const frame = m_kept.take_head()) {
        keep_no_more(frame);
    }
}

uint64_t FrameLine::size() const {
    uint64_t size = 0;
    for (const CFrame* frame = m_head; frame != nullptr && frame->m_frame_len >= 1; frame = frame->m_next) {
        size += static_cast<uint64_t>(frame->m_frame_len);
    }
    return size;
}

void FrameLine::add_stats(MediaBufferStats& stats) const {
    stats.byte_total = m_core.m_byte_total;
    stats.expired_frames = m_expired_frames;
    stats.expired_bytes = m_expired_bytes;
    for (const CFrame* frame = m_kept.head(); frame != nullptr; frame = frame->m_kept_next) {
        ++stats.kept_frames;
    }
    stats.kept_bytes = m_kept.bytes();
    for (const CFrame* frame = m_head; frame != nullptr; frame = frame->m_next) {
        if (frame->m_valid == 0) {
            continue;
        }
        ++stats.frames;
        stats.bytes += static_cast<uint64_t>(frame->m_frame_len);
        if (frame->m_sender_count != 0 && !m_policy_only && !is_held(*frame)) {
            ++stats.pinned_frames;
            stats.pinned_bytes += static_cast<uint64_t>(frame->m_frame_len);
        }
    }
}

FrameLine::Held FrameLine::held() const {
    Held held;
    for (const CFrame* frame = m_kept.head(); frame != nullptr; frame = frame->m_kept_next) {
        ++held.frames;
    }
    held.bytes = m_kept.bytes();
    for (const CFrame* frame = m_head; frame != nullptr; frame = frame->m_next) {
        if (!frame->m_kept && frame->m_packet_num != 0) {
            ++held.frames;
            held.bytes += static_cast<uint64_t>(frame->m_frame_len);
        }
    }
    return held;
}

void FrameLine::add_stats(MediaStartStats& stats) const {
    const CFrame* const from = m_starts.from();
    for (const CFrame* frame = from; frame != nullptr; frame = frame->m_kept_next) {
        ++stats.frames;
        stats.bytes += static_cast<uint64_t>(frame->m_frame_len);
    }
    stats.age_us = from != nullptr ? Infra::CTime::getCurrentMicroSecond() - from->m_complete_us : 0;
    stats.drops = m_starts.drops();
}

}  // namespace Orvex::Reticor
