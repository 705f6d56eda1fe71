// media_relay and the programs that people use with it: players, and a browser.
#include <fstream>
#include <string>

#include <gtest/gtest.h>

#include "support/Eventually.h"
#include "support/program/Browser.h"
#include "support/program/RelayProgram.h"

using namespace Orvex::Testing;
using nlohmann::json;

namespace {

/// What ffprobe finds in some seconds of a video or audio stream ('v' or 'a'), its complaints included.
/// They are counted from the first packet of that stream: which kind comes first depends on where the
/// player joins.
std::string probe(const std::string& url, char kind, int seconds) {
    ChildProcess ffprobe(
        {"sh", "-c",
         "exec ffprobe -v warning -select_streams " + std::string(1, kind) + " -read_intervals %+" +
             std::to_string(seconds) +
             " -count_frames -show_entries stream=codec_name,nb_read_frames -of compact=p=0 '" + url +
             "' 2>&1"});
    const std::string text = ffprobe.exchange("");
    EXPECT_EQ(0, ffprobe.wait(ChildProcess::WORK_LIMIT_MS)) << text;
    return text;
}

/// Plays some seconds through the decoders; the result is what they complain of.
std::string complaints(const std::string& url, const std::string& seconds) {
    ChildProcess ffmpeg(
        {"sh", "-c", "exec ffmpeg -v error -nostdin -i '" + url + "' -t " + seconds + " -f null - 2>&1"});
    const std::string text = ffmpeg.exchange("");
    EXPECT_EQ(0, ffmpeg.wait(ChildProcess::WORK_LIMIT_MS));
    return text;
}

/// The number after `name=` in the line of a stream of that codec.
int field(const std::string& text, const std::string& codec, const std::string& name) {
    const size_t line = text.find("codec_name=" + codec);
    const size_t at = line == std::string::npos ? line : text.find(name + "=", line);
    return at == std::string::npos ? -1 : std::atoi(text.c_str() + at + name.size() + 1);
}

/// The options with which no client is slow, however long its process waits for a processor: the kernel
/// holds for it more than these tests play, and nobody is made to skip.
std::vector<std::string> patient(std::vector<std::string> options) {
    options.insert(options.end(), {"--sndbuf", "4194304", "--max-lag", "0"});
    return options;
}

/// Plays a file of that codec from somewhere in the middle of it.
void playFromTheMiddle(const std::string& encoder, const std::string& codec) {
    const TempFolder folder;
    RelayProgram relay(
        patient({"--input", makeStream(folder, encoder, 3, 25, true, "160x96"), "--loop", "--speed", "4"}));
    ASSERT_EVENTUALLY(relay.stats()["input"]["frames"] > 10);
    const std::string video = probe(relay.url("/live.ts"), 'v', 2);
    EXPECT_GE(field(video, codec, "nb_read_frames"), 49) << video;
    EXPECT_LE(field(video, codec, "nb_read_frames"), 52) << video;
    const std::string audio = probe(relay.url("/live.ts"), 'a', 2);
    EXPECT_GE(field(audio, "aac", "nb_read_frames"), 80) << audio;  // of 86, at 44100 / 1024 a second
    EXPECT_LE(field(audio, "aac", "nb_read_frames"), 90) << audio;
    EXPECT_EQ("", complaints(relay.url("/live.ts"), "2"));
    EXPECT_EQ(0, relay.end());
}

}  // namespace

TEST(RelayPlayers, PlaysH264FromTheMiddleWithoutAnError) {
    playFromTheMiddle("libx264", "h264");
}

TEST(RelayPlayers, PlaysH265FromTheMiddleWithoutAnError) {
    playFromTheMiddle("libx265", "hevc");
}

TEST(RelayPlayers, PlaysMpeg2FromTheMiddleWithoutAnError) {
    playFromTheMiddle("mpeg2video", "mpeg2video");
}

// Clock, time stamps and counters go on where the file begins again: four rounds are one
// stream. The sound of this file is longer than its picture, so a round lasts a little longer than one
// second.
TEST(RelayPlayers, PlaysALoopWithoutASeam) {
    const TempFolder folder;
    RelayProgram relay(patient({"--input", makeStream(folder, "libx264", 1), "--loop", "--speed", "4"}));
    const std::string found = probe(relay.url("/live.ts"), 'v', 4);
    EXPECT_GE(field(found, "h264", "nb_read_frames"), 94) << found;
    EXPECT_LE(field(found, "h264", "nb_read_frames"), 102) << found;
    EXPECT_EQ(found.find("DTS"), std::string::npos) << found;
    EXPECT_EQ("", complaints(relay.url("/live.ts"), "4"));
    EXPECT_GE(relay.stats()["input"]["rounds"], 3);
    EXPECT_EQ(0, relay.end());
}

// A client of half the stream's speed skips ahead to key frames. What it gets is less, and all of it can be
// decoded.
TEST(RelayPlayers, GivesASlowPlayerOnlyWhatDecodes) {
    const TempFolder folder;
    RelayProgram relay({"--input", makeStream(folder, "libx264", 4, 10, false), "--loop", "--speed", "4",
                        "--sndbuf", "4096", "--max-lag", "200"});
    Viewer slow(relay, "/live.ts", 4096);
    while (slow.receiveLine() != "\r" && !slow.wasClosed()) {
    }
    const double before = relay.stats()["input"]["bytes"];
    std::string bytes;
    json stats = relay.stats();
    while (stats["clients"][0]["dropped_frames"] < 50 && !HasFailure()) {
        if (static_cast<double>(bytes.size()) < (stats["input"]["bytes"].get<double>() - before) / 2) {
            bytes += slow.receive(3760);
        }
        stats = relay.stats();
        ASSERT_EQ(1U, stats["clients"].size());
    }
    EXPECT_EQ(0, relay.end());

    size_t end = 0;  // of the last picture that is whole
    for (size_t at = 0; at + 188 <= bytes.size(); at += 188) {
        const bool picture = (bytes[at + 1] & 0x1F) == 1 && bytes[at + 2] == 0;
        end = picture && (bytes[at + 1] & 0x40) != 0 ? at : end;
    }
    ASSERT_GT(end, 188U * 100);
    const std::string file = folder.file("slow.ts");
    std::ofstream(file, std::ios::binary) << bytes.substr(0, end);
    EXPECT_EQ("", complaints(file, "100"));
}

TEST(RelayPlayers, GivesThePlayerThatWasThereTheWholeFile) {
    const TempFolder folder;
    const std::string file = makeStream(folder, "libx264", 2);
    ChildProcess relay({RETICOR_EXAMPLES_DIR "/media_relay", "--port", "0", "--input", "-"});
    const std::string address = relay.readLine().substr(13);
    ChildProcess ffprobe({"ffprobe", "-v", "error", "-count_packets", "-show_entries",
                          "stream=codec_name,nb_read_packets", "-of", "compact=p=0",
                          "http://" + address + "/live.ts"});
    TcpClient watcher(std::stoi(address.substr(address.rfind(':') + 1)));
    ASSERT_EVENTUALLY([&] {  // the input begins when the player waits for it
        TcpClient client(std::stoi(address.substr(address.rfind(':') + 1)));
        client.send("GET /stats.json HTTP/1.1\r\n\r\n");
        return client.receiveAll().find("waiting") != std::string::npos;
    }());
    ChildProcess cat({"cat", file});
    relay.exchange(cat.exchange(""));
    EXPECT_EQ(0, relay.wait());  // the input has ended
    const std::string found = ffprobe.exchange("");
    EXPECT_EQ(50, field(found, "h264", "nb_read_packets")) << found;
    EXPECT_EQ(0, ffprobe.wait(ChildProcess::WORK_LIMIT_MS));
}

TEST(RelayPlayers, PlaysTheTestPicture) {
    RelayProgram relay(patient({"--fps", "50"}));
    const std::string found = probe(relay.url("/live.mjpg"), 'v', 1);
    EXPECT_GE(field(found, "mjpeg", "nb_read_frames"), 20) << found;
    EXPECT_EQ("", complaints(relay.url("/live.mjpg"), "0.5"));
    EXPECT_EQ(0, relay.end());
}

TEST(RelayPlayers, AnswersCurl) {
    RelayProgram relay({});
    const auto curl = [&](const std::vector<std::string>& options, const std::string& path) {
        std::vector<std::string> command{"curl", "-s", "-m", "20"};
        command.insert(command.end(), options.begin(), options.end());
        command.push_back(relay.url(path));
        return ChildProcess(command).exchange("");
    };
    EXPECT_NE(curl({}, "/").find("<title>media_relay</title>"), std::string::npos);
    EXPECT_TRUE(json::parse(curl({}, "/stats.json"))["buffer"].contains("frames"));
    EXPECT_EQ("404", curl({"-o", "/dev/null", "-w", "%{http_code}"}, "/nothing"));
    EXPECT_EQ("404", curl({"-o", "/dev/null", "-w", "%{http_code}"}, "/live.ts"));  // there is a test picture
    EXPECT_EQ("405", curl({"-o", "/dev/null", "-w", "%{http_code}", "-d", "x=1"}, "/"));
    EXPECT_NE(curl({"-I"}, "/live.mjpg").find("multipart/x-mixed-replace"), std::string::npos);
    ChildProcess live({"sh", "-c", "curl -s -m 20 " + relay.url("/live.mjpg") + " | head -c 100000"});
    EXPECT_NE(live.exchange("").find("X-Frame: "), std::string::npos);
    EXPECT_EQ(0, relay.end());
}

// The page as a person sees it: the picture moves, the plots draw, and a client that stalls is shown as such.
TEST(RelayPlayers, ShowsThePageInABrowser) {
    RelayProgram relay({"--size", "320x180", "--stall-timeout", "60"});
    Browser browser(relay.url("/"));
    EXPECT_TRUE(browser.becomesTrue(R"(
        (() => {
            const image = document.getElementById("picture");
            if (!image || !image.complete && image.naturalWidth === 0) return false;
            const canvas = document.createElement("canvas");
            canvas.width = 320;
            canvas.height = 180;
            const context = canvas.getContext("2d");
            context.drawImage(image, 0, 0);
            const data = context.getImageData(0, 0, 320, 180).data;
            let sum = 0;
            for (let i = 0; i < data.length; ++i) sum = (sum * 31 + data[i]) | 0;
            window.sums = (window.sums || new Set()).add(sum);
            return window.sums.size >= 5;
        })())"))
        << "the picture does not move";
    const std::string painted = R"(
        ["rate", "backlog", "drops", "fill"].every(id => {
            const canvas = document.getElementById(id);
            const data = canvas.getContext("2d").getImageData(0, 0, canvas.width, canvas.height).data;
            const colours = new Set();
            for (let i = 0; i < data.length; i += 4) {
                if (data[i + 3] > 200) colours.add(data[i] << 16 | data[i + 1] << 8 | data[i + 2]);
            }
            return colours.size >= 3;
        }))";
    EXPECT_TRUE(browser.becomesTrue(painted)) << "a plot does not draw";

    const Viewer stalled(relay, "/live.mjpg", 4096);
    EXPECT_TRUE(browser.becomesTrue(R"(document.querySelectorAll("#clients tr.stalled").length === 1)"))
        << "the stalled client does not show";
    EXPECT_TRUE(browser.becomesTrue(R"(document.querySelectorAll("#clients tr.live").length === 1)"))
        << "the browser's own picture is no live client";
    EXPECT_EQ(0, relay.end());
}

// Pictures out of order and sound, in a page that was opened after the stream had begun.
TEST(RelayPlayers, PlaysH264InABrowser) {
    const TempFolder folder;
    RelayProgram relay(patient({"--input", makeStream(folder, "libx264", 3, 25, true, "160x96"), "--loop"}));
    const std::string found = probe(relay.url("/live.mp4"), 'v', 1);
    EXPECT_GE(field(found, "h264", "nb_read_frames"), 24) << found;
    EXPECT_LE(field(found, "h264", "nb_read_frames"), 27) << found;
    Browser browser(relay.url("/"));
    EXPECT_TRUE(browser.becomesTrue(R"(
        (() => {
            const video = document.getElementById("picture");
            if (!video || video.buffered.length === 0) return false;
            window.began = window.began ?? video.currentTime;
            const pictures = video.getVideoPlaybackQuality().totalVideoFrames;
            return video.currentTime > window.began + 1.5 && pictures > 30;
        })())"))
        << "the picture does not move";
    EXPECT_EQ(1, browser.evaluate("picture.buffered.length")) << "nothing is missing in between";
    EXPECT_EQ(160, browser.evaluate("picture.videoWidth"));
    EXPECT_EQ(nullptr, browser.evaluate("picture.error"));
    EXPECT_TRUE(browser.becomesTrue(R"(/^\d\.\d s after the server/.test(delay.textContent))"));
    EXPECT_EQ("", browser.evaluate("note.textContent"));
    EXPECT_EQ(0, relay.end());
}

TEST(RelayPlayers, TellsABrowserHowToPlayWhatItCannot) {
    const TempFolder folder;
    RelayProgram relay({"--input", makeStream(folder, "libx265", 1, 25, false, "160x96"), "--loop"});
    EXPECT_NE(std::string::npos, probe(relay.url("/live.mp4"), 'v', 1).find("codec_name=hevc"));
    Browser browser(relay.url("/"));
    EXPECT_TRUE(browser.becomesTrue("document.getElementById('view').textContent.includes('" +
                                    relay.url("/live.ts") + "')"));
    EXPECT_EQ("This browser does not play H.265 pictures. Any of these does:",
              browser.evaluate("sentence.textContent"));
    EXPECT_EQ(0, relay.end());
}
