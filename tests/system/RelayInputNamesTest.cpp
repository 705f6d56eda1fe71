// What media_relay reads of foreign inputs before it is a transport stream: their names, packets of RTP, and
// the answers of servers.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "media_relay/input/HttpAnswer.h"
#include "media_relay/input/InputUrl.h"
#include "media_relay/input/RtpReader.h"

using namespace relay;

namespace {

using InputKind = InputUrl::Kind;

InputUrl inputUrlOf(const std::string& text) {
    InputUrl url;
    EXPECT_EQ("", parseInputUrl(text, url)) << text;
    return url;
}

std::string wrongWithName(const std::string& text) {
    InputUrl url;
    return parseInputUrl(text, url);
}

/// A packet of RTP with these bytes after its head of 12.
std::vector<uint8_t> rtpOf(unsigned number, const std::string& rest, uint8_t first = 0x80,
                           uint32_t source = 7) {
    std::vector<uint8_t> bytes{first, 33, static_cast<uint8_t>(number >> 8), static_cast<uint8_t>(number)};
    bytes.resize(8);
    for (int shift = 24; shift >= 0; shift -= 8) {
        bytes.push_back(static_cast<uint8_t>(source >> shift));
    }
    bytes.insert(bytes.end(), rest.begin(), rest.end());
    return bytes;
}

/// What a reader makes of packets, one after the other.
struct RtpOut {
    RtpReader reader;
    std::string out;
    uint64_t now_us = 1000000;

    void put(const std::vector<uint8_t>& bytes) {
        reader.put(bytes.data(), bytes.size(), now_us, [this](const uint8_t* payload, size_t size) {
            out.append(reinterpret_cast<const char*>(payload), size);
        });
    }
    void put(unsigned number, const std::string& text) { put(rtpOf(number, text)); }
};

/// What becomes of an answer that comes in pieces of that size.
struct AnswerInPieces {
    HttpAnswer answer;
    HttpAnswer::State state = HttpAnswer::State::Head;
    std::string body;

    explicit AnswerInPieces(const std::string& text, size_t piece = 1) {
        for (size_t at = 0; at < text.size(); at += piece) {
            state = answer.put(text.data() + at, std::min(piece, text.size() - at),
                               [this](const uint8_t* bytes, size_t size) {
                                   body.append(reinterpret_cast<const char*>(bytes), size);
                               });
        }
    }
};

}  // namespace

TEST(RelayInputUrl, TakesNamesApart) {
    EXPECT_EQ(InputKind::Test, inputUrlOf("test").kind);
    for (const char* const file : {"-", "film.ts", "/srv/a b.ts", "./test", "dir/udp://x", "udp:x"}) {
        EXPECT_EQ(InputKind::File, inputUrlOf(file).kind) << file;
    }
    const InputUrl group = inputUrlOf("udp://@239.1.2.3:5004?iface=127.0.0.1&source=10.0.0.9");
    EXPECT_EQ(InputKind::Udp, group.kind);
    EXPECT_EQ("239.1.2.3", group.host);
    EXPECT_EQ(5004, group.port);
    EXPECT_EQ("127.0.0.1", group.interface);
    EXPECT_EQ("10.0.0.9", group.source);
    const InputUrl six = inputUrlOf("rtp://[ff15::1]:65535");
    EXPECT_EQ(InputKind::Rtp, six.kind);
    EXPECT_EQ("ff15::1", six.host);
    EXPECT_EQ(65535, six.port);
    EXPECT_EQ(1, inputUrlOf("udp://0.0.0.0:1").port);
    const InputUrl page = inputUrlOf("http://origin.example/live.ts?token=a:b");
    EXPECT_EQ(InputKind::Http, page.kind);
    EXPECT_EQ("origin.example", page.host);
    EXPECT_EQ(80, page.port);
    EXPECT_EQ("/live.ts?token=a:b", page.path);
    EXPECT_EQ("/", inputUrlOf("http://[::1]:7009").path);
    EXPECT_EQ("/?x=1", inputUrlOf("http://h?x=1#part").path);
}

TEST(RelayInputUrl, SaysWhatIsWrong) {
    EXPECT_EQ("is empty", wrongWithName(""));
    EXPECT_EQ("begins with none of udp://, rtp:// and http://", wrongWithName("https://host/live.ts"));
    EXPECT_EQ("has no port", wrongWithName("udp://127.0.0.1"));
    EXPECT_EQ("has no numeric address to listen at", wrongWithName("udp://localhost:5004"));
    EXPECT_EQ("has no numeric address to listen at", wrongWithName("udp://@:5004"));
    EXPECT_EQ("has a [ without a ]", wrongWithName("rtp://[::1:5004"));
    EXPECT_EQ("has no IPv6 address between [ and ], followed by a port",
              wrongWithName("rtp://[1.2.3.4]:5004"));
    EXPECT_EQ("has no IPv6 address between [ and ], followed by a port", wrongWithName("rtp://[::1]x:5004"));
    for (const char* const port : {"0", "65536", "99999", "", "5x", "-1", "123456789012345678901"}) {
        EXPECT_EQ("has no port from 1 to 65535", wrongWithName(std::string("udp://127.0.0.1:") + port));
    }
    EXPECT_EQ("has an argument that is neither iface=IP nor source=IP",
              wrongWithName("udp://239.1.1.1:5?ttl=3"));
    EXPECT_EQ("has an argument that is neither iface=IP nor source=IP", wrongWithName("udp://239.1.1.1:5?"));
    EXPECT_EQ("has a iface that is no address of the kind of the group's",
              wrongWithName("udp://239.1.1.1:5?iface=eth0"));
    EXPECT_EQ("has a source that is no address of the kind of the group's",
              wrongWithName("udp://239.1.1.1:5?source=::1"));
    EXPECT_EQ("has source, which is for groups alone", wrongWithName("udp://127.0.0.1:5?source=127.0.0.1"));
    EXPECT_EQ("has no host", wrongWithName("http:///live.ts"));
    EXPECT_EQ("has a user, which is not supported", wrongWithName("http://me@host/live.ts"));
    EXPECT_EQ("has bytes that are to be written as %XX", wrongWithName("http://host/a b"));
    EXPECT_EQ("has bytes that are to be written as %XX", wrongWithName("http://host/a\r\nX: y"));
}

TEST(RtpReader, GivesThePayloadsInTheOrderOfTheirNumbers) {
    RtpOut rtp;
    rtp.put(65534, "a");
    rtp.put(0, "c");
    rtp.put(1, "d");
    EXPECT_EQ("a", rtp.out);
    rtp.put(65535, "b");
    EXPECT_EQ("abcd", rtp.out) << "the number comes round";
    rtp.put(1, "x");
    rtp.put(0, "x");
    EXPECT_EQ("abcd", rtp.out);
    EXPECT_EQ(2U, rtp.reader.late());
    EXPECT_EQ(0U, rtp.reader.lost());
}

TEST(RtpReader, WaitsForAFewPacketsOrAMoment) {
    RtpOut many;
    many.put(10, "a");
    for (unsigned number = 13; number < 13 + RtpReader::HELD; ++number) {
        many.put(number, "b");
    }
    EXPECT_EQ("a", many.out);
    many.put(13 + RtpReader::HELD, "c");
    EXPECT_EQ("a" + std::string(RtpReader::HELD, 'b') + "c", many.out);
    EXPECT_EQ(2U, many.reader.lost());

    RtpOut moment;
    moment.put(10, "a");
    moment.put(12, "c");
    moment.now_us += RtpReader::HELD_US + 1;
    moment.put(13, "d");
    EXPECT_EQ("acd", moment.out);
    EXPECT_EQ(1U, moment.reader.lost());
    moment.put(11, "b");
    EXPECT_EQ("acd", moment.out);
    EXPECT_EQ(1U, moment.reader.late());
}

TEST(RtpReader, FollowsASenderThatBeginsAnew) {
    RtpOut rtp;
    rtp.put(10, "a");
    rtp.put(12, "c");
    rtp.put(rtpOf(500, "A", 0x80, 8));
    EXPECT_EQ("acA", rtp.out) << "another source";
    EXPECT_EQ(1U, rtp.reader.lost());
    rtp.put(rtpOf(40000, "x", 0x80, 8));
    EXPECT_EQ("acA", rtp.out) << "one packet from far away proves nothing";
    rtp.put(rtpOf(501, "B", 0x80, 8));
    rtp.put(rtpOf(20000, "x", 0x80, 8));
    rtp.put(rtpOf(20001, "C", 0x80, 8));
    EXPECT_EQ("acABC", rtp.out);
    EXPECT_EQ(1U, rtp.reader.lost());
}

TEST(RtpReader, ReadsHeadsAndRefusesBrokenOnes) {
    const std::string four(4, '\0');
    RtpOut rtp;
    rtp.put(rtpOf(1, four + four + "a", 0x82));                        // two contributors
    rtp.put(rtpOf(2, std::string("\0\0\0\1", 4) + four + "b", 0x90));  // an extension of a word
    rtp.put(rtpOf(3, std::string("c\0\0\3", 4), 0xA0));                // padding
    rtp.put(rtpOf(4, four + std::string("\0\0\0\0", 4) + std::string("d\1"), 0xB1));
    EXPECT_EQ("abcd", rtp.out);
    EXPECT_EQ(0U, rtp.reader.bad());
    for (const auto& bad :
         {rtpOf(5, four, 0x82), rtpOf(5, "ab", 0x90), rtpOf(5, std::string("\0\0\0\2abcd", 8), 0x90),
          rtpOf(5, std::string("a\0", 2), 0xA0), rtpOf(5, "a\5", 0xA0), rtpOf(5, "", 0xA0),
          rtpOf(5, "a", 0x40), std::vector<uint8_t>(11, 0x80), std::vector<uint8_t>()}) {
        rtp.put(bad);
    }
    std::vector<uint8_t> pictures = rtpOf(5, "x");
    pictures[1] = 96;
    rtp.put(pictures);
    EXPECT_EQ("abcd", rtp.out);
    EXPECT_EQ(10U, rtp.reader.bad());
    rtp.put(5, "e");
    EXPECT_EQ("abcde", rtp.out);
}

TEST(HttpAnswer, ReadsABodyByItsLengthByChunksAndToTheEnd) {
    for (const size_t piece : {size_t{1}, size_t{7}, size_t{1000}}) {
        const AnswerInPieces sized("HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nhellomore", piece);
        EXPECT_EQ("hello", sized.body);
        EXPECT_EQ(HttpAnswer::State::Done, sized.state);
        const AnswerInPieces open("HTTP/1.0 200\nX: y\n\nhello", piece);
        EXPECT_EQ("hello", open.body);
        EXPECT_EQ(HttpAnswer::State::Body, open.state);
        const AnswerInPieces chunked(
            "HTTP/1.1 100 Continue\r\n\r\nHTTP/1.1 200 OK\r\nContent-Length: 3\r\nTransfer-Encoding:  "
            "Chunked "
            "\r\n\r\n3\r\nhel\r\n00A;x=\"y\"\r\nlo, world!\r\n0\r\nTrailer: z\r\n\r\nHTTP",
            piece);
        EXPECT_EQ("hello, world!", chunked.body);
        EXPECT_EQ(HttpAnswer::State::Done, chunked.state);
        const AnswerInPieces none("HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n", piece);
        EXPECT_EQ(HttpAnswer::State::Done, none.state);
        const AnswerInPieces moved("HTTP/1.1 302 Found\r\nLOCATION: http://h/x \r\n\r\nbody", piece);
        EXPECT_EQ("", moved.body);
        EXPECT_EQ(302, moved.answer.status());
        EXPECT_EQ("http://h/x", moved.answer.location());
    }
}

TEST(HttpAnswer, RefusesWhatIsNone) {
    for (const char* const text :
         {"\r\n", "SSH-2.0-x\r\n", "HTTP/1.1 20\r\n", "HTTP/1.1 2000 OK\r\n", "HTTP/1.1 0x0 OK\r\n",
          "HTTP/1.1 099 OK\r\n", "HTTP/2.0 200 OK\r\n", "HTTP/1.1 200 OK\r\nno colon\r\n",
          "HTTP/1.1 200 OK\r\n: x\r\n", "HTTP/1.1 200 OK\r\nA: b\r\n folded\r\n",
          "HTTP/1.1 200 OK\r\nContent-Length: -1\r\n", "HTTP/1.1 200 OK\r\nContent-Length: 5x\r\n",
          "HTTP/1.1 200 OK\r\nContent-Length: 1234567890123456\r\n",
          "HTTP/1.1 200 OK\r\nContent-Length: 5\r\nContent-Length: 6\r\n",
          "HTTP/1.1 200 OK\r\nTransfer-Encoding: gzip, chunked\r\n",
          "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\nx\r\n",
          "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n\r\n",
          "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n1\r\nab\r\n"}) {
        EXPECT_EQ(HttpAnswer::State::Bad, AnswerInPieces(text).state) << text;
    }
    const std::string head = "HTTP/1.1 200 OK\r\n";
    EXPECT_EQ(HttpAnswer::State::Bad, AnswerInPieces(head + std::string(HttpAnswer::MOST_HEAD, 'a')).state);
    std::string interim;
    for (int i = 0; i < 2000; ++i) {
        interim += "HTTP/1.1 100 Continue\r\n\r\n";
    }
    EXPECT_EQ(HttpAnswer::State::Bad, AnswerInPieces(interim).state);
    std::string trailer;
    for (int i = 0; i < 5000; ++i) {
        trailer += "A: b\r\n";
    }
    EXPECT_EQ(HttpAnswer::State::Bad,
              AnswerInPieces(head + "Transfer-Encoding: chunked\r\n\r\n0\r\n" + trailer).state);
}
