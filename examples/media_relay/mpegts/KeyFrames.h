// KeyFrames: tells whether a decoder can begin with a picture, and whether it can do without it.
#pragma once

#include <cstddef>
#include <cstdint>

#include "media_relay/mpegts/TsSections.h"

namespace relay {

/// Reads the bytes of one access unit, in pieces of any size, up to its first picture.
class KeyFrameFinder {
public:
    /// A new access unit begins.
    void begin(Codec codec);
    void put(const uint8_t* bytes, size_t size);

    /// An instantaneous refresh (H.264 IDR, H.265 IRAP), a picture after a parameter set (H.264 SPS), an
    /// intra picture after a sequence header (MPEG-2).
    bool isKeyFrame() const { return m_key; }

    /// No other picture refers to it: an H.264 picture that is marked so, an MPEG-2 picture of type B. Of
    /// H.265 that cannot be told from one picture.
    bool isDisposable() const { return m_disposable; }

private:
    void onStart(uint8_t header);
    void onMpeg2(uint8_t header);
    void decide(bool key, bool disposable);

    Codec m_codec = Codec::Other;
    uint32_t m_last = 0xFFFFFFFF;  // four bytes
    int m_pictureBytes = 0;        // MPEG-2: to the byte that tells the picture's type
    bool m_parameters = false;     // a parameter set or sequence header was there
    bool m_decided = false;
    bool m_key = false;
    bool m_disposable = false;
};

}  // namespace relay
