// RtspSession: requests, answers, and who writes to the socket.

#include "media_relay/rtsp/RtspSession.h"

#include <sys/socket.h>
#include <algorithm>
#include <cstring>
#include <utility>

#include <Infra/Log.h>
#include <Reticor/SockAddrStorage.h>

#include "media_relay/rtsp/RtspOutput.h"
#include "media_relay/rtsp/Sdp.h"

namespace relay {

using namespace Orvex::Reticor;
using Orvex::Infra::CGuard;
using rtsp::Answer;
using rtsp::Request;

namespace {

constexpr size_t kMaxRequest = 8192;   // bytes, with the body
constexpr unsigned kLife_s = 60;       // of a client of datagrams that says nothing
constexpr int64_t kLook_us = 5000000;  // how often that is looked at
constexpr int64_t kLinger_us = 2000000;
constexpr int64_t kPatience_us = 50000;  // between two looks whether the stream is known
constexpr unsigned kLooks = 60;          // three seconds of them
constexpr unsigned kSkipped = 101;       // message: the client has missed something
constexpr int kMostTail = 2048;          // bytes, more than a packet has
constexpr char kMethods[] = "OPTIONS, DESCRIBE, SETUP, PLAY, PAUSE, GET_PARAMETER, TEARDOWN";

bool isKnown(const std::string& method) {
    const char* const known[] = {"ANNOUNCE", "RECORD", "SET_PARAMETER", "REDIRECT"};
    return std::find(std::begin(known), std::end(known), method) != std::end(known);
}

/// Without its slash: some clients add one.
std::string baseOf(const Request& request) {
    std::string url = request.url;
    while (!url.empty() && url.back() == '/') {
        url.pop_back();
    }
    return url;
}

/// What stands between the host and the arguments, if there are any.
std::string nameOf(const std::string& url) {
    const size_t scheme = url.find("://");
    const size_t path = url.find('/', scheme == std::string::npos ? 0 : scheme + 3);
    if (path == std::string::npos) {
        return "";
    }
    std::string name = url.substr(path + 1, std::min(url.find('?', path), url.size()) - path - 1);
    while (!name.empty() && name.back() == '/') {
        name.pop_back();
    }
    return name;
}

}  // namespace

void RtspSession::Create(Relay& relay, CSockStream& peer) {
    auto* self = new RtspSession(relay);
    self->AddRef();  // the client may hang up, and the handler end, while start still runs
    self->start(peer);
    self->DecRef();
}

void RtspSession::start(CSockStream& peer) {
    enter(peer);
    CGuard guard(m_mutex);
    m_sock.Attach(peer.Detach());
    CSockAddrStorage from;
    char ip[128] = "?";
    m_sock.GetRemoteAddr(&from);
    from.GetIpStr(ip, sizeof ip);
    m_peer = std::string(ip) + ":" + std::to_string(from.GetPort());
    m_viewer = std::make_shared<RtspViewer>(m_relay.takeNumber(), ip);
    m_timer = SetTimer(kLook_us);
    if (RegisterSock(m_sock, SOCK_READ, 0) < 0) {
        cut("the pool has no place for its socket");
    }
}

int RtspSession::handle_input(int) {
    CGuard guard(m_mutex);
    if (!m_sock.IsValid()) {
        return -1;
    }
    char buffer[8192];
    const int got = m_sock.Recv(buffer, sizeof buffer);
    if (got < 0) {
        return end();  // the client has gone
    }
    m_viewer->heard();
    if (m_last) {
        return -1;
    }
    m_input.append(buffer, static_cast<size_t>(got));
    while (m_sock.IsValid() && !m_last && m_waiting == nullptr && takeOne()) {
    }
    if (m_sock.IsValid() && m_input.size() > 2 * kMaxRequest) {
        return cut("it asks faster than it is answered");
    }
    return -1;
}

/// Reports stand between requests.
bool RtspSession::takeOne() {
    m_input.erase(0, m_input.find_first_not_of("\r\n"));  // some clients end a request with too much
    return !m_input.empty() && (m_input[0] == '$' ? takeReport() : takeRequest());
}

bool RtspSession::takeReport() {
    if (m_input.size() < RtpTrack::FRAMING) {
        return false;
    }
    const auto* const bytes = reinterpret_cast<const uint8_t*>(m_input.data());
    const size_t size = size_t{bytes[2]} << 8U | bytes[3];
    if (size > kMaxRequest) {
        cut("it sends packets instead of reports");
        return false;
    }
    if (m_input.size() < RtpTrack::FRAMING + size) {
        return false;
    }
    if (m_stream != nullptr) {
        m_stream->rtsp().takeReport(*m_viewer, bytes + RtpTrack::FRAMING, size);
    }
    m_input.erase(0, RtpTrack::FRAMING + size);
    return true;
}

bool RtspSession::takeRequest() {
    const size_t size = rtsp::headLength(m_input);
    Request request;
    if (size != 0) {
        request = rtsp::parse(m_input.substr(0, size));
    }
    const size_t whole = size == 0 ? m_input.size() : size + request.content_length;
    if (whole > kMaxRequest) {
        give(request, {413, "Request Entity Too Large", "", "", true});
        return false;
    }
    if (size == 0 || m_input.size() < whole) {
        return false;
    }
    const std::string head = m_input.substr(0, size);
    m_input.erase(0, whole);
    m_relay.count(&Counters::requests);
    serve(request, head);
    return true;
}

void RtspSession::serve(const Request& request, const std::string& head) {
    if (!request.good) {
        give(request, {400, "Bad Request", "", "", true});
    } else if (request.version != "RTSP/1.0") {
        give(request, {505, "RTSP Version Not Supported", "", "", true});
    } else if (!request.required.empty()) {
        give(request, {551, "Option not supported", "Unsupported: " + request.required + "\r\n", ""});
    } else if (request.method == "OPTIONS") {
        give(request, {200, "OK", "Public: " + std::string(kMethods) + "\r\n", ""});
    } else if (request.method == "DESCRIBE") {
        describe(request, false);
    } else if (request.method == "SETUP") {
        setUp(request, head);
    } else if (request.method == "PLAY") {
        play(request);
    } else if (request.method == "PAUSE") {
        pause(request);
    } else if (request.method == "GET_PARAMETER") {
        give(request, {200, "OK", sessionLine(), ""});
    } else if (request.method == "TEARDOWN") {
        give(request, {200, "OK", sessionLine(), "", true});
    } else if (isKnown(request.method)) {
        give(request, {405, "Method Not Allowed", "Allow: " + std::string(kMethods) + "\r\n", ""});
    } else {
        give(request, {501, "Not Implemented", "Public: " + std::string(kMethods) + "\r\n", ""});
    }
}

/// A URL without a name is that of the first stream. Null if there is none to be had by RTSP.
std::shared_ptr<Stream> RtspSession::streamAt(const std::string& url) {
    const std::string name = nameOf(url);
    const auto stream = name.empty() ? m_relay.streams().first() : m_relay.streams().find(name);
    return stream != nullptr && !stream->isTest() ? stream : nullptr;
}

/// A stream that nobody has asked for yet is looked at first: its sound tells of itself with its first
/// frame.
void RtspSession::describe(const Request& request, bool now) {
    if (request.url == "*" || !request.takes_sdp) {
        give(request, request.url == "*" ? Answer{400, "Bad Request", "", "", true}
                                         : Answer{406, "Not Acceptable", "", ""});
        return;
    }
    const auto stream = streamAt(request.url);
    if (stream == nullptr) {
        give(request, {404, "Not Found", "", ""});
        return;
    }
    const std::vector<SdpTrack> tracks = stream->rtsp().describe(now);
    if (tracks.empty() && !now) {
        m_waiting = std::make_unique<Request>(request);
        m_looks = 0;
        m_patience = SetTimer(kPatience_us);
        return;
    }
    if (tracks.empty()) {
        give(request, {503, "Service Unavailable", "Retry-After: 5\r\n", ""});
        return;
    }
    CSockAddrStorage local;
    const bool six = m_sock.GetLocalAddr(&local) == 0 && local.GetInputType() == 2;
    const std::string base = baseOf(request);
    give(request, {200, "OK", "Content-Base: " + base + "/\r\nContent-Type: application/sdp\r\n",
                   makeSdp("media_relay", base, six, tracks)});
}

void RtspSession::setUp(const Request& request, const std::string& head) {
    constexpr char PART[] = "/track";
    const std::string url = baseOf(request);
    const size_t at = url.rfind(PART);
    const std::string number = at == std::string::npos ? "" : url.substr(at + sizeof PART - 1);
    const auto stream = streamAt(url.substr(0, at));
    const size_t count = stream != nullptr ? stream->rtsp().describe(true).size() : 0;
    if (stream == nullptr || number.size() != 1 || number[0] < '0' ||
        static_cast<size_t>(number[0] - '0') >= std::max<size_t>(count, 1)) {
        give(request, {404, "Not Found", "", ""});
        return;
    }
    const Transport transport = chooseTransport(rtsp::header(head, "Transport"));
    const bool other = m_viewer->kind() != Transport::NONE && m_viewer->kind() != transport.kind;
    if (m_playing || other) {
        give(request, {455, "Method Not Valid in This State", "", ""});
        return;
    }
    if (transport.kind == Transport::NONE) {
        give(request, {461, "Unsupported Transport", "", ""});
        return;
    }
    if (m_viewer->kind() != Transport::NONE && m_stream != stream) {  // a session plays one stream
        give(request, {459, "Aggregate Operation Not Allowed", "", ""});
        return;
    }
    const auto track = static_cast<size_t>(number[0] - '0');
    if (m_viewer->kind() == Transport::NONE) {
        m_stream = stream;
        m_stream->rtsp().enter(m_viewer);
    }
    m_viewer->setTrack(track, transport);
    std::string way = "RTP/AVP;unicast;client_port=" + std::to_string(transport.port) + "-" +
                      std::to_string(transport.reportPort);
    const unsigned port = m_stream->rtsp().datagrams().port();
    way += ";server_port=" + std::to_string(port) + "-" + std::to_string(port + 1);
    if (transport.kind == Transport::TCP) {  // of the stream, and not of the client: all get the same bytes
        way = "RTP/AVP/TCP;unicast;interleaved=" + std::to_string(2 * track) + "-" +
              std::to_string(2 * track + 1);
    }
    give(request, {200, "OK", sessionLine() + "Transport: " + way + "\r\n", ""});
}

std::string RtspSession::sessionLine() const {
    if (m_viewer->kind() == Transport::NONE) {
        return "";
    }
    return "Session: " + std::to_string(m_viewer->number()) + ";timeout=" + std::to_string(kLife_s) + "\r\n";
}

/// The answer stands before the first packet. It does not say which one that will be: nobody knows.
void RtspSession::play(const Request& request) {
    if (m_viewer->kind() == Transport::NONE) {
        give(request, {455, "Method Not Valid in This State", "", ""});
        return;
    }
    if (!m_playing && !m_relay.takePlace()) {
        m_relay.count(&Counters::refused);
        give(request, {453, "Not Enough Bandwidth", "", ""});
        return;
    }
    give(request, {200, "OK", sessionLine() + "Range: npt=now-\r\n", ""});
    if (m_playing || !m_sock.IsValid()) {
        return;
    }
    m_playing = true;
    if (m_viewer->kind() == Transport::UDP) {
        m_stream->rtsp().datagrams().play(m_viewer);
    } else {
        watch();
    }
}

/// From here on the socket is written to by the media sender, and by whoever sends between two frames.
void RtspSession::watch() {
    CMediaStreamSender* const sender = CMediaStreamSender::Create();
    m_client = std::make_shared<Client>(sender, GetID(), m_viewer->number(), m_peer, 0);
    m_relay.prepare(*sender, m_sock, GetID(), kSkipped);
    m_stream->rtsp().stream().join(m_client);
    m_stream->rtsp().stream().begin(m_client);
}

void RtspSession::pause(const Request& request) {
    if (!m_playing) {
        give(request, {455, "Method Not Valid in This State", "", ""});
        return;
    }
    if (stopWatching()) {
        give(request, {200, "OK", sessionLine(), ""});
    }
}

/// What is half on its way goes out whole. False if the socket does not take it: then the connection is
/// over.
bool RtspSession::stopWatching() {
    if (!m_playing) {
        return true;
    }
    m_playing = false;
    m_stream->rtsp().datagrams().stop(*m_viewer);
    m_relay.givePlace();
    if (m_client == nullptr) {
        return true;
    }
    m_relay.noteLeft(*m_client);
    m_stream->rtsp().stream().leave(m_client);
    char tail[kMostTail];
    CMediaStreamSender* const sender = m_client->sender();
    const int size = sender->GetTailPacket(tail, sizeof tail);
    sender->Detach();
    sender->Close();
    m_client.reset();
    m_relay.count(&Counters::left);
    if (size < 0 || (size > 0 && m_sock.Send(tail, static_cast<unsigned>(size)) != size)) {
        cut("it has not taken what was on its way");
        return false;
    }
    return true;
}

void RtspSession::give(const Request& request, Answer answer) {
    if (!m_sock.IsValid()) {
        return;
    }
    if (answer.code >= 400) {
        m_relay.count(&Counters::bad);
    }
    m_last = answer.last;
    if (m_last && !stopWatching()) {
        return;
    }
    const std::string text = rtsp::toText(answer, request.cseq);
    const bool sent = m_client != nullptr ? m_stream->rtsp().stream().sendBetween(m_client, text, &m_sock)
                                          : m_sock.Send(text.data(), static_cast<unsigned>(text.size())) ==
                                                static_cast<int>(text.size());
    if (!sent) {
        cut("it does not take its answers");
    } else if (m_last) {
        shutdown(m_sock.GetHandle(), SHUT_WR);
        m_timer = SetTimer(kLinger_us);
    }
}

/// The live stream is written under the buffer's lock, and whoever holds that may want ours: ours is left.
int RtspSession::handle_output(int fd) {
    std::shared_ptr<Client> client;
    {
        CGuard guard(m_mutex);
        client = m_client;
    }
    return client != nullptr ? client->sender()->handle_output(fd) : -1;
}

int64_t RtspSession::handle_timeout(long id) {
    CGuard guard(m_mutex);
    if (!m_sock.IsValid()) {
        return -1;
    }
    if (id == m_patience && m_waiting != nullptr) {
        ++m_looks;
        const auto stream = streamAt(m_waiting->url);
        if (stream != nullptr && stream->rtsp().describe(false).empty() && m_looks < kLooks) {
            return 0;
        }
        const std::unique_ptr<Request> request = std::move(m_waiting);
        describe(*request, true);
        while (m_sock.IsValid() && !m_last && m_waiting == nullptr && takeOne()) {
        }
        return -1;
    }
    if (id != m_timer) {
        return -1;
    }
    if (m_last) {
        end();
        return -1;
    }
    const bool overConnection = m_playing && m_viewer->kind() == Transport::TCP;
    if (!overConnection && m_viewer->silence_us() > kLife_s * 1000000ULL) {
        cut("it has said nothing for " + std::to_string(kLife_s) + " s");
        return -1;
    }
    return 0;
}

int RtspSession::handle_message(long, unsigned int msg, long attach) {
    CGuard guard(m_mutex);
    if (!m_sock.IsValid()) {
        return -1;
    }
    if (msg == MEDIA_MSG_SOCKET_FAILED) {
        if (m_client != nullptr && m_client->sender()->GetStats().listed) {
            m_relay.count(&Counters::stalled);  // a sender whose socket has failed is off the list by itself
            const linger none{1, 0};
            setsockopt(m_sock.GetHandle(), SOL_SOCKET, SO_LINGER, &none, sizeof none);
            return cut("it took nothing for " + std::to_string(m_relay.options().stallTimeout_s) + " s");
        }
        end();
    } else if (msg == kSkipped && m_client != nullptr) {
        m_client->skipped(MediaSkip::of(attach));
    } else if (msg == kStop) {
        end();
    }
    return 0;
}

int RtspSession::end() {
    if (!m_sock.IsValid()) {
        return -1;
    }
    if (m_playing) {
        m_playing = false;
        m_relay.givePlace();
        m_relay.count(&Counters::left);
    }
    if (m_client != nullptr) {
        m_relay.noteLeft(*m_client);
        m_stream->rtsp().stream().leave(m_client);
        m_client->sender()->Detach();
    }
    if (m_stream != nullptr) {
        m_stream->rtsp().leave(m_viewer);
    }
    RemoveSock(m_sock);
    m_sock.Close();
    if (m_client != nullptr) {
        m_client->sender()->Close();
        m_client.reset();
    }
    Close();
    return -1;
}

/// An end that the client did not want.
int RtspSession::cut(const std::string& reason) {
    INFRA_LOG_PLAIN(NOTICE, "media_relay: client %s cut: %s\n", m_peer.c_str(), reason.c_str());
    return end();
}

}  // namespace relay
