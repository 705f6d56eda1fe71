// TextRoom: a text put together piece by piece.
#include "Core/stats/TextRoom.h"

#include <gtest/gtest.h>

#include <clocale>
#include <cstdlib>
#include <limits>
#include <string>

#include "support/SeededRandom.h"

namespace Orvex::Reticor {
namespace {

template <class... Pieces>
std::string put(Pieces... pieces) {
    TextRoom room;
    (void)(room << ... << pieces);
    return room.text();
}

std::string quoted(const std::string& text) {
    TextRoom room;
    room.Quote(text);
    return room.text();
}

TEST(TextRoom, PutsPiecesOneAfterTheOther) {
    EXPECT_EQ("", TextRoom().text());
    EXPECT_EQ("a1b-2c", put("a", 1, std::string("b"), -2, std::string_view("c")));
    EXPECT_EQ(std::string("x\0y", 3), put(std::string_view("x\0y", 3))) << "a zero is a letter like others";
}

TEST(TextRoom, WritesWholeNumbersOfAllSizesExactly) {
    EXPECT_EQ("0", put(0));
    EXPECT_EQ("18446744073709551615", put(UINT64_MAX));
    EXPECT_EQ("-9223372036854775808", put(INT64_MIN));
    EXPECT_EQ("9223372036854775807", put(INT64_MAX));
    EXPECT_EQ("-32768", put(INT16_MIN));
    EXPECT_EQ("4294967295", put(UINT32_MAX));
}

TEST(TextRoom, WritesBrokenNumbersSoThatTheyAreReadBackTheSame) {
    Testing::SeededRandom random;
    EXPECT_EQ("0.1", put(0.1));
    EXPECT_EQ("1e+100", put(1e100));
    EXPECT_EQ("2.5", put(2.5));
    EXPECT_EQ("7", put(7.0));
    for (const double limit :
         {std::numeric_limits<double>::max(), std::numeric_limits<double>::lowest(),
          std::numeric_limits<double>::min(), std::numeric_limits<double>::denorm_min()}) {
        EXPECT_EQ(limit, std::strtod(put(limit).c_str(), nullptr));
    }
    for (int i = 0; i < 2000; ++i) {
        const double value = static_cast<double>(random.between<int64_t>(INT64_MIN, INT64_MAX)) /
                             static_cast<double>(random.between<int64_t>(1, INT64_MAX));
        ASSERT_EQ(value, std::strtod(put(value).c_str(), nullptr));
    }
}

TEST(TextRoom, WritesPlainNumbersWithoutAnExponent) {
    const auto plain = [](double value) {
        TextRoom room;
        room.Plain(value);
        return room.text();
    };
    EXPECT_EQ("0", plain(0));
    EXPECT_EQ("1.02", plain(1.02));
    EXPECT_EQ("900000", plain(900000));
    EXPECT_EQ("0.00001", plain(0.00001));
    EXPECT_EQ("-300000000000000000000", plain(-3e20));
    EXPECT_EQ(309u, plain(std::numeric_limits<double>::max()).size());
}

// A decimal comma would make another text of it for every reader.
TEST(TextRoom, WritesTheSameInEveryLocale) {
    const std::string before = std::setlocale(LC_ALL, nullptr);
    for (const char* locale : {"de_DE.UTF-8", "fr_FR.UTF-8", "C.UTF-8", "C"}) {
        std::setlocale(LC_ALL, locale);  // where it is installed
        EXPECT_EQ("1234567.25", put(1234567.25)) << locale;
        EXPECT_EQ("1234567", put(1234567)) << locale;
    }
    std::setlocale(LC_ALL, before.c_str());
}

TEST(TextRoom, QuotesWhatAReaderWouldTakeForSomethingElse) {
    EXPECT_EQ("\"\"", quoted(""));
    EXPECT_EQ("\"Shop::Till\"", quoted("Shop::Till"));
    EXPECT_EQ("\"a\\\"b\\\\c\"", quoted("a\"b\\c"));
    EXPECT_EQ("\"\\\\\\\\\"", quoted("\\\\"));
    EXPECT_EQ("\"a b c d \"", quoted(std::string("a\nb\tc\x1f"
                                                 "d\0",
                                                 8)))
        << "a blank for what cannot be seen";
    EXPECT_EQ("\"\x7f\xc3\xa4\"", quoted("\x7f\xc3\xa4")) << "letters of other languages stay";
}

TEST(TextRoom, AColumnIsReachedByBlanksInThePresentLine) {
    TextRoom room;
    room.Column(3) << "a";
    room.Column(6) << "b";
    room << "\nlonger";
    room.Column(3) << "c";  // one blank at least
    room.Column(9) << "d\n";
    room.Column(2) << "e";
    EXPECT_EQ("   a  b\nlonger c d\n  e", room.text());
}

TEST(TextRoom, AColumnThatIsReachedOrPassedAlreadyCostsOneBlank) {
    TextRoom room;
    room << "abc";
    room.Column(3) << "x";
    room.Column(0) << "y";
    EXPECT_EQ("abc x y", room.text());
}

}  // namespace
}  // namespace Orvex::Reticor
