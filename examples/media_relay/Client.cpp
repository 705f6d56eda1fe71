// Client: what changes from one look at a sender to the next.

#include "media_relay/Client.h"

#include <utility>

#include <Infra/Time.h>

namespace relay {

using namespace Orvex::Reticor;
using Orvex::Infra::CGuard;
using Orvex::Infra::CTime;

namespace {

constexpr uint64_t kStall_us = 1000000;  // a client that takes no whole frame for so long counts as stalled
constexpr uint64_t kSample_us = 100000;  // over less a rate says nothing

}  // namespace

Client::Client(CMediaStreamSender* sender, unsigned number, std::string address)
    : m_sender(sender),
      m_number(number),
      m_address(std::move(address)),
      m_since_us(CTime::getCurrentMicroSecond()),
      m_sampled_us(m_since_us) {
    m_sender->AddRef();
}

Client::~Client() {
    m_sender->DecRef();
}

void Client::sample() {
    const MediaSenderStats stats = m_sender->GetStats();
    SenderVerdict verdict;
    m_sender->GetVerdict(verdict);  // verdicts are made by looks
    const uint64_t now_us = CTime::getCurrentMicroSecond();
    CGuard guard(m_mutex);
    if (now_us - m_sampled_us > kSample_us) {
        const double rate = static_cast<double>(stats.bytes - m_sampledBytes) * 1e6 /
                            static_cast<double>(now_us - m_sampled_us);
        m_rate = m_rate == 0 ? rate : (m_rate + rate) / 2;
        m_sampled_us = now_us;
        m_sampledBytes = stats.bytes;
    }
    const bool stalled = stats.blocked_us > kStall_us;
    m_stalls += stalled && !m_stalled ? 1 : 0;
    m_stalled = stalled;
}

Client::View Client::view() {
    View view;
    view.sender = m_sender->GetStats();
    m_sender->GetVerdict(view.verdict);
    view.number = m_number;
    view.address = m_address;
    view.waiting = !view.sender.joined;
    view.age_us = CTime::getCurrentMicroSecond() - m_since_us;
    CGuard guard(m_mutex);
    view.stalled = m_stalled;
    view.stalls = m_stalls;
    view.rate = m_rate;
    return view;
}

}  // namespace relay
