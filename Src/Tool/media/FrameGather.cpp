// FrameGather: how far one write may go.
#include "Tool/media/FrameGather.h"

#include <algorithm>

namespace Orvex::Reticor {

bool FrameGather::add(CFrame& frame, size_t index, int32_t offset) {
    const size_t packets = frame.m_packet_num - index;
    if (m_count + packets > ENTRIES_MOST) {
        return false;
    }
    std::copy_n(frame.m_iovec + index, packets, m_entries.data() + m_count);
    iovec& first = m_entries[m_count];
    first.iov_base = static_cast<char*>(first.iov_base) + offset;
    first.iov_len -= static_cast<size_t>(offset);
    m_count += packets;
    m_frames[m_frame_num++] = &frame;
    return true;
}

FrameGather::Next FrameGather::judge(const SenderRecord& record, const CFrame& frame,
                                     const Ordinals& last) const {
    if (frame.m_frame_len < 1 || frame.is_filling() || (record.m_lost_mask & frame.channel_bit()) != 0) {
        return Next::STOP;
    }
    if (frame.m_valid == 0 && !record.m_keeps) {
        return Next::STOP;
    }
    if ((Infra::relaxedLoad(record.m_channel_mask) & frame.channel_bit()) == 0) {
        return Next::PASS;
    }
    if (record.has_policy() && (frame.m_complete_us < m_young_us || frame.m_disposable ||
                                frame.m_ordinal != last[static_cast<size_t>(frame.channel())] + 1)) {
        return Next::STOP;
    }
    return Next::TAKE;
}

bool FrameGather::collect(const SenderRecord& record) {
    CFrame& first = *record.m_frame;
    if (after(record, first) == nullptr ||
        !add(first, static_cast<size_t>(record.m_iovec_index), record.m_iovec_offset)) {
        return false;
    }
    m_bytes = record.m_frame_left;
    if (record.has_policy() && record.m_list != nullptr) {
        const uint64_t now_us = record.m_list->now();
        const uint64_t half_us = record.max_lag_us() / 2;
        m_young_us = now_us > half_us ? now_us - half_us : 0;
    }
    Ordinals last;
    for (size_t channel = 0; channel < last.size(); ++channel) {
        last[channel] = record.m_courses.last_ordinal(static_cast<int>(channel));
    }
    last[static_cast<size_t>(first.channel())] = first.m_ordinal;
    for (CFrame* frame = after(record, first); frame != nullptr; frame = after(record, *frame)) {
        const Next next = judge(record, *frame, last);
        if (next == Next::STOP) {
            break;
        }
        if (next == Next::PASS) {
            continue;
        }
        const auto length = static_cast<uint64_t>(frame->m_frame_len);
        if (m_frame_num == FRAMES_MOST || m_bytes + length > BYTES_MOST || !add(*frame, 0, 0)) {
            break;
        }
        m_bytes += length;
        last[static_cast<size_t>(frame->channel())] = frame->m_ordinal;
    }
    return m_frame_num > 1;
}

}  // namespace Orvex::Reticor
