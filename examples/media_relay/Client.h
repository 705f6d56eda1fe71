// Client: one live client's sender, and how it fares, for the page and for /stats.json.
#pragma once

#include <cstdint>
#include <string>

#include <Infra/Mutex.h>
#include <Reticor/MediaStreamSender.h>
#include <Reticor/MediaVerdicts.h>

namespace relay {

/// The sender counts by itself; what is added here is the view over time: its rate, and its stalls.
class Client {
public:
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
    };

    /// Holds a reference on the sender, whose socket and place in a buffer are its session's affair.
    Client(Orvex::Reticor::CMediaStreamSender* sender, unsigned number, std::string address);
    ~Client();
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    Orvex::Reticor::CMediaStreamSender* sender() const { return m_sender; }
    unsigned number() const { return m_number; }
    const std::string& address() const { return m_address; }

    /// Looks whether it is stalled, how fast it goes, and what holds it up; called every half second.
    void sample();

    View view();

private:
    Orvex::Reticor::CMediaStreamSender* const m_sender;
    const unsigned m_number;
    const std::string m_address;
    const uint64_t m_since_us;
    Orvex::Infra::CMutex m_mutex;  // innermost
    bool m_stalled INFRA_GUARDED_BY(m_mutex) = false;
    uint64_t m_stalls INFRA_GUARDED_BY(m_mutex) = 0;
    uint64_t m_sampled_us INFRA_GUARDED_BY(m_mutex);
    uint64_t m_sampledBytes INFRA_GUARDED_BY(m_mutex) = 0;
    double m_rate INFRA_GUARDED_BY(m_mutex) = 0;
};

}  // namespace relay
