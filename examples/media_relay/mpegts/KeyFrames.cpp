// KeyFrames: start codes and the byte after them.

#include "media_relay/mpegts/KeyFrames.h"

namespace relay {

void KeyFrameFinder::begin(Codec codec) {
    *this = KeyFrameFinder();
    m_codec = codec;
    m_decided = codec != Codec::Mpeg2 && codec != Codec::H264 && codec != Codec::H265;
}

void KeyFrameFinder::put(const uint8_t* bytes, size_t size) {
    for (size_t i = 0; i < size && !m_decided; ++i) {
        m_last = m_last << 8 | bytes[i];
        if (m_pictureBytes > 0) {
            if (--m_pictureBytes == 0) {
                const unsigned type = bytes[i] >> 3 & 7U;
                decide(m_parameters && type == 1, type == 3);
            }
        } else if (m_last >> 8 == 1) {
            onStart(bytes[i]);
        }
    }
}

void KeyFrameFinder::onStart(uint8_t header) {
    if (m_codec == Codec::Mpeg2) {
        onMpeg2(header);
    } else if (m_codec == Codec::H264) {
        const unsigned type = header & 0x1FU;
        m_parameters = m_parameters || type == 7;
        if (type == 1 || type == 2 || type == 5) {
            const bool key = type == 5 || m_parameters;
            decide(key, !key && (header >> 5 & 3) == 0);
        }
    } else if (m_codec == Codec::H265) {
        const unsigned type = header >> 1 & 0x3FU;
        if (type < 32) {
            decide(type >= 16 && type <= 23, false);
        }
    }
}

void KeyFrameFinder::onMpeg2(uint8_t header) {
    if (header == 0xB3) {
        m_parameters = true;
    } else if (header == 0x00) {
        m_pictureBytes = 2;  // a number of ten bits, and then the type
    }
}

void KeyFrameFinder::decide(bool key, bool disposable) {
    m_decided = true;
    m_key = key;
    m_disposable = disposable;
}

}  // namespace relay
