// Session: one connection, from its request to its end.
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include <Infra/Mutex.h>
#include <Reticor/MediaStreamSender.h>
#include <Reticor/PoolSet.h>
#include <Reticor/SockStream.h>
#include <Reticor/StreamSender.h>

#include "media_relay/Client.h"
#include "media_relay/Member.h"
#include "media_relay/Relay.h"
#include "media_relay/hls/HlsClient.h"
#include "media_relay/http/BodyReader.h"
#include "media_relay/http/HttpRequest.h"

namespace relay {

/// Reads one request and answers it: with a page, which a CStreamSender writes, or with the live stream,
/// which is a CMediaStreamSender's. Those answers end with the connection; after one of HTTP live streaming
/// the next request may come.
///
/// Calls for its socket, its timer and its messages can meet: hence the mutex, which comes before all others
/// of the program, and the look at the socket after entering it.
class Session : public Member {
public:
    /// On the pool of `place`, on the public one if that is empty.
    static void Create(Relay& relay, Orvex::Reticor::CSockStream& peer,
                       Orvex::Reticor::CPoolSet::Place place);

    int handle_input(int fd) override;
    int handle_output(int fd) override;
    int64_t handle_timeout(long id) override;
    int handle_message(long sender, unsigned int msg, long attach) override;

private:
    enum class State {
        Reading,     // the request is not whole
        Fetching,    // a piece of HTTP live streaming is on its way, or does not exist yet
        Answering,   // a page is on its way
        Lingering,   // all is sent; the client closes, so that no reset overtakes the answer
        Watching,    // gets the live stream
        Publishing,  // its body is a stream
    };

    Session(Relay& relay, Orvex::Reticor::CPoolSet::Place place);

    void start(Orvex::Reticor::CSockStream& peer);
    void read(const char* bytes, size_t size) INFRA_REQUIRES(m_mutex);
    void readOn() INFRA_REQUIRES(m_mutex);
    int keepForLater(const char* bytes, size_t size) INFRA_REQUIRES(m_mutex);
    void fetch(const HttpRequest& request) INFRA_REQUIRES(m_mutex);
    void goOn(HlsClient::Step step) INFRA_REQUIRES(m_mutex);
    void serve(const HttpRequest& request) INFRA_REQUIRES(m_mutex);
    bool serveStream(const HttpRequest& request) INFRA_REQUIRES(m_mutex);
    void watch(const std::shared_ptr<Stream>& stream, LiveStream& output, const char* type,
               const std::string& head) INFRA_REQUIRES(m_mutex);
    void watchMp4(const std::shared_ptr<Stream>& stream) INFRA_REQUIRES(m_mutex);
    void publish(const HttpRequest& request) INFRA_REQUIRES(m_mutex);
    void takeBody(std::string_view bytes) INFRA_REQUIRES(m_mutex);
    void refuse(int status, const std::string& reason) INFRA_REQUIRES(m_mutex);
    void stopPublishing(bool whole) INFRA_REQUIRES(m_mutex);
    void answer(int status, const char* type, std::string_view body) INFRA_REQUIRES(m_mutex);
    void fail(int status) INFRA_REQUIRES(m_mutex);
    void awaitClose() INFRA_REQUIRES(m_mutex);
    void limit(int64_t us) INFRA_REQUIRES(m_mutex);
    void abandon() INFRA_REQUIRES(m_mutex);
    void release() INFRA_REQUIRES(m_mutex);
    int end() INFRA_REQUIRES(m_mutex);
    int cut(const std::string& reason) INFRA_REQUIRES(m_mutex);
    void tell(const char* what, const std::string& reason) INFRA_REQUIRES(m_mutex);
    std::string peerAddress() INFRA_REQUIRES(m_mutex);

    Relay& m_relay;
    const Orvex::Reticor::CPoolSet::Place m_place;  // goes with this object, when the socket is removed
    Orvex::Infra::CMutex m_mutex;
    State m_state INFRA_GUARDED_BY(m_mutex) = State::Reading;
    Orvex::Reticor::CSockStream m_sock INFRA_GUARDED_BY(m_mutex);
    std::string m_peer INFRA_GUARDED_BY(m_mutex);  // the client's address, also when it has gone
    HttpReader m_reader INFRA_GUARDED_BY(m_mutex);
    bool m_withBody INFRA_GUARDED_BY(m_mutex) = true;  // not for HEAD
    size_t m_ignored INFRA_GUARDED_BY(m_mutex) = 0;    // bytes that came after the request
    std::string m_early INFRA_GUARDED_BY(m_mutex);     // of requests that must wait for their turn
    bool m_again INFRA_GUARDED_BY(m_mutex) =
        false;  // a request was answered; the client need not send another
    HlsClient m_hls INFRA_GUARDED_BY(m_mutex);
    std::shared_ptr<Publication> m_publication INFRA_GUARDED_BY(m_mutex);  // while publishing
    BodyReader m_body INFRA_GUARDED_BY(m_mutex);                           // the same
    bool m_heard INFRA_GUARDED_BY(m_mutex) = false;    // the same: something has come since the timer began
    bool m_refused INFRA_GUARDED_BY(m_mutex) = false;  // a publisher, which may go on without reading
    std::string m_lines INFRA_GUARDED_BY(m_mutex);     // more of them for the head of the answer
    long m_timer INFRA_GUARDED_BY(m_mutex) = 0;        // of the present state
    Orvex::Reticor::CStreamSender* m_page INFRA_GUARDED_BY(m_mutex) = nullptr;  // a reference is ours
    std::shared_ptr<Client> m_client INFRA_GUARDED_BY(m_mutex);                 // while watching
    std::shared_ptr<Stream> m_stream INFRA_GUARDED_BY(m_mutex);                 // that it watches or fetches
    LiveStream* m_output INFRA_GUARDED_BY(m_mutex) = nullptr;                   // of it, while watching
};

}  // namespace relay
