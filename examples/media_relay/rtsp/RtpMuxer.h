// RtpMuxer: makes packets of RTP out of the access units of a transport stream.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "media_relay/mp4/Timeline.h"
#include "media_relay/mpegts/TsDemuxer.h"
#include "media_relay/rtsp/RtpPayload.h"
#include "media_relay/rtsp/Sdp.h"

namespace relay {

/// A picture, or sound, as packets.
struct RtpUnit {
    size_t track = 0;
    RtpPackets packets;  // none of them empty
    StreamKind kind = StreamKind::Video;
    bool key = false;         // a client can begin here
    bool disposable = false;  // no other picture needs it
};

/// The first pictures in H.264 and the first sound in AAC become a track each; of a programme whose
/// pictures are of another kind, and of one with neither, the whole transport stream is the only track. The
/// tracks' clocks begin at any number, and run in step.
class RtpMuxer {
public:
    class Sink {
    public:
        virtual ~Sink() = default;
        virtual void onPackets(RtpUnit&& unit) = 0;
    };

    explicit RtpMuxer(Sink& sink) : m_sink(sink) {}

    /// What the units from now on belong to. Tracks that go on keep their numbers.
    void begin(const ProgramMap& map);

    void put(const AccessUnit& unit);

    /// Whether the stream has shown all that a description tells.
    bool isKnown() const;

    /// What is known by now: a track of sound is left out before its first frame. By track.
    std::vector<SdpTrack> describe() const;

    /// What the packets of each track name as theirs.
    std::vector<uint32_t> sources() const;

    /// A report of each track: what their clocks say at `now_us` since 1970. Sound that has not told its
    /// format has none.
    std::vector<RtpPacket> makeReports(uint64_t now_us, const char* name) const;

private:
    struct Track {
        RtpTrack rtp;
        uint32_t base;  // where its clock begins
    };

    void addTrack(unsigned type);
    void putPicture(const AccessUnit& unit);
    void putSound(const AccessUnit& unit);
    void putWhole(const AccessUnit& unit);
    void hand(RtpUnit&& unit);

    Sink& m_sink;
    StreamEntry m_videoEntry;
    StreamEntry m_soundEntry;
    bool m_whole = false;
    bool m_begun = false;
    ParameterSets m_sets;
    SoundCutter m_cutter;
    SoundFormat m_sound;  // that has been described
    Timeline m_timeline;
    std::vector<Track> m_tracks;  // by place
    bool m_open = false;          // a key frame has come
    int64_t m_time = 0;           // ticks of 90 kHz: of the last unit
    int64_t m_lastStep = 3600;
    bool m_soundRuns = false;
    int64_t m_nextSound = 0;  // in samples
};

}  // namespace relay
