// Stream: one input by its name, in every form that clients take it in.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <Infra/Mutex.h>
#include <Reticor/MediaBuffer.h>

#include "media_relay/LiveStream.h"
#include "media_relay/Mp4Output.h"
#include "media_relay/MulticastOutput.h"
#include "media_relay/Options.h"
#include "media_relay/figures/History.h"
#include "media_relay/hls/Waker.h"
#include "media_relay/input/Source.h"
#include "media_relay/input/TsOutputs.h"
#include "media_relay/rtsp/RtspOutput.h"

namespace relay {

/// What one input is made into, and how it fares. The input is the one producer of all outputs, and tells
/// this object of itself; whoever plays it keeps the stream until the input is gone.
///
/// Threads: `open...` before the input plays, all else is for any thread.
class Stream : public SourceListener {
public:
    enum class Kind { PICTURES, TRANSPORT };  // test pictures as motion JPEG, or a transport stream

    /// Clients of HTTP live streaming are woken by `waker`, which outlives it.
    Stream(std::string name, Kind kind, const Options& options, Waker& waker);

    const std::string& name() const { return m_name; }
    bool isTest() const { return m_kind == Kind::PICTURES; }
    std::string livePath() const { return "/" + m_name + (isTest() ? ".mjpg" : ".ts"); }

    /// Sends it to the group of the options, too. False if that cannot be done, and it has been said why.
    bool openMulticast(const Options& options);
    /// Lets clients of RTSP ask for datagrams: opens a pair of ports at `host`, which is its own. A stream of
    /// pictures has none. False if there is none; the library has said why.
    bool openDatagrams(Roster& roster, const std::string& host);

    LiveStream& live() { return m_live; }
    Mp4Output& mp4() { return m_mp4; }
    RtspOutput& rtsp() { return m_rtsp; }
    History& history() { return m_history; }

    /// Null if it cannot be fetched so.
    HlsOutput* hls();

    /// Where a transport stream's units go. Valid as long as this object.
    TsOutputs outputs();

    /// Of all outputs.
    std::vector<std::shared_ptr<Client>> clients();
    uint64_t clientsEver();
    Orvex::Reticor::MediaBufferStats bufferStats();

    /// Of the input.
    SourceView view();
    bool hasEnded();
    bool hasFailed();

    /// Whether it has ended, and its clients have what there was, or have had their time for it.
    bool isOver();

    void onSourceView(const SourceView& view) override;
    void onSourceEnd(const std::string& error) override;

private:
    const std::string m_name;
    const Kind m_kind;
    const bool m_alone;  // the program has no other one
    const bool m_withRtsp;
    LiveStream m_live;
    Mp4Output m_mp4;
    RtspOutput m_rtsp;
    MulticastOutput m_multicast;
    bool m_withMulticast = false;  // set up before the input plays
    History m_history;

    Orvex::Infra::CMutex m_mutex;  // innermost
    SourceView m_view INFRA_GUARDED_BY(m_mutex);
    uint64_t m_ended_us INFRA_GUARDED_BY(m_mutex) = 0;  // when the input did; 0 while it plays
    bool m_failed INFRA_GUARDED_BY(m_mutex) = false;
};

}  // namespace relay
