// LiveInput: what is told of an input that pushes, and its end.

#include "media_relay/input/LiveInput.h"

#include <Infra/Time.h>

namespace relay {

using Orvex::Infra::CGuard;
using Orvex::Infra::CTime;

namespace {

constexpr int64_t kTell_us = 500000;
constexpr uint64_t kSilence_us = 2000000;  // no stream rests for so long
constexpr char kHopeless[] = "the input holds no transport stream with a programme and a clock";

}  // namespace

LiveInput::LiveInput(Roster& roster, const Setup& setup, const std::string& kind)
    : Member(roster),
      m_input(setup.outputs, setup.program),
      m_listener(setup.listener),
      m_heard_us(CTime::getCurrentMicroSecond()) {
    m_now.kind = kind;
    m_input.endByLength();
}

void LiveInput::begin() {
    enter();
    SetTimer(kTell_us);
}

void LiveInput::take(const uint8_t* bytes, size_t size) {
    m_heard_us = CTime::getCurrentMicroSecond();
    m_input.put(bytes, size);
}

int64_t LiveInput::handle_timeout(long) {
    CGuard guard(m_mutex);
    if (m_over) {
        return -1;
    }
    tell();
    return 0;
}

void LiveInput::tell() {
    m_input.fill(m_now);
    fill(m_now);
    const uint64_t silent_us = CTime::getCurrentMicroSecond() - m_heard_us;
    m_now.state = m_state;
    if (m_state.empty() && silent_us >= kSilence_us) {
        m_now.state = "silent for " + std::to_string(silent_us / 1000000) + " s";
    } else if (m_state.empty() && m_input.isHopeless()) {
        m_now.state = kHopeless;
    }
    m_listener.onSourceView(m_now);
}

int LiveInput::handle_message(long, unsigned int msg, long) {
    if (msg == kStop) {
        CGuard guard(m_mutex);
        if (!m_over) {
            m_over = true;
            leave();
            Close();
        }
    }
    return 0;
}

void LiveInput::end(const std::string& error) {
    m_over = true;
    m_input.finish();
    while (m_input.step() != TsInput::Step::Nothing) {
    }
    m_input.flush();
    m_input.end();
    tell();
    const bool good = m_input.hasUnits() && m_input.isRunning();
    m_listener.onSourceEnd(!error.empty() ? error : good ? "" : kHopeless);
    leave();
    Close();
}

}  // namespace relay
