// Stats: /stats.json.

#include <algorithm>
#include <vector>

#include <nlohmann/json.hpp>

#include <Reticor/Stats.h>

#include "media_relay/Relay.h"

namespace relay {

using nlohmann::json;
using Orvex::Infra::CGuard;
using Orvex::Reticor::CMediaVerdicts;
using Orvex::Reticor::MediaBufferStats;
using Orvex::Reticor::SenderVerdict;

namespace {

// How a client is served when it is slow.
std::string modeOf(const Options& options) {
    if (options.maxLag_ms == 0) {
        return "no limit";
    }
    std::string mode = (options.strictLag ? "strict " : "ahead ") + std::to_string(options.maxLag_ms) + " ms";
    if (!options.strictLag && options.hardLag_ms != 0) {
        mode += ", at most " + std::to_string(options.hardLag_ms) + " ms";
    }
    return mode + (options.disposableFirst ? ", disposable first" : "");
}

json describe(const Client::Skip& skip) {
    if (skip.why == nullptr) {
        return nullptr;
    }
    return {
        {"why", skip.why}, {"frames", skip.frames}, {"seconds_ago", static_cast<double>(skip.ago_us) / 1e6}};
}

json describe(Client& client, const std::string& mode) {
    const Client::View view = client.view();
    return {{"number", view.number},
            {"mode", mode + (view.low ? ", low quality" : "")},
            {"last_skip", describe(view.lastSkip)},
            {"left_out_frames", view.sender.thinned_frames},
            {"address", view.address},
            {"state", view.waiting   ? "waiting"
                      : view.stalled ? "stalled"
                                     : "live"},
            {"seconds", static_cast<double>(view.age_us) / 1e6},
            {"frames", view.sender.frames},
            {"bytes", view.sender.bytes},
            {"bytes_per_second", view.rate},
            {"backlog_bytes", view.sender.backlog_bytes},
            {"lag_ms", view.verdict.lag_us / 1000},
            {"verdict", CMediaVerdicts::GetName(view.verdict.kind)},
            {"why", view.verdict.sentence},
            {"unsent_bytes", view.verdict.unsent_bytes},
            {"closed_percent", view.verdict.closed_percent},
            {"rtt_us", view.verdict.rtt_us},
            {"dropped_frames", view.sender.hole_frames + view.sender.skipped_frames},
            {"holes", view.sender.holes},
            {"skips", view.sender.skips},
            {"stalls", view.stalls}};
}

json describe(const HlsOutput::Figures& figures) {
    return {{"segments", figures.segments}, {"bytes", figures.bytes}, {"pending", figures.waiting}};
}

json describe(const MediaBufferStats& buffer) {
    return {{"frames", buffer.frames},
            {"bytes", buffer.bytes},
            {"expired_frames", buffer.expired_frames},
            {"debt_bytes", buffer.debt_bytes},
            {"pinned_frames", buffer.pinned_frames}};
}

}  // namespace

/// How the last clients fared when they left, the youngest first.
nlohmann::json Relay::describeEnded() {
    std::vector<SenderVerdict> verdicts;
    const auto keep = [](void* context, const SenderVerdict& verdict) {
        static_cast<std::vector<SenderVerdict>*>(context)->push_back(verdict);
        return true;
    };
    CMediaVerdicts::ListEnded(keep, &verdicts);
    nlohmann::json rows = nlohmann::json::array();
    CGuard guard(m_mutex);
    for (const SenderVerdict& verdict : verdicts) {
        const auto left = std::find_if(m_left.begin(), m_left.end(),
                                       [&](const Left& one) { return one.sender == verdict.sender; });
        if (left != m_left.end()) {
            rows.push_back({{"number", left->number},
                            {"address", left->address},
                            {"verdict", CMediaVerdicts::GetName(verdict.kind)},
                            {"why", verdict.sentence}});
        }
    }
    return rows;
}

/// The clients of RTSP, and what they say of what they get.
nlohmann::json Relay::describeViewers() {
    nlohmann::json rows = nlohmann::json::array();
    for (const auto& viewer : m_rtsp.viewers()) {
        nlohmann::json tracks = nlohmann::json::array();
        for (size_t track = 0; track < RtspViewer::TRACKS; ++track) {
            const RtspViewer::Reception reception = viewer->reception(track);
            if (reception.known) {
                tracks.push_back({{"track", track},
                                  {"lost_percent", 100 * reception.lost},
                                  {"lost_packets", reception.lostInAll},
                                  {"jitter_ms", reception.jitter_ms}});
            }
        }
        rows.push_back({{"number", viewer->number()},
                        {"address", viewer->ip()},
                        {"transport", viewer->kind() == Transport::TCP ? "tcp" : "udp"},
                        {"reports", tracks}});
    }
    return rows;
}

std::string Relay::json() {
    nlohmann::json clients = nlohmann::json::array();
    for (const auto& client : clientsBySuffering()) {
        clients.push_back(describe(*client, modeOf(m_options)));
    }
    const nlohmann::json ended = describeEnded();
    const LiveStream::Totals totals = m_stream.totals();
    const std::string refusal = m_options.isTest() ? "" : m_mp4.refusal();
    nlohmann::json all{{"clients", clients}, {"buffer", describe(bufferStats())}};
    all["ended"] = ended;
    all["hls"] = describe(m_mp4.hls().figures());
    all["rtsp"] = describeViewers();
    all["work"] = m_work.json();
    CGuard guard(m_mutex);
    all["input"] = {
        {"kind", m_source.kind},
        {"live", m_options.isTest() ? "/live.mjpg" : "/live.ts"},
        {"mp4", m_options.isTest() || !refusal.empty() ? nullptr : nlohmann::json("/live.mp4")},
        {"hls", m_options.isTest() || !refusal.empty() ? nullptr : nlohmann::json("/hls/live.m3u8")},
        {"known", m_mp4.isKnown()},
        {"refusal", refusal},
        {"codecs", m_mp4.codecs()},
        {"edge_seconds", m_mp4.edge_s()},
        {"seconds", m_source.seconds},
        {"ended", m_ended_us != 0},
        {"frames", totals.frames},
        {"key_frames", totals.keyFrames},
        {"bytes", totals.bytes},
        {"skipped_bytes", m_source.skipped},
        {"damaged_packets", m_source.damaged},
        {"lost_packets", m_source.lost},
        {"lost_datagrams", m_source.lostDatagrams},
        {"late_datagrams", m_source.lateDatagrams},
        {"bad_datagrams", m_source.badDatagrams},
        {"connections", m_source.connections},
        {"state", m_source.state},
        {"clock_jumps", m_source.jumps},
        {"rounds", m_source.rounds}};
    all["totals"] = {
        {"clients", totals.clients + m_mp4.stream().totals().clients + m_rtsp.stream().totals().clients},
        {"left", m_counters.left},
        {"stalled", m_counters.stalled},
        {"refused", m_counters.refused},
        {"requests", m_counters.requests},
        {"bad_requests", m_counters.bad},
        {"turned_away", m_listener != nullptr ? m_listener->turnedAway() : 0},
        {"max_clients", m_options.maxClients},
        {"max_lag_ms", m_options.maxLag_ms}};
    return all.dump() + "\n";
}

std::string Relay::metrics() {
    Orvex::Reticor::CStats stats;
    std::string text;
    if (stats.Take() == 0) {
        text.resize(stats.toPrometheus(nullptr, 0));
        stats.toPrometheus(text.data(), text.size());
    }
    const auto add = [&text](const char* name, uint64_t value) {
        text += std::string("# TYPE media_relay_") + name + " counter\nmedia_relay_" + name + " " +
                std::to_string(value) + "\n";
    };
    CGuard guard(m_mutex);
    add("requests_total", m_counters.requests);
    add("bad_requests_total", m_counters.bad);
    add("refused_total", m_counters.refused);
    add("left_total", m_counters.left);
    add("stalled_total", m_counters.stalled);
    add("turned_away_total", m_listener != nullptr ? m_listener->turnedAway() : 0);
    return text;
}

}  // namespace relay
