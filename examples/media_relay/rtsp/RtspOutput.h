// RtspOutput: the stream as packets of RTP, made while somebody watches it.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include <Infra/Mutex.h>

#include "media_relay/LiveStream.h"
#include "media_relay/rtsp/RtpMuxer.h"
#include "media_relay/rtsp/RtspDatagrams.h"
#include "media_relay/rtsp/RtspViewer.h"

namespace relay {

/// Clients that take the packets over their connection share a live stream: a frame of it is a picture, and
/// each packet an entry of its own, so that whoever pauses is left after a whole one. Datagrams are cut off
/// the same packets, once for all who get them.
///
/// Threads: `onProgram` and `put` are the producer's, all else is for any thread.
class RtspOutput : private RtpMuxer::Sink {
public:
    /// Before the first unit.
    void setUp(bool disposableFirst) { m_stream.setUp(false, disposableFirst); }

    LiveStream& stream() { return m_stream; }
    RtspDatagrams& datagrams() { return m_datagrams; }

    /// What the stream's tracks are; empty if that is not known yet. Asking makes it known, if the stream
    /// says it. With `now` it is what is known by now.
    std::vector<SdpTrack> describe(bool now);

    void enter(const std::shared_ptr<RtspViewer>& viewer);
    void leave(const std::shared_ptr<RtspViewer>& viewer);
    std::vector<std::shared_ptr<RtspViewer>> viewers();

    /// What a viewer says of the packets, over its connection or by a datagram.
    void takeReport(RtspViewer& viewer, const uint8_t* bytes, size_t size);

    void onProgram(const ProgramMap& map);
    void put(const AccessUnit& unit);

private:
    void onPackets(RtpUnit&& unit) override;
    bool isWanted();
    void learn();
    RtpPackets makeReports();
    void report();

    LiveStream m_stream;
    RtspDatagrams m_datagrams{*this};
    ProgramMap m_map;  // this and what follows: the producer's
    bool m_hasMap = false;
    std::unique_ptr<RtpMuxer> m_muxer;  // while somebody watches, and for a while after
    uint64_t m_reported_us = 0;

    Orvex::Infra::CMutex m_mutex;                        // comes before that of the datagrams
    uint64_t m_wanted_us INFRA_GUARDED_BY(m_mutex) = 0;  // when somebody last did; 0: never
    bool m_known INFRA_GUARDED_BY(m_mutex) = false;
    std::vector<SdpTrack> m_tracks INFRA_GUARDED_BY(m_mutex);
    std::vector<uint32_t> m_sources INFRA_GUARDED_BY(m_mutex);  // by track
    std::vector<std::shared_ptr<RtspViewer>> m_viewers INFRA_GUARDED_BY(m_mutex);
};

}  // namespace relay
