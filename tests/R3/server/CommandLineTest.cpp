// CommandLine: words and numbers of a typed line.
#include "R3/server/CommandLine.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "R3/print/FuncBox.h"

namespace {

using namespace Orvex::Reticor;
using testing::ElementsAre;

struct Split {
    bool has_word;
    std::string word;
    std::vector<int> arguments;
};

Split split(std::string line) {
    const CommandLine result = split_command_line(line.data());
    return {result.word != nullptr, result.word != nullptr ? result.word : "",
            std::vector<int>(result.arguments, result.arguments + R3_ARGUMENTS)};
}

// The first argument.
int number(const std::string& word) {
    return split("command " + word).arguments[0];
}

TEST(CommandLine, FirstWordIsTheCommand) {
    EXPECT_EQ("threadpool", split("threadpool").word);
    EXPECT_EQ("threadpool", split("  threadpool  ").word);
    EXPECT_EQ("12", split("12 13").word);
    EXPECT_THAT(split("threadpool").arguments, ElementsAre(0, 0, 0, 0, 0, 0, 0, 0, 0, 0));
}

TEST(CommandLine, BlanksAloneAreNoCommand) {
    EXPECT_FALSE(split("").has_word);
    EXPECT_FALSE(split("   ").has_word);
    EXPECT_FALSE(split("\t\x80\xff ").has_word) << "everything but 21 to 7E parts words";
}

TEST(CommandLine, ArgumentsFillTheirPlacesInOrder) {
    EXPECT_THAT(split("c 1 -2 3  4").arguments, ElementsAre(1, -2, 3, 4, 0, 0, 0, 0, 0, 0));
    EXPECT_THAT(split("c 1\t2\x80"
                      "3")
                    .arguments,
                ElementsAre(1, 2, 3, 0, 0, 0, 0, 0, 0, 0));
}

TEST(CommandLine, LastWordNeedsNoBlankBehindIt) {
    EXPECT_EQ(7, number("7"));
    EXPECT_EQ(7, number("7 "));
}

TEST(CommandLine, WhatFollowsTheTenthIsIgnored) {
    EXPECT_THAT(split("c 1 2 3 4 5 6 7 8 9 10 11 x").arguments, ElementsAre(1, 2, 3, 4, 5, 6, 7, 8, 9, 10));
}

TEST(CommandLine, NumbersAreDigitsWithAMinusPerhaps) {
    EXPECT_EQ(42, number("42"));
    EXPECT_EQ(-42, number("-42"));
    EXPECT_EQ(7, number("007"));
    EXPECT_EQ(0, number("-")) << "a lone minus counts as a number";
    EXPECT_EQ(0, number("-0"));
}

TEST(CommandLine, OtherWordsAreTheSentinel) {
    EXPECT_EQ(-1128481604, R3_NO_NUMBER);
    for (const char* word : {"x", "1x", "x1", "--1", "+1", "1-", "0x10", "1.5", "-x"}) {
        EXPECT_EQ(-1128481604, number(word)) << word;
    }
}

TEST(CommandLine, NumbersBeyondIntHaveADefinedValue) {
    EXPECT_EQ(2147483647, number("2147483647"));
    EXPECT_EQ(-2147483647 - 1, number("-2147483648"));
    EXPECT_EQ(1, number("4294967297"));
    EXPECT_EQ(-1, number("99999999999999999999999999"));
    EXPECT_EQ(0, number("-99999999999999999999999999"));
}

std::vector<int> s_called;

int keep(int a, int b, int c, int d, int e, int f, int g, int h, int i, int j) {
    s_called = {a, b, c, d, e, f, g, h, i, j};
    return -1;
}

TEST(CommandLine, CommandIsCalledWithAllTen) {
    const TFuncEntry entry = {&keep, "keep", nullptr};
    std::string line = "keep 1 two 3 -4";
    call_command(entry, split_command_line(line.data()));
    EXPECT_THAT(s_called, ElementsAre(1, -1128481604, 3, -4, 0, 0, 0, 0, 0, 0));
}

}  // namespace
