// Publications: what is published, by name.
#pragma once

#include <map>
#include <memory>
#include <string>

#include <Infra/Mutex.h>

#include "media_relay/Options.h"
#include "media_relay/hls/Waker.h"
#include "media_relay/http/PublishAccess.h"
#include "media_relay/stream/Publication.h"
#include "media_relay/stream/Streams.h"

namespace relay {

/// Lets publishers in, and makes a stream for each new name. Streams that have been published stay, so that
/// the next publisher finds them.
///
/// Threads: any. The mutex comes before those of the streams and of their registry.
class Publications {
public:
    static constexpr size_t MOST = 64;  // names

    /// What became of a request to publish.
    struct Entry {
        int status = 0;                            // 200, or what to answer
        std::string lines;                         // for the head of the answer
        std::string reason;                        // in words, for whoever runs the relay
        std::shared_ptr<Publication> publication;  // with 200
    };

    /// Both outlive it.
    Publications(const Options& options, Streams& streams);

    /// `publisher` is the id of the handler that publishes. One that is there and is not to stay is told to
    /// end.
    Entry enter(const HttpRequest& request, long publisher);

    /// Twice a second.
    void tick();

private:
    std::shared_ptr<Publication> find(const std::string& name, Entry& entry);

    const Options& m_options;
    Streams& m_streams;
    PublishAccess m_access;
    Waker m_stopper;
    Orvex::Infra::CMutex m_mutex;
    std::map<std::string, std::shared_ptr<Publication>> m_publications INFRA_GUARDED_BY(m_mutex);
};

/// Whether it is of the form /publish/NAME, and `name` if so.
bool parsePublishPath(const std::string& path, std::string& name);

}  // namespace relay
