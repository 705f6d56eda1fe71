// RtspSession: one connection of RTSP, from its first request to its end.
#pragma once

#include <memory>
#include <string>

#include <Infra/Mutex.h>
#include <Reticor/MediaStreamSender.h>
#include <Reticor/SockStream.h>

#include "media_relay/Client.h"
#include "media_relay/Member.h"
#include "media_relay/Relay.h"
#include "media_relay/rtsp/RtspViewer.h"
#include "rtsp_options/Answer.h"
#include "rtsp_options/Request.h"

namespace relay {

/// Answers requests (RFC 2326) one after the other. A connection has one session at most, which ends with
/// it.
///
/// While its client plays over the connection, a media sender writes to the socket, and answers go between
/// two frames.
///
/// Calls for its socket, its timer and its messages can meet: hence the mutex, which comes before all
/// others of the program, and the look at the socket after entering it.
class RtspSession : public Member {
public:
    static void Create(Relay& relay, Orvex::Reticor::CSockStream& peer);

    int handle_input(int fd) override;
    int handle_output(int fd) override;
    int64_t handle_timeout(long id) override;
    int handle_message(long sender, unsigned int msg, long attach) override;

private:
    explicit RtspSession(Relay& relay) : Member(relay.roster()), m_relay(relay) {}

    void start(Orvex::Reticor::CSockStream& peer);
    bool takeOne() INFRA_REQUIRES(m_mutex);
    bool takeReport() INFRA_REQUIRES(m_mutex);
    bool takeRequest() INFRA_REQUIRES(m_mutex);
    void serve(const rtsp::Request& request, const std::string& head) INFRA_REQUIRES(m_mutex);
    void describe(const rtsp::Request& request, bool now) INFRA_REQUIRES(m_mutex);
    void setUp(const rtsp::Request& request, const std::string& head) INFRA_REQUIRES(m_mutex);
    void play(const rtsp::Request& request) INFRA_REQUIRES(m_mutex);
    void pause(const rtsp::Request& request) INFRA_REQUIRES(m_mutex);
    void give(const rtsp::Request& request, rtsp::Answer answer) INFRA_REQUIRES(m_mutex);
    std::shared_ptr<Stream> streamAt(const std::string& url) INFRA_REQUIRES(m_mutex);
    std::string sessionLine() const INFRA_REQUIRES(m_mutex);
    void watch() INFRA_REQUIRES(m_mutex);
    bool stopWatching() INFRA_REQUIRES(m_mutex);
    int end() INFRA_REQUIRES(m_mutex);
    int cut(const std::string& reason) INFRA_REQUIRES(m_mutex);

    Relay& m_relay;
    Orvex::Infra::CMutex m_mutex;
    Orvex::Reticor::CSockStream m_sock INFRA_GUARDED_BY(m_mutex);
    std::string m_peer INFRA_GUARDED_BY(m_mutex);                    // the client's address with its port
    std::string m_input INFRA_GUARDED_BY(m_mutex);                   // the beginning of a request, or several
    bool m_last INFRA_GUARDED_BY(m_mutex) = false;                   // answered for the last time
    std::shared_ptr<RtspViewer> m_viewer INFRA_GUARDED_BY(m_mutex);  // from the first SETUP on
    std::shared_ptr<Stream> m_stream INFRA_GUARDED_BY(m_mutex);      // the same
    bool m_playing INFRA_GUARDED_BY(m_mutex) = false;
    std::shared_ptr<Client> m_client INFRA_GUARDED_BY(m_mutex);          // while it plays over the connection
    long m_timer INFRA_GUARDED_BY(m_mutex) = 0;                          // looks whether it lives
    std::unique_ptr<rtsp::Request> m_waiting INFRA_GUARDED_BY(m_mutex);  // for the stream to be known
    long m_patience INFRA_GUARDED_BY(m_mutex) = 0;                       // its timer
    unsigned m_looks INFRA_GUARDED_BY(m_mutex) = 0;                      // that it has had
};

}  // namespace relay
