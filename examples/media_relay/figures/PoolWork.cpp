// PoolWork: differences of snapshots.

#include "media_relay/figures/PoolWork.h"

#include <algorithm>
#include <cstddef>
#include <utility>

#include <nlohmann/json.hpp>

namespace relay {

using Orvex::Infra::CGuard;
using Orvex::Reticor::CStats;
using Orvex::Reticor::PoolRates;
using Orvex::Reticor::PoolStats;

namespace {

constexpr unsigned SPANS_S[] = {1, 10, 60};
constexpr unsigned CLOSE = 10;  // so many are kept one by one, and one in as many before
constexpr unsigned LONGEST = 60 + CLOSE;

}  // namespace

void PoolWork::take() {
    CStats stats;
    if (stats.Take() != 0) {
        return;  // no memory: the next second will have some
    }
    CGuard guard(m_mutex);
    const unsigned now = ++m_number;
    m_looks.push_back({now, std::move(stats)});
    const auto is_over = [now](const Look& look) {
        const unsigned age = now - look.number;
        return age > LONGEST || (age > CLOSE && look.number % CLOSE != 0 && look.number != 1);
    };
    m_looks.erase(std::remove_if(m_looks.begin(), m_looks.end(), is_over), m_looks.end());
}

// The youngest that is old enough, or the oldest of all.
const PoolWork::Look& PoolWork::look_before(unsigned seconds) const {
    const unsigned now = m_number;
    const auto found = std::find_if(m_looks.rbegin(), m_looks.rend(),
                                    [&](const Look& look) { return now - look.number >= seconds; });
    return found != m_looks.rend() ? *found : m_looks.front();
}

size_t PoolWork::kept() {
    CGuard guard(m_mutex);
    return m_looks.size();
}

nlohmann::json PoolWork::json() {
    nlohmann::json rows = nlohmann::json::array();
    CGuard guard(m_mutex);
    if (m_looks.size() < 2) {
        return rows;
    }
    const CStats& newest = m_looks.back().stats;
    PoolStats pool;
    for (size_t place = 0; newest.GetPool(place, pool) == 0; ++place) {
        for (const unsigned span : SPANS_S) {
            PoolRates rates;
            if (StatsDiff(look_before(span).stats, newest, pool.pool, rates) == 0) {
                rows.push_back({{"pool", pool.pool},
                                {"span", span},
                                {"seconds", rates.seconds},
                                {"utilisation", rates.utilisation},
                                {"calls", rates.calls},
                                {"socket_events", rates.socket_events},
                                {"messages", rates.messages},
                                {"timers", rates.timers}});
            }
        }
    }
    return rows;
}

}  // namespace relay
