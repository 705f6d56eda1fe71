// The parser's operations that pass bytes, words and lines.
#include <Reticor/StrParser.h>

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>

namespace Orvex::Reticor {
namespace {

// Passing bytes.

TEST(ParserPassing, UntilStopsOnTheByteAndFailsAtTheEnd) {
    CStrParser p("ab;c");
    EXPECT_EQ(2, p.ConsumeUntil(';'));
    EXPECT_EQ(';', p.GetCurChar());
    EXPECT_EQ(0, p.ConsumeUntil(';'));
    EXPECT_EQ(-1, p.ConsumeUntil('x'));
    EXPECT_EQ(2, p.GetCurOffset());
    p.ConsumeLength(2, nullptr, 0);
    EXPECT_EQ(-1, p.ConsumeUntil('c'));
    EXPECT_EQ(4, p.GetCurOffset());
}

TEST(ParserPassing, UntilWithATableIndexesItWithTheSignedByte) {
    unsigned char entries[256] = {};
    unsigned char* const table = entries + 128;
    CStrParser p("caf\xC3\xA9;\xFF\x80");
    table[+';'] = 7;
    EXPECT_EQ(5, p.ConsumeUntil(table));
    table[-1] = 1;
    table[+';'] = 0;
    EXPECT_EQ(1, p.ConsumeUntil(table));
    entries[0] = 1;
    table[-1] = 0;
    EXPECT_EQ(1, p.ConsumeUntil(table));
    entries[0] = 0;
    EXPECT_EQ(-1, p.ConsumeUntil(table));
    EXPECT_EQ(7, p.GetCurOffset());
}

TEST(ParserPassing, ANullTableFails) {
    CStrParser p("a\nb");
    const unsigned char* none = nullptr;
    EXPECT_EQ(-1, p.ConsumeUntil(none));
    EXPECT_EQ(-1, p.ConsumeUntilinLine(none));
    EXPECT_EQ(0, p.GetCurOffset());
}

TEST(ParserPassing, UntilDigitAndHexDigitFailAtTheEnd) {
    CStrParser p("xyz F 7 g");
    EXPECT_EQ(4, p.ConsumeUntilHexDigit());
    EXPECT_EQ(2, p.ConsumeUntilDigit());
    p.LocateOffset(7);
    EXPECT_EQ(-1, p.ConsumeUntilDigit());
    EXPECT_EQ(-1, p.ConsumeUntilHexDigit());
    EXPECT_EQ(7, p.GetCurOffset());
}

TEST(ParserPassing, UntilInLineFailsAtTheLineEndBeforeTheFirstByteAndRestoresTheCursor) {
    CStrParser p("ab\nx");
    p.LocateOffset(1);
    EXPECT_EQ(-1, p.ConsumeUntilinLine('x'));
    EXPECT_EQ(1, p.GetCurOffset());
    EXPECT_EQ(1, p.ConsumeUntilinLine('\n'));
    EXPECT_EQ('\n', p.GetCurChar());
    p.LocateOffset(3);
    EXPECT_EQ(-1, p.ConsumeUntilinLine('\n'));
    EXPECT_EQ(0, p.ConsumeUntilinLine('x'));
}

TEST(ParserPassing, UntilInLineWithATableStopsAtTheLineEndToo) {
    unsigned char table[128] = {};
    table[+';'] = 1;
    CStrParser p("ab;c\nd");
    EXPECT_EQ(2, p.ConsumeUntilinLine(table));
    p.LocateOffset(3);
    EXPECT_EQ(1, p.ConsumeUntilinLine(table));
    EXPECT_EQ(0, p.ConsumeUntilinLine(table));
    EXPECT_EQ('\n', p.GetCurChar());
    p.LocateOffset(5);
    EXPECT_EQ(-1, p.ConsumeUntilinLine(table));
    EXPECT_EQ(5, p.GetCurOffset());
}

TEST(ParserPassing, UntilNextLineGivesAnOffsetAtTheEndOfTheTextAndACountElsewhere) {
    CStrParser p("ab\r\ncd\n");
    p.LocateOffset(1);
    EXPECT_EQ(3, p.ConsumeUntilNextLine());
    EXPECT_EQ(4, p.GetCurOffset());
    p.LocateOffset(5);
    EXPECT_EQ(6, p.ConsumeUntilNextLine());
    EXPECT_EQ(6, p.GetCurOffset());
    EXPECT_EQ(6, p.ConsumeUntilNextLine());
    CStrParser open("ab");
    EXPECT_EQ(-1, open.ConsumeUntilNextLine());
    EXPECT_EQ(0, open.GetCurOffset());
}

TEST(ParserPassing, GetThruStaysOnAByteThatEndsTheTextAndCountsOneLess) {
    CStrParser p("abcz");
    p.LocateOffset(1);
    EXPECT_EQ(2, p.GetThru('z'));
    EXPECT_EQ(3, p.GetCurOffset());
    EXPECT_EQ('z', p.GetCurChar());
    EXPECT_EQ(0, p.GetThru('z'));
    EXPECT_EQ(-1, p.GetThru('y'));
    EXPECT_EQ(3, p.GetCurOffset());
    p.ResetAll();
    EXPECT_EQ(2, p.GetThru('b'));
    EXPECT_EQ('c', p.GetCurChar());
}

TEST(ParserPassing, GetThruEolGivesZeroForEverOnAFinalLineEnd) {
    CStrParser p("a\nb\n");
    EXPECT_EQ(2, p.GetThruEOL());
    EXPECT_EQ(1, p.GetThruEOL());
    EXPECT_EQ(0, p.GetThruEOL());
    EXPECT_EQ(0, p.GetThruEOL());
    EXPECT_EQ(3, p.GetCurOffset());
}

// Blanks and words.

TEST(ParserPassing, WhitespaceIncludesLineEndsUnlessInLine) {
    CStrParser p(" \t\v\f\r\n x");
    EXPECT_EQ(4, p.ConsumeWhitespaceInLine());
    EXPECT_EQ(0, p.ConsumeWhitespaceInLine());
    EXPECT_EQ(3, p.ConsumeWhitespace());
    EXPECT_EQ(0, p.ConsumeWhitespace());
    EXPECT_EQ('x', p.GetCurChar());
    CStrParser foreign("\x85\xA0");
    EXPECT_EQ(0, foreign.ConsumeWhitespace());
    EXPECT_EQ(0, foreign.ConsumeWhitespaceInLine());
}

TEST(ParserPassing, AWordIsCutToTheBufferButPassedWhole) {
    CStrParser p("!word~\x7Fx");
    auto out = std::make_unique<char[]>(4);
    EXPECT_EQ(6, p.ConsumeWord(out.get(), 4));
    EXPECT_STREQ("!wo", out.get());
    EXPECT_EQ(0, p.ConsumeWord(out.get(), 4));
    EXPECT_STREQ("", out.get());
    EXPECT_EQ(6, p.GetCurOffset());
    p.ResetAll();
    EXPECT_EQ(6, p.ConsumeWord(out.get(), 0));
    p.ResetAll();
    EXPECT_EQ(6, p.ConsumeWord(nullptr, 4));
    p.ResetAll();
    EXPECT_EQ(6, p.ConsumeWord(out.get(), 1));
    EXPECT_STREQ("", out.get());
}

TEST(ParserPassing, AWordEndsAtBytesAbove127) {
    char out[8];
    CStrParser p("caf\xC3\xA9");
    EXPECT_EQ(3, p.ConsumeWord(out, sizeof out));
    EXPECT_STREQ("caf", out);
}

TEST(ParserPassing, LengthStopsAtTheEnd) {
    char out[8];
    CStrParser p("abcdef");
    EXPECT_EQ(2, p.ConsumeLength(2, out, sizeof out));
    EXPECT_STREQ("ab", out);
    EXPECT_EQ(0, p.ConsumeLength(0, out, sizeof out));
    EXPECT_EQ(4, p.ConsumeLength(0xFFFFFFFFU, out, 4));
    EXPECT_STREQ("cde", out);
    EXPECT_EQ(6, p.GetCurOffset());
    EXPECT_EQ(0, p.ConsumeLength(1, out, sizeof out));
    EXPECT_STREQ("", out);
}

TEST(ParserPassing, LengthPassesNothingBehindANumberAtTheEnd) {
    CStrParser p("12");
    p.ConsumeInt32();
    EXPECT_EQ(0, p.ConsumeLength(5, nullptr, 0));
    EXPECT_EQ(0, p.ConsumeWord(nullptr, 0));
    EXPECT_EQ(0, p.ConsumeWhitespace());
    EXPECT_EQ(-1, p.ConsumeUntil('\0'));
    EXPECT_EQ(-1, p.ConsumeUntilNextLine());
    EXPECT_EQ(3, p.GetCurOffset());
}

TEST(ParserPassing, ASentenceEndsBehindItsDelimiter) {
    char out[8];
    CStrParser p("one,two;three");
    EXPECT_EQ(3, p.ConsumeSentence(";,", out, sizeof out));
    EXPECT_STREQ("one", out);
    EXPECT_EQ('t', p.GetCurChar());
    EXPECT_EQ(3, p.ConsumeSentence(";,", out, 3));
    EXPECT_STREQ("tw", out);
    EXPECT_EQ(5, p.ConsumeSentence(";,", out, sizeof out));
    EXPECT_STREQ("three", out);
    EXPECT_EQ(13, p.GetCurOffset());
    EXPECT_EQ(0, p.ConsumeSentence(";,", out, sizeof out));
    EXPECT_STREQ("three", out);
}

TEST(ParserPassing, AnEmptySentenceLeavesTheBufferAlone) {
    char out[8] = "before";
    CStrParser p(",x");
    EXPECT_EQ(0, p.ConsumeSentence(",", out, sizeof out));
    EXPECT_STREQ("before", out);
    EXPECT_EQ(1, p.GetCurOffset());
}

TEST(ParserPassing, ASentenceWithoutDelimitersIsTheWholeRest) {
    char out[8];
    CStrParser p("a\0b;", 4);
    EXPECT_EQ(4, p.ConsumeSentence("", out, sizeof out));
    EXPECT_EQ(0, memcmp("a\0b;", out, 5));
    EXPECT_EQ(4, p.GetCurOffset());
    p.ResetAll();
    EXPECT_EQ(-1, p.ConsumeSentence(nullptr, out, sizeof out));
    EXPECT_EQ(0, p.GetCurOffset());
}

TEST(ParserPassing, ASentenceDoesNotEndAtANulByte) {
    CStrParser p("a\0b;c,", 6);
    EXPECT_EQ(3, p.ConsumeSentence(",;", nullptr, 0));
    EXPECT_EQ('c', p.GetCurChar());
}

TEST(ParserPassing, ASentencePastTheEndFailsAndLeavesTheCursor) {
    CStrParser p("12");
    p.ConsumeInt32();
    ASSERT_EQ(3, p.GetCurOffset());
    EXPECT_EQ(-1, p.ConsumeSentence(";", nullptr, 0));
    EXPECT_EQ(-1, p.ConsumeSentence("", nullptr, 0));
    EXPECT_EQ(3, p.GetCurOffset());
}

// Lines by their heads.

TEST(ParserPassing, ALineWithItsHeadIsFoundFromWhereTheCursorStands) {
    char out[16];
    CStrParser p("a: 1\r\nb: 2\r\na: 3\r\n");
    EXPECT_EQ(4, p.GetLineWithHead("a:", out, sizeof out));
    EXPECT_STREQ("a: 1", out);
    EXPECT_EQ(6, p.GetCurOffset());
    EXPECT_EQ(4, p.GetLineWithHead("b:", out, sizeof out));
    EXPECT_STREQ("b: 2", out);
    EXPECT_EQ(4, p.GetLineWithHead("a:", out, sizeof out));
    EXPECT_STREQ("a: 3", out);
    EXPECT_EQ(17, p.GetCurOffset());
    EXPECT_EQ(-1, p.GetLineWithHead("a:", out, sizeof out));
    EXPECT_EQ(17, p.GetCurOffset());
    EXPECT_EQ(-1, p.GetLineWithHead(nullptr, out, sizeof out));
}

TEST(ParserPassing, AtOffsetOneTheSearchStartsWithTheNextLine) {
    char out[8];
    CStrParser p("\nV1\nV2\n");
    EXPECT_EQ(2, p.GetLineWithHead("V", out, sizeof out));
    EXPECT_STREQ("V1", out);
    p.LocateOffset(1);
    EXPECT_EQ(2, p.GetLineWithHead("V", out, sizeof out));
    EXPECT_STREQ("V2", out);
    p.LocateOffset(4);
    EXPECT_EQ(2, p.GetLineWithHead("V", out, sizeof out));
    EXPECT_STREQ("V2", out);
}

TEST(ParserPassing, ALineIsCutToTheBufferButItsLengthIsWhole) {
    auto out = std::make_unique<char[]>(3);
    CStrParser p("x\nabcdef");
    EXPECT_EQ(6, p.GetLineWithHead("abc", out.get(), 3));
    EXPECT_STREQ("ab", out.get());
    EXPECT_EQ(7, p.GetCurOffset());
    p.ResetAll();
    EXPECT_EQ(0, p.GetLineWithHead("abc", nullptr, 3));
    p.ResetAll();
    EXPECT_EQ(0, p.GetLineWithHead("abc", out.get(), 0));
    EXPECT_EQ(7, p.GetCurOffset());
}

TEST(ParserPassing, ALastLineIsFoundAgainSinceTheCursorStaysOnItsLastByte) {
    CStrParser p("a\nV");
    EXPECT_EQ(0, p.GetLineWithHead("V", nullptr, 0));
    EXPECT_EQ(2, p.GetCurOffset());
    EXPECT_EQ(0, p.GetLineWithHead("V", nullptr, 0));
    EXPECT_EQ(2, p.GetCurOffset());
}

TEST(ParserPassing, ALineKeepsACarriageReturnThatIsTheFirstByteOfTheText) {
    char out[8];
    CStrParser p("\r\nx");
    EXPECT_EQ(1, p.GetLineWithHead("", out, sizeof out));
    EXPECT_STREQ("\r", out);
    CStrParser alone("ab\r");
    EXPECT_EQ(2, alone.GetLineWithHead("a", out, sizeof out));
    EXPECT_STREQ("ab", out);
}

TEST(ParserPassing, TheSearchForAHeadEndsOnATextThatEndsInALineEnd) {
    CStrParser p("a\n");
    EXPECT_EQ(-1, p.GetLineWithHead("x", nullptr, 0));
    EXPECT_EQ(0, p.GetCurOffset());
    p.LocateOffset(1);
    EXPECT_EQ(-1, p.GetLineWithHead("x", nullptr, 0));
    EXPECT_EQ(1, p.GetCurOffset());
    CStrParser only("\n");
    EXPECT_EQ(-1, only.GetLineWithHead("x", nullptr, 0));
    EXPECT_EQ(0, only.GetLineNumWithHead("x"));
}

TEST(ParserPassing, ALineThatBeginsBehindItsEndIsEmpty) {
    auto out = std::make_unique<char[]>(64);
    CStrParser p("a\r\n");
    EXPECT_EQ(1, p.GetLineWithHead("", out.get(), 64));
    EXPECT_STREQ("a", out.get());
    EXPECT_EQ(2, p.GetCurOffset());
    EXPECT_EQ(0, p.GetLineWithHead("", out.get(), 64));
    EXPECT_STREQ("", out.get());
    EXPECT_EQ(2, p.GetCurOffset());
    CStrParser only("\n");
    EXPECT_EQ(0, only.GetLineWithHead("", out.get(), 64));
    EXPECT_STREQ("", out.get());
}

TEST(ParserPassing, TheCountOfLinesWithAHeadEndsAndRestoresTheCursor) {
    CStrParser p("a\nV");
    EXPECT_EQ(1, p.GetLineNumWithHead("V"));
    EXPECT_EQ(0, p.GetCurOffset());
    EXPECT_EQ(2, p.GetLineNumWithHead(""));
    EXPECT_EQ(-1, p.GetLineNumWithHead(nullptr));
    p.LocateOffset(2);
    EXPECT_EQ(1, p.GetLineNumWithHead("V"));
    EXPECT_EQ(2, p.GetCurOffset());
    CStrParser many("m=1\r\na=2\r\nm=3\r\n");
    EXPECT_EQ(2, many.GetLineNumWithHead("m="));
    EXPECT_EQ(1, many.GetLineNumWithHead("a="));
    EXPECT_EQ(0, many.GetLineNumWithHead("b="));
    many.LocateOffset(5);
    EXPECT_EQ(1, many.GetLineNumWithHead("m="));
    EXPECT_EQ(5, many.GetCurOffset());
    EXPECT_EQ(0, CStrParser("").GetLineNumWithHead(""));
}

TEST(ParserPassing, AHeadLongerThanWhatIsLeftEndsTheSearch) {
    CStrParser p("ab\ncd\n");
    EXPECT_EQ(-1, p.GetLineWithHead("cd\nef", nullptr, 0));
    EXPECT_EQ(-1, p.GetLineWithHead("a much longer head than the text", nullptr, 0));
    EXPECT_EQ(0, p.GetCurOffset());
}

}  // namespace
}  // namespace Orvex::Reticor
