// Stats: /stats.json.

#include <nlohmann/json.hpp>

#include "media_relay/Relay.h"

namespace relay {

using nlohmann::json;
using Orvex::Infra::CGuard;
using Orvex::Reticor::MediaBufferStats;

namespace {

json describe(Client& client) {
    const Client::View view = client.view();
    return {{"number", view.number},
            {"address", view.address},
            {"state", view.waiting   ? "waiting"
                      : view.stalled ? "stalled"
                                     : "live"},
            {"seconds", static_cast<double>(view.age_us) / 1e6},
            {"frames", view.sender.frames},
            {"bytes", view.sender.bytes},
            {"bytes_per_second", view.rate},
            {"backlog_bytes", view.sender.backlog_bytes},
            {"lag_ms", view.sender.lag_us / 1000},
            {"dropped_frames", view.sender.hole_frames + view.sender.skipped_frames},
            {"holes", view.sender.holes},
            {"skips", view.sender.skips},
            {"stalls", view.stalls}};
}

json describe(const MediaBufferStats& buffer) {
    return {{"frames", buffer.frames},
            {"bytes", buffer.bytes},
            {"expired_frames", buffer.expired_frames},
            {"debt_bytes", buffer.debt_bytes},
            {"pinned_frames", buffer.pinned_frames}};
}

}  // namespace

std::string Relay::json() {
    nlohmann::json clients = nlohmann::json::array();
    for (const auto& client : m_stream.clients()) {
        clients.push_back(describe(*client));
    }
    const LiveStream::Totals totals = m_stream.totals();
    nlohmann::json all{{"clients", clients}, {"buffer", describe(m_stream.bufferStats())}};
    CGuard guard(m_mutex);
    all["input"] = {{"kind", m_source.kind},
                    {"live", m_options.isTest() ? "/live.mjpg" : "/live.ts"},
                    {"seconds", m_source.seconds},
                    {"ended", m_ended_us != 0},
                    {"frames", totals.frames},
                    {"key_frames", totals.keyFrames},
                    {"bytes", totals.bytes},
                    {"skipped_bytes", m_source.skipped},
                    {"damaged_packets", m_source.damaged},
                    {"clock_jumps", m_source.jumps},
                    {"rounds", m_source.rounds}};
    all["totals"] = {{"clients", totals.clients},
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

}  // namespace relay
