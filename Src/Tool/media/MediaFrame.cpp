// CFrame, and what is not pure of the classes that products derive from.
#include "Tool/media/MediaFrame.h"

#include <algorithm>
#include <cassert>
#include <cstdlib>
#include <iterator>
#include <new>
#include <utility>

#include "R3/print/FuncBox.h"
#include "R3/print/HelpText.h"

namespace Orvex::Reticor {

std::atomic<int32_t> g_media_print{0};

namespace {

const R3Command g_media_command(&r3StoreFlag<g_media_print>, "MediaBufferPrt", HELP_MEDIABUFFERPRT);

}  // namespace

CMediaPacket::CMediaPacket() = default;
CMediaPacket::CMediaPacket(const CMediaPacket&) = default;
CMediaPacket& CMediaPacket::operator=(const CMediaPacket&) = default;
CMediaPacket::~CMediaPacket() = default;

CLevel2Buffer_IF::CLevel2Buffer_IF() = default;
CLevel2Buffer_IF::CLevel2Buffer_IF(const CLevel2Buffer_IF&) = default;
CLevel2Buffer_IF& CLevel2Buffer_IF::operator=(const CLevel2Buffer_IF&) = default;
CLevel2Buffer_IF::~CLevel2Buffer_IF() = default;

// The first entries are written before they are read: clearing them would cost more than the rest of a frame.
CFrame::CFrame() {}  // NOLINT

CFrame::~CFrame() {
    for (uint32_t i = 0; i < m_packet_num; ++i) {
        m_packet[i]->Release();
    }
    if (m_iovec != m_first_iovec) {
        std::free(m_iovec);
        std::free(m_packet);
    }
    if (CMediaPacket* info = std::exchange(m_info_packet, nullptr)) {
        info->Release();
    }
}

int CFrame::Put(CMediaPacket* packet, int len, int mark, int level) {
    if (mediaPrinting()) {
        R3Printf("%s, Frame:%p put packet:%p, len:%d, mark:%d, level:%x!\n", "Orvex::Reticor::CFrame::Put",
                 static_cast<void*>(this), static_cast<void*>(packet), len, mark,
                 static_cast<unsigned>(level));
    }
    if (m_packet_num == m_packet_cap) {
        assert(m_packet_num % BUFFER_INCREMENT == 0);
        grow();
        if (mediaPrinting()) {
            R3Printf("%p Frame had put %d bytes data, %d packets!\n", static_cast<void*>(this),
                     static_cast<int>(m_frame_len), static_cast<int>(m_packet_num));
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

void CFrame::grow() {
    m_packet_cap += BUFFER_INCREMENT;
    const bool first = m_iovec == m_first_iovec;
    m_iovec = static_cast<iovec*>(std::realloc(first ? nullptr : m_iovec, m_packet_cap * sizeof(iovec)));
    m_packet = static_cast<CMediaPacket**>(
        std::realloc(first ? nullptr : m_packet, m_packet_cap * sizeof(CMediaPacket*)));
    if (first) {
        std::copy(std::begin(m_first_iovec), std::end(m_first_iovec), m_iovec);
        std::copy(std::begin(m_first_packet), std::end(m_first_packet), m_packet);
    }
}

int CFrame::PutInfo(CMediaPacket* packet, int arg) {
    CMediaPacket* const earlier = std::exchange(m_info_packet, packet);
    m_info_arg = arg;
    if (earlier != nullptr) {
        earlier->Release();
    }
    return 0;
}

void CFrame::Clear() {
    for (uint32_t i = 0; i < m_packet_num; ++i) {
        assert(m_packet[i] != NULL);
        m_packet[i]->Release();
    }
    if (CMediaPacket* info = std::exchange(m_info_packet, nullptr)) {
        info->Release();
    }
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

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define RETICOR_SEES_MEMORY_ENDS
#endif
#endif
#if defined(RETICOR_SEES_MEMORY_ENDS) || defined(__SANITIZE_ADDRESS__)
const uint32_t CFrameStore::SPARES_MOST = 0;
#else
const uint32_t CFrameStore::SPARES_MOST = 64;  // As many frames of the most usual level as grow old together.
#endif

CFrameStore::~CFrameStore() {
    while (Spare* const spare = m_spares) {
        m_spares = spare->next;
        ::operator delete(spare);
    }
}

CFrame* CFrameStore::make() {
    void* memory = m_spares;
    if (memory != nullptr) {
        m_spares = m_spares->next;
        --m_count;
    } else {
        memory = ::operator new(sizeof(CFrame));
    }
    return new (memory) CFrame;
}

void CFrameStore::end(CFrame* frame) {
    frame->~CFrame();
    if (m_count == SPARES_MOST) {
        ::operator delete(frame);
        return;
    }
    m_spares = new (static_cast<void*>(frame)) Spare{m_spares};
    ++m_count;
}

}  // namespace Orvex::Reticor
