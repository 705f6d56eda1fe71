// The parser on extreme texts: empty, of one byte, with NUL bytes and bytes above 127, without a final line
// end, of 10 MiB; and at random, against its model.
#include <Reticor/StrParser.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/SeededRandom.h"
#include "support/text/StrParserDriver.h"
#include "support/text/StrParserTexts.h"

namespace Orvex::Reticor {
namespace {

// Every operation, with a few arguments, at every offset from the start to after the last byte, and at -1 on
// an empty text.
void expect_agreement(const std::string& text) {
    const std::string arguments[] = {std::string(16, '\0'), std::string(16, '\xFF'), "\x01\n\x03\x0C\x01\x02",
                                     "\x02\xC3\xA9\x09;\x04", "\x05\x05-5.12\x08"};
    for (int offset = -1; offset <= static_cast<int>(text.size()); ++offset) {
        for (unsigned operation = 0; operation < CStrParserDriver::OPERATIONS; ++operation) {
            for (const std::string& tail : arguments) {
                std::string input{"\x02", 1};
                input += static_cast<char>(text.size());
                input += static_cast<char>(text.size() >> 8);
                input += text;
                input += offset < 0 ? '\x0E' : '\x28';
                input += static_cast<char>(offset);
                input += offset < 0 ? "" : std::string(2, '\0');
                input += static_cast<char>(operation);
                input += tail;
                const auto* bytes = reinterpret_cast<const uint8_t*>(input.data());
                ASSERT_EQ("", driveStrParser(bytes, input.size()))
                    << "operation " << operation << " at " << offset << " of '" << text << "'";
            }
        }
    }
}

TEST(StrParserExtremes, EveryOperationHoldsOnAnEmptyText) {
    expect_agreement("");
}

TEST(StrParserExtremes, EveryOperationHoldsOnTextsOfOneByte) {
    for (int byte = 0; byte < 256; ++byte) {
        expect_agreement(std::string(1, static_cast<char>(byte)));
    }
}

TEST(StrParserExtremes, EveryOperationHoldsOnTextsWithNulBytes) {
    expect_agreement(std::string("\0", 1));
    expect_agreement(std::string("\0\0\n\0", 4));
    expect_agreement(std::string("a: 1\0\n\0b: 12", 12));
    expect_agreement(std::string("1.2.3\0.4\r\n", 10));
}

TEST(StrParserExtremes, EveryOperationHoldsOnBytesAbove127) {
    expect_agreement("\xC3\xA9t\xC3\xA9: 7\r\n\xFF\x80\n");
    expect_agreement("\x80\x81\xFE\xFF");
}

TEST(StrParserExtremes, EveryOperationHoldsWithoutAFinalLineEnd) {
    expect_agreement("a: 1\r\nb: 2.");
    expect_agreement("m\n-5");
    expect_agreement("\n\r");
    expect_agreement("[::1]\n[::2");
}

constexpr unsigned LARGE = 10U << 20;

TEST(StrParserExtremes, TenMebibytesAreSearchedMeasuredAndPassed) {
    std::string text(LARGE, 'x');
    text.replace(LARGE - 8, 8, "\r\nV: 12;");
    CStrParser p(text.data(), LARGE);
    ASSERT_EQ(static_cast<int>(LARGE), p.GetStringLen());
    EXPECT_EQ(LARGE - 8, p.GetCurLinelength());
    EXPECT_EQ(1, p.GetLineNum());
    char out[8];
    EXPECT_EQ(6, p.GetLineWithHead("V:", out, sizeof out));
    EXPECT_STREQ("V: 12;", out);
    p.ResetAll();
    EXPECT_EQ(static_cast<int>(LARGE) - 8, p.ConsumeWord(out, sizeof out));
    EXPECT_STREQ("xxxxxxx", out);
    EXPECT_EQ(static_cast<int>(LARGE) - 6, p.ExpectEOL());
    EXPECT_EQ(static_cast<int>(LARGE) - 3, p.LocateOffset(static_cast<int>(LARGE) - 3));
    EXPECT_EQ(12, p.ConsumeInt32());
    p.LocateOffset(static_cast<int>(LARGE) - 3);
    EXPECT_EQ(5, p.ReplaceUint32(98765));
    EXPECT_EQ(static_cast<int>(LARGE) + 5, p.GetStringLen());
    EXPECT_EQ(static_cast<int>(LARGE) - 3, p.LocateString("98765;\r\n"));
}

TEST(StrParserExtremes, TenMebibytesOfLinesAreWalkedToTheEnd) {
    std::string text;
    while (text.size() < LARGE) {
        text += "Header: value\r\n";
    }
    CStrParser p(text.c_str());
    int lines = static_cast<int>(text.size() / 15);
    EXPECT_EQ(lines, p.GetLineNum());
    EXPECT_EQ(lines, p.GetLineNumWithHead("Header"));
    int walked = 0;
    while (p.GetThruEOL() > 0) {
        ++walked;
    }
    EXPECT_EQ(lines, walked);
    EXPECT_EQ(static_cast<int>(text.size()) - 1, p.GetCurOffset());
}

TEST(StrParserExtremes, TenMebibytesOfDigitsAreOneNumber) {
    CStrParser p(std::string(LARGE, '1').c_str());
    EXPECT_EQ(INT64_MAX, p.ConsumeInt64());
    EXPECT_EQ(static_cast<int>(LARGE) + 1, p.GetCurOffset());
    p.ResetAll();
    EXPECT_EQ(-1.0, p.ConsumeDouble());
    EXPECT_EQ(0x11111111U, p.ConsumeHexUint32());
    p.ResetAll();
    char out[32];
    EXPECT_EQ(32, p.ConsumeIpAddr(out, sizeof out, nullptr));
    p.ResetAll();
    EXPECT_EQ(static_cast<int>(LARGE), p.ReplaceLength(INT32_MAX, ""));
    EXPECT_EQ(0, p.GetLineNum());
}

TEST(StrParserExtremes, RandomOperationsOnRealTextsAgreeWithTheModel) {
    Testing::SeededRandom random;
    for (int round = 0; round < 3000; ++round) {
        const char* const* all = ProtocolTexts::ALL;
        std::string text = all[random.between<size_t>(0, std::size(ProtocolTexts::ALL) - 1)];
        std::vector<uint8_t> input{static_cast<uint8_t>(random.between(1, 2)),
                                   static_cast<uint8_t>(text.size()), static_cast<uint8_t>(text.size() >> 8)};
        input.insert(input.end(), text.begin(), text.end());
        for (int i = 0; i < 200; ++i) {
            input.push_back(static_cast<uint8_t>(random.between(0, 255)));
        }
        ASSERT_EQ("", driveStrParser(input.data(), input.size())) << "round " << round;
    }
}

}  // namespace
}  // namespace Orvex::Reticor
