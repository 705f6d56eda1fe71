// HTTP live streaming of media_relay as clients fetch it: answers, waiting, kept connections, a player.
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/Eventually.h"
#include "support/program/PlaylistRules.h"
#include "support/program/RelayProgram.h"

using namespace Orvex::Testing;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

namespace {

/// An answer whose length is told.
struct Fetched {
    std::string head;
    std::string body;
    int status() const { return std::atoi(head.c_str() + 9); }
    /// What stands in that line of the head, with its name.
    std::string line(const std::string& name) const {
        const size_t at = head.find("\n" + name + ": ");
        return at == std::string::npos ? "" : head.substr(at + 1, head.find('\r', at) - at - 1);
    }
};

Fetched readAnswer(TcpClient& client, bool with_body = true) {
    Fetched answer;
    for (std::string line = client.receiveLine(); line != "\r" && !client.wasClosed();
         line = client.receiveLine()) {
        answer.head += line + "\n";
    }
    const std::string length = answer.line("Content-Length");
    if (with_body && !length.empty()) {
        answer.body = client.receive(std::stoul(length.substr(16)));
    }
    return answer;
}

std::string requestFor(const std::string& path, const std::string& method = "GET",
                       const std::string& lines = "") {
    return method + " /hls/live" + path + " HTTP/1.1\r\nHost: relay\r\n" + lines + "\r\n";
}

/// One connection for many requests, against a relay that loops over a stream with a key picture each second.
class RelayHlsFetch : public testing::Test {
protected:
    Fetched fetch(const std::string& path, const std::string& method = "GET", const std::string& lines = "") {
        EXPECT_TRUE(client.send(requestFor(path, method, lines)));
        return readAnswer(client, method != "HEAD");
    }

    /// The playlist of now, which keeps to the rules.
    const Playlist& playlist(const std::string& query = "") {
        const Fetched answer = fetch(".m3u8" + query);
        EXPECT_EQ(200, answer.status()) << answer.head;
        EXPECT_THAT(rules.check(answer.body), IsEmpty()) << answer.body;
        return rules.last();
    }

    /// The arguments with which a client asks for the part that is hinted at.
    static std::string next(const Playlist& playlist) {
        const size_t slash = playlist.hint.find('/') + 1;
        const size_t dot = playlist.hint.find('.');
        return "?_HLS_msn=" + playlist.hint.substr(slash, dot - slash) +
               "&_HLS_part=" + playlist.hint.substr(dot + 1, playlist.hint.find('.', dot + 1) - dot - 1);
    }

    /// The path of what a playlist lists, after "/hls/live".
    static std::string pathOf(const std::string& uri) { return uri.substr(4); }

    const TempFolder folder;
    RelayProgram relay{{"--input", makeStream(folder, "libx264", 4, 25, true, "160x96"), "--loop"}};
    TcpClient client{relay.port()};
    PlaylistRules rules{60};  // a relay that waits for a processor sets the time of day anew
};

}  // namespace

// What a player does: it waits for each part, fetches it, and always on the same connection.
TEST_F(RelayHlsFetch, GivesEachPartWhenItIsThereAndKeepsTheConnection) {
    Playlist now = playlist();
    EXPECT_TRUE(now.blocks);
    std::string last;
    for (int i = 0; i < 12; ++i) {
        now = playlist(next(now));
        ASSERT_FALSE(now.segments.back().parts.empty());
        const std::string part = now.segments.back().parts.back().uri;
        EXPECT_NE(last, part);
        const Fetched bytes = fetch(pathOf(part));
        EXPECT_EQ(200, bytes.status());
        EXPECT_EQ("moof", bytes.body.substr(4, 4));
        last = part;
    }
    const Fetched hinted = fetch(pathOf(now.hint));
    EXPECT_TRUE(hinted.status() == 200 || hinted.status() == 404) << "404 if the segment ended";
    EXPECT_FALSE(client.isClosed());
    EXPECT_EQ(0, relay.end());
}

TEST_F(RelayHlsFetch, AnswersSoThatAnyCacheCanKeepIt) {
    const Fetched text = fetch(".m3u8");
    ASSERT_THAT(rules.check(text.body), IsEmpty());
    EXPECT_EQ("Content-Type: application/vnd.apple.mpegurl", text.line("Content-Type"));
    EXPECT_EQ("Cache-Control: public, max-age=1", text.line("Cache-Control"));
    EXPECT_EQ("Access-Control-Allow-Origin: *", text.line("Access-Control-Allow-Origin"));
    EXPECT_EQ("Connection: keep-alive", text.line("Connection"));
    for (Playlist now = rules.last(); now.segments.front().parts.empty(); now = playlist(next(now))) {
        if (now.segments.size() > 1 && !now.segments[1].uri.empty()) {
            break;  // of the first one parts may not be listed
        }
    }
    const ListedSegment segment =
        rules.last().segments.at(rules.last().segments.front().parts.empty() ? 1 : 0);
    const Fetched init = fetch(pathOf(segment.map));
    EXPECT_EQ("ftyp", init.body.substr(4, 4));
    const Fetched whole = fetch(pathOf(segment.uri));
    EXPECT_EQ("Cache-Control: public, max-age=31536000, immutable", whole.line("Cache-Control"));
    EXPECT_EQ("Content-Type: video/mp4", whole.line("Content-Type"));
    EXPECT_EQ("Access-Control-Allow-Origin: *", whole.line("Access-Control-Allow-Origin"));
    std::string parts;
    for (const ListedPart& part : segment.parts) {
        parts += fetch(pathOf(part.uri)).body;
    }
    EXPECT_EQ(10U, segment.parts.size());
    EXPECT_TRUE(whole.body == parts);
    const Fetched head = fetch(pathOf(segment.uri), "HEAD");
    EXPECT_EQ(whole.head, head.head) << "all but the bytes";
    const std::string tag = whole.line("ETag").substr(6);
    const Fetched known = fetch(pathOf(segment.uri), "GET", "If-None-Match: \"x\", " + tag + "\r\n");
    EXPECT_EQ(304, known.status());
    EXPECT_EQ(whole.line("ETag"), known.line("ETag"));
    EXPECT_EQ(200, fetch(pathOf(segment.uri), "GET", "If-None-Match: \"x\"\r\n").status());
    EXPECT_EQ(0, relay.end());
}

TEST_F(RelayHlsFetch, RefusesWithoutEndingTheConnection) {
    const uint64_t number = playlist().sequence;
    EXPECT_EQ(400, fetch(".m3u8?_HLS_msn=x").status());
    EXPECT_EQ(400, fetch(".m3u8?_HLS_part=1").status());
    EXPECT_EQ(400, fetch(".m3u8?_HLS_msn=" + std::to_string(number + 100)).status());
    const Fetched gone = fetch("/1.m4s");
    EXPECT_EQ(404, gone.status());
    EXPECT_EQ("Cache-Control: no-store", gone.line("Cache-Control"));
    EXPECT_EQ("404 Not Found\n", gone.body);
    EXPECT_EQ(404, fetch("/nothing").status());
    EXPECT_EQ(404, fetch("s.m3u8").status()) << "a stream of that name";
    EXPECT_FALSE(client.isClosed());
    EXPECT_EQ(0, relay.end());
}

TEST_F(RelayHlsFetch, AnswersRequestsInARowAndEndsWhenItIsAsked) {
    const Playlist now = playlist();
    const std::string waits = requestFor(".m3u8" + next(now));
    const std::string init = requestFor(pathOf(now.segments.front().map));
    ASSERT_TRUE(client.send(waits + init + init));
    ASSERT_TRUE(client.send(requestFor(".m3u8", "GET", "Connection: close\r\n")));
    EXPECT_THAT(rules.check(readAnswer(client).body), IsEmpty()) << "the first one waited";
    EXPECT_EQ("ftyp", readAnswer(client).body.substr(4, 4));
    EXPECT_EQ("ftyp", readAnswer(client).body.substr(4, 4));
    const Fetched last = readAnswer(client);
    EXPECT_EQ("Connection: close", last.line("Connection"));
    EXPECT_THAT(rules.check(last.body), IsEmpty());
    EXPECT_EQ("", client.receiveAll());
    EXPECT_TRUE(client.wasClosed());
    EXPECT_EQ(0, relay.end());
}

TEST_F(RelayHlsFetch, MakesNothingBeforeSomebodyAsksAndForgetsWhoeverLeaves) {
    EXPECT_EQ(0, relay.stats()["hls"]["bytes"]);
    {
        TcpClient other(relay.port());
        ASSERT_TRUE(other.send(requestFor(".m3u8")));
        ASSERT_EVENTUALLY(relay.stats()["hls"]["pending"] == 1);
    }
    ASSERT_EVENTUALLY(relay.stats()["hls"]["pending"] == 0);
    EXPECT_EQ(0, relay.stats()["hls"]["segments"]) << "it left before the first segment was whole";
    playlist();
    EXPECT_GT(relay.stats()["hls"]["bytes"], 0);
    EXPECT_EQ(0, relay.end());
}

// The kernel takes a few KB for it, and the rest goes when it reads.
TEST_F(RelayHlsFetch, WritesALargeSegmentToASlowClient) {
    const std::string path = pathOf(playlist().segments.front().uri);
    const std::string whole = fetch(path).body;
    TcpClient slow(relay.port(), "127.0.0.1", 65536);
    std::string many;
    for (int i = 0; i < 40; ++i) {
        many += requestFor(path);
    }
    ASSERT_TRUE(slow.send(many));
    playlist(next(rules.last()));
    for (int i = 0; i < 40; ++i) {
        ASSERT_TRUE(whole == readAnswer(slow).body) << i;
    }
    EXPECT_EQ(0, relay.end());
}

TEST(RelayHlsRefusal, SaysThatThereIsNoSuchStream) {
    RelayProgram relay({});
    EXPECT_THAT(relay.get("/hls/live.m3u8").substr(0, 12), testing::StrEq("HTTP/1.1 404"))
        << "a test picture";
    EXPECT_EQ(nullptr, relay.stats()["input"]["hls"]);
    EXPECT_EQ(0, relay.end());
}

TEST_F(RelayHlsFetch, IsReadByAPlayerWithoutAnError) {
    ChildProcess player({"sh", "-c",
                         "exec ffmpeg -v error -nostdin -i '" + relay.url("/hls/live.m3u8?token=1") +
                             "' -t 6 -map 0:v -f framecrc - 2>&1 | tail -n 1"});
    const std::string text = player.exchange("");
    EXPECT_EQ(0, player.wait(ChildProcess::WORK_LIMIT_MS)) << text;
    EXPECT_THAT(text, HasSubstr("149,")) << "the last picture of six seconds: " << text;
    EXPECT_EQ(0, relay.end());
}
