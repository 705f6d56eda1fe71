// rtsp_options: answers RTSP's OPTIONS and DESCRIBE (RFC 2326) for a camera that is not there, and refuses
// the rest politely. Try it with
//     curl -i rtsp://127.0.0.1:8554/
//     ffprobe -v debug -rtsp_transport tcp rtsp://127.0.0.1:8554/door
// The second shows the description, and ends where it would set up the stream.
//
// What it teaches:
//  - CStrParser on a request: words of the first line, headers whatever the case of their names, numbers;
//  - a loop over lines ends when the parser passes nothing any more, not when it fails: on a text that ends
//    in a line end it never fails;
//  - CStrParser as an editor: an address and a number are replaced where they stand in a prepared text;
//  - foreign bytes are bounded: so much for a request, so long without one, and a bad one is the last;
//  - whoever is put out still gets the answer: the connection is closed for writing first, since closing it
//    with bytes unread would make the system throw away what is on its way.
#include <sys/socket.h>
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <optional>
#include <string>

#include <Reticor/StrParser.h>
#include <CLI/CLI.hpp>

#include "support/Listener.h"

using namespace example;

namespace {

constexpr size_t kMaxRequest = 8192;     // bytes, with the body
constexpr size_t kMaxDiscard = 262144;   // bytes that we read away from whom we put out
constexpr int64_t kLinger_us = 2000000;  // for which we do that

struct Request {
    std::string method;
    std::string url;
    std::string version;
    std::optional<unsigned> cseq;  // none: there was no good one
    size_t content_length = 0;
    std::string required;  // what the client insists on, of which we know nothing
    bool takes_sdp = true;
    bool good = false;  // as far as its grammar goes
};

// ---- reading -------------------------------------------------------------------------------------------

/// Moves the parser to the value of a header; false if it is not there.
bool toHeader(CStrParser& p, const char* name) {
    p.ResetAll();
    while (p.GetThruEOL() > 0) {  // 0: nothing was passed, this is the last line end
        const int line = p.GetCurOffset();
        if (p.CompareCase(name) == 0) {
            p.ConsumeLength(static_cast<unsigned>(strlen(name)), nullptr, 0);
            p.ConsumeWhitespaceInLine();
            if (p.Expect(':') != -1) {
                p.ConsumeWhitespaceInLine();
                return true;
            }
            p.LocateOffset(line);  // another header, whose name only begins like this
        }
    }
    return false;
}

/// The rest of the line.
std::string restOfLine(CStrParser& p) {
    char text[512];
    return p.ConsumeSentence("\r\n", text, sizeof text) > 0 ? text : "";
}

/// A number that is alone in the rest of its line. For the parser a sign and a fraction belong to a number;
/// not for us.
std::optional<unsigned> number(CStrParser& p) {
    char word[12];
    const int start = p.GetCurOffset();
    const int length = p.ConsumeWord(word, sizeof word);
    if (length < 1 || length > 9 || strspn(word, "0123456789") != static_cast<size_t>(length)) {
        return std::nullopt;
    }
    p.ConsumeWhitespaceInLine();
    if (p.ExpectEOL() == -1) {
        return std::nullopt;
    }
    p.LocateOffset(start);
    return p.ConsumeUint32();
}

/// A word of the first line, and what separates it from the next. Empty if it is too long or misses that.
std::string firstLineWord(CStrParser& p, bool last) {
    char word[1024];
    const int length = p.ConsumeWord(word, sizeof word);
    const bool ended = last ? p.ExpectEOL() != -1 : p.Expect(' ') != -1;
    return ended && length < static_cast<int>(sizeof word) ? word : "";
}

/// `head` is everything up to the empty line, that one included.
Request parse(const std::string& head) {
    Request request;
    CStrParser p(head.data(), static_cast<unsigned>(head.size()));
    request.method = firstLineWord(p, false);
    request.url = firstLineWord(p, false);
    request.version = firstLineWord(p, true);
    request.good = request.version.compare(0, 5, "RTSP/") == 0 && !request.method.empty() &&
                   (request.url == "*" || request.url.compare(0, 7, "rtsp://") == 0);
    if (toHeader(p, "CSeq")) {
        request.cseq = number(p);
    }
    request.good = request.good && request.cseq.has_value();
    if (toHeader(p, "Content-Length")) {
        const std::optional<unsigned> length = number(p);
        request.good = request.good && length.has_value();
        request.content_length = length.value_or(0);
    }
    if (toHeader(p, "Require")) {
        request.required = restOfLine(p);
    }
    if (toHeader(p, "Accept")) {
        request.takes_sdp =
            p.LocateStringInLineCase("application/sdp") != -1 || p.LocateStringInLine("*/*") != -1;
    }
    return request;
}

// ---- answering -----------------------------------------------------------------------------------------

struct Answer {
    int code;
    const char* reason;
    std::string headers;  // whole lines
    std::string body;
    bool last = false;  // closes the connection
};

/// What there would be to see, from a camera at `ip`.
std::string describe(const std::string& ip, unsigned session) {
    CStrParser sdp(
        "v=0\r\n"
        "o=- 1 1 IN IP4 0.0.0.0\r\n"
        "s=Door\r\n"
        "c=IN IP4 0.0.0.0\r\n"
        "t=0 0\r\n"
        "a=control:*\r\n"
        "a=range:npt=now-\r\n"
        "m=video 0 RTP/AVP 96\r\n"
        "b=AS:4096\r\n"
        "a=rtpmap:96 H264/90000\r\n"
        "a=fmtp:96 packetization-mode=1;profile-level-id=42E01F\r\n"
        "a=framerate:25\r\n"
        "a=control:trackID=0\r\n");
    const bool six = ip.find(':') != std::string::npos;
    sdp.LocateString("o=- ");
    sdp.ConsumeUntilDigit();
    sdp.ReplaceUint32(session);  // the cursor stays on its first digit
    while (sdp.LocateString("IP4 ") != -1) {
        sdp.ReplaceLength(3, six ? "IP6" : "IP4");  // the cursor goes on after it
        sdp.Expect(' ');
        sdp.ReplaceIpAddr(ip.c_str());
    }
    return {sdp.GetString(), static_cast<size_t>(sdp.GetStringLen())};
}

/// What RTSP knows and we do not do.
bool isKnown(const std::string& method) {
    static const char* const kMethods[] = {"SETUP",  "PLAY",          "PAUSE",         "TEARDOWN", "ANNOUNCE",
                                           "RECORD", "GET_PARAMETER", "SET_PARAMETER", "REDIRECT"};
    return std::any_of(std::begin(kMethods), std::end(kMethods),
                       [&](const char* known) { return method == known; });
}

Answer answerTo(const Request& request, const std::string& ip, unsigned session) {
    if (!request.good) {
        return {400, "Bad Request", "", "", true};
    }
    if (request.version != "RTSP/1.0") {
        return {505, "RTSP Version Not Supported", "", "", true};
    }
    if (!request.required.empty()) {
        return {551, "Option not supported", "Unsupported: " + request.required + "\r\n", ""};
    }
    if (request.method == "OPTIONS") {
        return {200, "OK", "Public: OPTIONS, DESCRIBE\r\n", ""};
    }
    if (request.method != "DESCRIBE") {
        return isKnown(request.method) ? Answer{405, "Method Not Allowed", "Allow: OPTIONS, DESCRIBE\r\n", ""}
                                       : Answer{501, "Not Implemented", "Public: OPTIONS, DESCRIBE\r\n", ""};
    }
    if (request.url == "*") {
        return {400, "Bad Request", "", "", true};
    }
    if (!request.takes_sdp) {
        return {406, "Not Acceptable", "", ""};
    }
    const std::string slash = request.url.back() == '/' ? "" : "/";
    return {200, "OK", "Content-Base: " + request.url + slash + "\r\nContent-Type: application/sdp\r\n",
            describe(ip, session)};
}

std::string toText(const Answer& answer, const std::optional<unsigned>& cseq) {
    std::string text = "RTSP/1.0 " + std::to_string(answer.code) + " " + answer.reason + "\r\n";
    if (cseq) {
        text += "CSeq: " + std::to_string(*cseq) + "\r\n";
    }
    text += answer.headers;
    if (!answer.body.empty()) {
        text += "Content-Length: " + std::to_string(answer.body.size()) + "\r\n";
    }
    if (answer.last) {
        text += "Connection: close\r\n";
    }
    return text + "\r\n" + answer.body;
}

// ---- the connection ------------------------------------------------------------------------------------

/// One client. Requests are answered one after the other, and while an answer has not been taken nothing is
/// read.
class Session : public Member {
public:
    static void Create(Roster& roster, CSockStream& peer, int idle_us, bool verbose) {
        auto* self = new Session(roster, idle_us, verbose);
        self->AddRef();
        self->start(peer);
        self->DecRef();
    }

    int handle_input(int) override {
        CGuard guard(m_mutex);
        if (!m_sock.IsValid()) {
            return -1;
        }
        char buffer[4096];
        const int got = m_sock.Recv(buffer, sizeof buffer);
        if (got < 0) {
            return end();
        }
        if (m_last) {
            m_discarded += static_cast<size_t>(got);
            return m_discarded > kMaxDiscard ? end() : 0;
        }
        m_input.append(buffer, static_cast<size_t>(got));
        return serve();
    }

    int handle_output(int) override {
        CGuard guard(m_mutex);
        if (!m_sock.IsValid() || flush() < 0) {
            return -1;
        }
        return serve();  // what has come meanwhile
    }

    int64_t handle_timeout(long) override { return stop(); }
    int handle_input_timeout(int) override { return stop(); }
    int handle_output_timeout(int) override { return stop(); }
    int handle_message(long, unsigned int msg, long) override { return msg == kStop ? stop() : 0; }

private:
    Session(Roster& roster, int idle_us, bool verbose)
        : Member(roster), m_idle_us(idle_us), m_verbose(verbose) {}

    void start(CSockStream& peer) {
        enter(peer);
        CGuard guard(m_mutex);
        m_sock.Attach(peer.Detach());
        m_sock.SetSockNoDelay(true);
        if (RegisterSock(m_sock, SOCK_READ, m_idle_us) < 0) {
            end();
        }
    }

    /// Answers what has come in whole, as long as the client takes the answers.
    int serve() INFRA_REQUIRES(m_mutex) {
        while (m_pending.empty() && !m_last) {
            m_input.erase(0, m_input.find_first_not_of("\r\n"));  // some clients end a request with too much
            const size_t head = headLength();
            if (head == 0) {
                return m_input.size() > kMaxRequest ? refuse() : 0;
            }
            const Request request = parse(m_input.substr(0, head));
            if (head + request.content_length > kMaxRequest) {
                return refuse();
            }
            if (m_input.size() < head + request.content_length) {
                return 0;
            }
            m_input.erase(0, head + request.content_length);
            give(answerTo(request, localIp(), static_cast<unsigned>(-GetID() & 0x7FFFFFFF)), request);
            if (flush() < 0) {
                return -1;
            }
        }
        return 0;
    }

    /// Up to and with the empty line; 0 as long as that has not come.
    size_t headLength() INFRA_REQUIRES(m_mutex) {
        const size_t crlf = m_input.find("\n\r\n");
        const size_t lf = m_input.find("\n\n");
        if (crlf == std::string::npos && lf == std::string::npos) {
            return 0;
        }
        return crlf < lf ? crlf + 3 : lf + 2;
    }

    int refuse() INFRA_REQUIRES(m_mutex) {
        give({413, "Request Entity Too Large", "", "", true}, Request());
        return flush();
    }

    void give(const Answer& answer, const Request& request) INFRA_REQUIRES(m_mutex) {
        m_pending = toText(answer, request.cseq);
        m_last = answer.last;
        if (m_verbose) {
            std::printf("%d %s %s\n", answer.code, request.method.c_str(), request.url.c_str());
            std::fflush(stdout);
        }
    }

    /// Sends what is pending. What is left waits for handle_output, and reading waits meanwhile.
    int flush() INFRA_REQUIRES(m_mutex) {
        const int sent = m_sock.Send(m_pending.data(), static_cast<unsigned>(m_pending.size()));
        if (sent < 0) {
            return end();
        }
        m_pending.erase(0, static_cast<size_t>(sent));
        const bool writing = !m_pending.empty();
        if (writing != m_writing) {
            m_writing = writing;
            RegisterSock(m_sock, writing ? SOCK_WRITE : SOCK_READ, m_idle_us);
            UnregisterSock(m_sock, writing ? SOCK_READ : SOCK_WRITE);
        }
        if (!writing && m_last) {
            shutdown(m_sock.GetHandle(), SHUT_WR);  // the client reads our answer, and then closes
            SetTimer(kLinger_us);                   // or does not
        }
        return 0;
    }

    /// Our address as the client sees it.
    std::string localIp() INFRA_REQUIRES(m_mutex) {
        CSockAddrStorage local;
        char ip[64] = "";
        m_sock.GetLocalAddr(&local);
        local.GetIpStr(ip, sizeof ip);
        const std::string text = ip;
        const size_t scope = text.find('%');
        return text.compare(0, 7, "::ffff:") == 0 ? text.substr(7) : text.substr(0, scope);
    }

    int stop() {
        CGuard guard(m_mutex);
        return end();
    }

    int end() INFRA_REQUIRES(m_mutex) {
        if (!m_sock.IsValid()) {
            return -1;
        }
        RemoveSock(m_sock);
        m_sock.Close();
        Close();
        return -1;
    }

    const int m_idle_us;
    const bool m_verbose;
    Orvex::Infra::CMutex m_mutex;
    CSockStream m_sock INFRA_GUARDED_BY(m_mutex);
    std::string m_input INFRA_GUARDED_BY(m_mutex);     // the beginning of a request, or several
    std::string m_pending INFRA_GUARDED_BY(m_mutex);   // of the answer
    bool m_writing INFRA_GUARDED_BY(m_mutex) = false;  // registered for writing and not for reading
    bool m_last INFRA_GUARDED_BY(m_mutex) = false;     // after this answer nothing is served any more
    size_t m_discarded INFRA_GUARDED_BY(m_mutex) = 0;  // since the last answer
};

}  // namespace

int main(int argc, char** argv) {
    std::string host = "127.0.0.1";
    unsigned short port = 8554;
    size_t per_address = CLIENTS_PER_ADDRESS;
    int idle_ms = 60000;
    bool verbose = false;
    CLI::App app{"Answers RTSP's OPTIONS and DESCRIBE."};
    app.add_option("--host", host, "address to listen on; :: is every address, IPv4 and IPv6")
        ->capture_default_str();
    app.add_option("--port", port, "port to listen on; 0 is any that is free")->capture_default_str();
    app.add_option("--idle-timeout", idle_ms, "ms of silence that end a connection; 0 is never")
        ->check(CLI::Range(0, 2000000))
        ->capture_default_str();
    app.add_flag("--verbose", verbose, "prints a line for every answer");
    app.add_option("--max-per-address", per_address,
                   "connections of one address at a time; more are closed at once. 0 is no limit")
        ->capture_default_str();
    CLI11_PARSE(app, argc, argv);

    EndSignals signals;
    raiseDescriptorLimit();
    if (CreateThreadPool(1, 0) != 0) {
        return 1;
    }
    Roster roster;
    const int idle_us = idle_ms * 1000;
    const int result = serve(roster, signals, CSockAddrStorage(host.c_str(), port), per_address,
                             [&](CSockStream& peer) { Session::Create(roster, peer, idle_us, verbose); });
    DestroyThreadPool();
    return result;
}
