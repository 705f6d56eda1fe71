// TsSource: an MPEG transport stream from a file or from standard input, in real time.
#pragma once

#include <string>

#include "media_relay/Mp4Output.h"
#include "media_relay/MulticastOutput.h"
#include "media_relay/Source.h"
#include "media_relay/mpegts/TsClock.h"
#include "media_relay/mpegts/TsDemuxer.h"
#include "media_relay/mpegts/TsFramer.h"
#include "media_relay/rtsp/RtspOutput.h"

namespace relay {

/// Reads up to the next clock value at a time, puts the frames that are complete, and tells the receiver the
/// media time of that clock value, before which it is not called again.
class TsSource : public Source, private TsDemuxer::Sink {
public:
    /// Opens the input: "-" is standard input. -1 if that fails, with the reason in errno.
    static int open(const std::string& name);

    struct Setup {
        int fd = -1;  // the source takes it over
        bool loop = false;
        unsigned program = 0;                  // 0: the first one
        MulticastOutput* multicast = nullptr;  // null: none; it stays the caller's, and outlives the source
        RtspOutput* rtsp = nullptr;            // the same
    };

    /// `mp4` is given the units too, and outlives the source.
    static TsSource* Create(Roster& roster, LiveStream& stream, Mp4Output& mp4, SourceListener& listener,
                            const Setup& setup);

    long long handle_passive_input() override;

private:
    enum class Input { Packet, Nothing, End };

    TsSource(Roster& roster, LiveStream& stream, Mp4Output& mp4, SourceListener& listener,
             const Setup& setup);
    ~TsSource() override;

    Input next(uint8_t*& bytes);
    bool read();
    bool take(uint8_t* bytes);
    void onUnit(AccessUnit&& unit) override;
    void onProgram(const ProgramMap& map) override;
    long long onEnd();
    long long mediaTime();
    bool isHopeless();
    void report();

    const int m_fd;
    const bool m_loop;
    MulticastOutput* const m_multicast;
    RtspOutput* const m_rtsp;
    Mp4Output& m_mp4;
    TsFramer m_framer;
    TsLoop m_looper;
    PcrClock m_clock;
    TsDemuxer m_demuxer;
    bool m_inputEnded = false;
    int m_error = 0;  // errno of a failed read
    bool m_over = false;
    bool m_jumpAhead = false;   // the clock begins anew, though the stream does not say so
    uint64_t m_read = 0;        // bytes, of this round
    uint64_t m_units = 0;       // of all rounds
    uint64_t m_roundUnits = 0;  // at the beginning of this round
    uint64_t m_base_us = 0;     // media time at which the receiver's clock began
};

}  // namespace relay
