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

Client::Client(CMediaStreamSender* sender, long owner, unsigned number, std::string address, unsigned late_ms)
    : m_sender(sender),
      m_owner(owner),
      m_number(number),
      m_address(std::move(address)),
      m_since_us(CTime::getCurrentMicroSecond()),
      m_ladder(late_ms),
      m_sampled_us(m_since_us) {
    m_sender->AddRef();
    if (late_ms != 0) {
        m_sender->AttachFilter({&Ladder::choose, &m_ladder});
    }
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
    if (stats.hole_frames > m_holeFrames) {  // without a policy nothing else tells
        missed("too old for the buffer", stats.hole_frames - m_holeFrames);
        m_holeFrames = stats.hole_frames;
    }
}

// What had gone from the buffer is no fault of the policy.
void Client::skipped(const MediaSkip& skip) {
    const MediaSenderStats stats = m_sender->GetStats();
    CGuard guard(m_mutex);
    m_ladder.missed();
    const bool gone = stats.hole_frames > m_holeFrames;
    m_holeFrames = stats.hole_frames;
    missed(skip.thinned ? "late: disposable frames left out"
           : gone       ? "too old for the buffer"
                        : "late: went on at a newer key frame",
           skip.frames);
}

void Client::missed(const char* why, uint64_t frames) {
    m_lastSkip = {why, frames, 0};
    m_skipped_us = CTime::getCurrentMicroSecond();
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
    view.low = m_ladder.isLow();
    view.lastSkip = m_lastSkip;
    view.lastSkip.ago_us = CTime::getCurrentMicroSecond() - m_skipped_us;
    return view;
}

}  // namespace relay
