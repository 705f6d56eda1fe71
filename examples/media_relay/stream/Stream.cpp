// Stream: its outputs taken together, and its end.

#include "media_relay/stream/Stream.h"

#include <cstdio>
#include <utility>

#include <Infra/Time.h>

namespace relay {

using namespace Orvex::Reticor;
using Orvex::Infra::CGuard;
using Orvex::Infra::CTime;

namespace {

constexpr uint64_t kDrain_us = 5000000;  // for clients to get what is left, once the input has ended

}  // namespace

Stream::Stream(std::string name, Kind kind, const Options& options, Waker& waker)
    : m_name(std::move(name)),
      m_kind(kind),
      m_alone(options.streams.size() == 1 && options.streams.front().name == m_name),
      m_withRtsp(options.rtspPort >= 0) {
    m_live.setUp(options.burst, options.disposableFirst);
    m_mp4.setUp(options.maxLag_ms != 0, options.disposableFirst);
    m_mp4.hls().setWake([&waker](long client) { waker.wake(client); });
    m_rtsp.setUp(options.disposableFirst);
}

bool Stream::openMulticast(const Options& options) {
    m_withMulticast = true;
    return m_multicast.open(options.multicastIp, options.multicastPort, options.multicastInterface,
                            options.multicastTtl);
}

bool Stream::openDatagrams(Roster& roster, const std::string& host) {
    return isTest() || m_rtsp.datagrams().open(roster, host);
}

HlsOutput* Stream::hls() {
    return !isTest() && m_mp4.refusal().empty() ? &m_mp4.hls() : nullptr;
}

TsOutputs Stream::outputs() {
    return {m_live, m_mp4, m_withRtsp ? &m_rtsp : nullptr, m_withMulticast ? &m_multicast : nullptr};
}

std::vector<std::shared_ptr<Client>> Stream::clients() {
    std::vector<std::shared_ptr<Client>> clients = m_live.clients();
    for (LiveStream* const output : {&m_mp4.stream(), &m_rtsp.stream()}) {
        const std::vector<std::shared_ptr<Client>> more = output->clients();
        clients.insert(clients.end(), more.begin(), more.end());
    }
    return clients;
}

uint64_t Stream::clientsEver() {
    return m_live.totals().clients + m_mp4.stream().totals().clients + m_rtsp.stream().totals().clients;
}

/// What all outputs hold.
MediaBufferStats Stream::bufferStats() {
    MediaBufferStats stats = m_live.bufferStats();
    add(stats, m_mp4.stream().bufferStats());
    add(stats, m_rtsp.stream().bufferStats());
    return stats;
}

SourceView Stream::view() {
    CGuard guard(m_mutex);
    return m_view;
}

bool Stream::hasEnded() {
    CGuard guard(m_mutex);
    return m_ended_us != 0;
}

bool Stream::hasFailed() {
    CGuard guard(m_mutex);
    return m_failed;
}

bool Stream::isOver() {
    uint64_t ended_us = 0;
    {
        CGuard guard(m_mutex);
        ended_us = m_ended_us;
    }
    const bool drained = m_live.isDrained() && m_mp4.stream().isDrained() && m_rtsp.stream().isDrained();
    return ended_us != 0 && (drained || CTime::getCurrentMicroSecond() > ended_us + kDrain_us);
}

void Stream::onSourceView(const SourceView& view) {
    CGuard guard(m_mutex);
    m_view = view;
}

void Stream::onSourceEnd(const std::string& error) {
    if (!m_alone) {
        std::fprintf(stderr, "media_relay: stream %s has ended%s%s\n", m_name.c_str(),
                     error.empty() ? "" : ": ", error.c_str());
    } else if (!error.empty()) {
        std::fprintf(stderr, "media_relay: %s\n", error.c_str());
    }
    CGuard guard(m_mutex);
    m_ended_us = CTime::getCurrentMicroSecond();
    m_failed = !error.empty();
}

}  // namespace relay
