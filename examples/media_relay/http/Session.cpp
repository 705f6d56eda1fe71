// Session: request, answer, live stream, and an end for each of them.

#include "media_relay/http/Session.h"

#include <sys/socket.h>
#include <algorithm>
#include <cstdio>
#include <utility>

#include <Infra/Log.h>

#include "media_relay/http/Page.h"
#include "media_relay/http/Response.h"
#include "media_relay/input/TestSource.h"

namespace relay {

using namespace Orvex::Reticor;
using Orvex::Infra::CGuard;

namespace {

constexpr size_t kMaxIgnored = 65536;     // a client that goes on talking is put out
constexpr int64_t kAnswer_us = 10000000;  // for a client to take a page
constexpr int64_t kLinger_us = 2000000;   // for it to close
constexpr int64_t kIdle_us = 30000000;    // for it to send the next request
constexpr unsigned kSendBlock = 32768;    // bytes, in which a CStreamSender counts its room
constexpr char kPlain[] = "text/plain";
constexpr unsigned kSkipped = 101;  // message to a Session: its client has missed something

std::string liveHead(bool test) {
    if (!test) {
        return responseHead(200, "video/mp2t") + "\r\n";
    }
    const std::string boundary = kPictureBoundary;
    return responseHead(200, "multipart/x-mixed-replace; boundary=" + boundary) + "\r\n--" + boundary +
           "\r\n";
}

/// The stream whose name stands in the arguments, the first one if there is none; null if it is not there.
std::shared_ptr<Stream> streamOf(const std::string& query, Streams& streams) {
    const std::string key = "stream=";
    for (size_t at = 0; at < query.size();) {
        const size_t end = std::min(query.find('&', at), query.size());
        if (query.compare(at, key.size(), key) == 0) {
            return streams.find(query.substr(at + key.size(), end - at - key.size()));
        }
        at = end + 1;
    }
    return streams.first();
}

}  // namespace

Session::Session(Relay& relay, CPoolSet::Place place)
    : Member(relay.roster(), std::max(place.GetPool(), 0)), m_relay(relay), m_place(std::move(place)) {}

void Session::Create(Relay& relay, CSockStream& peer, CPoolSet::Place place) {
    auto* self = new Session(relay, std::move(place));
    self->AddRef();  // the client may hang up, and the handler end, while start still runs
    self->start(peer);
    self->DecRef();
}

void Session::start(CSockStream& peer) {
    enter(peer);
    CGuard guard(m_mutex);
    m_sock.Attach(peer.Detach());
    m_peer = peerAddress();
    limit(int64_t{m_relay.options().requestTimeout_s} * 1000000);
    if (RegisterSock(m_sock, SOCK_READ, 0) < 0) {
        cut("the pool has no place for its socket");
    }
}

/// A time limit for the state that begins; the one before is over.
void Session::limit(int64_t us) {
    DestroyTimer(m_timer);
    m_timer = SetTimer(us);
}

int Session::handle_input(int) {
    CGuard guard(m_mutex);
    if (!m_sock.IsValid()) {
        return -1;
    }
    char buffer[8192];
    const int got = m_sock.Recv(buffer, sizeof buffer);
    if (got < 0) {
        stopPublishing(m_state == State::Publishing && m_body.finish());
        return end();  // the client has gone
    }
    if (m_state == State::Publishing) {
        takeBody({buffer, static_cast<size_t>(got)});
    } else if (m_state == State::Reading) {
        read(buffer, static_cast<size_t>(got));
        readOn();
    } else if (m_state == State::Fetching) {
        return keepForLater(buffer, static_cast<size_t>(got));
    } else {
        m_ignored += static_cast<size_t>(got);
        if (m_ignored > kMaxIgnored && !m_refused) {
            return cut("it goes on talking after its request");
        }
    }
    return -1;
}

void Session::read(const char* bytes, size_t size) {
    HttpRequest request;
    const int status = m_reader.put(bytes, size, request);
    if (status == 0) {
        return;
    }
    m_relay.count(&Counters::requests);
    m_early = m_reader.takeRest();
    if (status != 200) {
        fail(status);
    } else {
        serve(request);
    }
}

/// What came with the request before.
void Session::readOn() {
    while (m_state == State::Reading && m_sock.IsValid() && !m_early.empty()) {
        std::string early;
        early.swap(m_early);
        read(early.data(), early.size());
    }
}

int Session::keepForLater(const char* bytes, size_t size) {
    if (m_early.size() + size > kMaxIgnored) {
        return cut("it goes on asking without an answer");
    }
    m_early.append(bytes, size);
    return -1;
}

void Session::fetch(const HttpRequest& request) {
    HlsRequest asked;
    const int status = parseHls(request.path, request.query, asked);
    m_state = State::Fetching;
    m_again = true;
    if (status != 200) {
        m_relay.count(&Counters::bad);
        goOn(m_hls.refuse(status, request, m_sock));
        return;
    }
    m_stream = m_relay.streams().find(asked.stream);
    HlsOutput* const output = m_stream != nullptr ? m_stream->hls() : nullptr;
    const HlsClient::Step step = m_hls.begin(output, asked, request, GetID(), m_sock);
    if (step == HlsClient::Step::WAIT) {
        limit(m_hls.patience_us());
    }
    goOn(step);
}

void Session::goOn(HlsClient::Step step) {
    switch (step) {
        case HlsClient::Step::WAIT:
            break;
        case HlsClient::Step::WRITE:
            limit(kAnswer_us);
            if (RegisterSock(m_sock, SOCK_WRITE, 0) < 0) {
                cut("the pool has no place for its socket");
            }
            break;
        case HlsClient::Step::NEXT:
            m_state = State::Reading;
            limit(kIdle_us);
            break;
        case HlsClient::Step::LAST:
            awaitClose();
            break;
        case HlsClient::Step::FAIL:
            end();
            break;
    }
}

void Session::serve(const HttpRequest& request) {
    m_withBody = request.method != "HEAD";
    std::string name;
    if ((request.method == "PUT" || request.method == "POST") && parsePublishPath(request.path, name)) {
        publish(request);
        return;
    }
    if (m_withBody && request.method != "GET") {
        fail(405);
    } else if (request.path == "/") {
        answer(200, "text/html; charset=utf-8", kPage);
    } else if (request.path == "/stats.json" || request.path == "/history.json") {
        const auto stream = streamOf(request.query, m_relay.streams());
        if (stream == nullptr) {
            fail(404);
        } else {
            const bool history = request.path == "/history.json";
            answer(200, "application/json", history ? stream->history().json() : m_relay.json(*stream));
        }
    } else if (request.path == "/metrics") {
        answer(200, "text/plain; version=0.0.4; charset=utf-8", m_relay.metrics());
    } else if (isHlsPath(request.path)) {
        fetch(request);
    } else if (!serveStream(request)) {
        fail(404);
    }
}

/// "/NAME.mjpg", "/NAME.ts" or "/NAME.mp4". False if there is no such stream.
bool Session::serveStream(const HttpRequest& request) {
    const size_t dot = request.path.rfind('.');
    const auto stream = dot == std::string::npos || dot == 0
                            ? nullptr
                            : m_relay.streams().find(request.path.substr(1, dot - 1));
    if (stream == nullptr) {
        return false;
    }
    const bool test = stream->isTest();
    if (request.path == stream->livePath()) {
        watch(stream, stream->live(), test ? "multipart/x-mixed-replace" : "video/mp2t", liveHead(test));
    } else if (request.path == "/" + stream->name() + ".mp4" && !test) {
        watchMp4(stream);
    } else {
        return false;
    }
    return true;
}

/// An empty head is one that the stream sends itself. Once the head of the answer is out, the socket is
/// written to by the media sender alone.
void Session::watch(const std::shared_ptr<Stream>& stream, LiveStream& output, const char* type,
                    const std::string& head) {
    if (!m_withBody) {
        answer(200, type, "");
        return;
    }
    const Options& options = m_relay.options();
    if (!m_relay.takePlace()) {
        fail(503);
        return;
    }
    CMediaStreamSender* const sender = CMediaStreamSender::Create();
    const auto client = std::make_shared<Client>(sender, GetID(), m_relay.takeNumber(), m_peer,
                                                 options.twoQualities ? options.maxLag_ms / 2 : 0);
    m_relay.prepare(*sender, m_sock, GetID(), kSkipped);
    output.join(client);
    m_state = State::Watching;
    m_client = client;
    m_stream = stream;
    m_output = &output;
    const int sent = head.empty() ? 0 : m_sock.Send(head.data(), static_cast<unsigned>(head.size()));
    if (sent < 0) {
        end();
        return;
    }
    sender->SendOtherData(head.data() + sent,
                          static_cast<int>(head.size()) - sent);  // before the first frame
    output.begin(client);
}

void Session::watchMp4(const std::shared_ptr<Stream>& stream) {
    const std::string refusal = stream->mp4().refusal();
    if (refusal.empty()) {
        watch(stream, stream->mp4().stream(), "video/mp4", "");
        return;
    }
    m_relay.count(&Counters::bad);
    answer(404, kPlain, refusal + "\n");
}

/// What is answered here is answered before the body comes: most publishers read nothing meanwhile.
void Session::publish(const HttpRequest& request) {
    const int status = m_body.begin(request);
    if (status != 200) {
        refuse(status, "its body cannot be read");
        return;
    }
    const Publications::Entry entry = m_relay.publications().enter(request, GetID());
    m_lines = entry.lines;
    if (entry.status != 200) {
        refuse(entry.status, entry.reason);
        return;
    }
    m_state = State::Publishing;
    m_publication = entry.publication;
    limit(int64_t{m_relay.options().requestTimeout_s} * 1000000);
    const std::string goOn = "HTTP/1.1 100 Continue\r\n\r\n";
    if (m_body.isAwaited() &&
        m_sock.Send(goOn.data(), static_cast<unsigned>(goOn.size())) != static_cast<int>(goOn.size())) {
        cut("it does not take that it may go on");
        return;
    }
    std::string early;
    early.swap(m_early);
    takeBody(early);
}

void Session::takeBody(std::string_view bytes) {
    m_heard = true;
    for (std::string_view piece = m_body.take(bytes); !piece.empty(); piece = m_body.take(bytes)) {
        const Publication::Outcome outcome = m_publication->put(GetID(), piece);
        if (outcome != Publication::Outcome::TAKEN) {
            const bool hopeless = outcome == Publication::Outcome::HOPELESS;
            refuse(hopeless ? 415 : 409, hopeless ? "what it publishes is no transport stream with a clock"
                                                  : "another publisher has taken over");
            return;
        }
    }
    if (m_body.isBroken()) {
        refuse(400, "its body cannot be read");
    } else if (m_body.hasEnded()) {
        stopPublishing(true);
        answer(200, kPlain, "");
    }
}

/// Publishers seldom read answers before they have sent all: it is read on for a moment, so that the answer
/// arrives, and then the connection is reset.
void Session::refuse(int status, const std::string& reason) {
    stopPublishing(false);
    m_refused = true;
    m_relay.count(&Counters::bad);
    tell("refused", std::to_string(status) + " " + reasonOf(status) + ": " + reason);
    answer(status, kPlain, std::to_string(status) + " " + reasonOf(status) + ": " + reason + "\n");
}

void Session::stopPublishing(bool whole) {
    if (m_publication != nullptr) {
        m_publication->leave(GetID(), whole);
        m_publication.reset();
    }
}

void Session::fail(int status) {
    m_relay.count(status == 503 ? &Counters::refused : &Counters::bad);
    tell("refused", status == 503
                        ? "all " + std::to_string(m_relay.options().maxClients) + " live clients are there"
                        : std::to_string(status) + " " + reasonOf(status));
    answer(status, kPlain, std::to_string(status) + " " + reasonOf(status) + "\n");
}

void Session::answer(int status, const char* type, std::string_view body) {
    m_state = State::Answering;
    limit(kAnswer_us);
    std::string text = responseHead(status, type);
    text += "Content-Length: " + std::to_string(body.size()) + "\r\n";
    text += status == 405 ? "Allow: GET, HEAD\r\n" : status == 503 ? "Retry-After: 10\r\n" : "";
    text += m_lines;
    text += "\r\n";
    text += m_withBody ? body : "";
    m_page = CStreamSender::Create();
    m_page->AddRef();
    m_page->SetBufferSize(static_cast<unsigned>(text.size()) / kSendBlock + 1);
    m_page->Attach(this, &m_sock);
    m_page->WaitException(GetID());
    if (m_page->Put(text.data(), static_cast<unsigned>(text.size())) == 0) {
        m_page->WaitSendFinish(GetID());
    }
}

/// The live stream is written under the buffer's lock, and whoever holds that may want ours: ours is left.
int Session::handle_output(int fd) {
    std::shared_ptr<Client> client;
    {
        CGuard guard(m_mutex);
        if (m_sock.IsValid() && m_page != nullptr) {
            return m_page->handle_output(fd);
        }
        if (m_sock.IsValid() && m_state == State::Fetching) {
            const HlsClient::Step step = m_hls.isWaiting() ? HlsClient::Step::WAIT : m_hls.write(m_sock);
            if (step != HlsClient::Step::WRITE) {
                UnregisterSock(m_sock, SOCK_WRITE);
                goOn(step);
                readOn();
            }
            return -1;
        }
        client = m_client;
    }
    return client != nullptr ? client->sender()->handle_output(fd) : -1;
}

int64_t Session::handle_timeout(long id) {
    CGuard guard(m_mutex);
    if (!m_sock.IsValid() || id != m_timer) {
        return -1;
    }
    if (m_state == State::Reading && m_again && !m_reader.hasBegun()) {
        end();
    } else if (m_state == State::Reading) {
        m_relay.count(&Counters::requests);
        fail(408);
    } else if (m_state == State::Publishing && m_heard) {
        m_heard = false;
        limit(int64_t{m_relay.options().requestTimeout_s} * 1000000);
    } else if (m_state == State::Publishing) {
        abandon();
        cut("it publishes nothing");
    } else if (m_state == State::Fetching && m_hls.isWaiting()) {
        goOn(m_hls.goOn(true, m_sock));
        readOn();
    } else if (m_state == State::Answering || m_state == State::Fetching) {
        cut("it has not taken its answer");
    } else if (m_state == State::Lingering) {
        if (m_refused) {
            abandon();
        }
        cut("it has its answer, and does not close");
    }
    return -1;
}

int Session::handle_message(long, unsigned int msg, long attach) {
    CGuard guard(m_mutex);
    if (!m_sock.IsValid()) {
        return -1;
    }
    if (msg == STREAM_SENDER_DRAINED) {
        awaitClose();
    } else if (msg == MEDIA_MSG_SOCKET_FAILED) {
        if (m_client != nullptr && m_client->sender()->GetStats().listed) {
            m_relay.count(&Counters::stalled);  // a sender whose socket has failed is off the list by itself
            abandon();
            cut("it took nothing for " + std::to_string(m_relay.options().stallTimeout_s) + " s");
        }
        end();
    } else if (msg == Relay::WAKE && m_state == State::Fetching && m_hls.isWaiting()) {
        goOn(m_hls.goOn(false, m_sock));
        readOn();
    } else if (msg == kSkipped && m_client != nullptr) {
        m_client->skipped(MediaSkip::of(attach));
    } else if (msg == kStop && m_state == State::Publishing) {
        abandon();
        cut("it is not to publish any more");
    } else if (msg == kStop) {
        end();
    }
    return 0;
}

void Session::awaitClose() {
    m_state = State::Lingering;
    limit(kLinger_us);
    shutdown(m_sock.GetHandle(), SHUT_WR);
}

/// The end will be a reset: the client takes nothing, and so would never come to an orderly end after what
/// the kernel still holds for it.
void Session::abandon() {
    const linger none{1, 0};
    setsockopt(m_sock.GetHandle(), SOL_SOCKET, SO_LINGER, &none, sizeof none);
}

/// Nobody writes to the socket after this.
void Session::release() {
    if (m_client != nullptr) {
        m_relay.noteLeft(*m_client);
        m_output->leave(m_client);
        m_relay.givePlace();
        m_relay.count(&Counters::left);
        m_client->sender()->Detach();
    }
    if (m_page != nullptr) {
        m_page->Detach();
    }
    m_hls.leave();
    stopPublishing(false);
}

int Session::end() {
    if (!m_sock.IsValid()) {
        return -1;
    }
    release();
    RemoveSock(m_sock);
    m_sock.Close();
    if (m_client != nullptr) {
        m_client->sender()->Close();
        m_client.reset();
    }
    if (m_page != nullptr) {
        m_page->Close();
        m_page->DecRef();
        m_page = nullptr;
    }
    Close();
    return -1;
}

/// An end that the client did not want.
int Session::cut(const std::string& reason) {
    tell("cut", reason);
    return end();
}

/// For whoever runs the relay, with or without --verbose.
void Session::tell(const char* what, const std::string& reason) {
    INFRA_LOG_PLAIN(NOTICE, "media_relay: client %s %s: %s\n", m_peer.c_str(), what, reason.c_str());
}

std::string Session::peerAddress() {
    CSockAddrStorage peer;
    char ip[128] = "?";
    m_sock.GetRemoteAddr(&peer);
    peer.GetIpStr(ip, sizeof ip);
    return std::string(ip) + ":" + std::to_string(peer.GetPort());
}

}  // namespace relay
