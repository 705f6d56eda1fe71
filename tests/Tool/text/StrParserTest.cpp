// The parser's text, its cursor, comparing and searching.
#include <Reticor/StrParser.h>

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "Tool/text/ParserText.h"
#include "support/socket/Allocations.h"
#include "support/text/TextOf.h"

namespace Orvex::Reticor {
namespace {

using Testing::NoMemory;
using Testing::text_of;

// Buffers.

TEST(StrParser, WithoutATextEverythingIsZero) {
    CStrParser p;
    EXPECT_EQ(nullptr, p.GetString());
    EXPECT_EQ(0, p.GetStringLen());
    EXPECT_EQ(0, p.GetCurOffset());
    EXPECT_EQ(0, p.GetStatus());
}

TEST(StrParser, AttachCopiesTheTextAndResetsCursorAndStatus) {
    char source[] = "INVITE";
    CStrParser p("old text");
    p.LocateOffset(3);
    p.ConsumeInt32();
    ASSERT_EQ(-1, p.GetStatus());
    EXPECT_EQ(0, p.Attach(source));
    source[0] = 'X';
    EXPECT_STREQ("INVITE", p.GetString());
    EXPECT_EQ(6, p.GetStringLen());
    EXPECT_EQ(0, p.GetCurOffset());
    EXPECT_EQ(0, p.GetStatus());
}

TEST(StrParser, ATextWithALengthMayHoldNulBytes) {
    CStrParser p("a\0b\nc\0", 6);
    EXPECT_EQ(6, p.GetStringLen());
    EXPECT_EQ(1, p.ConsumeUntil('\0'));
    EXPECT_EQ(2, p.Expect('\0'));
    EXPECT_EQ(0, p.Compare("b\nc"));
    EXPECT_LT(p.Compare("b\ncx"), 0);
    EXPECT_EQ(-1, p.Compare("b\ncxy"));
    EXPECT_EQ(0, p.Attach("\0\0", 2));
    EXPECT_EQ(2, p.GetStringLen());
    EXPECT_EQ(0, p.Attach("a\0b"));
    EXPECT_EQ(1, p.GetStringLen());
}

TEST(StrParser, TheCopyIsZeroForTenBytesBehindTheText) {
    CStrParser p("abc");
    for (int i = 3; i < 13; ++i) {
        EXPECT_EQ('\0', p.GetString()[i]);
    }
}

TEST(StrParser, AppendAddsAtTheEndAndLeavesTheCursor) {
    CStrParser p("one");
    p.LocateOffset(1);
    EXPECT_EQ(6, p.Append("two"));
    EXPECT_STREQ("onetwo", p.GetString());
    EXPECT_EQ(1, p.GetCurOffset());
    EXPECT_EQ(6, p.Append(""));
    EXPECT_EQ(-1, p.Append(nullptr));
    CStrParser empty;
    EXPECT_EQ(3, empty.Append("one"));
    EXPECT_STREQ("one", empty.GetString());
}

TEST(StrParser, AttachAndAppendTakeThePartsOfTheirOwnText) {
    CStrParser p("Hello World");
    EXPECT_EQ(22, p.Append(p.GetString()));
    EXPECT_STREQ("Hello WorldHello World", p.GetString());
    EXPECT_EQ(27, p.Append(p.GetString() + 17));
    EXPECT_STREQ("Hello WorldHello WorldWorld", p.GetString());
    EXPECT_EQ(0, p.Attach(p.GetString() + 6));
    EXPECT_STREQ("WorldHello WorldWorld", p.GetString());
    EXPECT_EQ(0, p.Attach(p.GetString() + 2, 3));
    EXPECT_STREQ("rld", p.GetString());
}

TEST(StrParser, AttachWithoutMemoryLeavesAnEmptyParserWithStatusMinusOne) {
    CStrParser p("some text");
    p.LocateOffset(5);
    {
        NoMemory none;
        EXPECT_EQ(-1, p.Attach("other"));
    }
    {
        NoMemory but_for_the_record(1);
        EXPECT_EQ(-1, CStrParser("text").GetStatus());
    }
    {
        NoMemory but_for_the_record(1);
        EXPECT_EQ(-1, CStrParser("text", 2).GetStatus());
    }
    EXPECT_EQ(-1, p.GetStatus());
    EXPECT_EQ(nullptr, p.GetString());
    EXPECT_EQ(0, p.GetStringLen());
    EXPECT_EQ(0, p.GetCurOffset());
    EXPECT_EQ(0, p.Attach("other"));
    EXPECT_EQ(0, p.GetStatus());
}

TEST(StrParser, ATextBeyondTheRangeOfItsLengthIsNoMemory) {
    CStrParser p("some text");
    EXPECT_EQ(-1, p.Attach("x", 0xFFFFFFFFU));
    EXPECT_EQ(-1, p.GetStatus());
    EXPECT_EQ(-1, p.Attach("x", static_cast<unsigned>(ParserText::LONGEST) + 1));
}

TEST(StrParser, AppendWithoutMemoryChangesNothing) {
    CStrParser p("one");
    NoMemory none;
    EXPECT_EQ(-1, p.Append("two"));
    EXPECT_STREQ("one", p.GetString());
    EXPECT_EQ(3, p.GetStringLen());
    EXPECT_EQ(0, p.GetStatus());
}

TEST(StrParser, AppendTakesTheRoomThatAShorterEndLeftAndClearsWhatIsBehind) {
    CStrParser p(std::string(120, 'h').c_str());
    ASSERT_EQ(1, p.ReplaceIpAddr("1"));
    ASSERT_EQ('h', p.GetString()[1]);
    {
        NoMemory none;
        EXPECT_EQ(2, p.Append("z"));
    }
    EXPECT_EQ("1z" + std::string(128, '\0'), std::string(p.GetString(), 130));
}

TEST(StrParserDeath, AttachAssertsItsText) {
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    CStrParser p;
    EXPECT_DEATH(p.Attach(nullptr), "Assertion `text' failed");
    EXPECT_DEATH(p.Attach(nullptr, 0), "Assertion `text' failed");
    EXPECT_DEATH(CStrParser(nullptr, 5), "Assertion `text' failed");
}

// Position.

TEST(StrParser, OnAnEmptyTextNothingIsFoundAndTheOffsetIsClampedToMinusOne) {
    CStrParser p("");
    EXPECT_EQ(0, p.GetCurChar());
    EXPECT_EQ(-1, p.LocateOffset(5));
    EXPECT_EQ(-1, p.GetCurOffset());
    EXPECT_EQ(-1, p.ConsumeInt32());
    EXPECT_EQ(-1, p.GetStatus());
}

// Every operation with the cursor at -1, where the byte before the block would be.
void expect_nothing_at_minus_one(CStrParser& p) {
    char out[16] = "untouched";
    const unsigned char table[128] = {1};
    ASSERT_EQ(-1, p.LocateOffset(0));
    EXPECT_EQ(0, p.GetCurChar());
    EXPECT_EQ(0, p.CheckPrevChar());
    EXPECT_EQ(0, p.GetLineNum());
    EXPECT_EQ(0U, p.GetCurLinelength());
    EXPECT_EQ(0, p.Compare(""));
    EXPECT_EQ(-1, p.Compare("x"));
    EXPECT_EQ(0, p.CompareCase(""));
    EXPECT_EQ(-1, p.CompareCase("x"));
    EXPECT_EQ(-1, p.Expect('\0'));
    EXPECT_EQ(-1, p.ExpectEOL());
    EXPECT_EQ(-1, p.LocateString("x"));
    EXPECT_EQ(-1, p.LocateStringCase("x"));
    EXPECT_EQ(-1, p.LocateStringInLine("x"));
    EXPECT_EQ(-1, p.LocateStringInLineCase("x"));
    EXPECT_EQ(-1, p.ConsumeUntil('\0'));
    EXPECT_EQ(-1, p.ConsumeUntil(table));
    EXPECT_EQ(-1, p.ConsumeUntilDigit());
    EXPECT_EQ(-1, p.ConsumeUntilHexDigit());
    EXPECT_EQ(-1, p.ConsumeUntilinLine('x'));
    EXPECT_EQ(-1, p.ConsumeUntilinLine(table));
    EXPECT_EQ(-1, p.ConsumeUntilNextLine());
    EXPECT_EQ(-1, p.GetThru('x'));
    EXPECT_EQ(-1, p.GetThruEOL());
    EXPECT_EQ(0, p.ConsumeWhitespace());
    EXPECT_EQ(0, p.ConsumeWhitespaceInLine());
    EXPECT_EQ(0, p.ConsumeSentence(";", out, sizeof out));
    EXPECT_EQ(-1, p.GetLineWithHead("", out, sizeof out));
    EXPECT_EQ(0, p.GetLineNumWithHead(""));
    EXPECT_EQ(-1, p.ConsumeIpAddr(out, sizeof out, nullptr));
    EXPECT_STREQ("untouched", out);
    EXPECT_EQ(0, p.ConsumeWord(out, sizeof out));
    EXPECT_EQ(0, p.ConsumeLength(7, out, sizeof out));
    EXPECT_STREQ("", out);
    EXPECT_EQ(-1, p.ConsumeInt64());
    EXPECT_EQ(0ULL, p.ConsumeUint64());
    EXPECT_EQ(-1.0, p.ConsumeDouble());
    EXPECT_EQ(0U, p.ConsumeHexUint32());
    EXPECT_EQ(-1, p.GetStatus());
    EXPECT_EQ(-1, p.ReplaceInt32(5));
    EXPECT_EQ(-1, p.ReplaceDouble(5));
    EXPECT_EQ(-1, p.ReplaceIpAddr("h"));
    EXPECT_EQ(-1, p.ReplaceLength(1, "x"));
    EXPECT_EQ(-1, p.GetCurOffset());
    p.ResetToLineHead();
    EXPECT_EQ(0, p.GetCurOffset());
}

TEST(StrParser, ACursorBeforeTheTextFindsNothingAndWritesNothing) {
    CStrParser empty("");
    expect_nothing_at_minus_one(empty);
    EXPECT_EQ(0, empty.GetStringLen());
    CStrParser without;
    expect_nothing_at_minus_one(without);
    EXPECT_EQ(nullptr, without.GetString());
}

TEST(StrParser, ACursorBeforeTheTextStaysThereWhenTextIsAppended) {
    CStrParser p("");
    p.LocateOffset(0);
    EXPECT_EQ(4, p.Append("abc\n"));
    EXPECT_EQ(-1, p.GetCurOffset());
    EXPECT_EQ(0, p.GetCurChar());
    EXPECT_EQ(0, p.ConsumeWord(nullptr, 0));
    EXPECT_EQ(-1, p.ReplaceLength(1, "x"));
    EXPECT_STREQ("abc\n", p.GetString());
    p.ResetAll();
    EXPECT_EQ('a', p.GetCurChar());
}

TEST(StrParser, LocateOffsetClampsToTheText) {
    CStrParser p("abc");
    EXPECT_EQ(1, p.LocateOffset(1));
    EXPECT_EQ(2, p.LocateOffset(3));
    EXPECT_EQ(2, p.LocateOffset(2147483647));
    EXPECT_EQ(0, p.LocateOffset(-1));
    EXPECT_EQ(0, CStrParser("").LocateOffset(-3));
}

TEST(StrParser, TheLineHeadOfALineEndIsThatOfTheLineItEnds) {
    CStrParser p("ab\ncd\n\nef\n");
    const int heads[] = {0, 0, 0, 3, 3, 3, 6, 7, 7, 7};
    for (int offset = 0; offset < 10; ++offset) {
        p.LocateOffset(offset);
        p.ResetToLineHead();
        EXPECT_EQ(heads[offset], p.GetCurOffset()) << offset;
    }
}

TEST(StrParser, BehindTheLastLineEndTheLineHeadIsThatLineEnd) {
    CStrParser p("ab\n");
    p.ConsumeLength(3, nullptr, 0);
    ASSERT_EQ(3, p.GetCurOffset());
    EXPECT_EQ(0U, p.GetCurLinelength());
    p.ResetToLineHead();
    EXPECT_EQ(2, p.GetCurOffset());
}

TEST(StrParser, TheLengthOfALineLeavesOutItsEnd) {
    CStrParser p("abc\r\nde\n\r\nf");
    const unsigned lengths[] = {3, 3, 3, 3, 3, 2, 2, 2, 0, 0, 1};
    for (int offset = 0; offset < 11; ++offset) {
        p.LocateOffset(offset);
        EXPECT_EQ(lengths[offset], p.GetCurLinelength()) << offset;
    }
    CStrParser ended("a\r\n");
    ended.ConsumeLength(3, nullptr, 0);
    EXPECT_EQ(0U, ended.GetCurLinelength());
    CStrParser only_end("\r\n");
    EXPECT_EQ(0U, only_end.GetCurLinelength());
}

TEST(StrParser, TwoLinesWithoutAFinalLineEndAreOneLineEnd) {
    EXPECT_EQ(1, CStrParser("one\ntwo").GetLineNum());
    EXPECT_EQ(2, CStrParser("one\ntwo\n").GetLineNum());
    EXPECT_EQ(0, CStrParser("one").GetLineNum());
}

TEST(StrParser, ResetAllClearsTheStatusToo) {
    CStrParser p("abc");
    p.LocateOffset(2);
    p.ConsumeInt32();
    EXPECT_EQ(-1, p.GetStatus());
    p.ResetAll();
    EXPECT_EQ(0, p.GetStatus());
    EXPECT_EQ(0, p.GetCurOffset());
}

// Compare and expect.

TEST(StrParser, CompareNeedsAsManyBytesAsItsText) {
    CStrParser p("abc");
    EXPECT_EQ(0, p.Compare("ab"));
    EXPECT_EQ(0, p.Compare(""));
    EXPECT_EQ(-1, p.Compare("abcd"));
    EXPECT_GT(p.Compare("abb"), 0);
    EXPECT_LT(p.Compare("abd"), 0);
    EXPECT_EQ(0, p.CompareCase("AbC"));
    EXPECT_GT(p.CompareCase("ABB"), 0);
    EXPECT_LT(p.CompareCase("ABD"), 0);
    EXPECT_EQ(-1, p.CompareCase("ABCD"));
    EXPECT_EQ(-1, p.Compare(nullptr));
    EXPECT_EQ(-1, p.CompareCase(nullptr));
    EXPECT_EQ(0, p.GetCurOffset());
}

TEST(StrParser, BehindANumberAtTheEndNothingIsLeftToCompare) {
    CStrParser p("12");
    ASSERT_EQ(12, p.ConsumeInt32());
    ASSERT_EQ(3, p.GetCurOffset());
    EXPECT_EQ(-1, p.Compare("x"));
    EXPECT_EQ(-1, p.CompareCase("x"));
    EXPECT_EQ(-1, p.Expect('\0'));
    EXPECT_EQ(-1, p.ExpectEOL());
    EXPECT_EQ(0, p.CheckPrevChar());
    EXPECT_EQ(-1, p.LocateString("2"));
    EXPECT_EQ(-1, p.LocateStringInLine("2"));
    EXPECT_EQ(2U, p.GetCurLinelength());
    p.ResetToLineHead();
    EXPECT_EQ(0, p.GetCurOffset());
}

TEST(StrParser, ExpectMovesOnOverTheByteAlone) {
    CStrParser p("ab");
    EXPECT_EQ(-1, p.Expect('b'));
    EXPECT_EQ(1, p.Expect('a'));
    EXPECT_EQ(2, p.Expect('b'));
    EXPECT_EQ(-1, p.Expect('c'));
}

TEST(StrParser, ExpectEolTakesBothKindsOfLineEnd) {
    CStrParser p("\r\n\na");
    EXPECT_EQ(2, p.ExpectEOL());
    EXPECT_EQ(3, p.ExpectEOL());
    EXPECT_EQ(-1, p.ExpectEOL());
    EXPECT_EQ(3, p.GetCurOffset());
}

TEST(StrParser, ExpectEolPutsTheCursorBackOnlyIfAByteFollowsTheCarriageReturn) {
    CStrParser p("\rx\r");
    EXPECT_EQ(-1, p.ExpectEOL());
    EXPECT_EQ(0, p.GetCurOffset());
    p.LocateOffset(2);
    EXPECT_EQ(-1, p.ExpectEOL());
    EXPECT_EQ(3, p.GetCurOffset());
}

// Search.

TEST(StrParser, SearchGoesFromTheCursorToTheEnd) {
    CStrParser p("Via: a\r\nvia: b\r\nVIA: c");
    EXPECT_EQ(0, p.LocateString("Via"));
    p.LocateOffset(1);
    EXPECT_EQ(-1, p.LocateString("Via"));
    EXPECT_EQ(1, p.GetCurOffset());
    EXPECT_EQ(8, p.LocateStringCase("vIA"));
    EXPECT_EQ(21, p.LocateString("c"));
    EXPECT_EQ(-1, p.LocateString("cc"));
    EXPECT_EQ(-1, p.LocateString(""));
    EXPECT_EQ(-1, p.LocateString(nullptr));
    EXPECT_EQ(-1, p.LocateStringCase(nullptr));
}

TEST(StrParser, SearchInALineEndsWithItsLineEnd) {
    CStrParser p("Via: a\r\nvia: b");
    EXPECT_EQ(-1, p.LocateStringInLine("b"));
    EXPECT_EQ(-1, p.LocateStringInLineCase("B"));
    EXPECT_EQ(-1, p.LocateStringInLine("\nv"));
    EXPECT_EQ(0, p.GetCurOffset());
    EXPECT_EQ(5, p.LocateStringInLine("a\r\n"));
    EXPECT_EQ(7, p.LocateStringInLine("\n"));
    p.LocateOffset(8);
    EXPECT_EQ(8, p.LocateStringInLine("via: b"));
    EXPECT_EQ(13, p.LocateStringInLineCase("B"));
}

TEST(StrParser, MemMemRefusesNullPointersAndEmptyRanges) {
    unsigned char hay[] = "abcABC";
    unsigned char needle[] = "cab";
    EXPECT_EQ(nullptr, CStrParser::MemMem(nullptr, 6, needle, 3));
    EXPECT_EQ(nullptr, CStrParser::MemMem(hay, 6, nullptr, 3));
    EXPECT_EQ(nullptr, CStrParser::MemMem(hay, 0, needle, 3));
    EXPECT_EQ(nullptr, CStrParser::MemMem(hay, 6, needle, 0));
    EXPECT_EQ(nullptr, CStrParser::MemMem(hay, -1, needle, -1));
    EXPECT_EQ(nullptr, CStrParser::MemMem(hay, 2, needle, 3));
    EXPECT_EQ(nullptr, CStrParser::MemMemCase(nullptr, 6, needle, 3));
    EXPECT_EQ(nullptr, CStrParser::MemMemCase(hay, 6, nullptr, 3));
    EXPECT_EQ(nullptr, CStrParser::MemMemCase(hay, 0, needle, 3));
    EXPECT_EQ(nullptr, CStrParser::MemMemCase(hay, 6, needle, 0));
    EXPECT_EQ(nullptr, CStrParser::MemMemCase(hay, 2, needle, 3));
}

TEST(StrParser, MemMemGivesTheFirstMatch) {
    unsigned char hay[] = "abab\0ABC";
    unsigned char needle[] = "ab";
    unsigned char end[] = "abc";
    unsigned char zero[] = "b\0A";
    EXPECT_EQ(hay, CStrParser::MemMem(hay, 8, needle, 2));
    EXPECT_EQ(hay + 2, CStrParser::MemMem(hay + 1, 7, needle, 2));
    EXPECT_EQ(hay + 3, CStrParser::MemMem(hay, 8, zero, 3));
    EXPECT_EQ(nullptr, CStrParser::MemMem(hay, 8, end, 3));
    EXPECT_EQ(hay + 5, CStrParser::MemMemCase(hay, 8, end, 3));
    EXPECT_EQ(nullptr, CStrParser::MemMemCase(hay, 7, end, 3));
}

TEST(StrParser, OnlyLettersOfAsciiHaveTwoCases) {
    CStrParser p("[\xC4\xFF] {\xE4\xFF}");
    EXPECT_EQ(-1, p.LocateStringCase("{\xC4"));
    EXPECT_EQ(-1, p.LocateStringCase("{\xFF"));
    EXPECT_EQ(5, p.LocateStringCase("{\xE4\xFF}"));
    EXPECT_NE(0, p.CompareCase("["));
}

// Growth that finds no memory leaves the raised length over the old text.

TEST(StrParser, AfterAFailedGrowthOnlyTheHeldBytesAreRead) {
    CStrParser p("n=1;");
    p.LocateOffset(2);
    {
        NoMemory none;
        EXPECT_EQ(-1, p.ReplaceInt32(1234567890));
    }
    EXPECT_EQ(13, p.GetStringLen());
    EXPECT_STREQ("n=1;", p.GetString());
    EXPECT_EQ(2, p.GetCurOffset());
    EXPECT_EQ(1, p.ConsumeInt32());
    EXPECT_EQ(4, p.Expect(';'));
    EXPECT_EQ(0, p.GetCurChar());
    EXPECT_EQ(0, p.ConsumeLength(9, nullptr, 0));
    EXPECT_EQ(12, p.LocateOffset(99));
    EXPECT_EQ(0, p.GetCurChar());
    EXPECT_EQ(-1, p.ConsumeUntil('\0'));
    p.ResetToLineHead();
    EXPECT_EQ(0, p.GetCurOffset());
    EXPECT_EQ(4U, p.GetCurLinelength());
}

TEST(StrParser, AfterAFailedGrowthTheTextCanBeChangedAgain) {
    CStrParser p("n=1;");
    p.LocateOffset(2);
    {
        NoMemory none;
        p.ReplaceInt32(123);
    }
    EXPECT_EQ(6, p.GetStringLen());
    EXPECT_EQ(2, p.ReplaceInt32(77));
    EXPECT_EQ(std::string("n=77;\0\0\r\n", 9), text_of(p));
    {
        NoMemory none;
        p.ReplaceInt32(12345);
        EXPECT_EQ(12, p.GetStringLen());
    }
    EXPECT_EQ(13, p.Append("x"));
    EXPECT_EQ(std::string("n=77;\0\0\r\n\0\0\0x", 13), text_of(p));
}

TEST(StrParser, AppendBehindAFailedGrowthFillsTheGapWithZeros) {
    CStrParser p("1;hhhhhh");
    p.LocateOffset(2);
    ASSERT_EQ(0, p.ReplaceIpAddr(""));
    p.LocateOffset(0);
    {
        NoMemory none;
        p.ReplaceInt32(1234);
    }
    ASSERT_EQ(5, p.GetStringLen());
    EXPECT_EQ(6, p.Append("x"));
    EXPECT_EQ(std::string("1;\0\0\0x", 6), text_of(p));
}

}  // namespace
}  // namespace Orvex::Reticor
