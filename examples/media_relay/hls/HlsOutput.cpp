// HlsOutput: what can be answered, and what must wait.

#include "media_relay/hls/HlsOutput.h"

#include <iterator>

#include <Infra/Time.h>

#include "media_relay/hls/Playlist.h"

namespace relay {

using Orvex::Infra::CGuard;
using Orvex::Infra::CTime;

namespace {

constexpr int64_t FIRST_PATIENCE_us = 15000000;  // until the first segment must be whole
constexpr int64_t PATIENCE_TARGETS = 3;
constexpr uint64_t AHEAD_SEGMENTS = 1;             // more than what is under way nobody needs to ask for
constexpr uint64_t AHEAD_ticks = 3 * kVideoScale;  // nor more than that in parts
constexpr char PLAYLIST_TYPE[] = "application/vnd.apple.mpegurl";
constexpr char MEDIA_TYPE[] = "video/mp4";

HlsAnswer refuse(int status) {
    HlsAnswer answer;
    answer.status = status;
    return answer;
}

HlsAnswer give(const std::string& name, std::vector<SharedBytes> body) {
    HlsAnswer answer;
    answer.status = 200;
    answer.forEver = true;
    answer.type = MEDIA_TYPE;
    answer.tag = name;
    answer.body = std::move(body);
    return answer;
}

}  // namespace

bool HlsOutput::isWanted() {
    CGuard guard(m_mutex);
    return m_asked_us != 0 && CTime::getCurrentMicroSecond() < m_asked_us + m_rest_us;
}

void HlsOutput::setInit(const SharedBytes& init) {
    CGuard guard(m_mutex);
    m_init = init;
    if (m_segmenter != nullptr) {
        m_segmenter->setInit(init);
    }
}

void HlsOutput::put(const Mp4Fragment& fragment, int64_t now_us) {
    std::vector<long> ready;
    {
        CGuard guard(m_mutex);
        if (m_segmenter == nullptr || m_window->isOver()) {
            m_segmenter.reset();
            m_window = std::make_unique<Window>();
            m_segmenter = std::make_unique<Segmenter>(*m_window, static_cast<uint64_t>(now_us / 1000000));
            m_segmenter->setInit(m_init);
        }
        if (!m_segmenter->put(fragment, now_us)) {
            return;
        }
        m_text.reset();
        ready = takeReady();
    }
    wakeAll(ready);
}

void HlsOutput::rest() {
    CGuard guard(m_mutex);
    m_segmenter.reset();
    m_window.reset();
    m_text.reset();
}

void HlsOutput::end() {
    std::vector<long> ready;
    {
        CGuard guard(m_mutex);
        if (m_segmenter == nullptr) {
            return;
        }
        m_segmenter->end();
        m_text.reset();
        ready = takeReady();
    }
    wakeAll(ready);
}

/// Whoever can be answered now does not wait any more.
std::vector<long> HlsOutput::takeReady() {
    std::vector<long> ready;
    for (auto at = m_waiting.begin(); at != m_waiting.end();) {
        const bool waits = look(at->second).status == HlsAnswer::LATER;
        if (!waits) {
            ready.push_back(at->first);
        }
        at = waits ? std::next(at) : m_waiting.erase(at);
    }
    return ready;
}

void HlsOutput::wakeAll(const std::vector<long>& clients) {
    for (const long client : clients) {
        m_wake(client);
    }
}

HlsAnswer HlsOutput::answer(const HlsRequest& request, long client) {
    CGuard guard(m_mutex);
    m_asked_us = CTime::getCurrentMicroSecond();
    HlsAnswer answer = look(request);
    if (answer.status == HlsAnswer::LATER) {
        m_waiting[client] = request;
    }
    return answer;
}

void HlsOutput::leave(long client) {
    CGuard guard(m_mutex);
    m_waiting.erase(client);
}

HlsOutput::Figures HlsOutput::figures() {
    CGuard guard(m_mutex);
    Figures figures;
    figures.waiting = m_waiting.size();
    if (m_window != nullptr) {
        figures.segments = m_window->segments().size() + (m_window->underWay() != nullptr ? 1 : 0);
        figures.bytes = m_window->bytes();
    }
    return figures;
}

HlsAnswer HlsOutput::look(const HlsRequest& request) {
    if (request.kind == HlsRequest::Kind::PLAYLIST) {
        return lookForPlaylist(request);
    }
    if (m_window == nullptr) {
        return refuse(404);
    }
    if (request.kind == HlsRequest::Kind::PART) {
        return lookForPart(request);
    }
    if (request.kind == HlsRequest::Kind::INIT) {
        const SharedBytes init = m_window->findInit(request.number);
        return init != nullptr ? give(initName(request.number), {init}) : refuse(404);
    }
    const Segment* const segment = m_window->find(request.number);
    if (segment == nullptr || segment == m_window->underWay()) {
        return refuse(404);
    }
    std::vector<SharedBytes> body;
    for (const Part& part : segment->parts) {
        body.push_back(part.bytes);
    }
    return give(segmentName(request.number), std::move(body));
}

/// The part that the playlist hints at may be asked for before it is there. If the segment ends without it,
/// it never comes.
HlsAnswer HlsOutput::lookForPart(const HlsRequest& request) {
    const Segment* const segment = m_window->find(request.number);
    const size_t parts = segment != nullptr ? segment->parts.size() : 0;
    if (request.part < parts) {
        return give(partName(request.number, request.part), {segment->parts[request.part].bytes});
    }
    const bool next = request.number == m_window->nextNumber() && request.part == parts;
    return next && m_window->isReady() && !m_window->isOver() ? later() : refuse(404);
}

HlsAnswer HlsOutput::later() {
    HlsAnswer answer;
    answer.patience_us = m_window != nullptr && m_window->isReady()
                             ? PATIENCE_TARGETS * m_window->target_s() * 1000000
                             : FIRST_PATIENCE_us;
    return answer;
}

HlsAnswer HlsOutput::lookForPlaylist(const HlsRequest& request) {
    if (m_window == nullptr || !m_window->isReady()) {
        return m_window != nullptr && m_window->isOver() ? refuse(404) : later();
    }
    if (request.blocks && !m_window->isOver() && !isListed(request)) {
        return isFarAhead(request) ? refuse(400) : later();
    }
    if (m_text == nullptr) {
        const std::string made = makePlaylist(*m_window, request.stream);
        m_text = std::make_shared<const std::vector<uint8_t>>(made.begin(), made.end());
    }
    const Segment* const open = m_window->underWay();
    HlsAnswer answer;
    answer.status = 200;
    answer.type = PLAYLIST_TYPE;
    answer.tag = partName(m_window->nextNumber(), open != nullptr ? open->parts.size() : 0) +
                 (m_window->isOver() ? ".end" : "");
    answer.body = {m_text};
    return answer;
}

/// After the last part of a segment the next one in order is the first of the next segment: a client cannot
/// know which part is the last.
bool HlsOutput::isListed(const HlsRequest& request) {
    const uint64_t next = m_window->nextNumber();
    const Segment* const open = m_window->underWay();
    const size_t open_parts = open != nullptr ? open->parts.size() : 0;
    if (request.number >= next) {
        return request.number == next && request.withPart && request.part < open_parts;
    }
    const Segment* const segment = m_window->find(request.number);
    const bool beyond = request.withPart && segment != nullptr && !segment->inOnePiece &&
                        request.part >= segment->parts.size();
    return !beyond || request.number + 1 < next || open_parts != 0;
}

bool HlsOutput::isFarAhead(const HlsRequest& request) {
    const uint64_t next = m_window->nextNumber();
    const Segment* const open = m_window->underWay();
    const uint64_t reach = AHEAD_ticks / m_window->partTarget() + 1;
    if (request.number > next + AHEAD_SEGMENTS) {
        return true;
    }
    if (!request.withPart) {
        return false;
    }
    const Segment* const segment = m_window->find(request.number);
    const size_t parts = request.number == next ? (open != nullptr ? open->parts.size() : 0)
                         : segment != nullptr   ? segment->parts.size()
                                                : 0;
    return request.part > parts + reach;
}

}  // namespace relay
