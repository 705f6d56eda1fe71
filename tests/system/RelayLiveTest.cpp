// media_relay with inputs that come at a pace of their own: datagrams, RTP, groups, and pipes.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <chrono>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/Eventually.h"
#include "support/program/RelayProgram.h"

using namespace Orvex::Testing;
using nlohmann::json;

namespace {

constexpr size_t kLivePacket = 188;
constexpr size_t kUsualDatagram = 1472;  // of ffmpeg: seven packets, and a piece of an eighth

std::string bytesOfFile(const std::string& file) {
    std::ifstream stream(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
}

/// Sends datagrams from a numeric address of this machine; to groups, by the loopback interface.
class DatagramSender {
public:
    explicit DatagramSender(const std::string& from = "127.0.0.1") {
        const sockaddr_in local = addressOf(from, 0);
        in_addr loopback{htonl(INADDR_LOOPBACK)};
        EXPECT_EQ(0, bind(m_fd, reinterpret_cast<const sockaddr*>(&local), sizeof local));
        EXPECT_EQ(0, setsockopt(m_fd, IPPROTO_IP, IP_MULTICAST_IF, &loopback, sizeof loopback));
    }
    ~DatagramSender() { ::close(m_fd); }
    DatagramSender(const DatagramSender&) = delete;
    DatagramSender& operator=(const DatagramSender&) = delete;

    void send(const std::string& bytes, const std::string& ip, int port) const {
        const sockaddr_in to = addressOf(ip, port);
        EXPECT_EQ(
            static_cast<ssize_t>(bytes.size()),
            sendto(m_fd, bytes.data(), bytes.size(), 0, reinterpret_cast<const sockaddr*>(&to), sizeof to));
    }

    static sockaddr_in addressOf(const std::string& ip, int port) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<uint16_t>(port));
        inet_pton(AF_INET, ip.c_str(), &address.sin_addr);
        return address;
    }

private:
    const int m_fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
};

/// A port for datagrams that nobody has at this moment.
int freePort() {
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = DatagramSender::addressOf("0.0.0.0", 0);
    socklen_t length = sizeof address;
    EXPECT_EQ(0, bind(fd, reinterpret_cast<sockaddr*>(&address), length));
    EXPECT_EQ(0, getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length));
    ::close(fd);
    return ntohs(address.sin_port);
}

std::string inputAt(const std::string& scheme, const std::string& ip, int port,
                    const std::string& more = "") {
    return scheme + "://" + ip + ":" + std::to_string(port) + more;
}

/// What the input tells twice a second: whoever compares figures waits for its `seconds` first.
json inputOf(const RelayProgram& relay) {
    return relay.stats()["input"];
}

/// Sends a stream as ffmpeg does by default, without those datagrams whose numbers are in `missing`. Each
/// time after a few of them it waits until the relay has them: nothing else may lose one.
void sendBytes(const RelayProgram& relay, const std::string& bytes, const std::string& ip, int port,
               const std::vector<size_t>& missing = {}) {
    const DatagramSender sender;
    for (size_t number = 0; number * kUsualDatagram < bytes.size(); ++number) {
        if (std::find(missing.begin(), missing.end(), number) == missing.end()) {
            sender.send(bytes.substr(number * kUsualDatagram, kUsualDatagram), ip, port);
        }
        if (number % 16 == 15) {
            usleep(5000);
        }
    }
    ASSERT_EVENTUALLY(inputOf(relay)["seconds"] > 1.7);
}

/// A packet of RTP with seven packets of a transport stream.
std::string rtpPacket(unsigned number, const std::string& bytes) {
    std::string packet{'\x80', '\x21', static_cast<char>(number >> 8), static_cast<char>(number)};
    packet.resize(12);
    return packet + bytes.substr(number * 7 * kLivePacket, 7 * kLivePacket);
}

/// What a decoder complains of in what a viewer got.
std::string complaintsAbout(const std::string& bytes, const TempFolder& folder) {
    const std::string file = folder.file("got.ts");
    std::ofstream(file, std::ios::binary) << bytes;
    ChildProcess ffmpeg({"sh", "-c", "exec ffmpeg -v error -nostdin -i '" + file + "' -f null - 2>&1"});
    const std::string text = ffmpeg.exchange("");
    EXPECT_EQ(0, ffmpeg.wait(ChildProcess::WORK_LIMIT_MS));
    return text;
}

/// Plays what ffmpeg sends by these options to a player.
void playFromFfmpeg(const std::string& name, const std::vector<std::string>& output) {
    const TempFolder folder;
    RelayProgram relay({"--input", name, "--sndbuf", "4194304", "--max-lag", "0"});
    std::vector<std::string> command{"ffmpeg",
                                     "-v",
                                     "error",
                                     "-nostdin",
                                     "-re",
                                     "-i",
                                     makeStream(folder, "libx264", 4, 10, true, "160x96"),
                                     "-c",
                                     "copy"};
    command.insert(command.end(), output.begin(), output.end());
    Viewer viewer(relay, "/live.ts");
    ChildProcess ffmpeg(command);
    EXPECT_EQ(0, ffmpeg.wait());
    ASSERT_EVENTUALLY(inputOf(relay)["seconds"] > 3.7);
    const json input = inputOf(relay);
    EXPECT_EQ(0, input["lost_packets"]);
    EXPECT_EQ(0, input["skipped_bytes"]);
    EXPECT_EQ(0, input["damaged_packets"]);
    EXPECT_EQ(0, input["bad_datagrams"]);
    EXPECT_EQ(0, relay.end());
    while (viewer.receiveLine() != "\r" && !viewer.wasClosed()) {
    }
    const std::string got = viewer.receiveAll();
    EXPECT_GT(got.size(), 400 * kLivePacket);
    EXPECT_EQ("", complaintsAbout(got, folder));
}

}  // namespace

TEST(RelayLive, PlaysWhatFfmpegSendsByUdp) {
    const int port = freePort();
    playFromFfmpeg(inputAt("udp", "127.0.0.1", port), {"-f", "mpegts", inputAt("udp", "127.0.0.1", port)});
}

TEST(RelayLive, PlaysWhatFfmpegSendsByRtp) {
    const int port = freePort();
    playFromFfmpeg(inputAt("rtp", "@0.0.0.0", port), {"-f", "rtp_mpegts", inputAt("rtp", "127.0.0.1", port)});
}

TEST(RelayLive, PlaysAGroup) {
    const int port = freePort();
    playFromFfmpeg(inputAt("udp", "@239.255.77.9", port, "?iface=127.0.0.1"),
                   {"-f", "mpegts", inputAt("udp", "239.255.77.9", port, "?localaddr=127.0.0.1")});
}

// Datagrams of the one sender that is wanted, and of nobody else.
TEST(RelayLive, JoinsAGroupForOneSource) {
    const TempFolder folder;
    const std::string bytes = bytesOfFile(makeStream(folder, "libx264", 2, 10, false, "320x180"));
    const int port = freePort();
    RelayProgram relay(
        {"--input", inputAt("udp", "239.255.77.10", port, "?iface=127.0.0.1&source=127.0.0.2")});
    const DatagramSender stranger("127.0.0.3");
    const DatagramSender wanted("127.0.0.2");
    for (size_t at = 0; at < bytes.size(); at += kUsualDatagram) {
        stranger.send(std::string(kLivePacket, 'x'), "239.255.77.10", port);
        wanted.send(bytes.substr(at, kUsualDatagram), "239.255.77.10", port);
        usleep(200);
    }
    ASSERT_EVENTUALLY(inputOf(relay)["seconds"] > 1.7);
    EXPECT_EQ(0, inputOf(relay)["skipped_bytes"]);
    EXPECT_EQ(0, relay.end());
}

TEST(RelayLive, CountsWhatIsLostOfABytestream) {
    const TempFolder folder;
    const std::string bytes = bytesOfFile(makeStream(folder, "libx264", 2, 10, false, "320x180"));
    const int port = freePort();
    RelayProgram relay({"--input", inputAt("udp", "127.0.0.1", port)});
    sendBytes(relay, bytes, "127.0.0.1", port, {20, 30, 31});
    EXPECT_GE(inputOf(relay)["lost_packets"], 21);  // three times seven whole ones, and pieces
    EXPECT_LE(inputOf(relay)["lost_packets"], 27);
    EXPECT_EQ(0, inputOf(relay)["lost_datagrams"]) << "they have no numbers";
    EXPECT_EQ(0, relay.end());
}

TEST(RelayLive, PutsPacketsOfRtpInOrderAndCountsWhatIsLost) {
    const TempFolder folder;
    const std::string bytes = bytesOfFile(makeStream(folder, "libx264", 2, 10, false, "320x180"));
    const int port = freePort();
    RelayProgram relay({"--input", inputAt("rtp", "127.0.0.1", port)});
    const DatagramSender sender;
    sender.send("this is no RTP, and too short", "127.0.0.1", port);
    const unsigned packets = static_cast<unsigned>(bytes.size() / (7 * kLivePacket));
    ASSERT_GT(packets, 40U);
    for (unsigned number = 0; number < packets; ++number) {
        const unsigned turned = number % 4 == 1 && number + 1 < packets ? number + 1
                                : number % 4 == 2                       ? number - 1
                                                                        : number;
        if (turned != 20) {
            sender.send(rtpPacket(turned, bytes), "127.0.0.1", port);
        }
        usleep(200);
    }
    ASSERT_EVENTUALLY(inputOf(relay)["seconds"] > 1.7);
    EXPECT_EQ(1, inputOf(relay)["lost_datagrams"]);
    EXPECT_EQ(7, inputOf(relay)["lost_packets"]) << "turned packets are none that are lost";
    EXPECT_EQ(0, inputOf(relay)["late_datagrams"]);
    EXPECT_EQ(1, inputOf(relay)["bad_datagrams"]);
    EXPECT_EQ(0, inputOf(relay)["skipped_bytes"]);
    EXPECT_EQ(0, relay.end());
}

TEST(RelayLive, SaysThatItsInputIsSilent) {
    const TempFolder folder;
    const std::string bytes = bytesOfFile(makeStream(folder, "libx264", 2, 10, false, "320x180"));
    const int port = freePort();
    RelayProgram relay({"--input", inputAt("udp", "127.0.0.1", port)});
    ASSERT_EVENTUALLY(inputOf(relay)["state"].get<std::string>().rfind("silent for ", 0) == 0);
    EXPECT_EQ(false, inputOf(relay)["ended"]);
    sendBytes(relay, bytes, "127.0.0.1", port);
    ASSERT_EVENTUALLY(inputOf(relay)["state"] == "");
    EXPECT_EQ(0, relay.end());
}

// Both want the port for themselves.
TEST(RelayLive, SaysThatAPortIsTaken) {
    const int port = freePort();
    const std::string name = inputAt("udp", "127.0.0.1", port);
    RelayProgram relay({"--input", name});
    ChildProcess second(
        {"sh", "-c", "exec " RETICOR_EXAMPLES_DIR "/media_relay --port 0 --input " + name + " 2>&1"});
    EXPECT_NE(std::string::npos, second.exchange("").find(name + ": Address already in use"));
    EXPECT_EQ(1, second.wait());
    EXPECT_EQ(0, relay.end());
}

TEST(RelayLive, SaysWhatIsWrongWithAName) {
    for (const std::string name : {"udp://127.0.0.1:0", "rtp://239.1.1.1:5004?iface=192.0.2.77"}) {
        ChildProcess relay(
            {"sh", "-c", "exec " RETICOR_EXAMPLES_DIR "/media_relay --port 0 --input '" + name + "' 2>&1"});
        EXPECT_NE(std::string::npos, relay.exchange("").find("media_relay: " + name + ": ")) << name;
        EXPECT_EQ(1, relay.wait());
    }
}

// A pipe is handed on as it comes: twenty seconds of a stream, with their own clock, are there at once.
TEST(RelayLive, HandsOnAPipeAsItComesAndKeepsThePaceOfAFile) {
    const TempFolder folder;
    const std::string file = makeStream(folder, "libx264", 20, 25, false, "160x96");
    const std::string fifo = folder.file("fifo");
    ASSERT_EQ(0, mkfifo(fifo.c_str(), 0600));
    RelayProgram pipe({"--input", fifo});
    std::ofstream writer(fifo, std::ios::binary);
    const auto begin = std::chrono::steady_clock::now();
    writer << bytesOfFile(file) << std::flush;
    ASSERT_EVENTUALLY(inputOf(pipe)["seconds"] > 19);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(15));
    EXPECT_EQ(0, pipe.end());

    ChildProcess paced(
        {"sh", "-c", "exec " RETICOR_EXAMPLES_DIR "/media_relay --port 0 --input - < " + file});
    const std::string line = paced.readLine();
    TcpClient viewer(std::stoi(line.substr(line.rfind(':') + 1)));
    viewer.send("GET /live.ts HTTP/1.1\r\n\r\n");
    viewer.receive(10000);
    TcpClient client(std::stoi(line.substr(line.rfind(':') + 1)));
    client.send("GET /stats.json HTTP/1.1\r\n\r\n");
    const std::string answer = client.receiveAll();
    EXPECT_LT(json::parse(answer.substr(answer.find("\r\n\r\n")))["input"]["seconds"], 10)
        << "standard input that is a file keeps its pace";
}

// Named pipes, too; and its end is that of the program, as for a file.
TEST(RelayLive, EndsWithTheLastWriterOfItsPipe) {
    const TempFolder folder;
    const std::string file = makeStream(folder, "libx264", 2, 10, false, "320x180");
    const std::string fifo = folder.file("fifo");
    ASSERT_EQ(0, mkfifo(fifo.c_str(), 0600));
    RelayProgram relay({"--input", fifo});
    Viewer viewer(relay, "/live.ts");
    ASSERT_EVENTUALLY(relay.stats()["clients"].size() == 1);
    std::ofstream(fifo, std::ios::binary) << bytesOfFile(file);
    EXPECT_EQ(0, relay.wait());
    EXPECT_GT(viewer.receiveAll().size(), 50 * kLivePacket);

    RelayProgram empty({"--input", fifo});
    std::ofstream(fifo, std::ios::binary) << "no stream";
    EXPECT_EQ(1, empty.wait());
}
