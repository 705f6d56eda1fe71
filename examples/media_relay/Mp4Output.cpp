// Mp4Output: when it works, and what a client gets first.

#include "media_relay/Mp4Output.h"

#include <chrono>
#include <utility>

#include <Infra/Time.h>

#include "media_relay/http/Response.h"

namespace relay {

using Orvex::Infra::CGuard;
using Orvex::Infra::CTime;

namespace {

constexpr uint64_t kRest_us = 10000000;  // after the last client it goes on for so long: one may come back
constexpr unsigned kLevelKey = 1;
constexpr unsigned kLevelPicture = 5;

/// Since 1970.
int64_t timeOfDay_us() {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::microseconds>(now).count();
}

}  // namespace

std::string Mp4Output::refusal() {
    CGuard guard(m_mutex);
    return m_refusal;
}

bool Mp4Output::isKnown() {
    CGuard guard(m_mutex);
    return m_known;
}

std::string Mp4Output::codecs() {
    CGuard guard(m_mutex);
    return m_codecs;
}

double Mp4Output::edge_s() {
    CGuard guard(m_mutex);
    return m_edge_s;
}

void Mp4Output::setCodecs(const std::string& codecs) {
    CGuard guard(m_mutex);
    m_codecs = codecs;
}

void Mp4Output::onProgram(const ProgramMap& map) {
    m_map = map;
    if (m_remuxer != nullptr) {
        m_remuxer->begin(map);
    }
    CGuard guard(m_mutex);
    m_known = true;
    m_refusal = Remuxer::refusal(map);
}

/// Whether the live stream has clients, or had some of late.
bool Mp4Output::isWatched() {
    const uint64_t now_us = CTime::getCurrentMicroSecond();
    if (m_stream.hasClients()) {
        m_watched_us = now_us;
        if (!m_watched && m_init.bytes != nullptr) {
            setPrologue();
        }
        m_watched = true;
    } else if (m_watched && now_us >= m_watched_us + kRest_us && m_stream.clear()) {
        m_watched = false;
    }
    return m_watched;
}

void Mp4Output::put(const AccessUnit& unit) {
    const bool watched = isWatched();
    if (!m_hls.isWanted()) {
        m_hls.rest();
        if (!watched) {
            if (m_remuxer != nullptr) {
                m_remuxer.reset();
                m_init = Mp4Init();
                setCodecs("");
            }
            return;
        }
    }
    if (m_remuxer == nullptr) {
        m_remuxer = std::make_unique<Remuxer>(static_cast<Remuxer::Sink&>(*this));
        m_remuxer->begin(m_map);
    }
    m_remuxer->put(unit);
}

void Mp4Output::end() {
    if (m_remuxer != nullptr) {
        m_remuxer->flush();
    }
    m_hls.end();
}

void Mp4Output::onInit(const Mp4Init& init) {
    m_init = init;
    m_hls.setInit(init.bytes);
    if (m_watched) {
        setPrologue();
    }
    setCodecs(init.codecs);
}

void Mp4Output::setPrologue() {
    std::string prologue = responseHead(200, "video/mp4; codecs=\"" + m_init.codecs + "\"") + "\r\n";
    prologue.append(m_init.bytes->begin(), m_init.bytes->end());
    m_stream.setPrologue(prologue);
}

void Mp4Output::onFragment(Mp4Fragment&& fragment) {
    if (m_hls.isWanted()) {
        m_hls.put(fragment, timeOfDay_us());
    }
    {
        CGuard guard(m_mutex);
        m_edge_s = static_cast<double>(fragment.time + fragment.duration) / kVideoScale;
    }
    if (!m_watched) {
        return;
    }
    Frame frame;
    frame.level = fragment.key ? kLevelKey : kLevelPicture;
    frame.entry = fragment.key;
    frame.disposable = fragment.disposable;
    if (fragment.key && !m_init.first) {
        frame.packets.push_back(std::make_unique<DataPacket>(m_init.bytes));
    }
    frame.packets.push_back(std::make_unique<DataPacket>(std::move(fragment.bytes)));
    m_stream.put(std::move(frame));
}

}  // namespace relay
