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
        EXPECT_EQ(0, box->Register(pointer(&command), names.back().c_str(), nullptr));
    }
    return box;
}

TEST(FuncBox, IsEmptyAndClearedAtFirst) {
    const auto box = std::make_unique<TFuncBox>();
    EXPECT_EQ(0, box->Count());
    EXPECT_EQ(nullptr, box->Find("threadpool"));
    for (int i = 0; i < 1024; ++i) {
        ASSERT_EQ(nullptr, box->At(i).func);
        ASSERT_EQ(nullptr, box->At(i).name);
        ASSERT_EQ(nullptr, box->At(i).help);
    }
}

TEST(FuncBox, KeepsTheThreePointersInOrder) {
    TFuncBox box;
    char name[] = "one";
    char help[] = "its help";
    EXPECT_EQ(0, box.Register(pointer(&command), name, help));
    EXPECT_EQ(0, box.Register(pointer(&other), "two", help));
    ASSERT_EQ(2, box.Count());
    EXPECT_EQ(box.At(0).func, &command);
    EXPECT_EQ(box.At(0).name, name) << "the pointer, not a copy";
    EXPECT_EQ(box.At(0).help, help);
    EXPECT_EQ(box.At(1).func, &other);
    EXPECT_EQ(box.Find("two"), &box.At(1));
}

TEST(FuncBox, CommandIsCalledWithTenNumbers) {
    TFuncBox box;
    box.Register(pointer(&command), "one", nullptr);
    EXPECT_EQ(42, box.Find("one")->func(1, 2, 3, 4, 5, 6, 7, 8, 9, -10));
    EXPECT_EQ("1 2 3 4 5 6 7 8 9 -10 ", s_called_with);
}

TEST(FuncBox, NullFunctionOrNameIsRefusedWithoutALine) {
    const LogCapture log;
    TFuncBox box;
    EXPECT_EQ(-1, box.Register(nullptr, "name", "help"));
    EXPECT_EQ(-1, box.Register(pointer(&command), nullptr, "help"));
    EXPECT_EQ(-1, box.Register(nullptr, nullptr, nullptr));
    EXPECT_EQ(0, box.Count());
    EXPECT_TRUE(log.lines().empty()) << log.dump();
}

TEST(FuncBox, NullHelpIsAccepted) {
    TFuncBox box;
    EXPECT_EQ(0, box.Register(pointer(&command), "name", nullptr));
    EXPECT_EQ(nullptr, box.At(0).help);
}

TEST(FuncBox, SecondRegistrationOfANameIsRefusedAndTheFirstStays) {
    TFuncBox box;
    box.Register(pointer(&other), "before", nullptr);
    box.Register(pointer(&command), "name", "first");
    const LogCapture log;
    const std::string same = "name";
    EXPECT_EQ(-1, box.Register(pointer(&other), same.c_str(), "second"));
    EXPECT_EQ(2, box.Count());
    EXPECT_EQ(box.At(1).func, &command);
    EXPECT_STREQ("first", box.At(1).help);
    ASSERT_EQ(1U, log.lines().size()) << log.dump();
    EXPECT_TRUE(log.contains(2, "TFuncBox::Register already exist!\n"));
    EXPECT_NE(log.lines()[0].start.find("Src/R3/FuncBox.cpp:"), std::string::npos);
    char self[32];
    std::snprintf(self, sizeof(self), "this:%p tid:", static_cast<void*>(&box));
    EXPECT_NE(log.lines()[0].start.find(self), std::string::npos);
}

TEST(FuncBox, NamesAreComparedExactly) {
    TFuncBox box;
    for (const char* name : {"name", "Name", "name ", "nam", "names", ""}) {
        EXPECT_EQ(0, box.Register(pointer(&command), name, nullptr)) << name;
    }
    EXPECT_EQ(6, box.Count());
    EXPECT_EQ(nullptr, box.Find("NAME"));
    EXPECT_EQ(box.Find(""), &box.At(5));
}

TEST(FuncBox, Registration1025IsRefusedAndLeavesTheBoxAsItWas) {
    const auto box = fullBox();
    const TFuncBox before = *box;
    const LogCapture log;
    EXPECT_EQ(-1, box->Register(pointer(&other), "one too many", nullptr));
    EXPECT_EQ(0, std::memcmp(&before, box.get(), sizeof(TFuncBox)));
    ASSERT_EQ(1U, log.lines().size()) << log.dump();
    EXPECT_TRUE(log.contains(2, "CR3Daemon::Register func box full!\n"));
    EXPECT_NE(log.lines()[0].start.find("this:"), std::string::npos);
}

TEST(FuncBox, FullBoxSaysSoAlsoForANameThatItKnows) {
    const auto box = fullBox();
    const LogCapture log;
    EXPECT_EQ(-1, box->Register(pointer(&other), "command3", nullptr));
    EXPECT_EQ(-1, box->Register(nullptr, "command3", nullptr));
    ASSERT_EQ(1U, log.lines().size()) << log.dump();
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
    EXPECT_EQ(0U, iconv(converter, &from, &from_left, &to, &to_left));
    iconv_close(converter);
    return out;
}

TEST(R3Register, LibrarysCommandsAreThereFromLoadOn) {
    ASSERT_NE(nullptr, g_r3_funcbox);
    const TFuncEntry* threadpool = g_r3_funcbox->Find("threadpool");
    const TFuncEntry* version = g_r3_funcbox->Find("reticorversion");
    ASSERT_NE(nullptr, threadpool);
    ASSERT_NE(nullptr, version);
    EXPECT_EQ("调整Thread打印级别(threadpool 0-关闭，threadpool 1-打印)", fromGbk(threadpool->help));
    EXPECT_EQ("显示Reticor版本及编译时间", fromGbk(version->help));
}

TEST(R3Register, HelpLinesAreChineseInGbk) {
    using namespace Orvex::Reticor;
    EXPECT_EQ("调整mediastreamreceiver 打印级别(mediastreamreceiver 0-关闭，mediastreamreceiver 1-打印)",
              fromGbk(HELP_MEDIASTREAMRECEIVER));
    EXPECT_EQ("调整MediaBuffer打印级别(0-关闭，1-打印缓存量)", fromGbk(HELP_MEDIABUFFERPRT));
    EXPECT_EQ("调整streamsender 打印级别(streamsender 0-关闭，streamsender 1-打印)",
              fromGbk(HELP_STREAMSENDER));
}

TEST(R3Register, BoxIsMadeAtTheFirstRegistrationAfterItWent) {
    EXPECT_EQ(0, R3ServerExit());
    EXPECT_EQ(nullptr, g_r3_funcbox);
    EXPECT_EQ(0, R3ServerExit()) << "nothing to do twice";
    EXPECT_EQ(0, R3Register(pointer(&command), "mine", "help"));
    ASSERT_NE(nullptr, g_r3_funcbox);
    EXPECT_EQ(1, g_r3_funcbox->Count()) << "the library's own commands do not come back";
    EXPECT_EQ(nullptr, g_r3_funcbox->Find("threadpool"));
    EXPECT_EQ(0, R3ServerExit());
}

TEST(R3Register, GivesTheBoxesAnswer) {
    const LogCapture log;
    EXPECT_EQ(-1, R3Register(nullptr, "mine", nullptr));
    EXPECT_EQ(-1, R3Register(pointer(&command), nullptr, nullptr));
    EXPECT_TRUE(log.lines().empty());
    EXPECT_EQ(-1, R3Register(pointer(&command), "threadpool", nullptr));
    EXPECT_TRUE(log.contains(2, "TFuncBox::Register already exist!\n"));
    EXPECT_NE(g_r3_funcbox->Find("threadpool")->func, &command);
}

std::atomic<int32_t> s_flag{0};

TEST(R3Command, RegistersItsFunction) {
    const R3Command registrar(&command, "from an object", "help");
    ASSERT_NE(nullptr, g_r3_funcbox->Find("from an object"));
    EXPECT_EQ(g_r3_funcbox->Find("from an object")->func, &command);
}

TEST(R3Command, FlagCommandStoresItsFirstArgument) {
    const R3Command registrar(&Orvex::Reticor::r3_store_flag<s_flag>, "flag", nullptr);
    const TFuncEntry* entry = g_r3_funcbox->Find("flag");
    entry->func(7, 1, 1, 1, 1, 1, 1, 1, 1, 1);
    EXPECT_EQ(7, s_flag);
    entry->func(0, 1, 1, 1, 1, 1, 1, 1, 1, 1);
    EXPECT_EQ(0, s_flag);
}

}  // namespace
