// RtspOutput: when it works, and who gets what.

#include "media_relay/rtsp/RtspOutput.h"

#include <algorithm>
#include <ctime>
#include <utility>

#include <Infra/Time.h>

namespace relay {

using Orvex::Infra::CGuard;
using Orvex::Infra::CTime;

namespace {

constexpr uint64_t kRest_us = 30000000;   // after the last client it goes on for so long: one may come back
constexpr uint64_t kReport_us = 5000000;  // between two reports to the clients
constexpr char kName[] = "media_relay";
constexpr unsigned kLevelKey = 1;
constexpr unsigned kLevelSound = 3;
constexpr unsigned kLevelPicture = 5;

uint64_t timeOfDay_us() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000000 + static_cast<uint64_t>(now.tv_nsec) / 1000;
}

}  // namespace

std::vector<SdpTrack> RtspOutput::describe(bool now) {
    CGuard guard(m_mutex);
    m_wanted_us = CTime::getCurrentMicroSecond();
    return m_known || now ? m_tracks : std::vector<SdpTrack>();
}

void RtspOutput::enter(const std::shared_ptr<RtspViewer>& viewer) {
    CGuard guard(m_mutex);
    m_viewers.push_back(viewer);
}

void RtspOutput::leave(const std::shared_ptr<RtspViewer>& viewer) {
    m_datagrams.stop(*viewer);
    CGuard guard(m_mutex);
    m_viewers.erase(std::remove(m_viewers.begin(), m_viewers.end(), viewer), m_viewers.end());
}

std::vector<std::shared_ptr<RtspViewer>> RtspOutput::viewers() {
    CGuard guard(m_mutex);
    return m_viewers;
}

void RtspOutput::takeReport(RtspViewer& viewer, const uint8_t* bytes, size_t size) {
    viewer.heard();
    CGuard guard(m_mutex);
    for (const RtpReception& reception : readReceptions(bytes, size)) {
        const auto source = std::find(m_sources.begin(), m_sources.end(), reception.source);
        const auto track = static_cast<size_t>(source - m_sources.begin());
        if (track < m_tracks.size() && track < RtspViewer::TRACKS) {
            viewer.note(track, reception, m_tracks[track].scale());
        }
    }
}

void RtspOutput::onProgram(const ProgramMap& map) {
    m_map = map;
    m_hasMap = true;
    if (m_muxer != nullptr) {
        m_muxer->begin(map);
    }
}

bool RtspOutput::isWanted() {
    const uint64_t now_us = CTime::getCurrentMicroSecond();
    CGuard guard(m_mutex);
    if (!m_viewers.empty()) {
        m_wanted_us = now_us;
    }
    return m_wanted_us != 0 && now_us < m_wanted_us + kRest_us;
}

void RtspOutput::put(const AccessUnit& unit) {
    if (!m_hasMap || (!isWanted() && m_muxer == nullptr)) {
        return;
    }
    if (!isWanted()) {
        m_muxer.reset();
        m_stream.clear();
        CGuard guard(m_mutex);
        m_known = false;
        m_tracks.clear();
        return;
    }
    if (m_muxer == nullptr) {
        m_muxer = std::make_unique<RtpMuxer>(static_cast<RtpMuxer::Sink&>(*this));
        m_muxer->begin(m_map);
    }
    m_muxer->put(unit);
    learn();
    report();
}

/// What clients may be told of the tracks.
void RtspOutput::learn() {
    std::vector<SdpTrack> tracks = m_muxer->describe();
    const bool known = m_muxer->isKnown();
    std::vector<uint32_t> sources = m_muxer->sources();
    CGuard guard(m_mutex);
    m_tracks = std::move(tracks);
    m_sources = std::move(sources);
    m_known = known;
}

RtpPackets RtspOutput::makeReports() {
    return m_muxer->makeReports(timeOfDay_us(), kName);
}

/// Now and then; who begins has got one before.
void RtspOutput::report() {
    const uint64_t now_us = CTime::getCurrentMicroSecond();
    if (now_us < m_reported_us + kReport_us) {
        return;
    }
    m_reported_us = now_us;
    const RtpPackets reports = makeReports();
    for (const auto& client : m_stream.clients()) {
        for (const RtpPacket& report : reports) {
            m_stream.sendBetween(client, std::string(report.begin(), report.end()), nullptr);
        }
    }
    m_datagrams.sendReports(reports);
}

/// Whoever begins gets reports first: without them a player takes the first pictures and the first sound
/// for simultaneous, and jumps when it learns better.
void RtspOutput::onPackets(RtpUnit&& unit) {
    if (unit.key) {
        std::string prologue;
        const RtpPackets reports = makeReports();
        for (const RtpPacket& report : reports) {
            prologue.append(report.begin(), report.end());
        }
        m_stream.setPrologue(prologue);
        m_datagrams.begin(reports);
    }
    m_datagrams.send(unit);
    Frame frame;
    frame.channel = static_cast<unsigned>(unit.kind);
    frame.level = unit.key ? kLevelKey : unit.kind == StreamKind::Audio ? kLevelSound : kLevelPicture;
    frame.entry = unit.key;
    frame.disposable = unit.disposable;
    for (RtpPacket& packet : unit.packets) {
        frame.packets.push_back(std::make_unique<DataPacket>(std::move(packet)));
    }
    m_stream.put(std::move(frame));
}

}  // namespace relay
