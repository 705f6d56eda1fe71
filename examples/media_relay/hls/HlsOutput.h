// HlsOutput: a stream as clients of HTTP live streaming fetch it, made while somebody does.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <Infra/Mutex.h>

#include "media_relay/hls/HlsRequest.h"
#include "media_relay/hls/Segmenter.h"
#include "media_relay/hls/Window.h"

namespace relay {

/// What a request is answered with.
struct HlsAnswer {
    static constexpr int LATER = 0;

    int status = LATER;  // LATER: not yet; the client is woken, or asks for the last time after `patience_us`
    bool forEver = false;           // what stands there never changes
    std::string type;               // and what follows: of status 200
    std::string tag;                // names this content; of one path another content has another one
    std::vector<SharedBytes> body;  // in pieces
    int64_t patience_us = 0;
};

/// Segments and parts of one stream. Nothing is made until somebody asks, nor when nobody has asked for 30 s.
/// Requests for what does not exist yet are noted, and no thread waits: when it does exist, `wake` is
/// called with the number of each client whose request can be answered now, without any lock, on the
/// producer's thread; the client asks again.
///
/// Segments count from the time of day in seconds, so that a path that was used before, by this program or
/// the one before it, never names other bytes: caches may keep them for ever.
///
/// Threads: `setInit`, `put`, `rest` and `end` are the producer's, all else is for any thread.
class HlsOutput {
public:
    using Wake = std::function<void(long client)>;

    struct Figures {
        size_t segments = 0;  // that are held, with
        size_t bytes = 0;     // in them
        size_t waiting = 0;   // clients
    };

    static constexpr uint64_t REST_US = 30000000;

    /// It goes on for `rest_us` after the last request.
    explicit HlsOutput(uint64_t rest_us = REST_US) : m_rest_us(rest_us) {}

    void setWake(Wake wake) { m_wake = std::move(wake); }  // before any request

    /// Whether somebody has asked of late.
    bool isWanted();

    void setInit(const SharedBytes& init);
    /// `now_us` is the time of day, since 1970.
    void put(const Mp4Fragment& fragment, int64_t now_us);

    /// Forgets everything: fragments do not go on from here.
    void rest();

    /// The input has ended.
    void end();

    /// `client` names whoever asks, for `wake` and `leave`; it has one request at a time. The stream's
    /// name in it is always the same.
    HlsAnswer answer(const HlsRequest& request, long client);

    /// The client does not wait any more.
    void leave(long client);

    Figures figures();

private:
    HlsAnswer look(const HlsRequest& request) INFRA_REQUIRES(m_mutex);
    HlsAnswer lookForPlaylist(const HlsRequest& request) INFRA_REQUIRES(m_mutex);
    HlsAnswer lookForPart(const HlsRequest& request) INFRA_REQUIRES(m_mutex);
    HlsAnswer later() INFRA_REQUIRES(m_mutex);
    bool isListed(const HlsRequest& request) INFRA_REQUIRES(m_mutex);
    bool isFarAhead(const HlsRequest& request) INFRA_REQUIRES(m_mutex);
    std::vector<long> takeReady() INFRA_REQUIRES(m_mutex);
    void wakeAll(const std::vector<long>& clients);

    const uint64_t m_rest_us;
    Wake m_wake;
    Orvex::Infra::CMutex m_mutex;
    uint64_t m_asked_us INFRA_GUARDED_BY(m_mutex) = 0;           // when somebody did; 0: never
    std::unique_ptr<Window> m_window INFRA_GUARDED_BY(m_mutex);  // null while it rests
    std::unique_ptr<Segmenter> m_segmenter INFRA_GUARDED_BY(m_mutex);
    SharedBytes m_init INFRA_GUARDED_BY(m_mutex);
    SharedBytes m_text
        INFRA_GUARDED_BY(m_mutex);  // of the playlist; null: as it is now nobody has asked for it
    std::map<long, HlsRequest> m_waiting INFRA_GUARDED_BY(m_mutex);
};

}  // namespace relay
