// The parser's numbers, and replacing them.
#include <Reticor/StrParser.h>

#include <gtest/gtest.h>

#include <climits>
#include <clocale>
#include <cmath>
#include <limits>
#include <locale>
#include <string>

#include "support/text/TextOf.h"

namespace Orvex::Reticor {
namespace {

using Testing::text_of;

// Consuming.

TEST(ParserNumbers, ANumberAtTheEndLeavesTheCursorOnePastTheLength) {
    CStrParser p("12");
    EXPECT_EQ(12, p.ConsumeInt32());
    EXPECT_EQ(0, p.GetStatus());
    EXPECT_EQ(p.GetStringLen() + 1, p.GetCurOffset());
    EXPECT_EQ(0, p.GetCurChar());
    EXPECT_EQ(-1, p.ConsumeInt32());
    EXPECT_EQ(-1, p.GetStatus());
    EXPECT_EQ(3, p.GetCurOffset());
    CStrParser at_end_of_double("-1.5");
    EXPECT_EQ(-1.5, at_end_of_double.ConsumeDouble());
    EXPECT_EQ(5, at_end_of_double.GetCurOffset());
}

TEST(ParserNumbers, ANumberBeforeABlankIsTakenAndCanBeReplaced) {
    CStrParser p("12 ");
    EXPECT_EQ(12, p.ConsumeInt32());
    EXPECT_EQ(2, p.GetCurOffset());
    EXPECT_EQ(' ', p.GetCurChar());
    p.LocateOffset(0);
    EXPECT_EQ(1, p.ReplaceInt32(5));
    EXPECT_STREQ("5 ", p.GetString());
    EXPECT_EQ(2, p.GetStringLen());
    EXPECT_EQ(0, p.GetCurOffset());
}

TEST(ParserNumbers, ATrailingPointIsNotPartOfTheNumber) {
    CStrParser p("12. ");
    EXPECT_EQ(12, p.ConsumeInt32());
    EXPECT_EQ('.', p.GetCurChar());
    CStrParser at_end("12.");
    EXPECT_EQ(12.0, at_end.ConsumeDouble());
    EXPECT_EQ(4, at_end.GetCurOffset());
}

TEST(ParserNumbers, TheSecondPointEndsTheNumber) {
    CStrParser p("1.2.3 1..2");
    EXPECT_EQ(1.2, p.ConsumeDouble());
    EXPECT_EQ(3, p.GetCurOffset());
    EXPECT_EQ(-1, p.ConsumeInt32());
    p.LocateOffset(6);
    EXPECT_EQ(1.0, p.ConsumeDouble());
    EXPECT_EQ(7, p.GetCurOffset());
}

TEST(ParserNumbers, AMinusAloneAndAPlusFail) {
    for (const char* text : {"-", "- ", "--5", "+5", ".5", "-.5", "x", " 5"}) {
        CStrParser p(text);
        EXPECT_EQ(-1, p.ConsumeInt64()) << text;
        EXPECT_EQ(-1, p.GetStatus()) << text;
        EXPECT_EQ(0ULL, p.ConsumeUint64()) << text;
        EXPECT_EQ(-1.0, p.ConsumeDouble()) << text;
        EXPECT_EQ(-1.0F, p.ConsumeFloat()) << text;
        EXPECT_EQ(-1, p.GetStatus()) << text;
        EXPECT_EQ(-1, p.ReplaceInt32(7)) << text;
        EXPECT_EQ(0, p.GetCurOffset()) << text;
    }
    EXPECT_EQ(-5, CStrParser("-5").ConsumeInt64());
}

TEST(ParserNumbers, AnIntegerPassesTheFractionButTakesTheIntegerPart) {
    CStrParser p("-12.75;");
    EXPECT_EQ(-12, p.ConsumeInt64());
    EXPECT_EQ(';', p.GetCurChar());
}

TEST(ParserNumbers, AnUnsignedNumberWithAMinusWraps) {
    EXPECT_EQ(ULLONG_MAX - 4, CStrParser("-5").ConsumeUint64());
    EXPECT_EQ(UINT_MAX - 4, CStrParser("-5").ConsumeUint32());
    EXPECT_EQ(65531, CStrParser("-5").ConsumeUint16());
    EXPECT_EQ(0ULL, CStrParser("-0").ConsumeUint64());
}

TEST(ParserNumbers, AValueTooWideForItsTypeIsCut) {
    EXPECT_EQ(1, CStrParser("4294967297").ConsumeInt32());
    EXPECT_EQ(INT_MIN, CStrParser("2147483648").ConsumeInt32());
    EXPECT_EQ(-1, CStrParser("65535").ConsumeInt16());
    EXPECT_EQ(1U, CStrParser("4294967297").ConsumeUint32());
    EXPECT_EQ(0, CStrParser("65536").ConsumeUint16());
}

TEST(ParserNumbers, AValueTooWideFor64BitsSaturates) {
    EXPECT_EQ(LLONG_MAX, CStrParser("9223372036854775808 ").ConsumeInt64());
    EXPECT_EQ(LLONG_MIN, CStrParser("-9223372036854775809").ConsumeInt64());
    EXPECT_EQ(LLONG_MIN, CStrParser("-9223372036854775808").ConsumeInt64());
    EXPECT_EQ(ULLONG_MAX, CStrParser("18446744073709551616").ConsumeUint64());
    EXPECT_EQ(ULLONG_MAX, CStrParser("-18446744073709551616").ConsumeUint64());
    EXPECT_EQ(-1, CStrParser("99999999999999999999").ConsumeInt32());
}

TEST(ParserNumbers, NumbersMayBeOfAnyLength) {
    std::string digits(100000, '7');
    CStrParser p((digits + ";").c_str());
    EXPECT_EQ(LLONG_MAX, p.ConsumeInt64());
    EXPECT_EQ(';', p.GetCurChar());
    CStrParser zeros((std::string(100000, '0') + "42;").c_str());
    EXPECT_EQ(42, zeros.ConsumeInt32());
    CStrParser fraction(("0." + digits).c_str());
    EXPECT_NEAR(7.0 / 9, fraction.ConsumeDouble(), 1e-12);
}

TEST(ParserNumbers, ADoubleOutOfRangeFailsAndATooSmallOneIsZero) {
    CStrParser huge((std::string(400, '9') + ";").c_str());
    EXPECT_EQ(-1.0, huge.ConsumeDouble());
    EXPECT_EQ(-1, huge.GetStatus());
    EXPECT_EQ(0, huge.GetCurOffset());
    CStrParser tiny(("-0." + std::string(400, '0') + "1;").c_str());
    double zero = tiny.ConsumeDouble();
    EXPECT_EQ(0.0, zero);
    EXPECT_TRUE(std::signbit(zero));
    EXPECT_EQ(0, tiny.GetStatus());
    EXPECT_EQ(';', tiny.GetCurChar());
    EXPECT_TRUE(std::isinf(CStrParser((std::string(50, '9') + ";").c_str()).ConsumeFloat()));
}

TEST(ParserNumbers, AnExponentIsNotPartOfANumber) {
    CStrParser p("1.5e3");
    EXPECT_EQ(1.5, p.ConsumeDouble());
    EXPECT_EQ('e', p.GetCurChar());
    CStrParser hex("0x10");
    EXPECT_EQ(0, hex.ConsumeInt32());
    EXPECT_EQ('x', hex.GetCurChar());
}

TEST(ParserNumbers, OnlyNumericConsumersWriteTheStatus) {
    CStrParser p("x 5 y");
    p.ConsumeInt32();
    ASSERT_EQ(-1, p.GetStatus());
    p.ConsumeUntilDigit();
    p.LocateString("x");
    p.Append("z");
    p.ReplaceInt32(6);
    EXPECT_EQ(-1, p.GetStatus());
    EXPECT_EQ(6, p.ConsumeInt32());
    EXPECT_EQ(0, p.GetStatus());
    EXPECT_EQ(-1, p.ReplaceInt32(6));
    EXPECT_EQ(-1, p.Expect('?'));
    EXPECT_EQ(0, p.GetStatus());
}

// Hex.

TEST(ParserNumbers, HexWithoutADigitIsZeroWithStatusZero) {
    CStrParser p("xyz");
    EXPECT_EQ(0U, p.ConsumeHexUint32());
    EXPECT_EQ(0, p.GetStatus());
    EXPECT_EQ(0, p.GetCurOffset());
}

TEST(ParserNumbers, HexWithoutTextIsZeroWithStatusMinusOne) {
    CStrParser p("F");
    EXPECT_EQ(15U, p.ConsumeHexUint32());
    EXPECT_EQ(0, p.GetStatus());
    EXPECT_EQ(1, p.GetCurOffset());
    EXPECT_EQ(0U, p.ConsumeHexUint32());
    EXPECT_EQ(-1, p.GetStatus());
}

TEST(ParserNumbers, HexWrapsIn32Bits) {
    CStrParser p("123456789aBcDeF0g");
    EXPECT_EQ(0x9ABCDEF0U, p.ConsumeHexUint32());
    EXPECT_EQ('g', p.GetCurChar());
}

// Replacing.

TEST(ParserNumbers, AReplacementThatLengthensATextWithoutAFinalLineEndAddsOne) {
    CStrParser p("CSeq: 9 OPTIONS");
    p.LocateOffset(6);
    EXPECT_EQ(4, p.ReplaceUint32(1000));
    EXPECT_EQ("CSeq: 1000 OPTIONS\r\n", text_of(p));
    EXPECT_STREQ("CSeq: 1000 OPTIONS\r\n", p.GetString());
    EXPECT_EQ(6, p.GetCurOffset());
    EXPECT_EQ(5, p.ReplaceUint32(10000));
    EXPECT_EQ("CSeq: 10000 OPTIONS\r\n", text_of(p));
}

TEST(ParserNumbers, AReplacementOfTheSameLengthOrAShorterOneAddsNothing) {
    CStrParser p("CSeq: 90 OPTIONS");
    p.LocateOffset(6);
    EXPECT_EQ(2, p.ReplaceUint32(17));
    EXPECT_EQ("CSeq: 17 OPTIONS", text_of(p));
    EXPECT_EQ(1, p.ReplaceUint32(8));
    EXPECT_EQ("CSeq: 8 OPTIONS", text_of(p));
    EXPECT_STREQ("CSeq: 8 OPTIONS", p.GetString());
}

TEST(ParserNumbers, ANumberAtTheEndOfTheTextIsNotReplaced) {
    CStrParser p("n=12");
    p.LocateOffset(2);
    EXPECT_EQ(-1, p.ReplaceInt64(5));
    EXPECT_EQ(-1, p.ReplaceUint16(5));
    EXPECT_EQ(-1, p.ReplaceDouble(5));
    EXPECT_EQ("n=12", text_of(p));
    EXPECT_EQ(2, p.GetCurOffset());
}

TEST(ParserNumbers, EveryTypeIsReplacedInItsOwnNotation) {
    CStrParser p("0;\n");
    EXPECT_EQ(20, p.ReplaceInt64(LLONG_MIN));
    EXPECT_EQ("-9223372036854775808;\n", text_of(p));
    EXPECT_EQ(20, p.ReplaceUint64(ULLONG_MAX));
    EXPECT_EQ("18446744073709551615;\n", text_of(p));
    EXPECT_EQ(11, p.ReplaceInt32(INT_MIN));
    EXPECT_EQ(10, p.ReplaceUint32(UINT_MAX));
    EXPECT_EQ(6, p.ReplaceInt16(SHRT_MIN));
    EXPECT_EQ(5, p.ReplaceUint16(USHRT_MAX));
    EXPECT_EQ("65535;\n", text_of(p));
    EXPECT_EQ(8, p.ReplaceFloat(0.1F));
    EXPECT_EQ("0.100000;\n", text_of(p));
    EXPECT_EQ(9, p.ReplaceDouble(-1.0 / 3));
    EXPECT_EQ("-0.333333;\n", text_of(p));
    EXPECT_EQ(8, p.ReplaceDouble(0.0000005));
    EXPECT_EQ("0.000000;\n", text_of(p));
    EXPECT_EQ(3, p.ReplaceDouble(std::numeric_limits<double>::infinity()));
    EXPECT_EQ("inf;\n", text_of(p));
}

TEST(ParserNumbers, AReplacedDoubleHasAtMost255Characters) {
    CStrParser p("0;\n");
    EXPECT_EQ(255, p.ReplaceDouble(9e247));
    p.Attach("0;\n");
    EXPECT_EQ(255, p.ReplaceDouble(1e248));
    EXPECT_EQ('0', p.GetString()[254]);
    EXPECT_EQ(';', p.GetString()[255]);
    p.Attach("0;\n");
    EXPECT_EQ(255, p.ReplaceDouble(-std::numeric_limits<double>::max()));
}

TEST(ParserNumbers, ReplaceLengthFillsWithBlanksAndNeverChangesTheLength) {
    CStrParser p("abcdefgh");
    EXPECT_EQ(5, p.ReplaceLength(5, "xy"));
    EXPECT_EQ("xy   fgh", text_of(p));
    EXPECT_EQ(7, p.ReplaceLength(2, "12345"));
    EXPECT_EQ("xy   12h", text_of(p));
    EXPECT_EQ(8, p.ReplaceLength(INT_MAX, nullptr));
    EXPECT_EQ("xy   12 ", text_of(p));
    EXPECT_EQ(8, p.ReplaceLength(3, "z"));
    p.LocateOffset(2);
    EXPECT_EQ(2, p.ReplaceLength(0, "z"));
    EXPECT_EQ(2, p.ReplaceLength(-4, "z"));
    EXPECT_EQ("xy   12 ", text_of(p));
}

TEST(ParserNumbers, ReplaceLengthTakesAPartOfTheTextItself) {
    CStrParser p("abcdefgh");
    p.LocateOffset(2);
    EXPECT_EQ(6, p.ReplaceLength(4, p.GetString()));
    EXPECT_EQ("ababcdgh", text_of(p));
    p.LocateOffset(0);
    EXPECT_EQ(8, p.ReplaceLength(8, p.GetString() + 3));
    EXPECT_EQ("bcdgh   ", text_of(p));
}

// A shorter text that reaches the end leaves its old bytes after the length, where no operation may find
// them.

TEST(ParserNumbers, DigitsBehindTheLengthAreNoPartOfANumber) {
    CStrParser p("h9937");
    EXPECT_EQ(2, p.ReplaceIpAddr("12"));
    EXPECT_EQ("12", text_of(p));
    EXPECT_STREQ("12937", p.GetString());
    EXPECT_EQ(12, p.ConsumeInt32());
    EXPECT_EQ(3, p.GetCurOffset());
    p.ResetAll();
    EXPECT_EQ(0x12U, p.ConsumeHexUint32());
    EXPECT_EQ(2, p.GetCurOffset());
}

TEST(ParserNumbers, AppendAfterAShorterEndFindsTheRealEnd) {
    std::string digits(120, 'a');
    CStrParser p(digits.c_str());
    EXPECT_EQ(1, p.ReplaceIpAddr("1"));
    EXPECT_EQ(1, p.GetStringLen());
    EXPECT_EQ(1U, p.ConsumeHexUint32());
    EXPECT_EQ(1, p.GetCurOffset());
    EXPECT_EQ('1', p.CheckPrevChar());
    EXPECT_EQ(2, p.Append("z"));
    EXPECT_STREQ("1z", p.GetString());
    EXPECT_EQ('z', p.GetCurChar());
}

// The locale of the process changes nothing in a protocol's text.

class CommaPoint : public std::numpunct<char> {
protected:
    char do_decimal_point() const override { return ','; }
    char do_thousands_sep() const override { return '.'; }
    std::string do_grouping() const override { return "\3"; }
};

TEST(ParserNumbers, APointIsAPointInEveryLocale) {
    std::locale saved = std::locale::global(std::locale(std::locale::classic(), new CommaPoint));
    for (const char* name : {"de_DE.UTF-8", "de_DE", "fr_FR.UTF-8"}) {
        if (setlocale(LC_ALL, name) != nullptr) {
            break;
        }
    }
    CStrParser p("1.5 1,5;\n");
    EXPECT_EQ(1.5, p.ConsumeDouble());
    p.LocateOffset(4);
    EXPECT_EQ(1.0, p.ConsumeDouble());
    p.LocateOffset(0);
    EXPECT_EQ(11, p.ReplaceDouble(1234.25));
    EXPECT_EQ("1234.250000 1,5;\n", text_of(p));
    std::locale::global(saved);
    setlocale(LC_ALL, "C");
}

}  // namespace
}  // namespace Orvex::Reticor
