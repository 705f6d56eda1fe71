// TsFramer: a window over the input, and the search for the heads of packets in it.

#include "media_relay/mpegts/TsFramer.h"

#include <cstring>

#include "media_relay/mpegts/TsPacket.h"

namespace relay {

namespace {

constexpr size_t kRoom = 65536;
constexpr size_t kProof = 3 * kTsPacketSize;  // how much must be seen to believe in a head

}  // namespace

TsFramer::TsFramer() : m_bytes(kRoom + kProof) {}

uint8_t* TsFramer::room(size_t& size) {
    std::memmove(m_bytes.data(), m_bytes.data() + m_begin, m_end - m_begin);
    m_end -= m_begin;
    m_begin = 0;
    size = m_bytes.size() - m_end;
    return m_bytes.data() + m_end;
}

/// What lies beyond the end of the input counts as a head.
bool TsFramer::isHeadAt(size_t position) const {
    return position < m_end ? m_bytes[position] == kTsSync : m_finished;
}

bool TsFramer::standsHere() const {
    return isHeadAt(m_begin) && isHeadAt(m_begin + kTsPacketSize) && isHeadAt(m_begin + 2 * kTsPacketSize);
}

uint8_t* TsFramer::next() {
    for (;;) {
        const size_t left = m_end - m_begin;
        if (left < kTsPacketSize) {
            return nullptr;
        }
        if (m_bytes[m_begin] == kTsSync) {
            if (!m_synchronous && left < kProof && !m_finished) {
                return nullptr;
            }
            m_synchronous = m_synchronous || standsHere();
            if (m_synchronous) {
                uint8_t* packet = m_bytes.data() + m_begin;
                m_begin += kTsPacketSize;
                return packet;
            }
        }
        m_synchronous = false;
        ++m_begin;
        ++m_skipped;
    }
}

void TsFramer::reset() {
    m_skipped += m_end - m_begin;
    m_begin = m_end = 0;
    m_synchronous = m_finished = false;
}

}  // namespace relay
