// Remuxer: makes fragmented MP4, which browsers play, of the access units of a transport stream.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "media_relay/mp4/Mp4Writer.h"
#include "media_relay/mp4/Timeline.h"
#include "media_relay/mpegts/TsDemuxer.h"

namespace relay {

using SharedBytes = std::shared_ptr<const std::vector<uint8_t>>;

/// What a player must have before the fragments that follow it.
struct Mp4Init {
    SharedBytes bytes;
    std::string codecs;  // "avc1.64001f,mp4a.40.2"
    bool first = true;   // else formats have changed: fragments of the one before do not play with it
};

struct Mp4Fragment {
    SharedBytes bytes;
    bool key = false;         // a player can begin here
    bool disposable = false;  // no other one needs its picture, and it holds no sound
    uint64_t time = 0;        // when its first picture is decoded, in ticks of 90 kHz, as the stream counts
    uint64_t duration = 0;    // of its pictures; of its sound if it holds none
};

/// A fragment is a picture and the sound that came since the one before. Takes the first stream of pictures
/// and the first of sound that it knows.
///
/// Whatever the input holds, memory is bounded: pictures are held for three seconds, until the first sound
/// has told of its format; after that they go without it.
class Remuxer {
public:
    class Sink {
    public:
        virtual ~Sink() = default;
        virtual void onInit(const Mp4Init& init) = 0;
        virtual void onFragment(Mp4Fragment&& fragment) = 0;
    };

    explicit Remuxer(Sink& sink) : m_sink(sink) {}

    /// Why a browser does not play this programme; empty if it does, or at least some do.
    static std::string refusal(const ProgramMap& map);

    /// What the units from now on belong to.
    void begin(const ProgramMap& map);

    void put(const AccessUnit& unit);

    /// Hands out the sound that waits for a picture: none follows.
    void flush();

private:
    struct Picture;

    void putPicture(const AccessUnit& unit);
    void putSound(const AccessUnit& unit);
    void addSound(SoundFrame&& frame, int64_t time);
    bool openAt(bool key);
    bool isWaiting() const;
    void makeInit();
    void emit();
    void emitRuns();

    Sink& m_sink;
    StreamEntry m_videoEntry;
    StreamEntry m_soundEntry;
    ParameterSets m_sets;
    SoundCutter m_cutter;
    Timeline m_timeline;

    VideoFormat m_video;  // of the init segment, and what follows too
    SoundFormat m_sound;
    bool m_hasInit = false;
    bool m_everInit = false;
    uint32_t m_number = 0;  // of the last fragment

    Run m_pictures;  // that wait
    size_t m_pictureBytes = 0;
    Run m_sounds;
    bool m_open = false;        // a key frame has come
    int64_t m_lastPicture = 0;  // when the last picture is decoded
    uint32_t m_lastStep = 3600;
    bool m_soundRuns = false;
    int64_t m_nextSound = 0;  // when the next frame begins, in samples
};

}  // namespace relay
