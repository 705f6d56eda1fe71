// History: a ring of looks.

#include "media_relay/figures/History.h"

#include <algorithm>
#include <utility>

#include <nlohmann/json.hpp>

namespace relay {

using Orvex::Infra::CGuard;

void History::take(const Orvex::Reticor::MediaBufferStats& buffer,
                   const std::vector<std::shared_ptr<Client>>& clients) {
    Sample sample{buffer.frames, buffer.bytes, {}};
    const size_t count = std::min(clients.size(), CLIENTS);
    for (size_t i = 0; i < count; ++i) {
        const Client::View view = clients[i]->view();
        sample.rows.push_back({view.number, static_cast<uint64_t>(view.rate), view.sender.backlog_bytes,
                               view.sender.hole_frames + view.sender.skipped_frames, view.stalled});
    }
    CGuard guard(m_mutex);
    m_samples.push_back(std::move(sample));
    if (m_samples.size() > SAMPLES) {
        m_samples.pop_front();
    }
}

std::string History::json() {
    nlohmann::json samples = nlohmann::json::array();
    CGuard guard(m_mutex);
    for (const Sample& sample : m_samples) {
        nlohmann::json rows = nlohmann::json::array();
        for (const Row& row : sample.rows) {
            rows.push_back({row.number, row.rate, row.backlog, row.dropped, row.stalled ? 1 : 0});
        }
        samples.push_back({{"frames", sample.frames}, {"bytes", sample.bytes}, {"clients", rows}});
    }
    return nlohmann::json{{"period_ms", PERIOD_MS}, {"samples", samples}}.dump() + "\n";
}

}  // namespace relay
