// CFrame: packets come in, and all of them are released in the end.
#include "Tool/frame/MediaFrame.h"

#include <algorithm>
#include <cassert>
#include <cstdlib>
#include <iterator>
#include <utility>

#include <Infra/HeldLocks.h>

#include "Tool/frame/MediaTrace.h"

namespace Orvex::Reticor {

// The first entries are written before they are read: clearing them would cost more than the rest of a frame.
CFrame::CFrame() {}  // NOLINT

CFrame::~CFrame() {
    for (uint32_t i = 0; i < m_packet_num; ++i) {
        INFRA_PROMISE(RELEASE);
        m_packet[i]->Release();
    }
    if (m_iovec != m_first_iovec) {
        std::free(m_iovec);
        std::free(m_packet);
    }
    if (CMediaPacket* info = std::exchange(m_info_packet, nullptr)) {
        INFRA_PROMISE(RELEASE);
        info->Release();
    }
}

int CFrame::Put(CMediaPacket* packet, int len, int mark, int level) {
    if (MediaTrace::on()) {
        MediaTrace::frame_put(this, packet, len, mark, level);
    }
    if (!make_room()) {
        return -1;
    }
    if (std::exchange(m_grew, false)) {
        assert(m_packet_num % BUFFER_INCREMENT == 0);
        if (MediaTrace::on()) {
            MediaTrace::frame_grew(this, m_frame_len, m_packet_num);
        }
    }
    m_packet[m_packet_num] = packet;
    m_iovec[m_packet_num].iov_base = packet->GetBuffer();
    m_iovec[m_packet_num].iov_len = static_cast<size_t>(len);
    m_mark = mark;
    m_level = level;
    ++m_packet_num;
    m_frame_len += len;
    if (mark == MEDIA_MARK_LAST) {
        m_sent_len = 0;
        m_valid = 1;
        m_age = AGE_NEW;
    }
    return 0;
}

bool CFrame::grow() {
    const uint32_t capacity = m_packet_cap + BUFFER_INCREMENT;
    const bool first = m_iovec == m_first_iovec;
    void* const entries = std::realloc(first ? nullptr : m_iovec, capacity * sizeof(iovec));
    if (entries == nullptr) {
        return false;
    }
    if (!first) {
        m_iovec = static_cast<iovec*>(entries);
    }
    void* const packets = std::realloc(first ? nullptr : m_packet, capacity * sizeof(CMediaPacket*));
    if (packets == nullptr) {
        if (first) {
            std::free(entries);
        }
        return false;
    }
    m_iovec = static_cast<iovec*>(entries);
    m_packet = static_cast<CMediaPacket**>(packets);
    if (first) {
        std::copy(std::begin(m_first_iovec), std::end(m_first_iovec), m_iovec);
        std::copy(std::begin(m_first_packet), std::end(m_first_packet), m_packet);
    }
    m_packet_cap = capacity;
    m_grew = true;
    return true;
}

bool CFrame::make_room_for(uint32_t packets) {
    while (m_packet_cap - m_packet_num < packets) {
        if (!grow()) {
            return false;
        }
    }
    return true;
}

int CFrame::PutInfo(CMediaPacket* packet, int arg, CMediaPacket* shown) {
    CMediaPacket* const earlier = std::exchange(m_info_packet, packet);
    m_info_shown = shown != nullptr ? shown : packet;
    m_info_arg = arg;
    if (earlier != nullptr) {
        INFRA_PROMISE(RELEASE);
        earlier->Release();
    }
    return 0;
}

void CFrame::Clear() {
    for (uint32_t i = 0; i < m_packet_num; ++i) {
        assert(m_packet[i] != NULL);
        INFRA_PROMISE(RELEASE);
        m_packet[i]->Release();
    }
    if (CMediaPacket* info = std::exchange(m_info_packet, nullptr)) {
        INFRA_PROMISE(RELEASE);
        info->Release();
    }
    m_info_shown = nullptr;
    m_packet_num = 0;
    m_frame_len = 0;
    m_mark = 0;
    m_level = 1;
    m_valid = 0;
    m_age = AGE_NEW;
    m_sent_len = -1;
    m_next = nullptr;
    m_key_mask = 0;
}

}  // namespace Orvex::Reticor
