// Options: the command line, and what is said of a wrong one.
#include "top/Options.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

using top::name_of;
using top::Options;
using top::Order;
using top::readOptions;

/// The result; what was printed is in `said`.
int read_line(std::vector<const char*> words, Options& options, std::string& said) {
    words.insert(words.begin(), "reticor-top");
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    const int result = readOptions(static_cast<int>(words.size()), words.data(), options);
    said = testing::internal::GetCapturedStdout() + testing::internal::GetCapturedStderr();
    return result;
}

Options read_well(const std::vector<const char*>& words) {
    Options options;
    std::string said;
    EXPECT_EQ(-1, read_line(words, options, said)) << said;
    EXPECT_EQ("", said);
    return options;
}

std::string complaint(const std::vector<const char*>& words) {
    Options options;
    std::string said;
    EXPECT_LT(0, read_line(words, options, said)) << said;
    return said;
}

TEST(TopOptions, ATargetAloneIsEnough) {
    const Options options = read_well({"/run/shop.stats"});
    EXPECT_EQ("/run/shop.stats", options.target);
    EXPECT_FALSE(options.once);
    EXPECT_FALSE(options.json);
    EXPECT_FALSE(options.timing);
    EXPECT_DOUBLE_EQ(1, options.every_s);
    EXPECT_EQ(Order::LOAD, options.view.order);
    EXPECT_EQ("", options.view.filter);
    EXPECT_FALSE(options.view.held);
}

TEST(TopOptions, SwitchesStandBeforeOrAfterTheTarget) {
    const Options options = read_well({"--once", "http://host", "--json", "--timing"});
    EXPECT_EQ("http://host", options.target);
    EXPECT_TRUE(options.once);
    EXPECT_TRUE(options.json);
    EXPECT_TRUE(options.timing);
}

TEST(TopOptions, EveryOrderHasItsName) {
    for (const Order order : {Order::LOAD, Order::TOTAL, Order::SIZE, Order::NAME}) {
        EXPECT_EQ(order, read_well({"path", "--sort", name_of(order)}).view.order);
    }
    EXPECT_NE(std::string::npos, complaint({"path", "--sort", "colour"}).find("colour"));
}

TEST(TopOptions, TheFilterIsTakenAsItIs) {
    EXPECT_EQ("Shop::", read_well({"path", "--filter", "Shop::"}).view.filter);
    EXPECT_EQ("a b", read_well({"path", "--filter=a b"}).view.filter);
}

TEST(TopOptions, TheTimeFromLookToLookHasBounds) {
    EXPECT_DOUBLE_EQ(0.1, read_well({"path", "--every", "0.1"}).every_s);
    EXPECT_DOUBLE_EQ(60, read_well({"path", "--every", "60"}).every_s);
    EXPECT_NE("", complaint({"path", "--every", "0"}));
    EXPECT_NE("", complaint({"path", "--every", "61"}));
    EXPECT_NE("", complaint({"path", "--every", "-1"}));
    EXPECT_NE("", complaint({"path", "--every", "soon"}));
    EXPECT_NE("", complaint({"path", "--every", "nan"}));
}

TEST(TopOptions, WhatIsMissingOrTooMuchIsSaid) {
    EXPECT_NE(std::string::npos, complaint({}).find("TARGET"));
    EXPECT_NE(std::string::npos, complaint({"one", "two"}).find("two"));
    EXPECT_NE(std::string::npos, complaint({"path", "--colour"}).find("--colour"));
    EXPECT_NE("", complaint({"path", "--sort"}));
}

TEST(TopOptions, HelpNamesEveryOption) {
    Options options;
    std::string said;
    EXPECT_EQ(0, read_line({"--help"}, options, said));
    for (const char* const word :
         {"TARGET", "--once", "--json", "--timing", "--every", "--sort", "--filter"}) {
        EXPECT_NE(std::string::npos, said.find(word)) << word;
    }
}

}  // namespace
