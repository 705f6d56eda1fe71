// live.mp4 of media_relay as a client gets it, and what the relay remembers for its page.
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "media_relay/mpegts/TsSections.h"
#include "support/Eventually.h"
#include "support/TsBuilder.h"
#include "support/program/RelayProgram.h"

using namespace Orvex::Testing;
using namespace relay;
using nlohmann::json;

namespace {

constexpr unsigned FIRST_PROGRAMME = 3;
constexpr unsigned OTHER_PROGRAMME = 9;
constexpr unsigned CLOCK_PID = 0x1F0;

Bytes closed(Bytes section) {
    section[2] = static_cast<uint8_t>(section.size() - 3 + 4);
    const uint32_t sum = sectionChecksum(section.data(), section.size());
    for (int shift = 24; shift >= 0; shift -= 8) {
        section.push_back(static_cast<uint8_t>(sum >> shift));
    }
    return section;
}

/// A programme of one stream of pictures of that type.
Bytes mapFor(unsigned program, uint8_t type, unsigned pid) {
    return closed({2, 0xB0, 0, 0, static_cast<uint8_t>(program), 0xC1, 0, 0, 0xE0 | CLOCK_PID >> 8,
                   CLOCK_PID & 0xFF, 0xF0, 0, type, static_cast<uint8_t>(0xE0 | pid >> 8),
                   static_cast<uint8_t>(pid), 0xF0, 0});
}

Bytes clockAt(uint64_t ticks) {
    Bytes packet{0x47, CLOCK_PID >> 8, CLOCK_PID & 0xFF, 0x20, 183, 0x10};
    for (int shift = 25; shift >= 1; shift -= 8) {
        packet.push_back(static_cast<uint8_t>(ticks >> shift));
    }
    packet.push_back(static_cast<uint8_t>((ticks & 1) << 7 | 0x7E));
    packet.resize(kTsPacketSize, 0);
    return packet;
}

/// Two programmes: pictures of H.264 with a key frame every ten, 25 a second and of 4 KB, and MPEG-2, which
/// holds nothing. Nobody decodes them, so what is in a picture does not matter.
std::string writeStream(const TempFolder& folder) {
    const std::string file = folder.file("plain.ts");
    std::ofstream out(file, std::ios::binary);
    const auto write = [&](const Bytes& bytes) {
        out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    };
    unsigned counters[3] = {};
    Bytes tables;
    appendSection(tables, 0, counters[0],
                  closed({0, 0xB0, 0, 0, 1, 0xC1, 0, 0, 0, FIRST_PROGRAMME, 0xE0, 0x20, 0, OTHER_PROGRAMME,
                          0xE0, 0x21}));
    appendSection(tables, 0x20, counters[1], mapFor(FIRST_PROGRAMME, 0x1B, 0x100));
    appendSection(tables, 0x21, counters[2], mapFor(OTHER_PROGRAMME, 0x02, 0x102));
    write(tables);
    const Bytes sets = bytesOf("000001") +
                       bytesOf("6764000cacd941419f9f011000000300100000030320f14299600000000168ef8fcbfdf8f8");
    unsigned counter = 0;
    for (uint64_t i = 0; i < 50; ++i) {
        const bool key = i % 10 == 0;
        const Bytes picture =
            (key ? sets : Bytes()) + Bytes{0, 0, 1, static_cast<uint8_t>(key ? 0x65 : 0x41)};
        const uint64_t time = 90000 + i * 3600;
        write(clockAt(time - 3600));
        const Bytes packets = packetsOf(0x100, pesOf(0xE0, time, time, picture + Bytes(4000, 0x55)), counter);
        counter += static_cast<unsigned>(packets.size() / kTsPacketSize);
        write(packets);
    }
    return file;
}

struct Box {
    std::string type;
    std::string body;
};

/// The next box of a stream; an empty type if there is none.
Box readBox(TcpClient& client) {
    const std::string head = client.receive(8);
    if (head.size() < 8) {
        return {};
    }
    size_t size = 0;
    for (int i = 0; i < 4; ++i) {
        size = size << 8 | static_cast<uint8_t>(head[static_cast<size_t>(i)]);
    }
    if (size < 8 || size > 100000) {
        ADD_FAILURE() << "a box of " << size << " bytes";
        return {};
    }
    return {head.substr(4), client.receive(size - 8)};
}

unsigned fourBytes(const std::string& text, size_t at) {
    unsigned value = 0;
    for (size_t i = 0; i < 4; ++i) {
        value = value << 8 | static_cast<uint8_t>(text.at(at + i));
    }
    return value;
}

/// Its number, and whether one can begin with its first picture.
unsigned numberOf(const Box& moof) {
    return fourBytes(moof.body, 12);
}
bool isKeyOf(const Box& moof) {
    return fourBytes(moof.body, moof.body.find("trun") + 4 + 4 + 8 + 8) == 0x02000000;
}

std::string readHead(TcpClient& client) {
    std::string head;
    for (std::string line = client.receiveLine(); line != "\r" && !client.wasClosed();
         line = client.receiveLine()) {
        head += line + "\n";
    }
    return head;
}

}  // namespace

TEST(RelayFragments, BeginWithAnInitSegmentAndAKeyFrameForEachClient) {
    const TempFolder folder;
    RelayProgram relay({"--input", writeStream(folder), "--loop", "--speed", "4"});
    Viewer first(relay, "/live.mp4");
    EXPECT_NE(std::string::npos, readHead(first).find("Content-Type: video/mp4; codecs=\"avc1.64000c\""));
    EXPECT_EQ("ftyp", readBox(first).type);
    EXPECT_EQ("moov", readBox(first).type);
    unsigned last = 0;
    for (int i = 0; i < 60; ++i) {
        const Box moof = readBox(first);
        ASSERT_EQ("moof", moof.type) << "and no other init segment, whatever is repeated within the stream";
        ASSERT_EQ("mdat", readBox(first).type);
        EXPECT_EQ(last + 1, numberOf(moof));
        EXPECT_EQ(i % 10 == 0, isKeyOf(moof)) << i;
        last = numberOf(moof);
    }
    Viewer second(relay, "/live.mp4");
    readHead(second);
    EXPECT_EQ("ftyp", readBox(second).type);
    EXPECT_EQ("moov", readBox(second).type);
    const Box moof = readBox(second);
    EXPECT_TRUE(isKeyOf(moof));
    EXPECT_GT(numberOf(moof), 50U) << "the same fragments as the other client's";
    EXPECT_EQ("avc1.64000c", relay.stats()["input"]["codecs"]);
    EXPECT_EQ(2, relay.stats()["totals"]["clients"]);
    EXPECT_EQ(0, relay.end());
}

TEST(RelayFragments, AreSkippedWholeByASlowClient) {
    const TempFolder folder;
    RelayProgram relay(
        {"--input", writeStream(folder), "--loop", "--speed", "4", "--sndbuf", "4096", "--max-lag", "200"});
    Viewer slow(relay, "/live.mp4", 4096);
    readHead(slow);
    EXPECT_EQ("ftyp", readBox(slow).type);
    EXPECT_EQ("moov", readBox(slow).type);
    unsigned last = 0;
    bool skipped = false;
    for (int i = 0; i < 500 && !skipped; ++i) {
        const int sent = relay.stats()["input"]["frames"];
        ASSERT_EVENTUALLY(relay.stats()["input"]["frames"] >= sent + 3);  // so it gets later and later
        const Box moof = readBox(slow);
        ASSERT_EQ("moof", moof.type);
        ASSERT_EQ("mdat", readBox(slow).type);
        skipped = last != 0 && numberOf(moof) != last + 1;
        EXPECT_TRUE(!skipped || isKeyOf(moof)) << "it goes on with a picture that decodes";
        last = numberOf(moof);
    }
    EXPECT_TRUE(skipped);
    EXPECT_EQ(0, relay.end());
}

TEST(RelayFragments, AreRefusedWithASentenceIfNoBrowserPlaysThem) {
    const TempFolder folder;
    const std::string file = writeStream(folder);
    RelayProgram relay({"--input", file, "--loop", "--program", std::to_string(OTHER_PROGRAMME)});
    ASSERT_EVENTUALLY(relay.stats()["input"]["known"] == true);
    const std::string answer = relay.get("/live.mp4");
    EXPECT_EQ("HTTP/1.1 404 Not Found", statusOf(answer));
    EXPECT_NE(std::string::npos, answer.find("\r\n\r\nNo browser plays MPEG-2 pictures.\n"));
    EXPECT_EQ(nullptr, relay.stats()["input"]["mp4"]);
    EXPECT_EQ("No browser plays MPEG-2 pictures.", relay.stats()["input"]["refusal"]);
    EXPECT_EQ(0, relay.end());
    RelayProgram test({});
    EXPECT_EQ("HTTP/1.1 404 Not Found", statusOf(test.get("/live.mp4")))
        << "a test picture is not one of H.264";
    EXPECT_EQ(0, test.end());
}

TEST(RelayFragments, ShareThePlacesWithTheOtherOutputs) {
    const TempFolder folder;
    RelayProgram relay({"--input", writeStream(folder), "--loop", "--max-clients", "1"});
    {
        Viewer one(relay, "/live.mp4");
        EXPECT_NE("", readHead(one));
        EXPECT_EQ("HTTP/1.1 503 Service Unavailable", statusOf(relay.get("/live.ts")));
        EXPECT_EQ("HTTP/1.1 503 Service Unavailable", statusOf(relay.get("/live.mp4")));
    }
    ASSERT_EVENTUALLY(relay.stats()["totals"]["left"] == 1);
    Viewer next(relay, "/live.ts");
    EXPECT_EQ("HTTP/1.1 200 OK\r", next.receiveLine());
    EXPECT_EQ(0, relay.end());
}

TEST(RelayFragments, HoldTheWholeInputAndEndWithIt) {
    const TempFolder folder;
    std::ifstream in(writeStream(folder), std::ios::binary);
    const std::string input{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    RelayProgram relay({"--input", "-", "--speed", "4", "--sndbuf", "4194304", "--max-lag", "0"});
    Viewer viewer(relay, "/live.mp4");
    ASSERT_EVENTUALLY(relay.stats()["clients"].size() == 1);
    relay.exchange(input);
    EXPECT_EQ(0, relay.wait());
    readHead(viewer);
    EXPECT_EQ("ftyp", readBox(viewer).type);
    EXPECT_EQ("moov", readBox(viewer).type);
    unsigned last = 0;
    for (Box box = readBox(viewer); !box.type.empty(); box = readBox(viewer)) {
        last = box.type == "moof" ? numberOf(box) : last;
    }
    EXPECT_EQ(50U, last);
}

TEST(RelayHistory, IsThereWhenAPageIsOpened) {
    RelayProgram relay({"--size", "160x120"});
    Viewer viewer(relay, "/live.mjpg");
    const auto samples = [&] {
        const std::string answer = relay.get("/history.json");
        return json::parse(answer.substr(answer.find("\r\n\r\n")))["samples"];
    };
    ASSERT_EVENTUALLY(samples().size() >= 3 && samples().back()["clients"].size() == 1);
    const json sample = samples().back();
    EXPECT_EQ(5U, sample["clients"][0].size());
    EXPECT_EQ(1, sample["clients"][0][0]);
    EXPECT_TRUE(sample["frames"].is_number());
    EXPECT_EQ(0, relay.end());
}
