// Table: columns in line, and the less important ones give way.
#include "top/Table.h"

#include <clocale>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "top/Text.h"

namespace {

using top::Column;
using top::columns;
using top::Line;
using top::plain;
using top::Style;
using top::Table;

std::vector<std::string> texts(const std::vector<Line>& lines) {
    std::vector<std::string> found;
    for (const Line& line : lines) {
        found.push_back(plain(line));
    }
    return found;
}

using Texts = std::vector<std::string>;

/// A name that takes what is left, and three figures.
Table sample() {
    Table table({{"name", 0, false, 0}, {"calls", 6, true, 0}, {"live", 5, true, 1}, {"each", 6, true, 2}},
                6);
    table.add({"Till", "12", "1", "3 ms"});
    table.add({"Report of the day", "1.2 k", "200", "9 us"});
    return table;
}

class TableInUtf8 : public testing::Test {
protected:
    void SetUp() override { ASSERT_NE(nullptr, std::setlocale(LC_CTYPE, "C.UTF-8")); }
    void TearDown() override { std::setlocale(LC_CTYPE, "C"); }
};

TEST_F(TableInUtf8, PutsNamesLeftAndFiguresRight) {
    EXPECT_EQ((Texts{"name                calls   live    each",  //
                     "Till                   12      1    3 ms",  //
                     "Report of the day   1.2 k    200    9 us"}),
              texts(sample().lines(80, 0, 10)));
}

TEST_F(TableInUtf8, GivesAwayColumnsByTheirRank) {
    EXPECT_EQ((Texts{"name         calls   live    each",  //
                     "Till            12      1    3 ms",  //
                     "Report of\xe2\x80\xa6   1.2 k    200    9 us"}),
              texts(sample().lines(33, 0, 10)));
    EXPECT_EQ((Texts{"name         calls   live",  //
                     "Till            12      1",  //
                     "Report of\xe2\x80\xa6   1.2 k    200"}),
              texts(sample().lines(25, 0, 10)));
    EXPECT_EQ((Texts{"name     calls",  //
                     "Till        12",  //
                     "Repor\xe2\x80\xa6   1.2 k"}),
              texts(sample().lines(14, 0, 10)));
}

TEST_F(TableInUtf8, KeepsWhatMustStayHoweverNarrowItIs) {
    for (size_t width = 1; width < 14; ++width) {
        const Texts lines = texts(sample().lines(width, 0, 10));
        ASSERT_EQ(3u, lines.size());
        EXPECT_NE(std::string::npos, lines[1].find("12")) << width;
    }
}

TEST_F(TableInUtf8, NeverExceedsAWidthThatHasRoomForWhatMustStay) {
    for (size_t width = 14; width < 100; ++width) {
        for (const std::string& line : texts(sample().lines(width, 0, 10))) {
            EXPECT_LE(columns(line), width) << line;
        }
    }
}

TEST_F(TableInUtf8, WithoutAWidthNothingIsCut) {
    Table table({{"sender", 8, false, 0}, {"lag", 5, true, 0}, {"why", 0, false, 0}}, 10);
    const std::string why(200, 'w');
    table.add({"1", "2 s", why});
    EXPECT_EQ((Texts{"sender      lag  why", "1           2 s  " + why}), texts(table.lines(0, 0, 10)));
}

TEST_F(TableInUtf8, LeavesNoBlanksAtTheEndOfANameThatIsLast) {
    Table table({{"lag", 5, true, 0}, {"why", 0, false, 0}}, 10);
    table.add({"2 s", "ok"});
    EXPECT_EQ((Texts{"  lag  why", "  2 s  ok"}), texts(table.lines(60, 0, 10)));
}

TEST_F(TableInUtf8, LettersThatAreTwoWideStayInLine) {
    Table table({{"name", 8, false, 0}, {"n", 3, true, 0}}, 0);
    table.add({"\xe6\x97\xa5\xe6\x9c\xac", "1"});
    table.add({"ab", "2"});
    const Texts lines = texts(table.lines(40, 0, 10));
    EXPECT_EQ(columns(lines[1]), columns(lines[2]));
    EXPECT_EQ("\xe6\x97\xa5\xe6\x9c\xac        1", lines[1]);
}

TEST_F(TableInUtf8, WhatCouldDriveTheTerminalIsNotInIt) {
    Table table({{"name", 0, false, 0}}, 4);
    table.add({"a\x1b]0;title\x07"});
    EXPECT_EQ("a?]0;title?", texts(table.lines(40, 0, 10))[1]);
}

TEST_F(TableInUtf8, SaysHowManyRowsAreMissing) {
    Table table({{"name", 0, false, 0}}, 4);
    for (int i = 0; i < 10; ++i) {
        table.add({"row " + std::to_string(i)});
    }
    EXPECT_EQ(10u, table.size());
    EXPECT_EQ((Texts{"name", "row 0", "row 1", "and 8 more"}), texts(table.lines(40, 0, 4)));
    EXPECT_EQ((Texts{"name", "row 5", "row 6", "and 3 more"}), texts(table.lines(40, 5, 4)));
    EXPECT_EQ((Texts{"name", "row 7", "row 8", "row 9"}), texts(table.lines(40, 7, 4)))
        << "nothing is missing";
    EXPECT_EQ(11u, table.lines(40, 0, 11).size());
    EXPECT_EQ((Texts{"name", "row 0"}), texts(table.lines(40, 0, 2))) << "a row says more than a number";
    EXPECT_EQ((Texts{"name"}), texts(table.lines(40, 0, 1)));
    EXPECT_TRUE(table.lines(40, 0, 0).empty());
}

TEST_F(TableInUtf8, ScrolledBeyondItsEndItShowsTheLastRow) {
    EXPECT_EQ(2u, sample().lines(80, 99, 10).size());
    EXPECT_NE(std::string::npos, texts(sample().lines(80, 99, 10))[1].find("Report"));
    Table empty({{"name", 0, false, 0}}, 4);
    EXPECT_EQ((Texts{"name"}), texts(empty.lines(40, 5, 10)));
}

TEST_F(TableInUtf8, ARowWithTooFewCellsHasEmptyOnes) {
    Table table({{"a", 2, false, 0}, {"b", 2, true, 0}}, 0);
    table.add({"x"});
    EXPECT_EQ((Texts{"a    b", "x     "}), texts(table.lines(40, 0, 10)));
}

TEST_F(TableInUtf8, CellsHaveStylesOfTheirOwn) {
    Table table({{"a", 2, false, 0}, {"b", 2, true, 0}}, 0);
    table.add({"x", "1"}, Style::DIM, {{1, Style::BAD}});
    const std::vector<Line> lines = table.lines(40, 0, 10);
    EXPECT_EQ(Style::TITLE, lines[0][0].style);
    EXPECT_EQ(Style::DIM, lines[1][0].style);
    EXPECT_EQ(Style::BAD, lines[1][1].style);
}

}  // namespace
