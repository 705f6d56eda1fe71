// RelayProgram: media_relay under test, with what its tests ask of it.
#pragma once

#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "support/program/ServerProgram.h"
#include "support/program/TcpClient.h"
#include "support/program/TempFolder.h"

namespace Orvex::Testing {

class RelayProgram : public ServerProgram {
public:
    explicit RelayProgram(const std::vector<std::string>& options) : ServerProgram("media_relay", options) {}

    std::string url(const std::string& path) const {
        return "http://127.0.0.1:" + std::to_string(port()) + path;
    }

    /// The whole answer to a request for this path.
    std::string get(const std::string& path) const {
        TcpClient client(port());
        client.send("GET " + path + " HTTP/1.1\r\nHost: relay\r\n\r\n");
        return client.receiveAll();
    }

    nlohmann::json stats() const {
        const std::string answer = get("/stats.json");
        const size_t body = answer.find("\r\n\r\n");
        return nlohmann::json::parse(body == std::string::npos ? "" : answer.substr(body), nullptr, false);
    }
};

/// A client that has asked for a path, and reads nothing by itself.
class Viewer : public TcpClient {
public:
    Viewer(const RelayProgram& relay, const std::string& path, int receive_bytes = 0)
        : TcpClient(relay.port(), "127.0.0.1", receive_bytes) {
        EXPECT_TRUE(send("GET " + path + " HTTP/1.1\r\nHost: relay\r\n\r\n"));
    }
};

/// The status of an answer.
inline std::string statusOf(const std::string& answer) {
    return answer.substr(0, answer.find('\r'));
}

/// Makes a transport stream with a test picture of 25 frames a second and a key frame every `group` of them,
/// and a tone if `sound`. The result is the file's name. A small picture costs an encoder little: some take
/// half a minute for a larger one on a busy machine.
inline std::string makeStream(const TempFolder& folder, const std::string& codec, int seconds, int group = 25,
                              bool sound = true, const std::string& size = "320x180") {
    const std::string file = folder.file(codec + ".ts");
    std::vector<std::string> command{"ffmpeg", "-v",    "error", "-nostdin",
                                     "-f",     "lavfi", "-i",    "testsrc2=size=" + size + ":rate=25"};
    const auto add = [&](const std::vector<std::string>& words) {
        command.insert(command.end(), words.begin(), words.end());
    };
    if (sound) {
        add({"-f", "lavfi", "-i", "sine=frequency=440:sample_rate=44100", "-c:a", "aac"});
    }
    add({"-t", std::to_string(seconds), "-c:v", codec, "-g", std::to_string(group), "-pix_fmt", "yuv420p"});
    if (codec == "libx265") {
        add({"-x265-params", "log-level=none:bframes=2:keyint=" + std::to_string(group)});
    }
    if (codec != "mpeg2video") {
        add({"-preset", "ultrafast"});
    }
    add({"-bf", "2", "-f", "mpegts", file});
    ChildProcess ffmpeg(command);
    EXPECT_EQ(0, ffmpeg.wait(ChildProcess::WORK_LIMIT_MS));
    return file;
}

}  // namespace Orvex::Testing
