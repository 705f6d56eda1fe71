// Sdp: a head, and the lines of each track.

#include "media_relay/rtsp/Sdp.h"

#include <algorithm>
#include <cstdio>
#include <iterator>

namespace relay {

namespace {

std::string linesOf(const SdpTrack& track) {
    const std::string type = std::to_string(track.type());
    const std::string scale = std::to_string(track.scale());
    switch (track.kind) {
        case SdpTrack::H264:
            return "m=video 0 RTP/AVP " + type + "\r\na=rtpmap:" + type + " H264/" + scale +
                   "\r\na=fmtp:" + type + " packetization-mode=1" +
                   (track.profile.empty() ? "" : ";profile-level-id=" + track.profile) + "\r\n";
        case SdpTrack::AAC:
            return "m=audio 0 RTP/AVP " + type + "\r\na=rtpmap:" + type + " mpeg4-generic/" + scale + "/" +
                   std::to_string(track.channels) + "\r\na=fmtp:" + type +
                   " streamtype=5;profile-level-id=1;mode=AAC-hbr;sizelength=13;indexlength=3;"
                   "indexdeltalength=3;"
                   "config=" +
                   track.configuration + "\r\n";
        default:
            return "m=video 0 RTP/AVP " + type + "\r\na=rtpmap:" + type + " MP2T/" + scale + "\r\n";
    }
}

}  // namespace

SdpTrack h264Track(const VideoFormat& video) {
    constexpr char PREFIX[] = "avc1.";
    SdpTrack track;
    track.kind = SdpTrack::H264;
    if (video.name.rfind(PREFIX, 0) == 0) {
        track.profile = video.name.substr(sizeof PREFIX - 1);
    }
    return track;
}

/// The configuration of ISO/IEC 14496-3, 1.6.2.1: what the sound is, five bits; its rate, four bits of a
/// list; its channels, four bits.
SdpTrack aacTrack(const SoundFormat& sound) {
    constexpr unsigned RATES[] = {96000, 88200, 64000, 48000, 44100, 32000, 24000,
                                  22050, 16000, 12000, 11025, 8000,  7350};
    constexpr char PREFIX[] = "mp4a.40.";
    SdpTrack track;
    track.kind = SdpTrack::AAC;
    track.rate = sound.rate;
    track.channels = sound.channels;
    const std::string kind = sound.name.rfind(PREFIX, 0) == 0 ? sound.name.substr(sizeof PREFIX - 1) : "2";
    const auto rate = std::find(std::begin(RATES), std::end(RATES), sound.rate) - std::begin(RATES);
    const unsigned channels = sound.channels == 8 ? 7 : sound.channels;
    const unsigned bits =
        static_cast<unsigned>(kind[0] - '0') << 11U | static_cast<unsigned>(rate) << 7U | channels << 3U;
    char text[8];
    std::snprintf(text, sizeof text, "%04x", bits & 0xFFFFU);
    track.configuration = text;
    return track;
}

std::string makeSdp(const std::string& name, const std::string& base, bool six,
                    const std::vector<SdpTrack>& tracks) {
    const std::string nowhere = six ? "IN IP6 ::" : "IN IP4 0.0.0.0";
    std::string text = "v=0\r\no=- 1 1 " + nowhere + "\r\ns=" + name + "\r\nc=" + nowhere +
                       "\r\nt=0 0\r\na=control:" + base + "\r\na=range:npt=now-\r\n";
    for (size_t i = 0; i < tracks.size(); ++i) {
        text += linesOf(tracks[i]) + "a=control:" + base + "/track" + std::to_string(i) + "\r\n";
    }
    return text;
}

}  // namespace relay
