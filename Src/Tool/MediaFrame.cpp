// CFrame, and what is not pure of the classes that products derive from.
#include "Tool/MediaFrame.h"

#include <cassert>
#include <cstdlib>
#include <utility>

#include "R3/FuncBox.h"
#include "R3/HelpText.h"

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

CFrame::CFrame()
    : m_iovec(static_cast<iovec*>(std::malloc(BUFFER_INCREMENT * sizeof(iovec)))),
      m_packet(static_cast<CMediaPacket**>(std::malloc(BUFFER_INCREMENT * sizeof(CMediaPacket*)))) {}

CFrame::~CFrame() {
    std::free(m_iovec);
    if (m_packet != nullptr) {
        for (uint32_t i = 0; i < m_packet_num; ++i) {
            m_packet[i]->Release();
        }
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
        m_packet_cap += BUFFER_INCREMENT;
        m_iovec = static_cast<iovec*>(std::realloc(m_iovec, m_packet_cap * sizeof(iovec)));
        m_packet = static_cast<CMediaPacket**>(std::realloc(m_packet, m_packet_cap * sizeof(CMediaPacket*)));
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

}  // namespace Orvex::Reticor
