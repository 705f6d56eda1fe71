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

/// How an input fares.
json describe(const SourceView& view) {
    return {{"kind", view.kind},
            {"seconds", view.seconds},
            {"skipped_bytes", view.skipped},
            {"damaged_packets", view.damaged},
            {"lost_packets", view.lost},
            {"lost_datagrams", view.lostDatagrams},
            {"late_datagrams", view.lateDatagrams},
            {"bad_datagrams", view.badDatagrams},
            {"connections", view.connections},
            {"state", view.state},
            {"clock_jumps", view.jumps},
            {"rounds", view.rounds}};
}

/// A stream's input, and where clients find what it is made into.
json describeInput(Stream& stream) {
    const LiveStream::Totals totals = stream.live().totals();
    const std::string refusal = stream.isTest() ? "" : stream.mp4().refusal();
    const bool plays = !stream.isTest() && refusal.empty();
    json input = describe(stream.view());
    input["live"] = stream.livePath();
    input["mp4"] = plays ? json("/" + stream.name() + ".mp4") : json();
    input["hls"] = plays ? json("/hls/" + stream.name() + ".m3u8") : json();
    input["known"] = stream.mp4().isKnown();
    input["refusal"] = refusal;
    input["codecs"] = stream.mp4().codecs();
    input["edge_seconds"] = stream.mp4().edge_s();
    input["ended"] = stream.hasEnded();
    input["frames"] = totals.frames;
    input["key_frames"] = totals.keyFrames;
    input["bytes"] = totals.bytes;
    return input;
}

/// The clients of RTSP, and what they say of what they get.
json describeViewers(Stream& stream) {
    json rows = json::array();
    for (const auto& viewer : stream.rtsp().viewers()) {
        json tracks = json::array();
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

/// All streams, in short.
nlohmann::json Relay::describeStreams() {
    nlohmann::json rows = nlohmann::json::array();
    for (const auto& stream : m_streams.list()) {
        const SourceView view = stream->view();
        rows.push_back({{"name", stream->name()},
                        {"kind", view.kind},
                        {"live", stream->livePath()},
                        {"clients", stream->clients().size()},
                        {"ended", stream->hasEnded()},
                        {"input", describe(view)}});
    }
    return rows;
}

std::string Relay::json(Stream& stream) {
    auto watching = stream.clients();
    sortBySuffering(watching);
    nlohmann::json clients = nlohmann::json::array();
    for (const auto& client : watching) {
        clients.push_back(describe(*client, modeOf(m_options)));
    }
    nlohmann::json all{{"clients", clients}, {"buffer", describe(stream.bufferStats())}};
    all["stream"] = stream.name();
    all["streams"] = describeStreams();
    all["ended"] = describeEnded();
    all["hls"] = describe(stream.mp4().hls().figures());
    all["rtsp"] = describeViewers(stream);
    all["work"] = m_work.json();
    all["input"] = describeInput(stream);
    uint64_t ever = 0;
    for (const auto& one : m_streams.list()) {
        ever += one->clientsEver();
    }
    CGuard guard(m_mutex);
    all["totals"] = {{"clients", ever},
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
