// TFuncBox: entering, finding, listing and calling debug commands.
#include "R3/print/FuncBox.h"

#include <gtest/gtest.h>
#include <iconv.h>

#include <cstring>
#include <deque>
#include <memory>
#include <string>

#include "R3/print/HelpText.h"
#include "support/LogCapture.h"

namespace {

using Orvex::Reticor::g_r3_funcbox;
using Orvex::Reticor::R3Command;
using Orvex::Reticor::R3Register;
using Orvex::Reticor::R3ServerExit;
using Orvex::Reticor::TFuncBox;
using Orvex::Reticor::TFuncEntry;
using Orvex::Testing::LogCapture;

std::string s_called_with;

int command(int a, int b, int c, int d, int e, int f, int g, int h, int i, int j) {
    for (const int argument : {a, b, c, d, e, f, g, h, i, j}) {
        s_called_with += std::to_string(argument) + " ";
    }
    return 42;
}

int other(int, int, int, int, int, int, int, int, int, int) {
    return 0;
}

void* pointer(Orvex::Reticor::R3Function func) {
    return reinterpret_cast<void*>(func);
}

std::unique_ptr<TFuncBox> fullBox() {
    static std::deque<std::string> names;
    auto box = std::make_unique<TFuncBox>();
    for (int i = 0; i < 1024; ++i) {
        names.push_back("command" + std::to_string(i));
        EXPECT_EQ(box->Register(pointer(&command), names.back().c_str(), nullptr), 0);
    }
    return box;
}

TEST(FuncBox, IsEmptyAndClearedAtFirst) {
    const auto box = std::make_unique<TFuncBox>();
    EXPECT_EQ(box->Count(), 0);
    EXPECT_EQ(box->Find("threadpool"), nullptr);
    for (int i = 0; i < 1024; ++i) {
        ASSERT_EQ(box->At(i).func, nullptr);
        ASSERT_EQ(box->At(i).name, nullptr);
        ASSERT_EQ(box->At(i).help, nullptr);
    }
}

TEST(FuncBox, KeepsTheThreePointersInOrder) {
    TFuncBox box;
    char name[] = "one";
    char help[] = "its help";
    EXPECT_EQ(box.Register(pointer(&command), name, help), 0);
    EXPECT_EQ(box.Register(pointer(&other), "two", help), 0);
    ASSERT_EQ(box.Count(), 2);
    EXPECT_EQ(box.At(0).func, &command);
    EXPECT_EQ(box.At(0).name, name) << "the pointer, not a copy";
    EXPECT_EQ(box.At(0).help, help);
    EXPECT_EQ(box.At(1).func, &other);
    EXPECT_EQ(box.Find("two"), &box.At(1));
}

TEST(FuncBox, CommandIsCalledWithTenNumbers) {
    TFuncBox box;
    box.Register(pointer(&command), "one", nullptr);
    EXPECT_EQ(box.Find("one")->func(1, 2, 3, 4, 5, 6, 7, 8, 9, -10), 42);
    EXPECT_EQ(s_called_with, "1 2 3 4 5 6 7 8 9 -10 ");
}

TEST(FuncBox, NullFunctionOrNameIsRefusedWithoutALine) {
    const LogCapture log;
    TFuncBox box;
    EXPECT_EQ(box.Register(nullptr, "name", "help"), -1);
    EXPECT_EQ(box.Register(pointer(&command), nullptr, "help"), -1);
    EXPECT_EQ(box.Register(nullptr, nullptr, nullptr), -1);
    EXPECT_EQ(box.Count(), 0);
    EXPECT_TRUE(log.lines().empty()) << log.dump();
}

TEST(FuncBox, NullHelpIsAccepted) {
    TFuncBox box;
    EXPECT_EQ(box.Register(pointer(&command), "name", nullptr), 0);
    EXPECT_EQ(box.At(0).help, nullptr);
}

TEST(FuncBox, SecondRegistrationOfANameIsRefusedAndTheFirstStays) {
    TFuncBox box;
    box.Register(pointer(&other), "before", nullptr);
    box.Register(pointer(&command), "name", "first");
    const LogCapture log;
    const std::string same = "name";
    EXPECT_EQ(box.Register(pointer(&other), same.c_str(), "second"), -1);
    EXPECT_EQ(box.Count(), 2);
    EXPECT_EQ(box.At(1).func, &command);
    EXPECT_STREQ(box.At(1).help, "first");
    ASSERT_EQ(log.lines().size(), 1U) << log.dump();
    EXPECT_TRUE(log.contains(2, "TFuncBox::Register already exist!\n"));
    EXPECT_NE(log.lines()[0].start.find("Src/R3/FuncBox.cpp:"), std::string::npos);
    char self[32];
    std::snprintf(self, sizeof(self), "this:%p tid:", static_cast<void*>(&box));
    EXPECT_NE(log.lines()[0].start.find(self), std::string::npos);
}

TEST(FuncBox, NamesAreComparedExactly) {
    TFuncBox box;
    for (const char* name : {"name", "Name", "name ", "nam", "names", ""}) {
        EXPECT_EQ(box.Register(pointer(&command), name, nullptr), 0) << name;
    }
    EXPECT_EQ(box.Count(), 6);
    EXPECT_EQ(box.Find("NAME"), nullptr);
    EXPECT_EQ(box.Find(""), &box.At(5));
}

TEST(FuncBox, Registration1025IsRefusedAndLeavesTheBoxAsItWas) {
    const auto box = fullBox();
    const TFuncBox before = *box;
    const LogCapture log;
    EXPECT_EQ(box->Register(pointer(&other), "one too many", nullptr), -1);
    EXPECT_EQ(std::memcmp(&before, box.get(), sizeof(TFuncBox)), 0);
    ASSERT_EQ(log.lines().size(), 1U) << log.dump();
    EXPECT_TRUE(log.contains(2, "CR3Daemon::Register func box full!\n"));
    EXPECT_NE(log.lines()[0].start.find("this:"), std::string::npos);
}

TEST(FuncBox, FullBoxSaysSoAlsoForANameThatItKnows) {
    const auto box = fullBox();
    const LogCapture log;
    EXPECT_EQ(box->Register(pointer(&other), "command3", nullptr), -1);
    EXPECT_EQ(box->Register(nullptr, "command3", nullptr), -1);
    ASSERT_EQ(log.lines().size(), 1U) << log.dump();
    EXPECT_TRUE(log.contains(2, "CR3Daemon::Register func box full!\n"));
}

// ---- the one box -----------------------------------------------------------------------------------------

std::string fromGbk(const char* text) {
    const iconv_t converter = iconv_open("UTF-8", "GBK");
    EXPECT_NE(converter, reinterpret_cast<iconv_t>(-1));
    std::string in(text);
    char out[512] = {};
    char* from = in.data();
    size_t from_left = in.size();
    char* to = out;
    size_t to_left = sizeof(out) - 1;
    EXPECT_EQ(iconv(converter, &from, &from_left, &to, &to_left), 0U);
    iconv_close(converter);
    return out;
}

TEST(R3Register, LibrarysCommandsAreThereFromLoadOn) {
    ASSERT_NE(g_r3_funcbox, nullptr);
    const TFuncEntry* threadpool = g_r3_funcbox->Find("threadpool");
    const TFuncEntry* version = g_r3_funcbox->Find("reticorversion");
    ASSERT_NE(threadpool, nullptr);
    ASSERT_NE(version, nullptr);
    EXPECT_EQ(fromGbk(threadpool->help), "调整Thread打印级别(threadpool 0-关闭，threadpool 1-打印)");
    EXPECT_EQ(fromGbk(version->help), "显示Reticor版本及编译时间");
}

TEST(R3Register, HelpLinesAreChineseInGbk) {
    using namespace Orvex::Reticor;
    EXPECT_EQ(fromGbk(HELP_MEDIASTREAMRECEIVER),
              "调整mediastreamreceiver 打印级别(mediastreamreceiver 0-关闭，mediastreamreceiver 1-打印)");
    EXPECT_EQ(fromGbk(HELP_MEDIABUFFERPRT), "调整MediaBuffer打印级别(0-关闭，1-打印缓存量)");
    EXPECT_EQ(fromGbk(HELP_STREAMSENDER),
              "调整streamsender 打印级别(streamsender 0-关闭，streamsender 1-打印)");
}

TEST(R3Register, BoxIsMadeAtTheFirstRegistrationAfterItWent) {
    EXPECT_EQ(R3ServerExit(), 0);
    EXPECT_EQ(g_r3_funcbox, nullptr);
    EXPECT_EQ(R3ServerExit(), 0) << "nothing to do twice";
    EXPECT_EQ(R3Register(pointer(&command), "mine", "help"), 0);
    ASSERT_NE(g_r3_funcbox, nullptr);
    EXPECT_EQ(g_r3_funcbox->Count(), 1) << "the library's own commands do not come back";
    EXPECT_EQ(g_r3_funcbox->Find("threadpool"), nullptr);
    EXPECT_EQ(R3ServerExit(), 0);
}

TEST(R3Register, GivesTheBoxesAnswer) {
    const LogCapture log;
    EXPECT_EQ(R3Register(nullptr, "mine", nullptr), -1);
    EXPECT_EQ(R3Register(pointer(&command), nullptr, nullptr), -1);
    EXPECT_TRUE(log.lines().empty());
    EXPECT_EQ(R3Register(pointer(&command), "threadpool", nullptr), -1);
    EXPECT_TRUE(log.contains(2, "TFuncBox::Register already exist!\n"));
    EXPECT_NE(g_r3_funcbox->Find("threadpool")->func, &command);
}

std::atomic<int32_t> s_flag{0};

TEST(R3Command, RegistersItsFunction) {
    const R3Command registrar(&command, "from an object", "help");
    ASSERT_NE(g_r3_funcbox->Find("from an object"), nullptr);
    EXPECT_EQ(g_r3_funcbox->Find("from an object")->func, &command);
}

TEST(R3Command, FlagCommandStoresItsFirstArgument) {
    const R3Command registrar(&Orvex::Reticor::r3StoreFlag<s_flag>, "flag", nullptr);
    const TFuncEntry* entry = g_r3_funcbox->Find("flag");
    entry->func(7, 1, 1, 1, 1, 1, 1, 1, 1, 1);
    EXPECT_EQ(s_flag, 7);
    entry->func(0, 1, 1, 1, 1, 1, 1, 1, 1, 1);
    EXPECT_EQ(s_flag, 0);
}

}  // namespace
