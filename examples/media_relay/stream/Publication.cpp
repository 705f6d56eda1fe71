// Publication: whose turn it is.

#include "media_relay/stream/Publication.h"

#include <string>
#include <utility>

#include <Infra/Time.h>

namespace relay {

using Orvex::Infra::CGuard;
using Orvex::Infra::CTime;

namespace {

constexpr uint64_t kSilence_us = 2000000;  // no stream rests for so long

}  // namespace

Publication::Publication(std::shared_ptr<Stream> stream, unsigned program)
    : m_stream(std::move(stream)), m_input(m_stream->outputs(), program) {
    CGuard guard(m_mutex);
    m_view.kind = "MPEG transport stream, published";
    m_heard_us = CTime::getCurrentMicroSecond();
}

bool Publication::enter(long publisher, bool takesOver, long& before) {
    CGuard guard(m_mutex);
    before = m_publisher;
    if (m_publisher != 0 && !takesOver) {
        return false;
    }
    m_publisher = publisher;
    m_patient = false;
    m_fresh = true;
    m_heard_us = CTime::getCurrentMicroSecond();
    return true;
}

/// What a publisher that was lost leaves of a unit is thrown away with the first bytes of the next one.
Publication::Outcome Publication::put(long publisher, std::string_view bytes) {
    CGuard guard(m_mutex);
    if (publisher != m_publisher) {
        return Outcome::NOT_YOURS;
    }
    if (m_fresh) {
        m_fresh = false;
        ++m_view.connections;
        if (m_any) {
            m_input.restart();
        }
        m_any = true;
    }
    m_heard_us = CTime::getCurrentMicroSecond();
    m_input.put(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
    return m_input.isHopeless() ? Outcome::HOPELESS : Outcome::TAKEN;
}

void Publication::leave(long publisher, bool whole) {
    CGuard guard(m_mutex);
    if (publisher != m_publisher) {
        return;
    }
    if (whole) {
        m_input.flush();
    }
    m_publisher = 0;
    m_patient = true;
    m_heard_us = CTime::getCurrentMicroSecond();
}

bool Publication::tick(uint64_t grace_us) {
    bool over = false;
    SourceView view;
    {
        CGuard guard(m_mutex);
        const uint64_t silent_us = CTime::getCurrentMicroSecond() - m_heard_us;
        over = m_patient && silent_us >= grace_us;
        m_patient = m_patient && !over;
        m_input.fill(m_view);
        const std::string time = " for " + std::to_string(silent_us / 1000000) + " s";
        m_view.state = m_publisher == 0           ? "no publisher" + time
                       : silent_us >= kSilence_us ? "silent" + time
                                                  : "";
        view = m_view;
    }
    m_stream->onSourceView(view);
    return over;
}

}  // namespace relay
