// media_relay that pulls its input from a server: another relay, or one that is made to misbehave.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <algorithm>
#include <csignal>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "support/Eventually.h"
#include "support/program/RelayProgram.h"

using namespace Orvex::Testing;
using nlohmann::json;

namespace {

/// A server whose answers the test writes itself, one connection after the other.
class Origin {
public:
    Origin() {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        EXPECT_EQ(0, bind(m_listener, reinterpret_cast<sockaddr*>(&address), length));
        EXPECT_EQ(0, getsockname(m_listener, reinterpret_cast<sockaddr*>(&address), &length));
        EXPECT_EQ(0, listen(m_listener, 8));
        m_port = ntohs(address.sin_port);
    }
    ~Origin() {
        hangUp();
        ::close(m_listener);
    }
    Origin(const Origin&) = delete;
    Origin& operator=(const Origin&) = delete;

    std::string url(const std::string& path, const std::string& host = "127.0.0.1") const {
        return "http://" + host + ":" + std::to_string(m_port) + path;
    }

    /// Waits for the next connection, and returns the first line of its request.
    std::string accept() {
        hangUp();
        pollfd ready{m_listener, POLLIN, 0};
        EXPECT_EQ(1, poll(&ready, 1, scaledMs(20000))) << "nobody came";
        m_peer = ::accept4(m_listener, nullptr, nullptr, SOCK_CLOEXEC);
        std::string head;
        char c = 0;
        while (head.find("\r\n\r\n") == std::string::npos && recv(m_peer, &c, 1, 0) == 1) {
            head += c;
        }
        return head.substr(0, head.find('\r'));
    }

    /// False if the peer has gone.
    bool send(const std::string& bytes) const {
        for (size_t at = 0; at < bytes.size();) {
            const ssize_t sent = ::send(m_peer, bytes.data() + at, bytes.size() - at, MSG_NOSIGNAL);
            if (sent <= 0) {
                return false;
            }
            at += static_cast<size_t>(sent);
        }
        return true;
    }

    void hangUp() {
        if (m_peer >= 0) {
            ::close(m_peer);
        }
        m_peer = -1;
    }

private:
    const int m_listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    int m_peer = -1;
    int m_port = 0;
};

constexpr char kPlainHead[] = "HTTP/1.1 200 OK\r\nContent-Type: video/mp2t\r\n\r\n";

std::string shortStream(const TempFolder& folder) {
    std::ifstream stream(makeStream(folder, "libx264", 2, 10, false, "160x96"), std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
}

json pulled(const RelayProgram& relay) {
    return relay.stats()["input"];
}

/// What a player complains of in some seconds of that URL.
std::string complaintsOf(const std::string& url, const std::string& seconds) {
    ChildProcess ffmpeg(
        {"sh", "-c", "exec ffmpeg -v error -nostdin -i '" + url + "' -t " + seconds + " -f null - 2>&1"});
    const std::string text = ffmpeg.exchange("");
    EXPECT_EQ(0, ffmpeg.wait(ChildProcess::WORK_LIMIT_MS));
    return text;
}

}  // namespace

TEST(RelayPull, PlaysTheStreamOfAnotherRelay) {
    const TempFolder folder;
    RelayProgram origin({"--input", makeStream(folder, "libx264", 2, 10, true, "160x96"), "--loop"});
    RelayProgram middle({"--input", origin.url("/live.ts")});
    RelayProgram last({"--input", "http://localhost:" + std::to_string(middle.port()) + "/live.ts"});
    EXPECT_EQ("", complaintsOf(last.url("/live.ts"), "3"));
    EXPECT_EQ(0, pulled(last)["lost_packets"]);
    EXPECT_EQ(0, pulled(last)["skipped_bytes"]);
    EXPECT_EQ(1, pulled(last)["connections"]);
    EXPECT_EQ(0, last.end());
    EXPECT_EQ(0, middle.end());
    EXPECT_EQ(0, origin.end());
}

TEST(RelayPull, TakesChunksAndFollowsRedirects) {
    const TempFolder folder;
    const std::string bytes = shortStream(folder);
    Origin origin;
    RelayProgram relay({"--input", origin.url("/first?a=b")});
    EXPECT_EQ("GET /first?a=b HTTP/1.1", origin.accept());
    origin.send("HTTP/1.1 302 Found\r\nLocation: /second\r\nContent-Length: 0\r\n\r\n");
    EXPECT_EQ("GET /second HTTP/1.1", origin.accept());
    origin.send("HTTP/1.1 307 Temporary Redirect\r\nLocation: " + origin.url("/third", "localhost") +
                "\r\n\r\n");
    EXPECT_EQ("GET /third HTTP/1.1", origin.accept());
    origin.send("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n");
    for (size_t at = 0; at < bytes.size(); at += 1000) {
        const std::string chunk = bytes.substr(at, 1000);
        char size[16];
        std::snprintf(size, sizeof size, "%zx\r\n", chunk.size());
        ASSERT_TRUE(origin.send(size + chunk + "\r\n"));
    }
    ASSERT_EVENTUALLY(pulled(relay)["seconds"] > 1.7);
    EXPECT_EQ(0, pulled(relay)["skipped_bytes"]);
    EXPECT_EQ(0, pulled(relay)["lost_packets"]);
    EXPECT_EQ(0, relay.end());
}

// A redirect to another scheme, a status, what is no answer, and none at all: each is told, and the relay
// asks again from the beginning.
TEST(RelayPull, SaysWhatTheServerDoesAndAsksAgain) {
    Origin origin;
    RelayProgram relay({"--input", origin.url("/a")});
    const auto answer = [&](const std::string& text, const std::string& state) {
        EXPECT_EQ("GET /a HTTP/1.1", origin.accept());
        origin.send(text);
        ASSERT_EVENTUALLY(pulled(relay)["state"] == "127.0.0.1 " + state);
    };
    answer("HTTP/1.1 404 Not Found\r\n\r\n", "answers with status 404");
    answer("HTTP/1.1 301 Moved\r\nLocation: https://127.0.0.1/a\r\n\r\n", "answers with status 301");
    answer("220 mail.example\r\n", "sends what is no answer of HTTP");
    origin.accept();
    origin.hangUp();
    ASSERT_EVENTUALLY(pulled(relay)["state"] == "127.0.0.1 has ended the connection");
    EXPECT_EQ(false, pulled(relay)["ended"]);
    EXPECT_EQ(0, relay.end());
}

TEST(RelayPull, FollowsNoRedirectForEver) {
    Origin origin;
    RelayProgram relay({"--input", origin.url("/a")});
    for (int i = 0; i < 6; ++i) {
        EXPECT_EQ(i == 0 ? "GET /a HTTP/1.1" : "GET /b HTTP/1.1", origin.accept()) << i;
        origin.send("HTTP/1.1 302 Found\r\nLocation: /b\r\n\r\n");
    }
    EXPECT_EQ("GET /a HTTP/1.1", origin.accept());
    EXPECT_EQ(0, relay.end());
}

// The connection breaks in the middle of a picture. The viewer stays, gets nothing of that picture, and goes
// on with the next connection's.
TEST(RelayPull, KeepsItsViewersWhenTheServerIsLost) {
    const TempFolder folder;
    const std::string bytes = shortStream(folder);
    Origin origin;
    RelayProgram relay({"--input", origin.url("/live.ts"), "--sndbuf", "4194304", "--max-lag", "0"});
    Viewer viewer(relay, "/live.ts");
    ASSERT_EVENTUALLY(relay.stats()["clients"].size() == 1);
    origin.accept();
    origin.send(kPlainHead + bytes.substr(0, bytes.size() / 2 + 77));
    ASSERT_EVENTUALLY(pulled(relay)["frames"] > 10);
    origin.accept();  // the first one is closed
    origin.send(kPlainHead + bytes);
    ASSERT_EVENTUALLY(pulled(relay)["connections"] == 2 && pulled(relay)["frames"] > 60);
    EXPECT_EQ(1U, relay.stats()["clients"].size());
    EXPECT_EQ(1, pulled(relay)["rounds"]);
    EXPECT_EQ(0, pulled(relay)["lost_packets"]) << "a new connection loses nothing";
    EXPECT_EQ(0, relay.end());
    while (viewer.receiveLine() != "\r" && !viewer.wasClosed()) {
    }
    const std::string file = folder.file("got.ts");
    std::ofstream(file, std::ios::binary) << viewer.receiveAll();
    const std::string complaints = complaintsOf(file, "100");  // time begins anew; nothing is broken
    EXPECT_TRUE(complaints.empty() || complaints.find("non monotonically") < complaints.find('\n'))
        << complaints;
    EXPECT_LE(std::count(complaints.begin(), complaints.end(), '\n'), 1) << complaints;
}

// A real one: its last word is a reset or an end, and for a while nobody listens.
TEST(RelayPull, SurvivesTheRestartOfItsOrigin) {
    const TempFolder folder;
    const std::string file = makeStream(folder, "libx264", 2, 10, true, "160x96");
    auto origin = std::make_unique<RelayProgram>(std::vector<std::string>{"--input", file, "--loop"});
    const std::string port = std::to_string(origin->port());
    RelayProgram relay({"--input", origin->url("/live.ts")});
    Viewer viewer(relay, "/live.ts");
    viewer.receive(10000);
    EXPECT_EQ(0, origin->end());
    ASSERT_EVENTUALLY(pulled(relay)["state"] == "127.0.0.1 takes no connection");
    ChildProcess again({RETICOR_EXAMPLES_DIR "/media_relay", "--port", port, "--input", file, "--loop"});
    EXPECT_NE("", again.readLine());
    ASSERT_EVENTUALLY(pulled(relay)["connections"] == 2);
    const double before = pulled(relay)["frames"];
    ASSERT_EVENTUALLY(pulled(relay)["frames"] > before + 25);
    EXPECT_EQ("", pulled(relay)["state"]);
    EXPECT_EQ(1U, relay.stats()["clients"].size());
    EXPECT_EQ(30000U, viewer.receive(30000).size());
    EXPECT_EQ("", complaintsOf(relay.url("/live.ts"), "1"));
    EXPECT_EQ(0, relay.end());
    again.signal(SIGTERM);
    EXPECT_EQ(0, again.wait());
}

// It ends at once, also while it waits for an answer or for the next attempt.
TEST(RelayPull, EndsWhileItHasNoInput) {
    Origin origin;
    RelayProgram waits({"--input", origin.url("/a")});
    origin.accept();
    EXPECT_EQ(0, waits.end());
    RelayProgram refused({"--input", "http://127.0.0.1:1/a"});
    ASSERT_EVENTUALLY(pulled(refused)["state"] == "127.0.0.1 takes no connection");
    EXPECT_EQ(0, refused.end());
}
