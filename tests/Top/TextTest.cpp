// Text: figures that are read at a glance, and names that come from elsewhere.
#include "top/Text.h"

#include <clocale>
#include <limits>
#include <string>

#include <gtest/gtest.h>

namespace {

using top::clean;
using top::columns;
using top::contains;
using top::duration;
using top::fit;
using top::number;
using top::number_of;
using top::pad;
using top::percent;
using top::utf8;

class TextInUtf8 : public testing::Test {
protected:
    void SetUp() override { ASSERT_NE(nullptr, std::setlocale(LC_CTYPE, "C.UTF-8")); }
    void TearDown() override { std::setlocale(LC_CTYPE, "C"); }
};

TEST(TextOfNumbers, HasThreeFiguresAtMost) {
    EXPECT_EQ("0", number(0));
    EXPECT_EQ("7", number(7));
    EXPECT_EQ("0.3", number(0.31));
    EXPECT_EQ("9.9", number(9.94));
    EXPECT_EQ("10", number(9.96));
    EXPECT_EQ("999", number(999));
    EXPECT_EQ("1.0 k", number(1000));
    EXPECT_EQ("1.2 k", number(1234));
    EXPECT_EQ("12 k", number(12345));
    EXPECT_EQ("999 k", number(999400));
    EXPECT_EQ("1.0 M", number(999600));
    EXPECT_EQ("1.2 M", number(1.2e6));
    EXPECT_EQ("18 E", number(18446744073709551615.0));
}

TEST(TextOfNumbers, OddValuesAreNothing) {
    EXPECT_EQ("0", number(-5));
    EXPECT_EQ("0", number(std::numeric_limits<double>::quiet_NaN()));
    EXPECT_EQ("999 E", number(std::numeric_limits<double>::infinity()));
    EXPECT_EQ("999 E", number(1e300));
    EXPECT_EQ("0 us", duration(-1));
    EXPECT_EQ("0 us", duration(std::numeric_limits<double>::quiet_NaN()));
    EXPECT_EQ("0 %", percent(std::numeric_limits<double>::quiet_NaN()));
    EXPECT_EQ("9999 %", percent(1e300));
}

TEST(TextOfNumbers, HaveTheirUnit) {
    EXPECT_EQ("47 B", number_of(47, "B"));
    EXPECT_EQ("1.2 MB", number_of(1.2e6, "B"));
    EXPECT_EQ("4.2 Mb/s", number_of(4.21e6, "b/s"));
    EXPECT_EQ("37 %", percent(0.37));
    EXPECT_EQ("0 %", percent(0));
}

TEST(TextOfTimes, GoesFromMicrosecondsToHours) {
    EXPECT_EQ("0 us", duration(0));
    EXPECT_EQ("850 us", duration(850));
    EXPECT_EQ("1.0 ms", duration(999.6));
    EXPECT_EQ("3.4 ms", duration(3400));
    EXPECT_EQ("1.0 s", duration(999600));
    EXPECT_EQ("12 s", duration(12e6));
    EXPECT_EQ("119 s", duration(119e6));
    EXPECT_EQ("2.0 min", duration(120e6));
    EXPECT_EQ("2.5 h", duration(2.5 * 3600e6));
}

TEST_F(TextInUtf8, CountsColumnsAndNotBytes) {
    EXPECT_EQ(3u, columns("abc"));
    EXPECT_EQ(3u, columns("\xc3\xa4\xc3\xb6\xc3\xbc"));
    EXPECT_EQ(4u, columns("\xe6\x97\xa5\xe6\x9c\xac"));  // letters that are two wide
    EXPECT_EQ(1u, columns("e\xcc\x81"));                 // an accent takes none of its own
}

TEST_F(TextInUtf8, CutsBetweenLettersAndSaysSo) {
    EXPECT_EQ("abc", fit("abc", 3));
    EXPECT_EQ("ab\xe2\x80\xa6", fit("abcd", 3));
    EXPECT_EQ("\xe6\x97\xa5\xe2\x80\xa6", fit("\xe6\x97\xa5\xe6\x9c\xac", 3));
    EXPECT_EQ("\xe2\x80\xa6", fit("\xe6\x97\xa5\xe6\x9c\xac", 2)) << "half a letter is not shown";
    EXPECT_EQ("\xe2\x80\xa6", fit("abc", 1));
    EXPECT_EQ("", fit("abc", 0));
    EXPECT_EQ("", fit("", 0));
}

TEST_F(TextInUtf8, FillsToAWidth) {
    EXPECT_EQ("  abc", pad("abc", 5, true));
    EXPECT_EQ("abc  ", pad("abc", 5, false));
    EXPECT_EQ("\xe6\x97\xa5\xe6\x9c\xac ", pad("\xe6\x97\xa5\xe6\x9c\xac", 5, false));
    EXPECT_EQ("ab\xe2\x80\xa6", pad("abcdef", 3, true));
    EXPECT_EQ("\xe2\x80\xa6 ", pad("\xe6\x97\xa5\xe6\x9c\xac", 2, false)) << "filled up after half a letter";
}

TEST_F(TextInUtf8, WhatCouldDriveATerminalIsNotShown) {
    EXPECT_EQ("a?[2Jb", clean("a\x1b[2Jb"));
    EXPECT_EQ("a?b?", clean("a\nb\x7f"));
    EXPECT_EQ("a?b", clean("a\xc2\x9b"
                           "b"))
        << "a control code of eight bits";
    EXPECT_EQ("?", clean(std::string(1, '\0')));
    EXPECT_EQ("\xc3\xa4", clean("\xc3\xa4"));
}

TEST_F(TextInUtf8, WhatIsNotUtf8BecomesQuestionMarks) {
    EXPECT_EQ("?a", clean("\xff"
                          "a"));
    EXPECT_EQ("??", clean("\xc0\xaf")) << "overlong";
    EXPECT_EQ("???", clean("\xe0\x80\xaf"));
    EXPECT_EQ("???", clean("\xed\xa0\x80")) << "a surrogate";
    EXPECT_EQ("????", clean("\xf5\x80\x80\x80")) << "beyond the last letter";
    EXPECT_EQ("????", clean("\xf4\x90\x80\x80"));
    EXPECT_EQ("a??", clean("a\xe6\x97")) << "cut off";
    EXPECT_EQ("\xf0\x9f\x98\x80", clean("\xf0\x9f\x98\x80"));
}

TEST(TextInAscii, OtherLettersBecomeQuestionMarksAndTheCutIsPlain) {
    ASSERT_NE(nullptr, std::setlocale(LC_CTYPE, "C"));
    EXPECT_EQ("M?ller", clean("M\xc3\xbcller"));
    EXPECT_EQ("ab~", fit("abcd", 3));
}

TEST(TextOfLetters, IsUtf8OfEveryLength) {
    EXPECT_EQ("a", utf8('a'));
    EXPECT_EQ("\xc3\xa4", utf8(0xe4));
    EXPECT_EQ("\xe2\x82\xac", utf8(0x20ac));
    EXPECT_EQ("\xf0\x9f\x98\x80", utf8(0x1f600));
}

TEST(TextSearch, IgnoresTheCaseOfLetters) {
    EXPECT_TRUE(contains("Shop::Till", "till"));
    EXPECT_TRUE(contains("Shop::Till", "SHOP"));
    EXPECT_TRUE(contains("Shop::Till", ""));
    EXPECT_TRUE(contains("", ""));
    EXPECT_FALSE(contains("Shop::Till", "tills"));
    EXPECT_FALSE(contains("", "a"));
}

}  // namespace
