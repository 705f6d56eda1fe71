// BodyReader of media_relay: what publishers send, in pieces of any size, and what can be read in two ways.
#include <string>
#include <string_view>

#include <gtest/gtest.h>

#include "media_relay/http/BodyReader.h"

using namespace relay;

namespace {

HttpRequest requestWith(const std::string& lines) {
    HttpRequest request;
    EXPECT_EQ(200, parseRequest("PUT /publish/a HTTP/1.1\r\n" + lines + "\r\n", request));
    return request;
}

struct BodyRead {
    std::string body;
    std::string rest;  // that came after the body
    bool ended;
    bool broken;
};

/// The bytes after a head with `lines`, given in two parts: up to `cut`, and from there.
BodyRead readBody(const std::string& lines, const std::string& bytes, size_t cut) {
    BodyReader reader;
    EXPECT_EQ(200, reader.begin(requestWith(lines)));
    BodyRead read{};
    for (const std::string& part : {bytes.substr(0, cut), bytes.substr(cut)}) {
        std::string_view left = part;
        for (std::string_view piece = reader.take(left); !piece.empty(); piece = reader.take(left)) {
            read.body += piece;
        }
        read.rest += left;
    }
    read.ended = reader.hasEnded();
    read.broken = reader.isBroken();
    return read;
}

/// Split at every place, the bytes are the same body, with `rest` after it.
void expectBody(const std::string& lines, const std::string& bytes, const std::string& body,
                const std::string& rest) {
    for (size_t cut = 0; cut <= bytes.size(); ++cut) {
        const BodyRead read = readBody(lines, bytes + rest, cut);
        EXPECT_EQ(body, read.body) << cut;
        EXPECT_EQ(rest, read.rest) << cut;
        EXPECT_TRUE(read.ended) << cut;
        EXPECT_FALSE(read.broken) << cut;
    }
}

constexpr char kChunked[] = "Transfer-Encoding: Chunked\r\n";

/// Split at every place, the bytes are no body.
void expectBroken(const std::string& bytes) {
    for (size_t cut = 0; cut <= bytes.size(); ++cut) {
        const BodyRead read = readBody(kChunked, bytes, cut);
        EXPECT_TRUE(read.broken) << cut << ": " << bytes;
        EXPECT_FALSE(read.ended) << cut << ": " << bytes;
    }
}

int beginStatus(const std::string& lines) {
    BodyReader reader;
    const int status = reader.begin(requestWith(lines));
    std::string_view bytes = "0\r\n\r\n";
    if (status != 200) {
        EXPECT_TRUE(reader.isBroken());
        EXPECT_TRUE(reader.take(bytes).empty());
        EXPECT_EQ(5U, bytes.size()) << "what follows a refused head is touched";
        EXPECT_FALSE(reader.finish());
    }
    return status;
}

}  // namespace

TEST(BodyReader, ReadsABodyOfAToldLength) {
    const std::string bytes("ab\r\n\0cd", 7);
    expectBody("Content-Length: 7\r\n", bytes, bytes, "GET / HTTP/1.1\r\n");
    expectBody("Content-Length: 0\r\n", "", "", "x");
}

TEST(BodyReader, ReadsChunks) {
    expectBody(kChunked, "3\r\nabc\r\n0a\r\n0123\r\n6789\r\n0\r\n\r\n", "abc0123\r\n6789", "x");
    expectBody(kChunked, "0\r\n\r\n", "", "PUT");
    expectBody(kChunked, "A;name=value;other=\"a b\"\r\n0123456789\r\n1 ; x\r\n!\r\n000\r\n\r\n",
               "0123456789!", "");
}

TEST(BodyReader, IgnoresTrailers) {
    expectBody(kChunked, "1\r\na\r\n0\r\nDate: now\r\nX: \t y\r\n\r\n", "a", "rest");
}

TEST(BodyReader, GivesAllThereIsWhenNothingIsTold) {
    BodyReader reader;
    ASSERT_EQ(200, reader.begin(requestWith("")));
    std::string_view bytes = "0\r\n\r\nabc";
    EXPECT_EQ("0\r\n\r\nabc", reader.take(bytes));
    EXPECT_TRUE(bytes.empty());
    EXPECT_FALSE(reader.hasEnded());
    EXPECT_TRUE(reader.finish());
    EXPECT_TRUE(reader.hasEnded());
}

TEST(BodyReader, CopiesNothing) {
    BodyReader reader;
    ASSERT_EQ(200, reader.begin(requestWith(kChunked)));
    const std::string text = "5\r\nabcde\r\n";
    std::string_view bytes = text;
    EXPECT_EQ(text.data() + 3, reader.take(bytes).data());
}

TEST(BodyReader, TellsThatTheEndOfTheConnectionCameTooEarly) {
    const std::string whole = "2\r\nab\r\n0\r\n\r\n";
    for (size_t size = 0; size < whole.size(); ++size) {
        BodyReader reader;
        ASSERT_EQ(200, reader.begin(requestWith(kChunked)));
        const std::string part = whole.substr(0, size);
        std::string_view bytes = part;
        while (!reader.take(bytes).empty()) {
        }
        EXPECT_FALSE(reader.finish()) << size;
    }
    BodyReader counted;
    ASSERT_EQ(200, counted.begin(requestWith("Content-Length: 3\r\n")));
    std::string_view bytes = "ab";
    EXPECT_EQ("ab", counted.take(bytes));
    EXPECT_FALSE(counted.finish());
}

TEST(BodyReader, RefusesHeadsThatTellTheLengthInTwoWays) {
    EXPECT_EQ(400, beginStatus("Content-Length: 5\r\nTransfer-Encoding: chunked\r\n"));
    EXPECT_EQ(400, beginStatus("Transfer-Encoding: chunked\r\nContent-Length: 5\r\n"));
    for (const char* length : {"", "+5", "-5", "5x", "0x5", "5 5", "5,5", "18446744073709551616"}) {
        EXPECT_EQ(400, beginStatus(std::string("Content-Length: ") + length + "\r\n")) << length;
    }
    for (const char* coding :
         {"", "gzip", "gzip, chunked", "chunked, gzip", "chunked, chunked", "xchunked"}) {
        EXPECT_EQ(501, beginStatus(std::string("Transfer-Encoding: ") + coding + "\r\n")) << coding;
    }
    for (const char* lines :
         {"Content-Length: 5\r\nContent-Length: 6\r\n",
          "Content-Length: 5\r\nHost: a\r\ncontent-length: 5\r\n", "Content-Length:\r\nContent-Length: 5\r\n",
          "Transfer-Encoding: chunked\r\nTransfer-Encoding: chunked\r\n",
          "Transfer-Encoding: gzip\r\ntransfer-encoding: chunked\r\n", "Content-Length : 5\r\n",
          "Transfer-Encoding\t: chunked\r\n"}) {
        HttpRequest request;
        EXPECT_EQ(400, parseRequest(std::string("PUT / HTTP/1.1\r\n") + lines + "\r\n", request)) << lines;
    }
}

TEST(BodyReader, RefusesChunksThatCanBeReadInTwoWays) {
    expectBroken("\r\n");
    expectBroken("x\r\n");
    expectBroken("-1\r\n");
    expectBroken("0x1\r\na\r\n0\r\n\r\n");
    expectBroken(" 1\r\na\r\n0\r\n\r\n");
    expectBroken("1 \r\na\r\n0\r\n\r\n");
    expectBroken("1 1\r\na\r\n0\r\n\r\n");
    expectBroken("10000000000000000\r\n");  // 2^64
    expectBroken("1\na\n0\n\n");
    expectBroken("1\ra\r\n0\r\n\r\n");
    expectBroken("1;\r\r\na\r\n0\r\n\r\n");
    expectBroken("1;x\ny\r\na\r\n0\r\n\r\n");
    expectBroken(std::string("1;\0\r\na\r\n0\r\n\r\n", 14));
    expectBroken("1\r\nab\r\n0\r\n\r\n");
    expectBroken("2\r\na\r\n0\r\n\r\n");
    expectBroken("1\r\na\n0\r\n\r\n");
    expectBroken("1\r\na\r0\r\n\r\n");
    expectBroken("0\r\nX: y\n\r\n");
    expectBroken("0\r\n\n");
}

TEST(BodyReader, BoundsTheLinesBetweenChunks) {
    const std::string most(BodyReader::MOST_LINE - 2, 'x');
    expectBody(kChunked, "1;" + most + "\r\na\r\n0\r\n\r\n", "a", "");
    expectBroken("1;" + most + "x");
    expectBroken("1;" + most + "x\r");

    BodyReader reader;
    ASSERT_EQ(200, reader.begin(requestWith(kChunked)));
    const std::string line = "X: 89\r\n";
    std::string_view bytes = "0\r\n";
    reader.take(bytes);
    size_t size = 0;
    for (; !reader.isBroken() && size < 2 * BodyReader::MOST_TRAILERS; size += 5) {
        bytes = line;
        reader.take(bytes);
    }
    EXPECT_GE(size, BodyReader::MOST_TRAILERS);
    EXPECT_LE(size, BodyReader::MOST_TRAILERS + 5);
}

TEST(BodyReader, TellsWhoWaitsToBeAskedForTheBody) {
    BodyReader reader;
    EXPECT_EQ(200, reader.begin(requestWith("Expect: 100-Continue\r\nTransfer-Encoding: chunked\r\n")));
    EXPECT_TRUE(reader.isAwaited());
    EXPECT_EQ(200, reader.begin(requestWith("Content-Length: 5\r\n")));
    EXPECT_FALSE(reader.isAwaited());
    EXPECT_EQ(200, reader.begin(requestWith("Expect: 100-continue\r\nContent-Length: 0\r\n")));
    EXPECT_FALSE(reader.isAwaited()) << "there is no body to wait for";
    EXPECT_EQ(417, beginStatus("Expect: 200-ok\r\nContent-Length: 5\r\n"));
}
