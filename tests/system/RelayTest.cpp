// media_relay as a whole program: its door, its inputs, and what goes wrong with either.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>
#include <algorithm>
#include <cstdlib>
#include <deque>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <string>

#include <gtest/gtest.h>

#include "../tools/kit/Multipart.h"
#include "support/Eventually.h"
#include "support/program/RelayProgram.h"

using namespace Orvex::Testing;
using LoadKit::MultipartReader;

namespace {

constexpr size_t kPacket = 188;

std::string contents(const std::string& file) {
    std::ifstream stream(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
}

void write(const std::string& file, const std::string& bytes) {
    std::ofstream(file, std::ios::binary) << bytes;
}

/// What the program says on both outputs until it ends, and how it ends.
std::string runToEnd(const std::vector<std::string>& options, int& result) {
    std::string command = "exec " RETICOR_EXAMPLES_DIR "/media_relay --port 0";
    for (const std::string& option : options) {
        command += " '" + option + "'";
    }
    ChildProcess relay({"sh", "-c", command + " 2>&1"});
    const std::string text = relay.exchange("");
    result = relay.wait();
    return text;
}

/// Bytes that are not a transport stream, and the same each time.
std::string noise(size_t size) {
    std::string bytes(size, '\0');
    uint32_t state = 1;
    for (char& byte : bytes) {
        state = state * 1664525 + 1013904223;
        byte = static_cast<char>(state >> 24);
    }
    return bytes;
}

/// Reads pictures until `frames` of them have been verified, or the first that is wrong.
void readFrames(Viewer& viewer, MultipartReader& reader, uint64_t frames, size_t piece = 65536) {
    while (reader.frames() < frames && reader.isGood()) {
        const std::string bytes = viewer.receive(piece);
        ASSERT_FALSE(bytes.empty()) << "after " << reader.frames() << " frames";
        reader.put(bytes.data(), bytes.size());
    }
}

unsigned pidOf(const std::string& packet) {
    return (static_cast<unsigned char>(packet[1]) & 0x1FU) << 8 | static_cast<unsigned char>(packet[2]);
}

}  // namespace

TEST(Relay, NumbersEveryPictureAndMissesNone) {
    RelayProgram relay({"--fps", "100", "--size", "160x120"});
    Viewer viewer(relay, "/live.mjpg");
    MultipartReader reader;
    readFrames(viewer, reader, 50);
    EXPECT_TRUE(reader.isGood());
    EXPECT_EQ(0U, reader.missed());
    EXPECT_EQ(0, relay.end());
}

TEST(Relay, EndsOnASignalWhileClientsWatch) {
    for (const int number : {SIGINT, SIGTERM}) {
        RelayProgram relay({});
        Viewer fast(relay, "/live.mjpg");
        const Viewer stalled(relay, "/live.mjpg", 4096);
        EXPECT_EQ(20000U, fast.receive(20000).size());
        EXPECT_EQ(0, relay.end(number));
        fast.receiveAll();
        EXPECT_TRUE(fast.wasClosed());
    }
}

TEST(Relay, AnswersBadRequestsAndStaysUp) {
    RelayProgram relay({});
    const auto ask = [&](const std::string& request) {
        TcpClient client(relay.port());
        client.send(request);
        client.finish();
        return statusOf(client.receiveAll());
    };
    EXPECT_EQ("HTTP/1.1 200 OK", ask("GET / HTTP/1.1\r\n\r\n"));
    EXPECT_EQ("HTTP/1.1 200 OK", ask("GET / HTTP/1.0\nA: b\n\n"));
    EXPECT_EQ("HTTP/1.1 200 OK", ask("GET /?t=1 HTTP/1.1\r\n\r\n"));
    EXPECT_EQ("HTTP/1.1 404 Not Found", ask("GET /../etc/passwd HTTP/1.1\r\n\r\n"));
    EXPECT_EQ("HTTP/1.1 405 Method Not Allowed", ask("PUT / HTTP/1.1\r\n\r\n"));
    EXPECT_EQ("HTTP/1.1 414 URI Too Long", ask("GET /" + std::string(3000, 'a') + " HTTP/1.1\r\n\r\n"));
    for (const std::string request :
         {"\r\n\r\n", "GET\r\n\r\n", "GET /\r\n\r\n", "GET / FTP/1.1\r\n\r\n", "GET x HTTP/1.1\r\n\r\n",
          "GET / HTTP/1.1 x\r\n\r\n", "GET / HTTP/1.1\r\nno colon\r\n\r\n", "GET / HTTP/1.1\r\n: x\r\n\r\n",
          "\x16\x03\x01\x02\x01\n\n"}) {
        EXPECT_EQ("HTTP/1.1 400 Bad Request", ask(request)) << request;
    }
    EXPECT_EQ(12, relay.stats()["totals"]["bad_requests"]);
    EXPECT_EQ(0, relay.end());
}

TEST(Relay, TakesARequestInPieces) {
    RelayProgram relay({});
    TcpClient client(relay.port());
    for (const char letter : std::string("HEAD /stats.json HTTP/1.1\r\nHost: x\r\n\r\n")) {
        ASSERT_TRUE(client.send(std::string(1, letter)));
    }
    const std::string answer = client.receiveAll();
    EXPECT_EQ("HTTP/1.1 200 OK", statusOf(answer));
    EXPECT_EQ(answer.find("\r\n\r\n") + 4, answer.size()) << "a body";
    EXPECT_EQ(0, relay.end());
}

TEST(Relay, RefusesARequestThatDoesNotEnd) {
    RelayProgram relay({});
    TcpClient client(relay.port());
    client.sendUntilStuck("GET / HTTP/1.1\r\nCookie: " + std::string(65536, 'x'), 2000);
    EXPECT_EQ("HTTP/1.1 431 Request Header Fields Too Large", statusOf(client.receiveAll()));
    EXPECT_EQ("HTTP/1.1 200 OK", statusOf(relay.get("/")));
    EXPECT_EQ(0, relay.end());
}

TEST(Relay, GivesUpOnClientsThatSayNothingOrHalf) {
    RelayProgram relay({"--request-timeout", "1"});
    TcpClient silent(relay.port());
    TcpClient half(relay.port());
    half.send("GET / HT");
    EXPECT_EQ("HTTP/1.1 408 Request Timeout", statusOf(silent.receiveAll()));
    EXPECT_EQ("HTTP/1.1 408 Request Timeout", statusOf(half.receiveAll()));
    EXPECT_EQ(0, relay.end());
}

TEST(Relay, RefusesOneClientTooMany) {
    RelayProgram relay({"--max-clients", "2"});
    Viewer first(relay, "/live.mjpg");
    {
        Viewer second(relay, "/live.mjpg");
        EXPECT_EQ("HTTP/1.1 200 OK\r", second.receiveLine());
        EXPECT_EQ("HTTP/1.1 200 OK\r", first.receiveLine());
        EXPECT_EQ("HTTP/1.1 503 Service Unavailable", statusOf(relay.get("/live.mjpg")));
    }
    ASSERT_EVENTUALLY(relay.stats()["clients"].size() == 1U);
    Viewer third(relay, "/live.mjpg");
    EXPECT_EQ("HTTP/1.1 200 OK\r", third.receiveLine());
    EXPECT_EQ(1, relay.stats()["totals"]["refused"]);
    EXPECT_EQ(0, relay.end());
}

TEST(Relay, ServesMoreClientsThanOnePoolHasPlacesFor) {
    rlimit limit{};
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &limit));
    limit.rlim_cur = limit.rlim_max;
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &limit));
    constexpr size_t CLIENTS = 4200;  // a pool watches 4095 sockets
    ASSERT_LT(CLIENTS + 100, limit.rlim_cur);
    RelayProgram relay({"--max-clients", "4200", "--max-per-address", "0", "--fps", "1", "--size", "160x120",
                        "--request-timeout", "3600"});
    std::deque<Viewer> viewers;
    for (size_t i = 0; i < CLIENTS; ++i) {
        viewers.emplace_back(relay, "/live.mjpg", 4096);
    }
    for (Viewer& viewer : viewers) {
        ASSERT_EQ("HTTP/1.1 200 OK\r", viewer.receiveLine());
    }
    EXPECT_EQ("HTTP/1.1 503 Service Unavailable", statusOf(relay.get("/live.mjpg")));
    EXPECT_EQ(0, relay.end());
}

TEST(Relay, DropsAStalledClientAndHurtsNobodyElse) {
    RelayProgram relay({"--fps", "50", "--stall-timeout", "1", "--sndbuf", "8192"});
    const Viewer stalled(relay, "/live.mjpg", 4096);
    ASSERT_EVENTUALLY(relay.stats()["clients"].size() == 1U);  // which has the number 1
    Viewer fast(relay, "/live.mjpg", 1 << 22);
    MultipartReader reader;
    bool shown = false;
    while (relay.stats()["totals"]["stalled"] != 1 && !HasFailure()) {
        readFrames(fast, reader, reader.frames() + 5);
        const auto stats = relay.stats();
        for (const auto& client : stats["clients"]) {
            shown = shown || client["backlog_bytes"] > 50000;
        }
    }
    EXPECT_TRUE(shown);
    EXPECT_TRUE(reader.isGood());
    EXPECT_EQ(0U, reader.missed());
    ASSERT_EVENTUALLY(relay.stats()["ended"].size() == 1U);
    EXPECT_EQ(1, relay.stats()["ended"][0]["number"]) << "how it fared when it left";
    EXPECT_NE("", relay.stats()["clients"][0]["why"]);
    EXPECT_EQ(1U, relay.stats()["clients"].size());
    EXPECT_EQ(0, relay.end());
}

TEST(Relay, TellsOfEachClientThatItCutsOrRefuses) {
    ChildProcess relay({"sh", "-c",
                        "exec " RETICOR_EXAMPLES_DIR
                        "/media_relay --port 0 --fps 50 --max-clients 1 --sndbuf 8192"
                        " --stall-timeout 1 --request-timeout 1 2>&1"});
    const std::string line = relay.readLine();
    const int port = std::stoi(line.substr(line.rfind(':') + 1));
    const auto connect = [&](const std::string& request, int receive_bytes = 0) {
        TcpClient client(port, "127.0.0.1", receive_bytes);
        EXPECT_TRUE(client.send(request));
        return client;
    };
    TcpClient stalled = connect("GET /live.mjpg HTTP/1.1\r\n\r\n", 4096);
    EXPECT_EQ("HTTP/1.1 200 OK\r", stalled.receiveLine());
    TcpClient late = connect("GET /live.mjpg HTTP/1.1\r\n\r\n");
    EXPECT_EQ("HTTP/1.1 503 Service Unavailable", statusOf(late.receiveAll()));
    TcpClient strange = connect("NONSENSE\r\n\r\n");
    TcpClient half = connect("GET / HT");
    std::set<std::string> reasons{"refused: all 1 live clients are there", "refused: 400 Bad Request",
                                  "refused: 408 Request Timeout", "cut: it took nothing for 1 s"};
    while (!reasons.empty() && !relay.hasEnded()) {
        const std::string text = relay.readLine();
        const std::string begin = "media_relay: client 127.0.0.1:";
        if (text.rfind(begin, 0) == 0) {
            reasons.erase(text.substr(std::min(text.size(), text.find(' ', begin.size()) + 1)));
        }
    }
    EXPECT_EQ(std::set<std::string>(), reasons);
    relay.signal(SIGTERM);
    EXPECT_EQ(0, relay.wait());
}

TEST(Relay, LetsNoAddressTakeMoreThanItsShare) {
    RelayProgram relay({"--max-per-address", "2"});
    Viewer first(relay, "/live.mjpg");
    Viewer second(relay, "/live.mjpg");
    EXPECT_EQ("HTTP/1.1 200 OK\r", first.receiveLine());
    EXPECT_EQ("HTTP/1.1 200 OK\r", second.receiveLine());
    EXPECT_EQ("", relay.get("/stats.json"));
    TcpClient other(relay.port(), "127.0.0.1", 0, "127.0.0.2");
    EXPECT_TRUE(other.send("GET /stats.json HTTP/1.1\r\n\r\n"));
    EXPECT_NE(std::string::npos, other.receiveAll().find("\"turned_away\":1"));
    EXPECT_EQ(0, relay.end());
}

// The fast client's kernel takes what comes, also while the test waits for a processor: 3 KB a picture are
// little enough for the small buffer on the relay's side.
TEST(Relay, GivesASlowClientWholePicturesAndFewer) {
    RelayProgram relay({"--fps", "50", "--size", "160x120", "--max-lag", "200", "--sndbuf", "8192"});
    Viewer slow(relay, "/live.mjpg", 4096);
    Viewer fast(relay, "/live.mjpg", 1 << 22);
    MultipartReader slowReader;
    MultipartReader fastReader;
    while (slowReader.missed() < 20 && !HasFailure()) {
        readFrames(fast, fastReader, fastReader.frames() + 5);  // at the pace of the picture
        const std::string bytes = slow.receive(5000);
        ASSERT_TRUE(slowReader.put(bytes.data(), bytes.size()));
    }
    EXPECT_EQ(0U, fastReader.missed());
    const auto stats = relay.stats();
    ASSERT_EQ(2U, stats["clients"].size());
    const bool slowIsFirst = stats["clients"][0]["dropped_frames"] > stats["clients"][1]["dropped_frames"];
    const auto& slowStats = stats["clients"][slowIsFirst ? 0 : 1];  // whoever joins first is first
    EXPECT_GE(slowStats["dropped_frames"], 15);
    EXPECT_GE(slowStats["skips"], 1);
    EXPECT_EQ("ahead 200 ms", slowStats["mode"]);
    EXPECT_EQ("late: went on at a newer key frame", slowStats["last_skip"]["why"]);
    EXPECT_GE(slowStats["last_skip"]["frames"], 1);
    EXPECT_TRUE(stats["clients"][slowIsFirst ? 1 : 0]["last_skip"].is_null());
    EXPECT_LE(stats["buffer"]["frames"], 102);  // a picture lives for a hundred ticks
    EXPECT_EQ(0, relay.end());
}

// Whoever reads nothing has stepped ahead by the time that it reads again: it has missed pictures, and none
// of those that it is offered after that is late.
TEST(Relay, GivesTheLowQualityToWhoeverMissedPicturesUntilItKeepsUp) {
    RelayProgram relay({"--fps", "100", "--size", "320x240", "--two-qualities", "--max-lag", "400"});
    Viewer viewer(relay, "/live.mjpg", 16384);
    MultipartReader reader;
    readFrames(viewer, reader, 1);
    const std::string high = "ahead 400 ms";
    const std::string low = high + ", low quality";
    const auto client = [&] { return relay.stats()["clients"].at(0); };
    EXPECT_EQ(high, client()["mode"]);
    ASSERT_TRUE(eventually([&] {
        const auto now = client();
        if (now["mode"] == high && now["backlog_bytes"] > 600000) {
            readFrames(viewer, reader, reader.frames() + 1, 4096);
        }
        return now["mode"] == low;
    }));
    ASSERT_TRUE(eventually([&] {
        readFrames(viewer, reader, reader.frames() + 5, 4096);
        return client()["mode"] == high;
    }));
    EXPECT_TRUE(reader.isGood()) << "whole pictures, each of them in one quality";
    EXPECT_EQ(0, relay.end());
}

TEST(Relay, ServesAReaderOfSingleBytes) {
    RelayProgram relay({"--size", "160x120", "--sndbuf", "4096"});
    Viewer slow(relay, "/live.mjpg", 1);  // the kernel makes it as small as it can
    MultipartReader reader;
    readFrames(slow, reader, 3, 1);
    EXPECT_TRUE(reader.isGood());
    EXPECT_EQ(0, relay.end());
}

TEST(Relay, OutlivesClientsThatVanishInTheMiddleOfAFrame) {
    RelayProgram relay({"--fps", "50"});
    Viewer watcher(relay, "/live.mjpg");
    const size_t before = relay.descriptors();
    for (int i = 0; i < 20; ++i) {
        Viewer viewer(relay, "/live.mjpg");
        EXPECT_EQ(1000U, viewer.receive(1000).size());
        if (i % 2 == 0) {
            viewer.reset();
        }
    }
    MultipartReader reader;
    readFrames(watcher, reader, 20);
    EXPECT_EQ(0U, reader.missed());
    ASSERT_EVENTUALLY(relay.stats()["clients"].size() == 1U);
    EXPECT_EVENTUALLY(relay.descriptors() <= before + 1);
    EXPECT_EQ(0, relay.end());
}

TEST(Relay, PrintsALineEachSecondOnATerminal) {
    ChildProcess terminal({"socat", "-u",
                           "EXEC:timeout -s INT 2.3 " RETICOR_EXAMPLES_DIR "/media_relay --port 0,pty",
                           "STDOUT"});
    const std::string text = terminal.exchange("");
    size_t lines = 0;
    for (size_t at = 0; (at = text.find("frames/s", at)) != std::string::npos; ++at) {
        ++lines;
    }
    EXPECT_GE(lines, 1U) << text;
    EXPECT_LE(lines, 2U) << text;
}

TEST(Relay, BeginsATransportStreamWithTablesAndAKeyFrame) {
    const TempFolder folder;
    RelayProgram relay({"--input", makeStream(folder, "libx264", 2), "--loop", "--speed", "4"});
    ASSERT_EVENTUALLY(relay.stats()["input"]["frames"] > 40);
    Viewer viewer(relay, "/live.ts");
    while (viewer.receiveLine() != "\r" && !viewer.wasClosed()) {
    }
    const std::string association = viewer.receive(kPacket);
    const std::string map = viewer.receive(kPacket);
    const std::string picture = viewer.receive(kPacket);
    ASSERT_EQ(kPacket, picture.size());
    EXPECT_EQ(0U, pidOf(association));
    EXPECT_EQ(0x1000U, pidOf(map));
    EXPECT_EQ(0x100U, pidOf(picture));
    EXPECT_NE(0, picture[1] & 0x40) << "no unit start";
    EXPECT_NE(0, picture[5] & 0x40) << "no random access";
    EXPECT_EQ(0, relay.end());
}

// There is one key frame, and it has gone when the viewer comes.
TEST(Relay, BeginsWithTheLastKeyFrameIfAskedTo) {
    const TempFolder folder;
    const std::string file = makeStream(folder, "libx264", 8, 250, false, "160x120");
    RelayProgram relay({"--input", file, "--start", "burst"});
    ASSERT_EVENTUALLY(relay.stats()["input"]["frames"] > 2);
    Viewer viewer(relay, "/live.ts");
    while (viewer.receiveLine() != "\r" && !viewer.wasClosed()) {
    }
    viewer.receive(2 * kPacket);
    const std::string picture = viewer.receive(kPacket);
    ASSERT_EQ(kPacket, picture.size());
    EXPECT_NE(0, picture[5] & 0x40) << "no random access";
    EXPECT_EQ(1, relay.stats()["input"]["key_frames"]);
    EXPECT_EQ(0, relay.end());
}

// The receiver's thread is the last one that the program asks for.
TEST(Relay, SaysThatItsReceiverWasNotStarted) {
    const TempFolder folder;
    const std::string told = folder.file("threads");
    const auto faulty = [&](const std::string& fault) {
        return std::vector<std::string>{"sh", "-c",
                                        "exec env LD_PRELOAD=" RETICOR_THREAD_FAULT " " + fault +
                                            " " RETICOR_EXAMPLES_DIR "/media_relay --port 0 2>&1"};
    };
    ChildProcess sound(faulty("THREAD_FAULT_TOLD=" + told));
    std::string line = sound.readLine();
    TcpClient client(std::stoi("0" + line.substr(line.rfind(':') + 1)));
    client.send("GET /live.mjpg HTTP/1.1\r\n\r\n");
    ASSERT_EQ(2000U, client.receive(2000).size()) << line;
    sound.signal(SIGTERM);
    ASSERT_EQ(0, sound.wait());

    const long receiver = std::stol("0" + contents(told)) - 1;
    ChildProcess refused(faulty("THREAD_FAULT_AFTER=" + std::to_string(receiver)));
    const std::string text = refused.exchange("");
    EXPECT_NE(std::string::npos,
              text.find("media_relay: the input cannot be played, its receiver was not started\n"))
        << text;
    EXPECT_EQ(1, refused.wait());
}

TEST(Relay, EndsWithItsInput) {
    const TempFolder folder;
    const std::string file = makeStream(folder, "libx264", 1);
    int result = -1;
    const std::string text = runToEnd({"--input", file, "--speed", "10"}, result);
    EXPECT_EQ(0, result) << text;
    EXPECT_NE(text.find("/live.ts\n"), std::string::npos) << text;
}

TEST(Relay, SaysWhatIsWrongWithItsInput) {
    const TempFolder folder;
    write(folder.file("noise"), noise(1000000));
    write(folder.file("sync"), std::string(1000000, '\x47'));
    write(folder.file("empty"), "");
    write(folder.file("short"), std::string(100, '\x47'));
    int result = 0;
    for (const char* name : {"noise", "sync", "empty", "short"}) {
        for (const bool loop : {false, true}) {
            std::vector<std::string> options{"--input", folder.file(name)};
            if (loop) {
                options.emplace_back("--loop");
            }
            const std::string text = runToEnd(options, result);
            EXPECT_EQ(1, result) << name;
            EXPECT_NE(text.find("holds no transport stream"), std::string::npos) << name << ": " << text;
        }
    }
    EXPECT_NE(runToEnd({"--input", folder.file("none")}, result).find("No such file"), std::string::npos);
    EXPECT_EQ(1, result);
    EXPECT_NE(runToEnd({"--input", folder.path()}, result).find("Is a directory"), std::string::npos);
    EXPECT_EQ(1, result);
}

TEST(Relay, RefusesOptionsThatMakeNoSense) {
    int result = 0;
    EXPECT_NE(runToEnd({"--multicast", "239.1.2.3:5004"}, result).find("needs a transport stream"),
              std::string::npos);
    EXPECT_NE(0, result);
    for (const char* target : {"239.1.2.3", "239.1.2.3:0", "239.1.2.3:70000", "name:5004", "239.1.2.3:5x"}) {
        runToEnd({"--input", "x.ts", "--multicast", target}, result);
        EXPECT_NE(0, result) << target;
        EXPECT_NE(1, result) << target;  // not for the missing file
    }
    runToEnd({"--size", "641x360"}, result);
    EXPECT_NE(0, result);
    EXPECT_NE(runToEnd({"--pools", "2", "--max-clients", "8001"}, result).find("too few"), std::string::npos);
    EXPECT_NE(0, result);
    EXPECT_NE(runToEnd({"--start", "burst", "--max-lag", "0"}, result).find("need a --max-lag"),
              std::string::npos);
    EXPECT_NE(0, result);
}

TEST(Relay, FindsItsWayThroughGarbage) {
    const TempFolder folder;
    const std::string file = makeStream(folder, "libx264", 2);
    const std::string bytes = contents(file);
    const size_t half = bytes.size() / kPacket / 2 * kPacket;
    const std::string garbage = noise(1000);
    // Garbage in front and in the middle, and the last packet is cut.
    write(file, garbage + bytes.substr(0, half) + garbage + bytes.substr(half, bytes.size() - half - 50));
    RelayProgram relay({"--input", file, "--loop", "--speed", "8"});
    ASSERT_EVENTUALLY(relay.stats()["input"]["rounds"] >= 1);
    const auto input = relay.stats()["input"];
    EXPECT_GE(input["skipped_bytes"], 2000);
    EXPECT_LE(input["skipped_bytes"], 2000 * (1 + input["rounds"].get<int>()) + 400);
    EXPECT_GE(input["frames"], 50);
    EXPECT_EQ(0, relay.end());
}

// The file is open, so it may lose its name; one that is cut to nothing ends the relay with a clear word.
TEST(Relay, PlaysOnWhenItsFileVanishesAndEndsWhenItIsEmptied) {
    const TempFolder folder;
    const std::string file = makeStream(folder, "libx264", 1);
    const std::string other = folder.file("other.ts");
    std::filesystem::create_hard_link(file, other);
    ChildProcess relay(
        {"sh", "-c",
         "exec " RETICOR_EXAMPLES_DIR "/media_relay --port 0 --loop --speed 10 --input " + file + " 2>&1"});
    const std::string line = relay.readLine();
    const int port = std::atoi(line.c_str() + line.rfind(':') + 1);
    const auto rounds = [&] {
        TcpClient client(port);
        client.send("GET /stats.json HTTP/1.1\r\n\r\n");
        const std::string answer = client.receiveAll();
        return std::atoi(answer.c_str() + answer.find("\"rounds\":") + 9);
    };
    std::filesystem::remove(file);
    const int before = rounds();
    EXPECT_EVENTUALLY(rounds() >= before + 2);
    std::filesystem::resize_file(other, 0);
    EXPECT_NE(relay.exchange("").find("holds no transport stream"), std::string::npos);
    EXPECT_EQ(1, relay.wait());
}

TEST(Relay, SendsSevenPacketsADatagramToAMulticastGroup) {
    const TempFolder folder;
    const std::string file = makeStream(folder, "libx264", 1);
    const int receiver = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    inet_pton(AF_INET, "239.255.77.7", &address.sin_addr);
    socklen_t length = sizeof address;
    ip_mreq group{address.sin_addr, {htonl(INADDR_LOOPBACK)}};
    ASSERT_EQ(0, bind(receiver, reinterpret_cast<sockaddr*>(&address), length));
    ASSERT_EQ(0, getsockname(receiver, reinterpret_cast<sockaddr*>(&address), &length));
    ASSERT_EQ(0, setsockopt(receiver, IPPROTO_IP, IP_ADD_MEMBERSHIP, &group, sizeof group));

    RelayProgram relay({"--input", file, "--loop", "--speed", "2", "--multicast-if", "127.0.0.1",
                        "--multicast", "239.255.77.7:" + std::to_string(ntohs(address.sin_port))});
    const std::string bytes = contents(file).substr(0, 20 * 7 * kPacket);
    std::string got;
    while (got.size() < bytes.size()) {
        pollfd ready{receiver, POLLIN, 0};
        ASSERT_EQ(1, poll(&ready, 1, scaledMs(10000)));
        char datagram[2048];
        ASSERT_EQ(static_cast<ssize_t>(7 * kPacket), recv(receiver, datagram, sizeof datagram, 0));
        got.append(datagram, 7 * kPacket);
    }
    EXPECT_TRUE(got == bytes) << "not the bytes of the file";
    close(receiver);
    EXPECT_EQ(0, relay.end());
}
