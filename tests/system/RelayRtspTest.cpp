// media_relay as a client of RTSP sees it: answers, packets between them, datagrams, and players that we
// did not write.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/Eventually.h"
#include "support/program/RelayProgram.h"

using namespace Orvex::Testing;
using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::StartsWith;

namespace {

/// A packet that came between two answers.
struct Interleaved {
    unsigned channel = 0;
    std::string bytes;

    unsigned number() const {
        return static_cast<unsigned>(static_cast<uint8_t>(bytes.at(2)) << 8 |
                                     static_cast<uint8_t>(bytes.at(3)));
    }
    bool isMarked() const { return (bytes.at(1) & 0x80) != 0; }
};

class RtspClient : public TcpClient {
public:
    RtspClient(int port, int receive_bytes = 0) : TcpClient(port, "127.0.0.1", receive_bytes) {
        m_url = "rtsp://127.0.0.1:" + std::to_string(port) + "/live";
    }
    const std::string& url() const { return m_url; }

    void ask(const std::string& method, const std::string& url, const std::string& headers = "") {
        EXPECT_TRUE(send(method + " " + url + " RTSP/1.0\r\nCSeq: " + std::to_string(++m_number) + "\r\n" +
                         headers + "\r\n"));
    }

    /// The head of the next answer with its body; packets that come before it are kept.
    std::string answer() {
        std::string head = receive(1);
        while (head == "$") {
            keep();
            head = receive(1);
        }
        for (std::string line = receiveLine(); line.size() > 1; line = receiveLine()) {
            head += line.substr(0, line.size() - 1) + "\n";
        }
        const size_t length = head.find("Content-Length: ");
        EXPECT_THAT(head, HasSubstr("CSeq: " + std::to_string(m_number) + "\n"));
        return length == std::string::npos ? head : head + receive(std::stoul(head.substr(length + 16)));
    }
    std::string answerTo(const std::string& method, const std::string& url, const std::string& headers = "") {
        ask(method, url, headers);
        return answer();
    }

    /// Asks for the packets of the first tracks over this connection.
    void play(unsigned tracks) {
        EXPECT_THAT(answerTo("DESCRIBE", m_url, "Accept: application/sdp\r\n"),
                    StartsWith("RTSP/1.0 200 OK"));
        for (unsigned track = 0; track < tracks; ++track) {
            EXPECT_THAT(answerTo("SETUP", m_url + "/track" + std::to_string(track),
                                 "Transport: RTP/AVP/TCP;unicast;interleaved=8-9\r\n"),
                        StartsWith("RTSP/1.0 200 OK"));
        }
        EXPECT_THAT(answerTo("PLAY", m_url + "/"), StartsWith("RTSP/1.0 200 OK"));
    }

    /// Packets that came, and were not asked for.
    size_t kept() const { return m_kept.size(); }

    /// What came before the last answer is not looked at any more.
    void forget() { m_kept.clear(); }

    /// The next packet of RTP on this channel.
    Interleaved packet(unsigned channel = 0) {
        for (size_t i = 0; i < m_kept.size(); ++i) {
            if (m_kept[i].channel == channel) {
                const Interleaved found = m_kept[i];
                m_kept.erase(m_kept.begin() + static_cast<std::ptrdiff_t>(i));
                return found;
            }
        }
        while (receive(1) == "$") {
            keep();
            if (m_kept.back().channel == channel) {
                const Interleaved found = m_kept.back();
                m_kept.pop_back();
                return found;
            }
        }
        ADD_FAILURE() << "no packet";
        return {channel, std::string(12, '\0')};
    }

private:
    void keep() {
        const std::string head = receive(3);
        ASSERT_EQ(3U, head.size());
        Interleaved one;
        one.channel = static_cast<uint8_t>(head[0]);
        one.bytes =
            receive(static_cast<size_t>(static_cast<uint8_t>(head[1])) << 8 | static_cast<uint8_t>(head[2]));
        m_kept.push_back(one);
    }

    std::string m_url;
    unsigned m_number = 0;
    std::vector<Interleaved> m_kept;
};

class RelayRtsp : public ::testing::Test {
protected:
    /// Plays ten seconds again and again.
    void start(const std::string& codec = "libx264", bool sound = true,
               const std::vector<std::string>& more = {}) {
        std::vector<std::string> options{"--rtsp", "0", "--loop", "--input",
                                         makeStream(m_folder, codec, 4, 10, sound)};
        options.insert(options.end(), more.begin(), more.end());
        m_relay = std::make_unique<RelayProgram>(options);
        m_relay->readLine();
        m_relay->readLine();
        const std::string line = m_relay->readLine();
        ASSERT_THAT(line, StartsWith("rtsp: rtsp://127.0.0.1:"));
        m_port = std::stoi(line.substr(line.rfind(':') + 1));
    }

    TempFolder m_folder;
    std::unique_ptr<RelayProgram> m_relay;
    int m_port = 0;
};

/// A datagram socket of this machine.
class DatagramSocket {
public:
    DatagramSocket() : m_fd(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in local{};
        local.sin_family = AF_INET;
        local.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(0, ::bind(m_fd, reinterpret_cast<sockaddr*>(&local), sizeof local));
        socklen_t length = sizeof local;
        EXPECT_EQ(0, ::getsockname(m_fd, reinterpret_cast<sockaddr*>(&local), &length));
        m_port = ntohs(local.sin_port);
        const timeval limit{15, 0};
        ::setsockopt(m_fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    }
    ~DatagramSocket() { ::close(m_fd); }
    DatagramSocket(const DatagramSocket&) = delete;

    int port() const { return m_port; }
    std::string receive() const {
        char bytes[2048];
        const ssize_t size = ::recv(m_fd, bytes, sizeof bytes, 0);
        return size < 0 ? "" : std::string(bytes, static_cast<size_t>(size));
    }
    void sendTo(int port, const std::string& bytes) const {
        sockaddr_in to{};
        to.sin_family = AF_INET;
        to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        to.sin_port = htons(static_cast<uint16_t>(port));
        EXPECT_EQ(static_cast<ssize_t>(bytes.size()),
                  ::sendto(m_fd, bytes.data(), bytes.size(), 0, reinterpret_cast<sockaddr*>(&to), sizeof to));
    }

private:
    const int m_fd;
    int m_port = 0;
};

/// What a receiver says of the source of this packet: a quarter was lost, nine in all.
std::string receptionOf(const std::string& packet, size_t source) {
    return std::string("\x81\xC9\0\7rcvr", 8) + packet.substr(source, 4) + std::string("\x40\0\0\x09", 4) +
           std::string(4, '\0') + std::string("\0\0\x03\x84", 4) + std::string(8, '\0');
}

}  // namespace

TEST_F(RelayRtsp, DescribesAStreamThatNobodyHasAskedForBefore) {
    start();
    RtspClient client(m_port);
    EXPECT_THAT(client.answerTo("OPTIONS", "*"),
                HasSubstr("Public: OPTIONS, DESCRIBE, SETUP, PLAY, PAUSE, GET_PARAMETER, TEARDOWN\n"));
    const std::string answer = client.answerTo("DESCRIBE", client.url() + "/", "Accept: application/sdp\r\n");
    EXPECT_THAT(answer,
                AllOf(StartsWith("RTSP/1.0 200 OK"), HasSubstr("Content-Base: " + client.url() + "/\n"),
                      HasSubstr("Content-Type: application/sdp\n"), HasSubstr("H264/90000\r\n"),
                      HasSubstr("mpeg4-generic/44100/1\r\n"), HasSubstr("config=1208\r\n"),
                      HasSubstr("a=control:" + client.url() + "/track1\r\n")));
}

TEST_F(RelayRtsp, RefusesWhatItDoesNotDo) {
    start("libx264", false);
    RtspClient client(m_port);
    const std::string track = client.url() + "/track0";
    EXPECT_THAT(client.answerTo("PLAY", client.url()), StartsWith("RTSP/1.0 455 "));
    EXPECT_THAT(client.answerTo("PAUSE", client.url()), StartsWith("RTSP/1.0 455 "));
    EXPECT_THAT(client.answerTo("SETUP", client.url(), "Transport: RTP/AVP/TCP\r\n"),
                StartsWith("RTSP/1.0 404 "));
    EXPECT_THAT(client.answerTo("SETUP", client.url() + "/track7", "Transport: RTP/AVP/TCP\r\n"),
                StartsWith("RTSP/1.0 404 "));
    EXPECT_THAT(client.answerTo("SETUP", track, "Transport: RTP/AVP;multicast\r\n"),
                StartsWith("RTSP/1.0 461 "));
    EXPECT_THAT(client.answerTo("DESCRIBE", client.url(), "Accept: text/html\r\n"),
                StartsWith("RTSP/1.0 406 "));
    EXPECT_THAT(client.answerTo("OPTIONS", client.url(), "Require: flight\r\n"),
                AllOf(StartsWith("RTSP/1.0 551 "), HasSubstr("Unsupported: flight\n")));
    EXPECT_THAT(client.answerTo("ANNOUNCE", client.url()), StartsWith("RTSP/1.0 405 "));
    EXPECT_THAT(client.answerTo("FLY", client.url()), StartsWith("RTSP/1.0 501 "));
    EXPECT_THAT(client.answerTo("SETUP", track, "Transport: RTP/AVP/TCP\r\n"), StartsWith("RTSP/1.0 200 "));
    EXPECT_THAT(client.answerTo("SETUP", track, "Transport: RTP/AVP;client_port=5000\r\n"),
                StartsWith("RTSP/1.0 455 "));
    client.send("GARBAGE\r\n\r\n");
    EXPECT_THAT(client.receiveAll(), AllOf(StartsWith("RTSP/1.0 400 "), HasSubstr("Connection: close\r\n")));
    EXPECT_TRUE(client.wasClosed());
}

TEST_F(RelayRtsp, PlaysOverTheConnectionAndAnswersBetweenTwoPictures) {
    start();
    RtspClient client(m_port);
    client.play(2);
    const Interleaved report = client.packet(1);
    EXPECT_EQ(0U, client.kept()) << "nothing came before it";
    EXPECT_EQ('\xC8', report.bytes.at(1)) << "the clocks come before the first picture";
    EXPECT_EQ('\xC8', client.packet(3).bytes.at(1));
    Interleaved last = client.packet();
    for (int pictures = 0; pictures < 20;) {
        if (pictures == 10 && last.isMarked()) {
            EXPECT_THAT(client.answerTo("GET_PARAMETER", client.url()),
                        AllOf(StartsWith("RTSP/1.0 200 OK"), HasSubstr("Session: ")));
        }
        const Interleaved next = client.packet();
        EXPECT_EQ((last.number() + 1) & 0xFFFFU, next.number());
        pictures += next.isMarked() ? 1 : 0;
        last = next;
    }
    EXPECT_EQ(0x80 | 97, static_cast<uint8_t>(client.packet(2).bytes.at(1)));
    EXPECT_THAT(client.answerTo("TEARDOWN", client.url()), HasSubstr("Connection: close\n"));
    client.receiveAll();
    EXPECT_TRUE(client.wasClosed());
    EXPECT_EVENTUALLY(m_relay->stats()["rtsp"].empty());
}

TEST_F(RelayRtsp, APauseEndsAfterAWholePacketAndPlayGoesOnAtAKeyPicture) {
    start("libx264", false);
    RtspClient client(m_port);
    client.play(1);
    client.packet();
    EXPECT_THAT(client.answerTo("PAUSE", client.url()), StartsWith("RTSP/1.0 200 OK"));
    EXPECT_TRUE(client.isSilentFor(300));
    client.forget();
    EXPECT_THAT(client.answerTo("PLAY", client.url()), StartsWith("RTSP/1.0 200 OK"));
    EXPECT_EQ(7, client.packet().bytes.at(12) & 0x1F) << "parameter sets come with a key picture";
    EXPECT_THAT(client.answerTo("TEARDOWN", client.url()), StartsWith("RTSP/1.0 200 OK"));
}

TEST_F(RelayRtsp, ReportsOverTheConnectionStandInTheFigures) {
    start("libx264", false);
    RtspClient client(m_port);
    client.play(1);
    const std::string body = receptionOf(client.packet().bytes, 8);
    EXPECT_TRUE(client.send(std::string("$\1\0\x20", 4) + body));
    nlohmann::json row;
    EXPECT_EVENTUALLY((row = m_relay->stats()["rtsp"]).size() == 1 && !row[0]["reports"].empty());
    EXPECT_EQ("tcp", row[0]["transport"]);
    EXPECT_DOUBLE_EQ(25, row[0]["reports"][0]["lost_percent"]);
    EXPECT_EQ(9, row[0]["reports"][0]["lost_packets"]);
    EXPECT_DOUBLE_EQ(10, row[0]["reports"][0]["jitter_ms"]);
}

TEST_F(RelayRtsp, DatagramsComeFromAPairOfPortsAndReportsGoBackThere) {
    start("libx264", false);
    const DatagramSocket packets;
    const DatagramSocket reports;
    RtspClient client(m_port);
    client.answerTo("DESCRIBE", client.url());
    const std::string answer =
        client.answerTo("SETUP", client.url() + "/track0",
                        "Transport: RTP/AVP;unicast;client_port=" + std::to_string(packets.port()) + "-" +
                            std::to_string(reports.port()) + "\r\n");
    const size_t at = answer.find(";server_port=");
    ASSERT_NE(std::string::npos, at) << answer;
    const int port = std::stoi(answer.substr(at + 13));
    EXPECT_EQ(0, port % 2);
    EXPECT_THAT(client.answerTo("PLAY", client.url()), StartsWith("RTSP/1.0 200 OK"));
    EXPECT_EQ('\xC8', reports.receive().at(1));
    const std::string first = packets.receive();
    ASSERT_GT(first.size(), 12U);
    EXPECT_EQ(7, first.at(12) & 0x1F) << "it begins with a key picture";
    reports.sendTo(port + 1, receptionOf(first, 8));
    nlohmann::json row;
    EXPECT_EVENTUALLY((row = m_relay->stats()["rtsp"]).size() == 1 && !row[0]["reports"].empty());
    EXPECT_EQ("udp", row[0]["transport"]);
    EXPECT_EQ(9, row[0]["reports"][0]["lost_packets"]);
    client.reset();
    EXPECT_EVENTUALLY(m_relay->stats()["rtsp"].empty());
}

TEST_F(RelayRtsp, ASlowClientGetsFewerPicturesAndNoTornPacket) {
    start("libx264", false, {"--max-lag", "100", "--sndbuf", "4096", "--speed", "4"});
    RtspClient client(m_port, 4096);
    client.play(1);
    nlohmann::json clients;
    EXPECT_EVENTUALLY((clients = m_relay->stats()["clients"]).size() == 1 && clients[0]["lag_ms"] > 1500);
    nlohmann::json dropped = 0;
    for (int i = 0; i < 5000 && dropped == 0; ++i) {
        const Interleaved one = client.packet();
        ASSERT_EQ('\x80', one.bytes.at(0)) << "a torn packet would be another one";
        ASSERT_EQ(96, one.bytes.at(1) & 0x7F);
        dropped = i % 50 == 49 ? m_relay->stats()["clients"][0]["dropped_frames"] : dropped;
    }
    EXPECT_GT(dropped, 0);
}

TEST_F(RelayRtsp, FfmpegPlaysItOverTheConnectionAndByDatagrams) {
    start();
    const std::string url = "rtsp://127.0.0.1:" + std::to_string(m_port) + "/live";
    for (const char* const transport : {"tcp", "udp"}) {
        ChildProcess ffmpeg({"ffmpeg", "-v", "error", "-nostdin", "-rtsp_transport", transport, "-i", url,
                             "-t", "1", "-f", "null", "-"});
        EXPECT_EQ(0, ffmpeg.wait(ChildProcess::WORK_LIMIT_MS)) << transport;
        EXPECT_EQ("", ffmpeg.readLine()) << transport;
    }
}

TEST_F(RelayRtsp, FfmpegPlaysPicturesOfAnotherKindAsATransportStream) {
    start("mpeg2video");
    ChildProcess ffmpeg({"ffmpeg", "-v", "error", "-nostdin", "-rtsp_transport", "tcp", "-i",
                         "rtsp://127.0.0.1:" + std::to_string(m_port) + "/live", "-map", "0:v", "-t", "1",
                         "-f", "null", "-"});
    EXPECT_EQ(0, ffmpeg.wait(ChildProcess::WORK_LIMIT_MS));
}
