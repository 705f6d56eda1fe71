// rtsp_options: answers RTSP's OPTIONS and DESCRIBE (RFC 2326) for a camera that is not there, and refuses
// the rest politely. Try it with
//     curl -i rtsp://127.0.0.1:8554/
//     ffprobe -v debug -rtsp_transport tcp rtsp://127.0.0.1:8554/door
// The second shows the description, and ends where it would set up the stream.
//
// What it teaches:
//  - a text protocol on the kit: requests are put together from pieces and answered in order, and whoever
//    does not take the answers is not read any more;
//  - CStrParser on a request (Request.cpp), whose loop over lines ends when the parser passes nothing any
//    more, not when it fails: on a text that ends in a line end it never fails;
//  - CStrParser as an editor of a prepared text (Camera.cpp);
//  - foreign bytes are bounded: so much for a request, so long without one, and a bad one is the last;
//  - whoever is put out still gets the answer: `finish` ends our direction first, since closing a connection
//    with bytes unread would make the system throw away what is on its way.
#include <atomic>
#include <cstdio>
#include <string>

#include <Reticor/kit/Server.h>
#include <CLI/CLI.hpp>

#include "rtsp_options/Answer.h"
#include "rtsp_options/Camera.h"
#include "rtsp_options/Request.h"

namespace Kit = Orvex::Reticor::Kit;
using Kit::Connection;

namespace {

constexpr size_t MAX_REQUEST = 8192;       // bytes, with the body
constexpr size_t MAX_DISCARD = 262144;     // bytes that we read away from whoever is put out
constexpr std::chrono::seconds LINGER{2};  // for which we do that

/// Our address as the client sees it.
std::string localIp(const Connection& client) {
    std::string ip = client.local();
    ip = ip.substr(0, ip.rfind(':'));  // without the port
    if (!ip.empty() && ip.front() == '[') {
        ip = ip.substr(1, ip.size() - 2);
    }
    return ip.compare(0, 7, "::ffff:") == 0 ? ip.substr(7) : ip;
}

/// One client. All of it belongs to the calls of its connection.
class Session {
public:
    Session(unsigned number, bool verbose) : m_number(number), m_verbose(verbose) {}

    void take(Connection& client, std::string_view bytes) {
        if (m_last) {
            m_discarded += bytes.size();
            if (m_discarded > MAX_DISCARD) {
                client.abort();
            }
            return;
        }
        m_input += bytes;
        while (!m_last && serve(client)) {
        }
    }

private:
    /// Answers one request that has come in whole; false if there is none.
    bool serve(Connection& client) {
        m_input.erase(0, m_input.find_first_not_of("\r\n"));  // some clients end a request with too much
        const size_t head = rtsp::headLength(m_input);
        rtsp::Request request;
        if (head != 0) {
            request = rtsp::parse(m_input.substr(0, head));
        }
        const size_t size = head == 0 ? m_input.size() : head + request.content_length;
        if (size > MAX_REQUEST) {
            give(client, {413, "Request Entity Too Large", "", "", true}, rtsp::Request());
            return false;
        }
        if (head == 0 || m_input.size() < size) {
            return false;
        }
        m_input.erase(0, size);
        give(client, rtsp::answerTo(request, localIp(client), m_number), request);
        return true;
    }

    void give(Connection& client, const rtsp::Answer& answer, const rtsp::Request& request) {
        client.write(rtsp::toText(answer, request.cseq));
        m_last = answer.last;
        if (m_last) {
            client.finish();  // the client reads our answer, and then closes
            client.after(LINGER, [](Connection& c) { c.close(); });  // or does not
        }
        if (m_verbose) {
            std::printf("%d %s %s\n", answer.code, request.method.c_str(), request.url.c_str());
            std::fflush(stdout);
        }
    }

    unsigned m_number;
    bool m_verbose;
    bool m_last = false;     // after this answer nothing is served any more
    size_t m_discarded = 0;  // since the last answer
    std::string m_input;     // the beginning of a request, or several
};

}  // namespace

int main(int argc, char** argv) {
    std::string host = "127.0.0.1";
    unsigned short port = 8554;
    int idle_ms = 60000;
    bool verbose = false;
    Kit::ServerOptions options;
    options.most_per_address = 1024;
    CLI::App app{"Answers RTSP's OPTIONS and DESCRIBE."};
    app.add_option("--host", host, "address to listen on; :: is every address, IPv4 and IPv6")
        ->capture_default_str();
    app.add_option("--port", port, "port to listen on; 0 is any that is free")->capture_default_str();
    app.add_option("--idle-timeout", idle_ms, "ms of silence that end a connection; 0 is never")
        ->check(CLI::Range(0, 2000000))
        ->capture_default_str();
    app.add_flag("--verbose", verbose, "prints a line for every answer");
    app.add_option("--max-per-address", options.most_per_address,
                   "connections of one address at a time; more are closed at once. 0 is no limit")
        ->capture_default_str();
    CLI11_PARSE(app, argc, argv);

    Kit::EndSignals signals;
    options.connection.idle_timeout = std::chrono::milliseconds(idle_ms);
    std::atomic<unsigned> sessions{0};
    Kit::Server server(
        [&](Connection& client) {
            client.onInput([session = Session(++sessions, verbose)](
                               Connection& c, std::string_view bytes) mutable { session.take(c, bytes); });
        },
        options);
    if (!server.listen(host.c_str(), port)) {
        return 1;
    }
    std::printf("listening on %s\n", server.address().c_str());
    std::fflush(stdout);
    return server.run(std::chrono::seconds(1));
}
