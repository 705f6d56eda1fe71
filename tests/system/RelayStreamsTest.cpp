// Several streams of one media_relay, by name: each path gives the bytes of its own.
#include <cstdlib>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/Eventually.h"
#include "support/program/Browser.h"
#include "support/program/RelayProgram.h"

using namespace Orvex::Testing;
using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

namespace {

const std::string kSequenceHead("\0\0\1\xB3", 4);  // of MPEG-2 pictures; H.264 has nothing like it

nlohmann::json bodyOf(const std::string& answer) {
    const size_t body = answer.find("\r\n\r\n");
    return nlohmann::json::parse(body == std::string::npos ? "" : answer.substr(body), nullptr, false);
}

/// "320x240", as the first JPEG in `bytes` says.
std::string pictureSize(const std::string& bytes) {
    const size_t at = bytes.find("\xFF\xC0");
    if (at == std::string::npos || at + 9 > bytes.size()) {
        return "none";
    }
    const auto number = [&](size_t offset) {
        return std::to_string(static_cast<uint8_t>(bytes[at + offset]) << 8 |
                              static_cast<uint8_t>(bytes[at + offset + 1]));
    };
    return number(7) + "x" + number(5);
}

/// The size of the picture that stands at `path`.
std::string sizeAt(const RelayProgram& relay, const std::string& path) {
    Viewer viewer(relay, path);
    return pictureSize(viewer.receive(8000));
}

/// The answer of a relay that would keep the connection.
std::string fetch(const RelayProgram& relay, const std::string& path) {
    TcpClient client(relay.port());
    client.send("GET " + path + " HTTP/1.1\r\nConnection: close\r\n\r\n");
    return client.receiveAll();
}

/// One request of RTSP on a connection of its own.
std::string askRtsp(int port, const std::string& method, const std::string& path,
                    const std::string& headers = "") {
    TcpClient client(port);
    EXPECT_TRUE(client.send(method + " rtsp://127.0.0.1:" + std::to_string(port) + path +
                            " RTSP/1.0\r\nCSeq: 1\r\n" + headers + "\r\n"));
    std::string head;
    for (std::string line = client.receiveLine(); line.size() > 1; line = client.receiveLine()) {
        head += line + "\n";
    }
    const size_t length = head.find("Content-Length: ");
    return length == std::string::npos ? head : head + client.receive(std::stoul(head.substr(length + 16)));
}

/// What the program says until it ends, and how it ends.
std::string runStreams(const std::vector<std::string>& options, int& result) {
    std::string command = "exec " RETICOR_EXAMPLES_DIR "/media_relay --port 0";
    for (const std::string& option : options) {
        command += " '" + option + "'";
    }
    ChildProcess relay({"sh", "-c", command + " 2>&1"});
    const std::string text = relay.exchange("");
    result = relay.wait();
    return text;
}

/// Two transport streams of different codecs and a test picture.
class RelayStreams : public ::testing::Test {
protected:
    RelayStreams() {
        const std::string door = "http://127.0.0.1:" + std::to_string(relay.port());
        EXPECT_EQ("page: " + door + "/", relay.readLine());
        EXPECT_EQ("live: " + door + "/live.ts", relay.readLine());
        const std::string line = relay.readLine();
        rtspPort = std::atoi(line.substr(line.rfind(':') + 1).c_str());
        const std::string rtsp = "rtsp: rtsp://127.0.0.1:" + std::to_string(rtspPort);
        EXPECT_EQ(rtsp + "/live", line);
        EXPECT_EQ("stream: " + door + "/cam-2.ts", relay.readLine());
        EXPECT_EQ(rtsp + "/cam-2", relay.readLine());
        EXPECT_EQ("stream: " + door + "/pic.mjpg", relay.readLine());
    }

    const TempFolder folder;
    const std::string h264 = makeStream(folder, "libx264", 4, 10, true, "160x96");
    const std::string mpeg2 = makeStream(folder, "mpeg2video", 4, 10, false, "160x96");
    RelayProgram relay{{"--rtsp", "0", "--loop", "--input", mpeg2, "--stream", "cam-2=" + h264, "--stream",
                        "pic=test:160x120"}};
    int rtspPort = 0;
};

}  // namespace

TEST(RelayNames, TwoTestPicturesOfDifferentSize) {
    RelayProgram relay(
        {"--input", "test", "--stream", "small=test:160x120", "--stream", "same=test", "--size", "320x240"});
    EXPECT_EQ("320x240", sizeAt(relay, "/live.mjpg"));
    EXPECT_EQ("160x120", sizeAt(relay, "/small.mjpg"));
    EXPECT_EQ("320x240", sizeAt(relay, "/same.mjpg"));
    for (const std::string path :
         {"/other.mjpg", "/small.ts", "/small.mp4", "/small", "/small.", "/.mjpg", "/hls/small.m3u8",
          "/stats.json?stream=other", "/history.json?stream=other", "/stats.json?stream="}) {
        EXPECT_EQ("HTTP/1.1 404 Not Found", statusOf(fetch(relay, path))) << path;
    }
    EXPECT_EQ(0, relay.end());
}

TEST(RelayNames, WithoutAnInputTheNamedStreamsAreAllThereIs) {
    RelayProgram relay({"--stream", "a.b_c-1=test:160x120"});
    EXPECT_EQ("160x120", sizeAt(relay, "/a.b_c-1.mjpg"));
    EXPECT_EQ("HTTP/1.1 404 Not Found", statusOf(relay.get("/live.mjpg")));
    const nlohmann::json stats = relay.stats();
    EXPECT_EQ("a.b_c-1", stats["stream"]);
    EXPECT_EQ("/a.b_c-1.mjpg", stats["input"]["live"]);
    EXPECT_EQ(1U, stats["streams"].size());
    EXPECT_EQ(0, relay.end());
}

TEST_F(RelayStreams, GivesTheBytesOfEachTransportStream) {
    Viewer first(relay, "/live.ts");
    Viewer second(relay, "/cam-2.ts");
    EXPECT_THAT(first.receive(60000), HasSubstr(kSequenceHead));
    EXPECT_THAT(second.receive(60000), Not(HasSubstr(kSequenceHead)));
    EXPECT_EQ("160x120", sizeAt(relay, "/pic.mjpg"));

    Viewer fragments(relay, "/cam-2.mp4");
    EXPECT_THAT(fragments.receive(2000), AllOf(StartsWith("HTTP/1.1 200 OK"), HasSubstr("avc1")));
    EXPECT_THAT(relay.get("/live.mp4"), AllOf(StartsWith("HTTP/1.1 404"), HasSubstr("MPEG-2")));
    EXPECT_EQ(0, relay.end());
}

TEST_F(RelayStreams, SegmentsAndPartsStandBelowTheNameOfTheirStream) {
    const std::string playlist = fetch(relay, "/hls/cam-2.m3u8");
    EXPECT_THAT(playlist, StartsWith("HTTP/1.1 200 OK"));
    for (const std::string ending : {".m4s", ".mp4"}) {
        const size_t begin = playlist.find("cam-2/");
        ASSERT_NE(std::string::npos, begin) << playlist;
        const size_t end = playlist.find(ending, begin) + ending.size();
        const size_t start = playlist.rfind("cam-2/", end);
        const std::string piece = playlist.substr(start, end - start);
        EXPECT_THAT(fetch(relay, "/hls/" + piece), StartsWith("HTTP/1.1 200 OK")) << piece;
        EXPECT_THAT(fetch(relay, "/hls/live/" + piece.substr(6)), StartsWith("HTTP/1.1 404")) << piece;
    }
    EXPECT_THAT(fetch(relay, "/hls/live.m3u8"), StartsWith("HTTP/1.1 404"));
    EXPECT_THAT(fetch(relay, "/hls/pic.m3u8"), StartsWith("HTTP/1.1 404"));
    EXPECT_THAT(fetch(relay, "/hls/other.m3u8"), StartsWith("HTTP/1.1 404"));
    EXPECT_EQ(0, relay.end());
}

TEST_F(RelayStreams, DescribesByRtspTheStreamThatIsNamed) {
    const std::string host = "rtsp://127.0.0.1:" + std::to_string(rtspPort);
    EXPECT_THAT(askRtsp(rtspPort, "DESCRIBE", "/cam-2"),
                AllOf(HasSubstr("Content-Base: " + host + "/cam-2/\r"), HasSubstr("H264/90000"),
                      HasSubstr("a=control:" + host + "/cam-2/track1\r")));
    for (const std::string path : {"/live", "/live/", "/", ""}) {
        EXPECT_THAT(askRtsp(rtspPort, "DESCRIBE", path),
                    AllOf(HasSubstr("RTP/AVP 33"), Not(HasSubstr("H264"))))
            << path;
    }
    const std::string way = "Transport: RTP/AVP/TCP;unicast;interleaved=0-1\r\n";
    for (const std::string path : {"/other", "/pic", "/cam-2/live", "/live.ts"}) {
        EXPECT_THAT(askRtsp(rtspPort, "DESCRIBE", path), StartsWith("RTSP/1.0 404")) << path;
        EXPECT_THAT(askRtsp(rtspPort, "SETUP", path + "/track0", way), StartsWith("RTSP/1.0 404")) << path;
    }
    EXPECT_THAT(askRtsp(rtspPort, "SETUP", "/live/track1", way), StartsWith("RTSP/1.0 404"))
        << "a track that only the other stream has";
    EXPECT_EQ(0, relay.end());
}

TEST_F(RelayStreams, HasAPairOfPortsForEachStream) {
    const std::string way = "Transport: RTP/AVP;unicast;client_port=40000-40001\r\n";
    const auto portOf = [&](const std::string& path) {
        const std::string answer = askRtsp(rtspPort, "SETUP", path + "/track0", way);
        const size_t at = answer.find("server_port=");
        return at == std::string::npos ? 0 : std::atoi(answer.c_str() + at + 12);
    };
    EXPECT_NE(0, portOf("/live"));
    EXPECT_NE(0, portOf("/cam-2"));
    EXPECT_NE(portOf("/live"), portOf("/cam-2"));
    EXPECT_EQ(0, relay.end());
}

TEST_F(RelayStreams, ASessionOfRtspPlaysOneStream) {
    TcpClient client(rtspPort);
    const std::string host = "rtsp://127.0.0.1:" + std::to_string(rtspPort);
    const auto setUp = [&](const std::string& path) {
        EXPECT_TRUE(client.send("SETUP " + host + path +
                                " RTSP/1.0\r\nCSeq: 1\r\n"
                                "Transport: RTP/AVP/TCP;unicast;interleaved=0-1\r\n\r\n"));
        const std::string status = client.receiveLine();
        while (client.receiveLine().size() > 1) {
        }
        return status;
    };
    EXPECT_EQ("RTSP/1.0 200 OK\r", setUp("/cam-2/track0"));
    EXPECT_EQ("RTSP/1.0 459 Aggregate Operation Not Allowed\r", setUp("/live/track0"));
    EXPECT_EQ(1U, bodyOf(relay.get("/stats.json?stream=cam-2"))["rtsp"].size());
    EXPECT_EQ(0U, relay.stats()["rtsp"].size());
    EXPECT_EQ(0, relay.end());
}

TEST_F(RelayStreams, ShowsTheFiguresOfEach) {
    const Viewer first(relay, "/live.ts");
    const Viewer second(relay, "/cam-2.ts");
    const Viewer third(relay, "/cam-2.mp4");
    ASSERT_EVENTUALLY(relay.stats()["streams"][1]["clients"] == 2);
    const nlohmann::json stats = relay.stats();
    EXPECT_EQ("live", stats["stream"]);
    EXPECT_EQ("/live.ts", stats["input"]["live"]);
    EXPECT_EQ(1U, stats["clients"].size());
    EXPECT_EQ(3, stats["totals"]["clients"]);
    ASSERT_EQ(3U, stats["streams"].size());
    const std::vector<std::string> names{"live", "cam-2", "pic"};
    for (size_t i = 0; i < names.size(); ++i) {
        EXPECT_EQ(names[i], stats["streams"][i]["name"]);
        EXPECT_EQ(false, stats["streams"][i]["ended"]);
    }
    EXPECT_EVENTUALLY(relay.stats()["streams"][2]["kind"] == "test picture 160x120");
    EXPECT_EQ(0, stats["streams"][2]["clients"]);

    const nlohmann::json named = bodyOf(relay.get("/stats.json?t=1&stream=cam-2"));
    EXPECT_EQ("cam-2", named["stream"]);
    EXPECT_EQ("/cam-2.ts", named["input"]["live"]);
    EXPECT_EQ("/cam-2.mp4", named["input"]["mp4"]);
    EXPECT_EQ("/hls/cam-2.m3u8", named["input"]["hls"]);
    EXPECT_EQ(2U, named["clients"].size());

    const auto watched = [&](const std::string& path) {
        const nlohmann::json past = bodyOf(relay.get(path))["samples"];
        return past.empty() ? 0U : past.back()["clients"].size();
    };
    EXPECT_EVENTUALLY(watched("/history.json?stream=cam-2") == 2U);
    EXPECT_EQ(1U, watched("/history.json"));
    EXPECT_EQ(0U, watched("/history.json?stream=pic"));
    EXPECT_EQ(0, relay.end());
}

TEST_F(RelayStreams, ThePageShowsTheStreamThatIsNamedAndLinksToTheOthers) {
    Browser browser(relay.url("/?stream=pic"));
    EXPECT_TRUE(browser.becomesTrue(R"(
        (() => {
            const image = document.getElementById("picture");
            return image !== null && image.src.endsWith("/pic.mjpg") && image.naturalWidth === 160;
        })())"));
    EXPECT_EQ("/?stream=live /?stream=cam-2", browser.evaluate(R"(
        Array.from(document.querySelectorAll("#streams a")).map(a => a.getAttribute("href")).join(" "))"));
    Browser other(relay.url("/?stream=other"));
    EXPECT_TRUE(other.becomesTrue(
        R"(document.getElementById("note").textContent === "there is no stream of this name")"));
    EXPECT_EQ(0, relay.end());
}

// The end of one is told, and the others go on.
TEST(RelayNames, EndsWhenAllStreamsHaveEnded) {
    const TempFolder folder;
    const std::string brief = makeStream(folder, "mpeg2video", 1, 10, false, "160x96");
    RelayProgram relay({"--stream", "brief=" + brief, "--stream", "pic=test:160x120"});
    ASSERT_EVENTUALLY(relay.stats()["streams"][0]["ended"] == true);
    const auto played = [&] { return relay.stats()["streams"][1]["input"].value("seconds", 0.0); };
    const double then = played();
    EXPECT_EVENTUALLY(played() > then + 2) << "the relay looks twice a second whether all is over";
    EXPECT_EQ(false, relay.stats()["streams"][1]["ended"]);
    EXPECT_EQ(0, relay.end());

    int result = -1;
    const std::string text =
        runStreams({"--stream", "a=" + brief, "--stream", "b=" + brief, "--speed", "10"}, result);
    EXPECT_EQ(0, result);
    EXPECT_THAT(text, AllOf(HasSubstr("media_relay: stream a has ended\n"),
                            HasSubstr("media_relay: stream b has ended\n")));
}

TEST(RelayNames, SaysWhatIsWrongWithAStream) {
    const std::string rule =
        "begins with what is no name of a stream, which has 1 to 64 letters, digits, - _ and .";
    const std::map<std::string, std::string> wrong{
        {"x", "x is no NAME=INPUT"},
        {"x=", "x= is no NAME=INPUT"},
        {"=test", "=test " + rule},
        {"a/b=test", "a/b=test " + rule},
        {"..=test", "..=test " + rule},
        {"a b=test", "a b=test " + rule},
        {std::string(65, 'n') + "=test", rule},
        {"live=test", "live=test has the name of another stream"},
        {"x=test:3x3", "x=test:3x3 names a picture whose size is no size like 640x360"},
        {"x=/is/not/there.ts", "media_relay: /is/not/there.ts: No such file or directory"},
    };
    for (const auto& [option, sentence] : wrong) {
        int result = 0;
        EXPECT_THAT(runStreams({"--input", "test", "--stream", option}, result), HasSubstr(sentence));
        EXPECT_NE(0, result) << option;
    }
    int result = 0;
    EXPECT_THAT(runStreams({"--stream", "a=-", "--stream", "b=-"}, result),
                HasSubstr("b=- reads what another stream reads"));
    EXPECT_NE(0, result);
    EXPECT_THAT(runStreams({"--stream", "a=test", "--rtsp", "0"}, result), HasSubstr("--rtsp needs"));
}
