// Publications: who may, under which name, and who is told to go.

#include "media_relay/stream/Publications.h"

#include <utility>
#include <vector>

#include <Infra/Time.h>

#include "media_relay/Member.h"
#include "media_relay/stream/StreamName.h"

namespace relay {

using Orvex::Infra::CGuard;
using Orvex::Infra::CTime;

Publications::Publications(const Options& options, Streams& streams)
    : m_options(options), m_streams(streams), m_access(options.publishToken), m_stopper(kStop) {}

Publications::Entry Publications::enter(const HttpRequest& request, long publisher) {
    Entry entry;
    std::string name;
    if (!parsePublishPath(request.path, name) || !checkStreamName(name).empty()) {
        entry.status = 404;
        entry.reason = "this is no name of a stream";
        return entry;
    }
    const PublishAccess::Ruling ruling = m_access.check(request, CTime::getCurrentMicroSecond());
    entry.status = ruling.status;
    entry.lines = ruling.fields;
    if (ruling.status != 200) {
        entry.reason = ruling.status == 403 ? "nobody may publish without --publish-token"
                                            : "it has not shown the token to publish " + name;
        return entry;
    }
    const auto publication = find(name, entry);
    long before = 0;
    if (publication != nullptr && !publication->enter(publisher, m_options.publishTakeover, before)) {
        entry.status = 409;
        entry.reason = "somebody else publishes " + name;
    } else if (publication != nullptr) {
        entry.publication = publication;
        if (before != 0) {
            m_stopper.wake(before);
        }
    }
    return entry;
}

std::shared_ptr<Publication> Publications::find(const std::string& name, Entry& entry) {
    CGuard guard(m_mutex);
    const auto found = m_publications.find(name);
    if (found != m_publications.end()) {
        return found->second;
    }
    if (m_publications.size() >= MOST) {
        entry.status = 503;
        entry.reason = "there are " + std::to_string(MOST) + " published streams already";
        return nullptr;
    }
    std::string wrong;
    const auto stream = m_streams.make(name, Stream::Kind::TRANSPORT, wrong);
    if (stream == nullptr) {
        entry.status = 409;
        entry.reason = name + " " + wrong;
        return nullptr;
    }
    const auto publication = std::make_shared<Publication>(stream, m_options.program);
    m_publications.emplace(name, publication);
    return publication;
}

void Publications::tick() {
    std::vector<std::shared_ptr<Publication>> publications;
    {
        CGuard guard(m_mutex);
        for (const auto& named : m_publications) {
            publications.push_back(named.second);
        }
    }
    for (const auto& publication : publications) {
        if (publication->tick(uint64_t{m_options.publishGrace_s} * 1000000)) {
            for (const auto& client : publication->stream().clients()) {
                m_stopper.wake(client->owner());
            }
        }
    }
}

bool parsePublishPath(const std::string& path, std::string& name) {
    const std::string folder = "/publish/";
    if (path.compare(0, folder.size(), folder) != 0) {
        return false;
    }
    name = path.substr(folder.size());
    return true;
}

}  // namespace relay
