// SoundFormat: what a decoder must know before the first sound, and where one piece of it ends.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "media_relay/mpegts/TsSections.h"

namespace relay {

struct SoundFormat {
    Codec codec = Codec::Other;
    unsigned rate = 0;  // samples a second: the time scale of the track
    unsigned channels = 0;
    std::string name;                    // as a browser knows it, "mp4a.40.2"
    std::vector<uint8_t> configuration;  // the whole esds or dOps box

    bool operator==(const SoundFormat& other) const {
        return codec == other.codec && rate == other.rate && configuration == other.configuration;
    }
};

/// One packet of a sound codec.
struct SoundFrame {
    std::vector<uint8_t> bytes;
    unsigned samples = 0;  // how long it lasts
};

/// Cuts the sound of a stream into frames. One that a unit ends within goes on in the next unit; what is not
/// a frame is skipped.
class SoundCutter {
public:
    /// `channels` is what the programme's map says, of Opus.
    explicit SoundCutter(Codec codec = Codec::Other, unsigned channels = 0);

    /// Appends what is whole. `before` is how many of them began in a unit before this one.
    void put(const std::vector<uint8_t>& unit, std::vector<SoundFrame>& frames, size_t& before);

    /// False before the first frame. Frames of another format make another one.
    bool hasFormat() const { return m_format.rate != 0; }
    const SoundFormat& format() const { return m_format; }

private:
    bool cutAac(size_t& at, SoundFrame& frame);
    bool cutOpus(size_t& at, SoundFrame& frame);
    void readAac(const uint8_t* head);
    void readOpus();

    Codec m_codec;
    unsigned m_channels;
    SoundFormat m_format;
    unsigned m_lastHead = 0;      // of the format: the bits of an ADTS head that make it
    std::vector<uint8_t> m_rest;  // of a frame that is not whole
};

}  // namespace relay
