// The parser on real messages: a table with the result of every operation, and every line of every message.
#include <Reticor/StrParser.h>

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "support/text/StrParserDriver.h"
#include "support/text/StrParserTexts.h"

namespace Orvex::Reticor {
namespace {

using namespace ProtocolTexts;

struct Row {
    const char* text;
    const char* at;  ///< The cursor is put on the first occurrence of this; "" is the start.
    const char* operation;
    long long (*run)(CStrParser& p, char* out, int& family);
    long long result;
    const char*
        here;  ///< What the text goes on with at the cursor afterwards; null: the cursor is at the end.
    const char* out;  ///< What `out`, of 64 bytes, holds then.
};

constexpr unsigned OUT = 64;
constexpr char UNTOUCHED[] = "untouched";

// A table that stops at the signs that part the values of a header, for bytes from -128 to 127.
const unsigned char* separators() {
    static unsigned char entries[256];
    for (char c : {',', ';', '=', '"'}) {
        entries[128 + c] = 1;
    }
    return entries + 128;
}

template <typename Void>
long long moved(CStrParser& p, Void operation) {
    operation();
    return p.GetCurOffset();
}

#define RUN(operation)                                         \
#operation, [](CStrParser & p, [[maybe_unused]] char* out, \
                   [[maybe_unused]] int& family) { return static_cast<long long>(operation); }

const Row ROWS[] = {
    // Buffers.
    {RTSP_OPTIONS, "", RUN(p.GetStringLen()), 207, "OPTIONS", UNTOUCHED},
    {RTSP_OPTIONS, "CSeq", RUN(strncmp(p.GetString(), "OPTIONS rtsp", 12)), 0, "CSeq: 1", UNTOUCHED},
    {SIP_INVITE, "To:", RUN(p.Attach("BYE sip:bob SIP/2.0\r\n")), 0, "BYE sip", UNTOUCHED},
    {SIP_INVITE, "To:", RUN(p.Attach("BYE sip:bob SIP/2.0\r\n", 3)), 0, "BYE", UNTOUCHED},
    {SDP_OFFER, "a=end", RUN(p.Append("\r\n") - p.GetStringLen()), 0, "a=end:65535\r\n", UNTOUCHED},
    {SIP_INVITE, "To:", RUN(p.GetStatus()), 0, "To:", UNTOUCHED},
    // Position.
    {HTTP_GET, "Host:", RUN(p.GetCurOffset()), 60, "Host:", UNTOUCHED},
    {HTTP_GET, "Host:", RUN(p.GetCurChar()), 'H', "Host:", UNTOUCHED},
    {HTTP_GET, "Host:", RUN(p.CheckPrevChar()), '\n', "Host:", UNTOUCHED},
    {HTTP_GET, "", RUN(p.CheckPrevChar()), 0, "GET", UNTOUCHED},
    {HTTP_GET, "Host:", RUN(moved(p, [&] { p.ResetAll(); })), 0, "GET /live", UNTOUCHED},
    {HTTP_GET, "8080", RUN(moved(p, [&] { p.ResetToLineHead(); })), 60, "Host:", UNTOUCHED},
    {HTTP_GET, "\nHost", RUN(moved(p, [&] { p.ResetToLineHead(); })), 0, "GET /live", UNTOUCHED},
    {HTTP_GET, "Host:", RUN(p.LocateOffset(4)), 4, "/live/", UNTOUCHED},
    {HTTP_GET, "Host:", RUN(p.LocateOffset(-4)), 0, "GET", UNTOUCHED},
    {RTSP_OPTIONS, "CSeq", RUN(p.LocateOffset(207)), 206, "\n", UNTOUCHED},
    {HTTP_GET, "Host:", RUN(p.GetLineNum()), 21, "Host:", UNTOUCHED},
    {SDP_OFFER, "", RUN(p.GetLineNum()), 27, "v=0", UNTOUCHED},
    {HTTP_GET, "media", RUN(p.GetCurLinelength()), 28, "media", UNTOUCHED},
    {SDP_CAMERA, "door", RUN(p.GetCurLinelength()), 16, "door", UNTOUCHED},
    {SDP_OFFER, "65535", RUN(p.GetCurLinelength()), 11, "65535", UNTOUCHED},
    {HTTP_CHUNKED, "\r\n1a", RUN(p.GetCurLinelength()), 0, "\r\n1a", UNTOUCHED},
    // Compare and expect.
    {RTSP_DESCRIBE, "", RUN(p.Compare("DESCRIBE ")), 0, "DESCRIBE", UNTOUCHED},
    {RTSP_DESCRIBE, "", RUN(p.Compare("describe ") != 0), 1, "DESCRIBE", UNTOUCHED},
    {SDP_OFFER, "65535", RUN(p.Compare("65535\r")), -1, "65535", UNTOUCHED},
    {HTTP_POST, "content-", RUN(p.CompareCase("Content-Length:")), 0, "content-", UNTOUCHED},
    {HTTP_POST, "content-", RUN(p.CompareCase("Content-Type:") != 0), 1, "content-", UNTOUCHED},
    {HTTP_GET, "?token", RUN(p.Expect('?')), 27, "token", UNTOUCHED},
    {HTTP_GET, "?token", RUN(p.Expect('&')), -1, "?token", UNTOUCHED},
    {HTTP_GET, "\r\nHost", RUN(p.ExpectEOL()), 60, "Host:", UNTOUCHED},
    {HTTP_GET, "\nHost", RUN(p.ExpectEOL()), 60, "Host:", UNTOUCHED},
    {HTTP_GET, "Host", RUN(p.ExpectEOL()), -1, "Host:", UNTOUCHED},
    // Search.
    {RTSP_SETUP, "", RUN(p.LocateString("ssrc=")), 252, "ssrc=2A7F00C1", UNTOUCHED},
    {RTSP_SETUP, "", RUN(p.LocateString("SSRC=")), -1, "SETUP", UNTOUCHED},
    {RTSP_SETUP, "", RUN(p.LocateStringCase("SSRC=")), 252, "ssrc=2A7F00C1", UNTOUCHED},
    {RTSP_SETUP, "", RUN(p.LocateStringCase("ssrc?")), -1, "SETUP", UNTOUCHED},
    {RTSP_SETUP, "Session", RUN(p.LocateStringInLine("timeout=")), 163, "timeout=60", UNTOUCHED},
    {RTSP_SETUP, "Session", RUN(p.LocateStringInLine("server_port=")), -1, "Session", UNTOUCHED},
    {RTSP_SETUP, "Session", RUN(p.LocateStringInLine("60\r\n")), 171, "60\r\n", UNTOUCHED},
    {RTSP_SETUP, "Session", RUN(p.LocateStringInLineCase("TimeOut=")), 163, "timeout=60", UNTOUCHED},
    {RTSP_SETUP, "Session", RUN(p.LocateStringInLineCase("TRANSPORT")), -1, "Session", UNTOUCHED},
    {SDP_OFFER, "a=end", RUN(p.LocateStringInLine("65535")), 949, "65535", UNTOUCHED},
    {SDP_OFFER, "a=end", RUN(p.LocateStringInLine("")), -1, "a=end", UNTOUCHED},
    // Passing bytes.
    {SIP_INVITE, "Via", RUN(p.ConsumeUntil(';')), 46, ";branch=z9hG4bK776", UNTOUCHED},
    {SIP_INVITE, "Via", RUN(p.ConsumeUntil('#')), -1, "Via", UNTOUCHED},
    {SIP_INVITE, "Via", RUN(p.ConsumeUntil(separators())), 46, ";branch=z9hG4bK776", UNTOUCHED},
    {SIP_INVITE, "Call-ID", RUN(p.ConsumeUntil(separators())), 127, ", ACK", UNTOUCHED},
    {SIP_INVITE, "Content-Length", RUN(p.ConsumeUntil(separators())), -1, "Content-Length", UNTOUCHED},
    {SIP_INVITE, "CSeq", RUN(p.ConsumeUntilDigit()), 6, "314159 INVITE", UNTOUCHED},
    {SIP_INVITE, "\r\n\r\n", RUN(p.ConsumeUntilDigit()), -1, "\r\n\r\n", UNTOUCHED},
    {HTTP_CHUNKED, "X-Checksum: d", RUN(p.ConsumeUntilHexDigit()), 2, "Checksum: ", UNTOUCHED},
    {HTTP_CHUNKED, "\r\n\r\n", RUN(p.ConsumeUntilHexDigit()), 4, "1a\r\n", UNTOUCHED},
    {SDP_CAMERA, "a=ptime", RUN(p.ConsumeUntilHexDigit()), 0, "a=ptime", UNTOUCHED},
    {RTSP_PLAY, "Range: npt=10.500-\r", RUN(p.ConsumeUntilinLine('-')), 17, "-\r\nScale", UNTOUCHED},
    {RTSP_PLAY, "Scale", RUN(p.ConsumeUntilinLine('-')), -1, "Scale: 1.0", UNTOUCHED},
    {RTSP_PLAY, "Scale", RUN(p.ConsumeUntilinLine('\n')), 11, "\nSpeed", UNTOUCHED},
    {SDP_OFFER, "a=end", RUN(p.ConsumeUntilinLine(';')), -1, "a=end", UNTOUCHED},
    {HTTP_GET, "Cookie", RUN(p.ConsumeUntilinLine(separators())), 11, "=0A1b2C3d4E5f", UNTOUCHED},
    {HTTP_GET, "DNT", RUN(p.ConsumeUntilinLine(separators())), 7, "\nForwarded", UNTOUCHED},
    {SDP_OFFER, "end:", RUN(p.ConsumeUntilinLine(separators())), -1, "end:65535", UNTOUCHED},
    {HTTP_GET, "DNT", RUN(p.ConsumeUntilNextLine()), 8, "Forwarded", UNTOUCHED},
    {RTSP_OPTIONS, "\n\r\nRTSP", RUN(p.ConsumeUntilNextLine()), 1, "\r\nRTSP", UNTOUCHED},
    {RTSP_OPTIONS, "GET_PARAMETER\r\n\r", RUN((p.GetThruEOL(), p.ConsumeUntilNextLine())), 206, "\n",
     UNTOUCHED},
    {SDP_OFFER, "a=end", RUN(p.ConsumeUntilNextLine()), -1, "a=end", UNTOUCHED},
    {SIP_REGISTER, "t: Bob", RUN(p.GetThru('<')), 8, "sip:bob@biloxi.example.com>", UNTOUCHED},
    {SIP_REGISTER, "t: Bob", RUN(p.GetThru('#')), -1, "t: Bob", UNTOUCHED},
    {SDP_CAMERA, "trackID=1", RUN(p.GetThru('\n')), 9, "\n", UNTOUCHED},
    {SIP_REGISTER, "t: Bob", RUN(p.GetThruEOL()), 37, "f: Bob", UNTOUCHED},
    {SDP_CAMERA, "a=control:trackID=1", RUN((p.GetThruEOL(), p.GetThruEOL())), 0, "\n", UNTOUCHED},
    // Blanks and words.
    {HTTP_POST, "\r\n\tsecond", RUN(p.ConsumeWhitespace()), 3, "second", UNTOUCHED},
    {HTTP_POST, "second", RUN(p.ConsumeWhitespace()), 0, "second", UNTOUCHED},
    {HTTP_POST, "    spaced", RUN(p.ConsumeWhitespaceInLine()), 4, "spaced", UNTOUCHED},
    {HTTP_POST, "  \r\nExpect", RUN(p.ConsumeWhitespaceInLine()), 2, "\r\nExpect", UNTOUCHED},
    {HTTP_GET, "", RUN(p.ConsumeWord(out, OUT)), 3, " /live", "GET"},
    {HTTP_GET, "/live", RUN(p.ConsumeWord(out, OUT)), 45, " HTTP/1.1",
     "/live/cam42/index.m3u8?token=9f3a&start=-12.5"},
    {HTTP_GET, "Accept-Language", RUN(p.ConsumeWord(out, 7)), 16, " en-GB", "Accept"},
    {HTTP_GET, "Accept-Language", RUN(p.ConsumeWord(nullptr, OUT)), 16, " en-GB", UNTOUCHED},
    {HTTP_GET, " HTTP/1.1", RUN(p.ConsumeWord(out, OUT)), 0, " HTTP/1.1", ""},
    {HTTP_GET, "bytes=", RUN(p.ConsumeLength(6, out, OUT)), 6, "1048576-", "bytes="},
    {HTTP_GET, "bytes=", RUN(p.ConsumeLength(6, out, 3)), 6, "1048576-", "by"},
    {SDP_OFFER, "65535", RUN(p.ConsumeLength(4000000000U, out, OUT)), 5, nullptr, "65535"},
    {HTTP_GET, "sid=", RUN(p.ConsumeSentence("=;", out, OUT)), 3, "0A1b2C", "sid"},
    {HTTP_GET, "0A1b", RUN(p.ConsumeSentence("=;", out, OUT)), 12, " theme=dark", "0A1b2C3d4E5f"},
    {HTTP_GET, "0A1b", RUN(p.ConsumeSentence("=;", out, 5)), 12, " theme=dark", "0A1b"},
    {HTTP_GET, "; theme", RUN(p.ConsumeSentence(";", out, OUT)), 0, " theme=dark", UNTOUCHED},
    {SDP_OFFER, "65535", RUN(p.ConsumeSentence("\n", out, OUT)), 5, nullptr, "65535"},
    {SDP_OFFER, "65535", RUN(p.ConsumeSentence("", out, OUT)), 5, nullptr, "65535"},
    // Lines by their heads.
    {HTTP_GET, "", RUN(p.GetLineWithHead("Content-Length:", out, OUT)), 17, "\r\n", "Content-Length: 0"},
    {HTTP_GET, "Host", RUN(p.GetLineWithHead("Host:", out, OUT)), 28, "User-",
     "Host: media.example.com:8080"},
    {HTTP_GET, "ost:", RUN(p.GetLineWithHead("Host:", out, OUT)), -1, "ost:", UNTOUCHED},
    {HTTP_GET, "", RUN(p.GetLineWithHead("host:", out, OUT)), -1, "GET", UNTOUCHED},
    {HTTP_GET, "", RUN(p.GetLineWithHead("DNT: ", out, 4)), 6, "Forwarded", "DNT"},
    {HTTP_GET, "", RUN(p.GetLineWithHead("DNT: ", nullptr, 0)), 0, "Forwarded", UNTOUCHED},
    {HTTP_RESPONSE, "node=", RUN(p.GetLineWithHead("Set-Cookie", out, OUT)), -1, "node=", UNTOUCHED},
    {SDP_CAMERA, "v=0", RUN(p.GetLineWithHead("v=", out, OUT)), 3, "o=-", "v=0"},
    {SDP_OFFER, "", RUN(p.GetLineWithHead("a=end", out, OUT)), 11, "5", "a=end:65535"},
    {HTTP_RESPONSE, "", RUN(p.GetLineNumWithHead("Set-Cookie:")), 2, "HTTP/1.1", UNTOUCHED},
    {HTTP_RESPONSE, "node", RUN(p.GetLineNumWithHead("Set-Cookie:")), 0, "node", UNTOUCHED},
    {SDP_OFFER, "", RUN(p.GetLineNumWithHead("a=")), 19, "v=0", UNTOUCHED},
    {SDP_CAMERA, "m=audio", RUN(p.GetLineNumWithHead("a=")), 5, "m=audio", UNTOUCHED},
    // Numbers.
    {SDP_OFFER, "2130706431", RUN(p.ConsumeInt64()), 2130706431, " 192.0.2.1", UNTOUCHED},
    {HTTP_POST, "99999999999999999999", RUN(p.ConsumeInt64()), INT64_MAX, "\r\nX-Padded", UNTOUCHED},
    {HTTP_GET, "-12.5", RUN(p.ConsumeInt64()), -12, " HTTP/1.1", UNTOUCHED},
    {HTTP_GET, "Host", RUN(p.ConsumeInt64() * 10 + p.GetStatus()), -11, "Host", UNTOUCHED},
    {SDP_OFFER, "3735928559", RUN(p.ConsumeInt32()), -559038737, " cname", UNTOUCHED},
    {SIP_INVITE, "314159", RUN(p.ConsumeInt16()), -13521, " INVITE", UNTOUCHED},
    {SDP_CAMERA, "2890844526", RUN(p.ConsumeUint64()), 2890844526, " 2890842807", UNTOUCHED},
    {HTTP_POST, "-273.15", RUN(p.ConsumeUint64() == 0ULL - 273), 1, "\r\nX-Price", UNTOUCHED},
    {HTTP_GET, "Host", RUN(p.ConsumeUint64() * 10 + static_cast<unsigned>(-p.GetStatus())), 1, "Host",
     UNTOUCHED},
    {SDP_OFFER, "3735928559", RUN(p.ConsumeUint32()), 3735928559, " cname", UNTOUCHED},
    {SDP_OFFER, "65535", RUN(p.ConsumeUint16()), 65535, nullptr, UNTOUCHED},
    {RTSP_PLAY, "10.500-735", RUN(p.ConsumeDouble() * 1000), 10500, "-735.040", UNTOUCHED},
    {RTSP_PLAY, "-735.040", RUN(p.ConsumeDouble() * 1000), -735040, "\r\nRTP-Info", UNTOUCHED},
    {HTTP_POST, "12.\r\n", RUN(p.ConsumeDouble()), 12, ".\r\n", UNTOUCHED},
    {HTTP_POST, "1.2.3", RUN(p.ConsumeDouble() * 10), 12, ".3\r\n", UNTOUCHED},
    {SDP_CAMERA, "AS:", RUN(p.ConsumeDouble() + p.GetStatus()), -2, "AS:", UNTOUCHED},
    {SDP_CAMERA, "29.97", RUN(p.ConsumeFloat() * 100 > 2996.9F), 1, "\na=control", UNTOUCHED},
    {HTTP_CHUNKED, "1a\r\n", RUN(p.ConsumeHexUint32()), 26, "\r\nabc", UNTOUCHED},
    {HTTP_CHUNKED, "FF;", RUN(p.ConsumeHexUint32()), 255, ";name", UNTOUCHED},
    {HTTP_CHUNKED, "dEadBeef", RUN(p.ConsumeHexUint32()), 0xDEADBEEF, "\r\n", UNTOUCHED},
    {RTSP_SETUP, "2A7F", RUN(p.ConsumeHexUint32()), 0x2A7F00C1, "\r\n", UNTOUCHED},
    {RTSP_SETUP, "ssrc", RUN(p.ConsumeHexUint32() + static_cast<unsigned>(p.GetStatus())), 0, "ssrc",
     UNTOUCHED},
    // Addresses.
    {RTSP_OPTIONS, "192.", RUN(p.ConsumeIpAddr(out, OUT, &family) * 10 + family), 124, ":554",
     "192.168.7.20"},
    {RTSP_DESCRIBE, "[fe80", RUN(p.ConsumeIpAddr(out, OUT, &family) * 10 + family), 96, ":8554", "fe80::1%2"},
    {SIP_INVITE, "[2001", RUN(p.ConsumeIpAddr(out, OUT, &family) * 10 + family), 136, ":5060",
     "2001:db8::9:1"},
    {HTTP_GET, "2001:", RUN(p.ConsumeIpAddr(out, OUT, &family) * 10 + family), 126, "\r\n", "2001:db8::17"},
    {HTTP_GET, "media", RUN(p.ConsumeIpAddr(out, OUT, &family) * 10 + family), 169, ":8080",
     "media.example.com"},
    {SDP_CAMERA, "239.", RUN(p.ConsumeIpAddr(out, OUT, nullptr)), 9, "/127", "239.1.2.3"},
    {HTTP_GET, " 192.0", RUN(p.ConsumeIpAddr(out, OUT, &family)), 10, " 192.0", "192.0.2.60"},
    {HTTP_GET, "\r\nHost", RUN(p.ConsumeIpAddr(out, OUT, &family)), -1, "\r\nHost", ""},
    {SIP_INVITE, "198.", RUN(p.ConsumeIpAddr(out, 6, &family)), -1, "198.", UNTOUCHED},
    // Replacement.
    {SIP_INVITE, "142\r", RUN(p.ReplaceInt64(-5)), 2, "-5\r\n\r\n", UNTOUCHED},
    {SIP_INVITE, "142\r", RUN(p.ReplaceInt32(1420)), 4, "1420\r\n\r\n", UNTOUCHED},
    {SIP_INVITE, "142\r", RUN(p.ReplaceInt16(-32768)), 6, "-32768\r\n\r\n", UNTOUCHED},
    {SIP_INVITE, "70\r", RUN(p.ReplaceUint64(69)), 2, "69\r\nTo:", UNTOUCHED},
    {SIP_INVITE, "70\r", RUN(p.ReplaceUint32(4294967295U)), 10, "4294967295\r\nTo:", UNTOUCHED},
    {SIP_INVITE, "70\r", RUN(p.ReplaceUint16(9)), 1, "9\r\nTo:", UNTOUCHED},
    {RTSP_PLAY, "10.500-\r", RUN(p.ReplaceFloat(0.25F)), 8, "0.250000-\r\n", UNTOUCHED},
    {RTSP_PLAY, "10.500-\r", RUN(p.ReplaceDouble(-1.5)), 9, "-1.500000-\r\n", UNTOUCHED},
    {RTSP_PLAY, "npt", RUN(p.ReplaceDouble(-1.5)), -1, "npt=10.500", UNTOUCHED},
    {SDP_OFFER, "65535", RUN(p.ReplaceUint32(1)), -1, "65535", UNTOUCHED},
    {RTSP_SETUP, "192.", RUN(p.ReplaceIpAddr("10.0.0.1")), 8, "10.0.0.1/cam/1/", UNTOUCHED},
    {SIP_INVITE, "198.", RUN(p.ReplaceIpAddr("gw.example.com")), 14, "gw.example.com:5061;", UNTOUCHED},
    {SIP_INVITE, "[2001", RUN(p.ReplaceIpAddr("h")), 1, "h1]:5060", UNTOUCHED},
    {SIP_INVITE, "198.", RUN(p.ReplaceIpAddr(nullptr)), -1, "198.", UNTOUCHED},
    {HTTP_RESPONSE, "node", RUN(p.ReplaceLength(12, "x=1") - p.GetCurOffset()), 0, "; Path=/live", UNTOUCHED},
    {HTTP_RESPONSE, "VERSION:3", RUN(p.ReplaceLength(99, "V") - p.GetStringLen()), 0, nullptr, UNTOUCHED},
};

void expect_here(const CStrParser& p, const char* here) {
    int left = p.GetStringLen() - p.GetCurOffset();
    if (here == nullptr) {
        EXPECT_LE(left, 0);
        return;
    }
    ASSERT_GE(left, static_cast<int>(strlen(here)));
    EXPECT_EQ(here, std::string(p.GetString() + p.GetCurOffset(), strlen(here)));
}

TEST(StrParserProtocol, EveryOperationGivesItsResultOnRealMessages) {
    for (const Row& row : ROWS) {
        SCOPED_TRACE(std::string(row.operation) + " at '" + row.at + "'");
        CStrParser p(row.text);
        if (*row.at != '\0') {
            ASSERT_NE(-1, p.LocateString(row.at));
        }
        char out[OUT];
        strcpy(out, UNTOUCHED);
        int family = 0;
        EXPECT_EQ(row.result, row.run(p, out, family));
        expect_here(p, row.here);
        EXPECT_STREQ(row.out, out);
    }
}

std::vector<std::string> lines_of(const std::string& text) {
    std::vector<std::string> lines;
    for (size_t from = 0; from < text.size();) {
        size_t end = text.find('\n', from);
        end = end == std::string::npos ? text.size() : end + 1;
        lines.push_back(text.substr(from, end - from));
        from = end;
    }
    return lines;
}

// What the operations on lines say at the start of one line, which is the last of the text or not.
void expect_line(CStrParser& p, const std::string& line, int offset, bool last) {
    SCOPED_TRACE(line);
    size_t end = line.find_first_of("\r\n");
    std::string bare = line.substr(0, end);
    int size = static_cast<int>(line.size());
    bool ended = end != std::string::npos;

    ASSERT_EQ(offset, p.LocateOffset(offset));
    EXPECT_EQ(bare.size(), p.GetCurLinelength());
    EXPECT_EQ(0, p.Compare(bare.c_str()));
    if (!bare.empty()) {
        EXPECT_EQ(offset, p.LocateStringInLine(bare.c_str()));
    }
    std::string out(line.size() + 1, '\0');
    if (offset > 1 || offset == 0) {
        EXPECT_EQ(bare.size(), static_cast<size_t>(p.GetLineWithHead(bare.c_str(), out.data(),
                                                                     static_cast<unsigned>(out.size()))));
        EXPECT_EQ(bare, out.c_str());
    }
    p.LocateOffset(offset);
    EXPECT_EQ(ended ? (last ? offset + size - 1 : size) : -1, p.ConsumeUntilNextLine());
    EXPECT_EQ(!ended ? offset : (last ? offset + size - 1 : offset + size), p.GetCurOffset());
    p.LocateOffset(offset + size - 1);
    p.ResetToLineHead();
    EXPECT_EQ(offset, p.GetCurOffset());
    p.ConsumeLength(static_cast<unsigned>(bare.size()), nullptr, 0);
    EXPECT_EQ(ended ? offset + size : -1, p.ExpectEOL());
}

TEST(StrParserProtocol, EveryLineIsFoundMeasuredAndPassed) {
    size_t count = 0;
    for (const char* text : ALL) {
        CStrParser p(text);
        int offset = 0;
        std::vector<std::string> lines = lines_of(text);
        count += lines.size();
        for (size_t i = 0; i < lines.size(); ++i) {
            expect_line(p, lines[i], offset, i + 1 == lines.size());
            offset += static_cast<int>(lines[i].size());
        }
        EXPECT_EQ(p.GetStringLen(), offset);
    }
    EXPECT_GE(count, 199U);
}

TEST(StrParserProtocol, HeadersAreSplitIntoNamesAndValues) {
    CStrParser p(HTTP_GET);
    std::vector<std::string> names;
    char value[80];
    ASSERT_NE(-1, p.ConsumeUntilNextLine());
    for (char name[32]; p.ConsumeSentence(":", name, sizeof name) > 0 && p.ConsumeWhitespaceInLine() > 0;) {
        names.push_back(name);
        p.ConsumeSentence("\r", value, sizeof value);
        p.Expect('\n');
        if (p.ExpectEOL() != -1) {
            break;
        }
    }
    ASSERT_EQ(19U, names.size());
    EXPECT_EQ("Host", names.front());
    EXPECT_EQ("Content-Length", names.back());
    EXPECT_STREQ("0", value);
    EXPECT_EQ(p.GetStringLen(), p.GetCurOffset());
}

// One input of the driver: the whole text, the cursor at `offset`, then one operation with arguments.
std::vector<uint8_t> one_operation(const std::string& text, int offset, unsigned operation) {
    std::vector<uint8_t> input{2, static_cast<uint8_t>(text.size()), static_cast<uint8_t>(text.size() >> 8)};
    input.insert(input.end(), text.begin(), text.end());
    input.push_back(9);
    for (int shift = 0; shift < 32; shift += 8) {
        input.push_back(static_cast<uint8_t>(static_cast<unsigned>(offset) >> shift));
    }
    input.push_back(static_cast<uint8_t>(operation));
    const uint8_t arguments[] = {2, '\n', ':', 9, 3, 201, 7};
    input.insert(input.end(), arguments, arguments + sizeof arguments);
    return input;
}

TEST(StrParserProtocol, EveryOperationAgreesWithTheModelAtEveryByte) {
    for (const char* text : ALL) {
        std::string whole = text;
        for (int offset = 0; offset <= static_cast<int>(whole.size()); ++offset) {
            for (unsigned operation = 5; operation < CStrParserDriver::OPERATIONS; ++operation) {
                std::vector<uint8_t> input = one_operation(whole, offset, operation);
                ASSERT_EQ("", driveStrParser(input.data(), input.size()))
                    << "operation " << operation << " at " << offset << " of\n"
                    << whole;
            }
        }
    }
}

}  // namespace
}  // namespace Orvex::Reticor
