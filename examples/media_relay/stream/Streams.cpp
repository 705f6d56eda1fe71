// Streams: who is there.

#include "media_relay/stream/Streams.h"

#include "media_relay/stream/StreamName.h"

namespace relay {

using Orvex::Infra::CGuard;

std::shared_ptr<Stream> Streams::make(const std::string& name, Stream::Kind kind, std::string& wrong) {
    wrong = checkStreamName(name);
    if (!wrong.empty()) {
        return nullptr;
    }
    CGuard guard(m_mutex);
    wrong = m_closed                ? "comes when the program ends"
            : look(name) != nullptr ? "is the name of another stream already"
                                    : "";
    if (!wrong.empty()) {
        return nullptr;
    }
    const auto stream = std::make_shared<Stream>(name, kind, m_options, m_waker);
    if (m_roster != nullptr && !stream->openDatagrams(*m_roster, m_options.host)) {
        wrong = "finds no ports for datagrams";
        return nullptr;
    }
    m_streams.push_back(stream);
    return stream;
}

std::shared_ptr<Stream> Streams::look(const std::string& name) {
    for (const auto& stream : m_streams) {
        if (stream->name() == name) {
            return stream;
        }
    }
    return nullptr;
}

std::shared_ptr<Stream> Streams::find(const std::string& name) {
    CGuard guard(m_mutex);
    return look(name);
}

std::shared_ptr<Stream> Streams::first() {
    CGuard guard(m_mutex);
    return m_streams.empty() ? nullptr : m_streams.front();
}

std::vector<std::shared_ptr<Stream>> Streams::list() {
    CGuard guard(m_mutex);
    return m_streams;
}

bool Streams::openDatagrams(Roster& roster) {
    CGuard guard(m_mutex);
    m_roster = &roster;
    for (const auto& stream : m_streams) {
        if (!stream->openDatagrams(roster, m_options.host)) {
            return false;
        }
    }
    return true;
}

void Streams::close() {
    CGuard guard(m_mutex);
    m_closed = true;
}

}  // namespace relay
