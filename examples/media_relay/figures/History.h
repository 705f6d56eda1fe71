// History: the last two minutes, for a page that has just been opened.
#pragma once

#include <deque>
#include <memory>
#include <string>
#include <vector>

#include <Infra/Mutex.h>
#include <Reticor/MediaBuffer.h>

#include "media_relay/Client.h"

namespace relay {

/// A look every half second. Of many clients it keeps those that are named first.
class History {
public:
    static constexpr unsigned PERIOD_MS = 500;
    static constexpr size_t SAMPLES = 240;
    static constexpr size_t CLIENTS = 64;

    void take(const Orvex::Reticor::MediaBufferStats& buffer,
              const std::vector<std::shared_ptr<Client>>& clients);

    /// /history.json: the oldest look first. A client is its number, bytes a second, bytes of backlog,
    /// frames dropped since it came, and 1 if it is stalled.
    std::string json();

private:
    struct Row {
        unsigned number;
        uint64_t rate;
        uint64_t backlog;
        uint64_t dropped;
        bool stalled;
    };
    struct Sample {
        uint64_t frames;
        uint64_t bytes;
        std::vector<Row> rows;
    };

    Orvex::Infra::CMutex m_mutex;  // innermost
    std::deque<Sample> m_samples INFRA_GUARDED_BY(m_mutex);
};

}  // namespace relay
