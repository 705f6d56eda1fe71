// Sdp: what a client is told before it asks for the packets (RFC 4566).
#pragma once

#include <string>
#include <vector>

#include "media_relay/mp4/SoundFormat.h"
#include "media_relay/mp4/VideoFormat.h"

namespace relay {

/// One medium of a description.
struct SdpTrack {
    enum Kind { H264, AAC, TRANSPORT };

    Kind kind = TRANSPORT;
    std::string profile;  // of H.264: six hexadecimal digits, or empty if they are not known yet
    unsigned rate = 0;    // of AAC
    unsigned channels = 0;
    std::string configuration;  // hexadecimal digits

    static constexpr unsigned TRANSPORT_TYPE = 33;  // RFC 3551
    static constexpr unsigned H264_TYPE = 96;       // as the description says
    static constexpr unsigned AAC_TYPE = 97;

    /// What its packets are marked with.
    unsigned type() const { return kind == TRANSPORT ? TRANSPORT_TYPE : kind == H264 ? H264_TYPE : AAC_TYPE; }
    /// Ticks of its clock a second.
    unsigned scale() const { return kind == AAC ? rate : 90000; }
};

/// `video` may be without a name.
SdpTrack h264Track(const VideoFormat& video);
SdpTrack aacTrack(const SoundFormat& sound);

/// `base` is where the stream is asked for, without a slash at its end: the tracks are below it, and told
/// in full, since clients differ in what they make of a part. `six`: the client came over IPv6.
std::string makeSdp(const std::string& name, const std::string& base, bool six,
                    const std::vector<SdpTrack>& tracks);

}  // namespace relay
