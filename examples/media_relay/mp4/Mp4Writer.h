// Mp4Writer: the two kinds of pieces that fragmented MP4 is made of (ISO/IEC 14496-12, 8.16 and annex A.8).
#pragma once

#include <cstdint>
#include <vector>

#include "media_relay/mp4/SoundFormat.h"
#include "media_relay/mp4/VideoFormat.h"

namespace relay {

constexpr unsigned kVideoTrack = 1;
constexpr unsigned kSoundTrack = 2;
constexpr unsigned kVideoScale = 90000;  // ticks a second; sound counts in its samples

/// What a player gets before all else. A null format: the programme has none of that kind.
std::vector<uint8_t> makeInitSegment(const VideoFormat* video, const SoundFormat* sound);

/// A picture or a piece of sound.
struct Sample {
    std::vector<uint8_t> bytes;
    uint32_t duration = 0;  // in ticks of its track
    int32_t offset = 0;     // from when it is decoded to when it is shown
    bool key = true;
    bool disposable = false;
};

/// Samples of one track that follow each other.
struct Run {
    uint64_t decoded = 0;  // of the first one
    std::vector<Sample> samples;
};

/// A fragment that plays by itself after its init segment, and after what its pictures need. Runs may be
/// empty, not both.
std::vector<uint8_t> makeFragment(uint32_t number, const Run& video, const Run& sound);

}  // namespace relay
