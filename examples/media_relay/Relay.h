// Relay: the whole of the program but its doors: the streams, their inputs, and the counters.
#pragma once

#include <deque>
#include <memory>
#include <string>
#include <vector>

#include <Infra/Mutex.h>
#include <Reticor/PoolSet.h>
#include <nlohmann/json_fwd.hpp>

#include "media_relay/EndSignals.h"
#include "media_relay/Options.h"
#include "media_relay/figures/PoolWork.h"
#include "media_relay/hls/Waker.h"
#include "media_relay/http/Listener.h"
#include "media_relay/input/Inputs.h"
#include "media_relay/stream/Publications.h"
#include "media_relay/stream/Streams.h"

namespace relay {

/// What has become of requests and clients.
struct Counters {
    uint64_t requests = 0;
    uint64_t bad = 0;      // answered with 4xx
    uint64_t refused = 0;  // one client too many
    uint64_t left = 0;     // live clients that went
    uint64_t stalled = 0;  // live clients that were dropped, since they took nothing
};

/// Those that suffer most first; whoever still waits for its first frame comes last.
void sortBySuffering(std::vector<std::shared_ptr<Client>>& clients);

class Relay {
public:
    static constexpr unsigned WAKE = 102;  // message to a Session: what it waits for is there

    explicit Relay(const Options& options) : m_options(options) {}

    /// Plays the inputs, one for each stream of the options, to whoever comes, until a signal ends it or all
    /// streams have ended. The result is main's.
    int run(EndSignals& signals, std::vector<OpenInput>&& inputs);

    const Options& options() const { return m_options; }
    Roster& roster() { return m_roster; }
    Streams& streams() { return m_streams; }
    Publications& publications() { return m_publications; }

    /// Sets up what writes a live stream to `sock`, whose handler is `owner`; that one gets the message
    /// `skipped` when the client has missed something.
    void prepare(Orvex::Reticor::CMediaStreamSender& sender, Orvex::Reticor::CSockStream& sock, long owner,
                 unsigned skipped) const;

    /// A place for a live client, of those that may be there at a time. False if all are taken.
    bool takePlace();
    void givePlace();

    /// Adds one to a counter.
    void count(uint64_t Counters::*counter);

    /// A number for a client, which no other one has had.
    unsigned takeNumber();

    /// /stats.json, of that stream above all.
    std::string json(Stream& stream);

    /// /metrics: what the library counts, and what the relay does.
    std::string metrics();

    /// A live client goes: what its last verdict is known by.
    void noteLeft(const Client& client);

    /// Every half second, on a worker.
    void tick();

private:
    /// A client that has gone, by its sender's id.
    struct Left {
        int64_t sender = 0;
        unsigned number = 0;
        std::string address;
    };

    std::vector<std::shared_ptr<Client>> clients();
    nlohmann::json describeEnded();
    nlohmann::json describeStreams();
    bool listenForRtsp(std::string& address);
    void setListener(Listener* listener);
    void admit(Orvex::Reticor::CSockStream& peer);
    bool makeStreams();
    void startSource(const StreamOption& option, OpenInput&& input);
    void announce(const std::string& address, const std::string& rtsp);
    void printStatus();
    static std::string describeWorst(const std::vector<std::shared_ptr<Client>>& clients);
    bool isOver();

    const Options m_options;
    Orvex::Reticor::CPoolSet m_pools;  // ends after its sessions, which the roster waits for
    Roster m_roster;
    Inputs m_inputs{m_roster};
    Waker m_waker{WAKE};
    Streams m_streams{m_options, m_waker};
    Publications m_publications{m_options, m_streams};
    PoolWork m_work;

    Orvex::Infra::CMutex m_mutex;  // innermost
    Counters m_counters INFRA_GUARDED_BY(m_mutex);
    unsigned m_watching INFRA_GUARDED_BY(m_mutex) = 0;  // places that are taken
    unsigned m_lastNumber INFRA_GUARDED_BY(m_mutex) = 0;
    std::deque<Left> m_left INFRA_GUARDED_BY(m_mutex);  // the youngest first

    Listener* m_listener INFRA_GUARDED_BY(m_mutex) = nullptr;  // while it listens

    unsigned m_ticks = 0;  // and what follows: of the ticker alone
    uint64_t m_lastFrames = 0;
    bool m_signalled = false;
};

}  // namespace relay
