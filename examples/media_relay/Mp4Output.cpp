// Mp4Output: when it works, and what a client gets first.

#include "media_relay/Mp4Output.h"

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

bool Mp4Output::isWanted() {
    const uint64_t now_us = CTime::getCurrentMicroSecond();
    if (m_stream.hasClients()) {
        m_wanted_us = now_us;
        return true;
    }
    return m_remuxer != nullptr && (now_us < m_wanted_us + kRest_us || !m_stream.clear());
}

void Mp4Output::put(const AccessUnit& unit) {
    if (!isWanted()) {
        if (m_remuxer != nullptr) {
            m_remuxer.reset();
            m_repeatInit = false;
            setCodecs("");
        }
        return;
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
}

void Mp4Output::onInit(const Mp4Init& init) {
    m_init = init.bytes;
    m_repeatInit = !init.first;
    std::string prologue = responseHead(200, "video/mp4; codecs=\"" + init.codecs + "\"") + "\r\n";
    prologue.append(init.bytes->begin(), init.bytes->end());
    m_stream.setPrologue(prologue);
    setCodecs(init.codecs);
}

void Mp4Output::onFragment(Mp4Fragment&& fragment) {
    Frame frame;
    frame.level = fragment.key ? kLevelKey : kLevelPicture;
    frame.entry = fragment.key;
    frame.disposable = fragment.disposable;
    if (fragment.key && m_repeatInit) {
        frame.packets.push_back(std::make_unique<DataPacket>(m_init));
    }
    frame.packets.push_back(std::make_unique<DataPacket>(std::move(fragment.bytes)));
    m_stream.put(std::move(frame));
    CGuard guard(m_mutex);
    m_edge_s = static_cast<double>(fragment.time + fragment.duration) / kVideoScale;
}

}  // namespace relay
