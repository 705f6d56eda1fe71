// Publishing to media_relay: by ffmpeg and curl, and by sockets that end in the middle, stay silent, or come
// where they may not.
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/Eventually.h"
#include "support/program/RelayProgram.h"

using namespace Orvex::Testing;

namespace {

const std::string kToken = "X-Publish-Token: secret\r\n";

/// The bytes of a short film with a key picture in each second.
const std::string& publishedFilm() {
    static const std::string film = [] {
        const TempFolder folder;
        std::ifstream file(makeStream(folder, "mpeg2video", 3, 25, false, "160x120"), std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(file), {});
    }();
    return film;
}

/// A publisher of our own, which sends a body in chunks.
class Publisher : public TcpClient {
public:
    explicit Publisher(const RelayProgram& relay, const std::string& lines = kToken,
                       const std::string& name = "cam")
        : TcpClient(relay.port()) {
        EXPECT_TRUE(
            send("PUT /publish/" + name + " HTTP/1.1\r\nTransfer-Encoding: chunked\r\n" + lines + "\r\n"));
    }
    void publish(const std::string& bytes) {
        char size[20];
        snprintf(size, sizeof size, "%zx\r\n", bytes.size());
        EXPECT_TRUE(send(size + bytes + "\r\n"));
    }
};

/// How the relay sees that stream; null if there is none.
nlohmann::json publishedStream(const RelayProgram& relay, const std::string& name = "cam") {
    const nlohmann::json stats = relay.stats();
    if (stats.is_object() && stats.contains("streams")) {
        for (const auto& stream : stats["streams"]) {
            if (stream["name"] == name) {
                return stream;
            }
        }
    }
    return nullptr;
}

std::string stateOfPublished(const RelayProgram& relay) {
    const nlohmann::json stream = publishedStream(relay);
    return stream.is_object() ? stream["input"]["state"].get<std::string>() : "no stream";
}

size_t viewersOf(const RelayProgram& relay) {
    const nlohmann::json stream = publishedStream(relay);
    return stream.is_object() ? stream["clients"].get<size_t>() : 0;
}

/// A viewer that gets the whole film from its first key picture on, when it is published after this.
std::unique_ptr<Viewer> joinPublished(const RelayProgram& relay) {
    const size_t before = viewersOf(relay);
    auto viewer = std::make_unique<Viewer>(relay, "/cam.ts");
    EXPECT_EVENTUALLY(viewersOf(relay) == before + 1);
    EXPECT_EQ("HTTP/1.1 200 OK", statusOf(viewer->receiveLine()));
    while (viewer->receiveLine().size() > 1) {
    }
    return viewer;
}

void expectPackets(TcpClient& viewer, size_t count) {
    const std::string bytes = viewer.receive(count * 188);
    ASSERT_EQ(count * 188, bytes.size());
    for (size_t at = 0; at < bytes.size(); at += 188) {
        ASSERT_EQ('G', bytes[at]) << at;
    }
}

/// What a request of this kind is answered at once.
std::string answerToPublisher(const RelayProgram& relay, const std::string& request) {
    TcpClient client(relay.port());
    EXPECT_TRUE(client.send(request + "\r\n"));
    return statusOf(client.receiveAll());
}

}  // namespace

TEST(RelayPublish, KeepsViewersFromOnePublisherToTheNext) {
    const RelayProgram relay({"--publish-token", "secret", "--publish-second", "takeover"});
    Publisher first(relay);
    first.publish(publishedFilm());
    EXPECT_EVENTUALLY(publishedStream(relay).is_object());
    const auto viewer = joinPublished(relay);
    first.publish(publishedFilm());
    expectPackets(*viewer, 20);
    first.reset();
    EXPECT_EVENTUALLY(stateOfPublished(relay).find("no publisher") == 0);
    const auto late = joinPublished(relay);

    Publisher second(relay);
    second.publish(publishedFilm());
    expectPackets(*viewer, 20);
    expectPackets(*late, 20);
    EXPECT_TRUE(second.send("0\r\n\r\n"));
    EXPECT_EQ("HTTP/1.1 200 OK", statusOf(second.receiveAll()));
    EXPECT_EQ(2U, viewersOf(relay));
}

TEST(RelayPublish, LetsViewersGoAfterTheGraceTime) {
    const RelayProgram relay({"--publish-token", "secret", "--publish-grace", "0", "--rtsp", "0"});
    Publisher first(relay);
    first.publish(publishedFilm());
    EXPECT_EVENTUALLY(publishedStream(relay).is_object());
    const auto viewer = joinPublished(relay);
    first.publish(publishedFilm());
    expectPackets(*viewer, 20);
    EXPECT_TRUE(first.send("0\r\n\r\n"));
    viewer->receiveAll();
    EXPECT_TRUE(viewer->wasClosed());

    Publisher second(relay);
    second.publish(publishedFilm());
    const auto other = joinPublished(relay);
    second.publish(publishedFilm());
    expectPackets(*other, 20);
}

TEST(RelayPublish, RefusesASecondPublisherOrLetsItTakeOver) {
    for (const bool takeover : {false, true}) {
        const RelayProgram relay(
            {"--publish-token", "secret", "--publish-second", takeover ? "takeover" : "refuse"});
        Publisher first(relay);
        first.publish(publishedFilm());
        EXPECT_EVENTUALLY(publishedStream(relay).is_object());
        Publisher second(relay);
        if (takeover) {
            first.receiveAll();
            EXPECT_TRUE(first.wasClosed());
            const auto viewer = joinPublished(relay);
            second.publish(publishedFilm());
            expectPackets(*viewer, 20);
        } else {
            EXPECT_EQ("HTTP/1.1 409 Conflict", statusOf(second.receiveAll()));
            const auto viewer = joinPublished(relay);
            first.publish(publishedFilm());
            expectPackets(*viewer, 20);
        }
    }
}

TEST(RelayPublish, RefusesWhoMayNot) {
    const RelayProgram closed({});
    EXPECT_EQ("HTTP/1.1 403 Forbidden", answerToPublisher(closed, "PUT /publish/cam?token= HTTP/1.1\r\n"));
    const RelayProgram relay({"--publish-token", "secret"});
    const auto ask = [&](const std::string& request) { return answerToPublisher(relay, request); };
    EXPECT_EQ("HTTP/1.1 401 Unauthorized", ask("PUT /publish/cam HTTP/1.1\r\n"));
    EXPECT_EQ("HTTP/1.1 401 Unauthorized", ask("POST /publish/cam?token=x HTTP/1.1\r\n"));
    EXPECT_EQ("HTTP/1.1 404 Not Found", ask("PUT /publish/a/b HTTP/1.1\r\n" + kToken));
    EXPECT_EQ("HTTP/1.1 404 Not Found", ask("PUT /publish/ HTTP/1.1\r\n" + kToken));
    EXPECT_EQ("HTTP/1.1 409 Conflict", ask("PUT /publish/live HTTP/1.1\r\n" + kToken)) << "not published";
    EXPECT_EQ(
        "HTTP/1.1 400 Bad Request",
        ask("PUT /publish/cam HTTP/1.1\r\nContent-Length: 1\r\nTransfer-Encoding: chunked\r\n" + kToken));
    EXPECT_EQ("HTTP/1.1 417 Expectation Failed", ask("PUT /publish/cam HTTP/1.1\r\nExpect: x\r\n" + kToken));
    EXPECT_EQ("HTTP/1.1 404 Not Found", ask("GET /publish/cam HTTP/1.1\r\n" + kToken));
    EXPECT_EQ("HTTP/1.1 405 Method Not Allowed", ask("PUT /cam HTTP/1.1\r\n" + kToken));
    EXPECT_TRUE(publishedStream(relay).is_null()) << "nobody was let in";
    EXPECT_EQ(9U, relay.stats()["totals"]["bad_requests"]);
}

TEST(RelayPublish, ResetsAPublisherThatGoesOnAfterItsRefusal) {
    const RelayProgram relay({"--publish-token", "secret"});
    Publisher publisher(relay, "");
    const std::string more(1 << 20, 'x');
    for (int i = 0; i < 16; ++i) {
        ASSERT_TRUE(publisher.send(more)) << "it is read on for a moment";
    }
    EXPECT_EQ("HTTP/1.1 401 Unauthorized", statusOf(publisher.receiveLine()));
    size_t sent = 0;
    while (sent < (size_t{64} << 30) && publisher.send(more)) {
        sent += more.size();
    }
    EXPECT_FALSE(publisher.send(more));
}

TEST(RelayPublish, EndsWhatIsNoStream) {
    const RelayProgram relay({"--publish-token", "secret", "--request-timeout", "1"});
    Publisher garbage(relay);
    garbage.publish(std::string(9 << 20, 'x'));
    EXPECT_EQ("HTTP/1.1 415 Unsupported Media Type", statusOf(garbage.receiveAll()));
    Publisher broken(relay);
    EXPECT_TRUE(broken.send("x\r\n"));
    EXPECT_EQ("HTTP/1.1 400 Bad Request", statusOf(broken.receiveAll()));
    Publisher silent(relay);
    silent.publish("G");
    silent.receiveAll();
    EXPECT_TRUE(silent.wasReset());
}

TEST(RelayPublish, AsksForABodyThatWaitsForIt) {
    const RelayProgram relay({"--publish-token", "secret"});
    Publisher publisher(relay, kToken + "Expect: 100-continue\r\n");
    EXPECT_EQ("HTTP/1.1 100 Continue", statusOf(publisher.receiveLine()));
    EXPECT_EQ("\r", publisher.receiveLine());
    Publisher refused(relay, "Expect: 100-continue\r\n");
    EXPECT_EQ("HTTP/1.1 401 Unauthorized", statusOf(refused.receiveLine()));
}

TEST(RelayPublish, TakesWhatFfmpegAndCurlPublish) {
    const TempFolder folder;
    std::ofstream(folder.file("token")) << "secret\n";
    std::ofstream(folder.file("film"), std::ios::binary) << publishedFilm();
    const RelayProgram relay({"--publish-token-file", folder.file("token"), "--publish-second", "takeover"});
    const std::string host = "127.0.0.1:" + std::to_string(relay.port());
    const std::string ffmpeg =
        "exec ffmpeg -v quiet -nostdin -i '" + folder.file("film") + "' -c copy -f mpegts -method PUT ";
    const std::string publishers[] = {
        ffmpeg + "'http://" + host + "/publish/cam?token=secret'",
        ffmpeg + "'http://me:secret@" + host + "/publish/cam'",
        ffmpeg + "-chunked_post 0 'http://" + host + "/publish/cam?token=secret'",
        "exec curl -sfm 60 -T '" + folder.file("film") + "' --digest -u me:secret http://" + host +
            "/publish/cam",
        "exec curl -sfm 60 -T '" + folder.file("film") + "' -H 'X-Publish-Token: secret' http://" + host +
            "/publish/cam",
    };
    Publisher(relay).publish("G");
    EXPECT_EVENTUALLY(publishedStream(relay).is_object());
    const auto viewer = joinPublished(relay);
    for (const std::string& command : publishers) {
        ChildProcess publisher({"sh", "-c", command});
        expectPackets(*viewer, publishedFilm().size() / 188 / 2);
        EXPECT_EQ(0, publisher.wait(ChildProcess::WORK_LIMIT_MS)) << command;
        EXPECT_EVENTUALLY(stateOfPublished(relay).find("no publisher") == 0);
    }
}
