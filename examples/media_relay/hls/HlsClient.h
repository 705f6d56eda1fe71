// HlsClient: requests of one connection for segments, parts and playlists, one after the other.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include <Reticor/SockStream.h>

#include "media_relay/hls/HlsOutput.h"
#include "media_relay/http/HttpRequest.h"

namespace relay {

/// Answers are written from where their bytes lie, which all clients share. They let any cache keep them:
/// what never changes for ever, a playlist for a second under the whole of its path and arguments.
///
/// Thread safety: none, its session locks.
class HlsClient {
public:
    enum class Step {
        WAIT,   // for `wake`, or until the patience is over
        WRITE,  // the socket is full
        NEXT,   // the answer is out, and the next request may come
        LAST,   // the answer is out, and the connection ends
        FAIL    // the socket has failed
    };

    /// `client` is what the stream wakes. A null stream is one that does not exist.
    Step begin(HlsOutput* stream, const HlsRequest& request, const HttpRequest& head, long client,
               Orvex::Reticor::CSockStream& sock);

    /// Answers a request that makes no sense.
    Step refuse(int status, const HttpRequest& head, Orvex::Reticor::CSockStream& sock);

    /// It was woken; or it has waited for long enough, and is answered whatever there is.
    Step goOn(bool late, Orvex::Reticor::CSockStream& sock);

    /// Writes what the socket takes.
    Step write(Orvex::Reticor::CSockStream& sock);

    bool isWaiting() const { return m_is_waiting; }
    int64_t patience_us() const { return m_patience_us; }

    /// The connection ends.
    void leave();

private:
    Step answer(const HlsAnswer& answer, Orvex::Reticor::CSockStream& sock);

    HlsOutput* m_stream = nullptr;
    HlsRequest m_request;
    std::string m_known_tag;  // of what the client has already
    bool m_with_body = true;
    bool m_keeps_alive = false;
    long m_client = 0;
    bool m_is_waiting = false;
    int64_t m_patience_us = 0;

    std::string m_head;  // of the answer, and what follows it
    std::vector<SharedBytes> m_body;
    size_t m_sent = 0;
};

}  // namespace relay
