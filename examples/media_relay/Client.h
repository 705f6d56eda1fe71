// Client: one live client's sender, and how it fares, for the page and for /stats.json.
#pragma once

#include <cstdint>
#include <string>

#include <Infra/Mutex.h>
#include <Reticor/MediaStreamSender.h>
#include <Reticor/MediaVerdicts.h>

#include "media_relay/Ladder.h"

namespace relay {

/// The sender counts by itself; what is added here is the view over time: its rate, and its stalls.
class Client {
public:
    /// What it missed last.
    struct Skip {
        const char* why = nullptr;  // null: it has missed nothing
        uint64_t frames = 0;
        uint64_t ago_us = 0;  // since it was told
    };
    struct View {
        Orvex::Reticor::MediaSenderStats sender;
        Orvex::Reticor::SenderVerdict verdict;  // why it is slow, if it is
        unsigned number = 0;
        std::string address;
        bool waiting = false;  // for a frame to begin with
        bool stalled = false;  // has finished no frame for a while, though there were some
        uint64_t stalls = 0;
        double rate = 0;      // bytes a second, over the last one or two
        uint64_t age_us = 0;  // since it came
        Skip lastSkip;
        bool low = false;  // it gets the low quality
    };

    /// Holds a reference on the sender, whose socket and place in a buffer are its session's affair.
    /// `owner` is the session's handler. With `late_ms` it gets the low of two qualities when it is later
    /// than that.
    Client(Orvex::Reticor::CMediaStreamSender* sender, long owner, unsigned number, std::string address,
           unsigned late_ms);
    ~Client();
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    Orvex::Reticor::CMediaStreamSender* sender() const { return m_sender; }
    long owner() const { return m_owner; }
    unsigned number() const { return m_number; }
    const std::string& address() const { return m_address; }

    /// Looks whether it is stalled, how fast it goes, and what holds it up; called every half second.
    void sample();

    /// The sender has told of a gap.
    void skipped(const Orvex::Reticor::MediaSkip& skip);

    View view();

private:
    void missed(const char* why, uint64_t frames) INFRA_REQUIRES(m_mutex);

    Orvex::Reticor::CMediaStreamSender* const m_sender;
    const long m_owner;
    const unsigned m_number;
    const std::string m_address;
    const uint64_t m_since_us;
    Ladder m_ladder;
    Orvex::Infra::CMutex m_mutex;  // innermost
    bool m_stalled INFRA_GUARDED_BY(m_mutex) = false;
    uint64_t m_stalls INFRA_GUARDED_BY(m_mutex) = 0;
    uint64_t m_sampled_us INFRA_GUARDED_BY(m_mutex);
    uint64_t m_sampledBytes INFRA_GUARDED_BY(m_mutex) = 0;
    double m_rate INFRA_GUARDED_BY(m_mutex) = 0;
    Skip m_lastSkip INFRA_GUARDED_BY(m_mutex);
    uint64_t m_skipped_us INFRA_GUARDED_BY(m_mutex) = 0;
    uint64_t m_holeFrames INFRA_GUARDED_BY(m_mutex) = 0;  // of which it is known why
};

}  // namespace relay
