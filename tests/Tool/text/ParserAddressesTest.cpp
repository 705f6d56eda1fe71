// The parser's addresses and host names.
#include <Reticor/StrParser.h>

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "support/text/TextOf.h"

namespace Orvex::Reticor {
namespace {

using Testing::text_of;

struct Taken {
    const char* text;
    const char* out;  ///< Null: -1 is the result.
    int family;
    int offset;
};

void expect_taken(const Taken& wanted) {
    SCOPED_TRACE(wanted.text);
    CStrParser p(wanted.text);
    char out[64];
    int family = 77;
    int length = p.ConsumeIpAddr(out, sizeof out, &family);
    EXPECT_EQ(wanted.offset, p.GetCurOffset());
    if (wanted.out == nullptr) {
        EXPECT_EQ(-1, length);
        EXPECT_EQ(77, family);
        return;
    }
    EXPECT_STREQ(wanted.out, out);
    EXPECT_EQ(static_cast<int>(std::string(wanted.out).size()), length);
    EXPECT_EQ(wanted.family, family);
}

TEST(ParserAddresses, AddressesAndNamesEndBeforeThePort) {
    expect_taken({"[fe80::1%2]:80", "fe80::1%2", 6, 11});
    expect_taken({"1.2.3.4:80", "1.2.3.4", 4, 7});
    expect_taken({"example:80", "example", -1, 7});
}

TEST(ParserAddresses, HexDigitsAndAColonAreTakenForAnAddressAsAWhole) {
    expect_taken({"abc:80", "abc:80", -1, 6});
    expect_taken({"2001:db8::1 x", "2001:db8::1", 6, 11});
    expect_taken({"1.2.3:80", "1.2.3:80", -1, 8});
    expect_taken({":", ":", -1, 1});
    expect_taken({"::", "::", 6, 2});
}

TEST(ParserAddresses, ADottedQuadIsWrittenAnew) {
    expect_taken({"010.1.1.1/", "10.1.1.1", 4, 9});
    expect_taken({"256.1.1.1", "256.1.1.1", -1, 9});
    expect_taken({"1.2.3.4.5.6:80", "1.2.3.4", 4, 11});
    expect_taken({"1.2.3.4..;", "1.2.3.4", 4, 9});
    expect_taken({"1.2.3.-4", "1.2.3.-4", -1, 6});
    expect_taken({"1.2.3.4x", "1.2.3.4", 4, 7});
}

TEST(ParserAddresses, FieldsTooWideAreCutTo32Bits) {
    expect_taken({"99999999999.1.1.1", "1215752191.1.1.1", -1, 17});
    expect_taken({"4294967297.1.1.1", "1.1.1.1", 4, 16});
    expect_taken({"99999999999999999999.0.0.0", "-1.0.0.0", -1, 26});
    expect_taken({"-99999999999999999999.0.0.0", "0.0.0.0", 4, 0});
}

TEST(ParserAddresses, BlanksAndSignsBeforeFieldsAreTakenButNotPassed) {
    expect_taken({"  1.2.3.4", "1.2.3.4", 4, 0});
    expect_taken({"\r\n1.2.3.4", "1.2.3.4", 4, 0});
    expect_taken({"+1.2.3.4", "1.2.3.4", 4, 0});
    expect_taken({"1. 2.\n3.\t4", "1.2.3.4", 4, 2});
    expect_taken({"1 .2.3.4", "1", -1, 1});
}

TEST(ParserAddresses, ThreeFieldsAreAName) {
    expect_taken({"1.2.3", "1.2.3", -1, 5});
    expect_taken({"1.2.3.", "1.2.3.", -1, 6});
    expect_taken({"1.2.3.x", "1.2.3.x", -1, 7});
}

TEST(ParserAddresses, AQuadIsNotLookedForBehindANulByteOrTheEnd) {
    CStrParser p("1.2.3\0.4", 8);
    char out[16];
    EXPECT_EQ(5, p.ConsumeIpAddr(out, sizeof out, nullptr));
    EXPECT_STREQ("1.2.3", out);
}

TEST(ParserAddresses, BracketsHoldAnAddressUpToTheClosingOne) {
    expect_taken({"[::1]", "::1", 6, 5});
    expect_taken({"[1.2.3.4]:80", "1.2.3.4", 4, 9});
    expect_taken({"[::ffff:1.2.3.4]", "::ffff:1.2.3.4", 4, 16});
    expect_taken({"[abc]", "abc", -1, 5});
    expect_taken({"[::1", nullptr, 0, 0});
    expect_taken({"[::1 ]", nullptr, 0, 0});
    expect_taken({"[host]", nullptr, 0, 0});
    expect_taken({"[", nullptr, 0, 0});
}

TEST(ParserAddresses, EmptyBracketsFailAndAreNotPassed) {
    expect_taken({"[]:80", nullptr, 0, 0});
    expect_taken({"[]", nullptr, 0, 0});
}

TEST(ParserAddresses, ANameIsARunOfWordCharacters) {
    expect_taken({"host.example.com/x y", "host.example.com/x", -1, 18});
    expect_taken({"fe80", "fe80", -1, 4});
    expect_taken({"\xC3\xA9t\xC3\xA9", nullptr, 0, 0});
    expect_taken({" host", nullptr, 0, 0});
    expect_taken({"\n", nullptr, 0, 0});
}

TEST(ParserAddresses, ANameIsNeverResolved) {
    expect_taken({"localhost:80", "localhost", -1, 9});
    expect_taken({"ip6-localhost", "ip6-localhost", -1, 13});
    expect_taken({"0x7f000001", "0x7f000001", -1, 10});
    expect_taken({"2130706433", "2130706433", -1, 10});
}

TEST(ParserAddresses, TheFamilyIsThatOfTheLiteral) {
    expect_taken({"::ffff:1.2.3.4", "::ffff:1.2.3.4", 4, 14});
    expect_taken({"::1.2.3.4", "::1.2.3.4", 6, 9});
    expect_taken({"1::2::3", "1::2::3", -1, 7});
    expect_taken({"ff02::1%0", "ff02::1%0", 6, 9});
}

TEST(ParserAddresses, WithoutABufferOfSevenBytesOrWithoutTextItFails) {
    CStrParser p("1.2.3.4");
    char out[8] = "before";
    EXPECT_EQ(-1, p.ConsumeIpAddr(nullptr, 64, nullptr));
    EXPECT_EQ(-1, p.ConsumeIpAddr(out, 6, nullptr));
    EXPECT_STREQ("before", out);
    EXPECT_EQ(0, p.GetCurOffset());
    p.ConsumeLength(7, nullptr, 0);
    EXPECT_EQ(-1, p.ConsumeIpAddr(out, sizeof out, nullptr));
}

TEST(ParserAddresses, TheBufferIsFilledWithZerosFirst) {
    CStrParser p("1.2.3.4");
    std::vector<char> out(20, 'x');
    EXPECT_EQ(7, p.ConsumeIpAddr(out.data(), 20, nullptr));
    EXPECT_EQ(std::string("1.2.3.4") + std::string(13, '\0'), std::string(out.data(), 20));
    CStrParser bad("[host]");
    EXPECT_EQ(-1, bad.ConsumeIpAddr(out.data(), 20, nullptr));
    EXPECT_EQ(std::string(20, '\0'), std::string(out.data(), 20));
}

TEST(ParserAddresses, ACopyThatFillsTheBufferHasNoTerminator) {
    const char* const texts[] = {"1.2.3.4",   "10.20.30.40", "[fe80::1:2]",
                                 "fe80::1:2", "hostname",    "abcdef0:1"};
    const char* const filled[] = {"1.2.3.4", "10.20.3", "fe80::1", "fe80::1", "hostnam", "abcdef0"};
    for (int i = 0; i < 6; ++i) {
        auto out = std::make_unique<char[]>(7);
        int family = 0;
        CStrParser p(texts[i]);
        EXPECT_EQ(7, p.ConsumeIpAddr(out.get(), 7, &family)) << texts[i];
        EXPECT_EQ(filled[i], std::string(out.get(), 7)) << texts[i];
    }
}

TEST(ParserAddresses, TheFamilyTellsWhatIsInTheBuffer) {
    auto out = std::make_unique<char[]>(7);
    int family = 0;
    CStrParser p("1.2.3.400");
    EXPECT_EQ(7, p.ConsumeIpAddr(out.get(), 7, &family));
    EXPECT_EQ(4, family);
    EXPECT_EQ(9, p.GetCurOffset());
}

TEST(ParserAddresses, AColonBeyondTheBufferLeavesAName) {
    auto out = std::make_unique<char[]>(7);
    CStrParser p("abcdefabc:1");
    EXPECT_EQ(7, p.ConsumeIpAddr(out.get(), 7, nullptr));
    EXPECT_EQ("abcdefa", std::string(out.get(), 7));
    EXPECT_EQ(':', p.GetCurChar());
}

// Replacing.

TEST(ParserAddresses, AnAddressIsReplacedAtTheCursorWhichStays) {
    CStrParser p("c=IN IP4 10.0.0.1/127\r\n");
    p.LocateOffset(9);
    EXPECT_EQ(9, p.ReplaceIpAddr("239.1.2.3"));
    EXPECT_EQ("c=IN IP4 239.1.2.3/127\r\n", text_of(p));
    EXPECT_EQ(9, p.GetCurOffset());
    EXPECT_EQ(3, p.ReplaceIpAddr("::1"));
    EXPECT_EQ("c=IN IP4 ::1/127\r\n", text_of(p));
    EXPECT_EQ(-1, p.ReplaceIpAddr(nullptr));
    p.LocateOffset(8);
    EXPECT_EQ(-1, p.ReplaceIpAddr("1.1.1.1"));
    EXPECT_EQ(8, p.GetCurOffset());
}

TEST(ParserAddresses, OfABracketedAddressTwoBytesBeforeTheClosingOneRemain) {
    CStrParser p("[fe80::1]:80\n");
    EXPECT_EQ(1, p.ReplaceIpAddr("h"));
    EXPECT_EQ("h1]:80\n", text_of(p));
    EXPECT_EQ(0, p.GetCurOffset());
}

TEST(ParserAddresses, TheWrittenFormOfAQuadSaysHowMuchIsReplaced) {
    CStrParser padded("010.1.1.1 x");
    EXPECT_EQ(1, padded.ReplaceIpAddr("h"));
    EXPECT_EQ("h1 x", text_of(padded));
    CStrParser blanks("  1.2.3.4");
    EXPECT_EQ(1, blanks.ReplaceIpAddr("h"));
    EXPECT_EQ("h.4", text_of(blanks));
    CStrParser longer("0.0.0.2147483648");
    EXPECT_EQ(-1, longer.ReplaceIpAddr("h"));
    EXPECT_EQ("0.0.0.2147483648", text_of(longer));
}

TEST(ParserAddresses, AnAddressAtTheEndIsReplacedByALongerOneWithALineEnd) {
    CStrParser p("a 1.2.3.4");
    p.LocateOffset(2);
    EXPECT_EQ(9, p.ReplaceIpAddr("10.20.3.4"));
    EXPECT_EQ("a 10.20.3.4\r\n", text_of(p));
}

TEST(ParserAddresses, AShorterAddressAtTheEndWritesNoTerminator) {
    CStrParser p("a 1.2.3.4");
    p.LocateOffset(2);
    EXPECT_EQ(1, p.ReplaceIpAddr("h"));
    EXPECT_EQ("a h", text_of(p));
    EXPECT_STREQ("a h.2.3.4", p.GetString());
    EXPECT_EQ(0, p.ReplaceIpAddr(""));
    EXPECT_EQ("a ", text_of(p));
}

TEST(ParserAddresses, AReplacementLooksAt128BytesOfAName) {
    CStrParser p(std::string(300, 'h').c_str());
    EXPECT_EQ(1, p.ReplaceIpAddr("x"));
    EXPECT_EQ("x" + std::string(172, 'h'), text_of(p));
}

TEST(ParserAddresses, AReplacementMayBeAPartOfTheTextItself) {
    CStrParser p("host other.example\n");
    EXPECT_EQ(14, p.ReplaceIpAddr(p.GetString() + 5));
    EXPECT_EQ("other.example\n other.example\n", text_of(p));
    CStrParser shorter("longname:ab\n");
    EXPECT_EQ(3, shorter.ReplaceIpAddr(shorter.GetString() + 9));
    EXPECT_EQ("ab\n:ab\n", text_of(shorter));
}

TEST(ParserAddresses, TheRestOfALongTextIsNotMeasuredForEachAddress) {
    std::string text;
    while (text.size() < (1U << 20)) {
        text += "10.0.0.1\n";
    }
    CStrParser p(text.c_str());
    char out[16];
    int count = 0;
    while (p.ConsumeIpAddr(out, sizeof out, nullptr) == 8) {
        ++count;
        p.ConsumeWhitespace();
    }
    EXPECT_EQ(static_cast<int>(text.size() / 9), count);
}

}  // namespace
}  // namespace Orvex::Reticor
