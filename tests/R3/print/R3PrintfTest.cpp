// R3Printf: what reaches the daemon, and what is dropped.
#include <Reticor/R3.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <clocale>
#include <cwchar>
#include <string>
#include <thread>
#include <vector>

#include "R3/print/R3Printf.h"
#include "support/debug/DaemonStandIn.h"

namespace {

using Orvex::Reticor::g_r3_daemon;
using Orvex::Reticor::g_r3_print;
using Orvex::Reticor::R3Printf;
using Orvex::Testing::DaemonStandIn;
using testing::ElementsAre;
using testing::IsEmpty;

const char* const s_nobodys_text = reinterpret_cast<const char*>(1);  // Reading it ends the process.

TEST(R3Printf, ThereIsNoDaemonAtLoad) {
    EXPECT_EQ(nullptr, g_r3_daemon);
    EXPECT_EQ(nullptr, g_r3_print);
}

TEST(R3Printf, WithoutADaemonReturnsWithoutEvaluatingTheFormat) {
    { const DaemonStandIn once; }
    R3Printf("%s\n", s_nobodys_text);
    R3Printf(s_nobodys_text, 1);
}

TEST(R3Printf, DaemonThatHasNoPrintYetGetsNothing) {
    DaemonStandIn daemon;
    g_r3_print = nullptr;
    R3Printf("%s\n", s_nobodys_text);
    EXPECT_THAT(daemon.texts(), IsEmpty());
}

TEST(R3Printf, FormattedTextReachesTheDaemon) {
    DaemonStandIn daemon;
    R3Printf("%s | %d %5.2f\n", "text", -7, 1.5);
    R3Printf("plain");
    EXPECT_THAT(daemon.texts(), ElementsAre("text | -7  1.50\n", "plain"));
}

TEST(R3Printf, EmptyTextIsDropped) {
    DaemonStandIn daemon;
    R3Printf("%s", "");
    EXPECT_THAT(daemon.texts(), IsEmpty());
}

TEST(R3Printf, TextBelow4096BytesIsPrintedWholeAndALongerOneDropped) {
    DaemonStandIn daemon;
    const std::string longest(4095, 'a');
    R3Printf("%s", longest.c_str());
    R3Printf("%s", std::string(4096, 'b').c_str());
    R3Printf("%s", std::string(100000, 'c').c_str());
    R3Printf("%s", "d");
    EXPECT_THAT(daemon.texts(), ElementsAre(longest, "d"));
}

TEST(R3Printf, TextThatCannotBeFormattedIsDropped) {
    DaemonStandIn daemon;
    std::setlocale(LC_ALL, "C");
    const wchar_t wide[] = {static_cast<wchar_t>(0x8C03), 0};
    R3Printf("%ls", wide);
    EXPECT_THAT(daemon.texts(), IsEmpty());
}

TEST(R3Printf, LeavesErrnoAlone) {
    DaemonStandIn daemon;
    errno = ECONNRESET;
    const wchar_t wide[] = {static_cast<wchar_t>(0x8C03), 0};
    R3Printf("%ls", wide);
    EXPECT_EQ(ECONNRESET, errno);
    R3Printf("printed %d\n", 1);
    EXPECT_EQ(ECONNRESET, errno);
    EXPECT_THAT(daemon.texts(), ElementsAre("printed 1\n"));
}

// The way to the client prints too when it is traced; it must not lead back to its own beginning.
TEST(R3Printf, PrintMadeWhilePrintingIsDropped) {
    static int s_prints;
    s_prints = 0;
    DaemonStandIn daemon;
    g_r3_print = [](Orvex::Reticor::CR3Daemon*, const char* text) {
        ++s_prints;
        R3Printf("trace of print %d\n", s_prints);
        if (text[0] == 'a') {
            std::thread([] { R3Printf("b\n"); }).join();
        }
    };
    R3Printf("a\n");
    EXPECT_EQ(2, s_prints);
    R3Printf("c\n");
    EXPECT_EQ(3, s_prints) << "a later print of this thread comes through";
}

TEST(R3Printf, AnyThreadMayPrintWhileOthersDo) {
    DaemonStandIn daemon;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([t] {
            for (int i = 0; i < 500; ++i) {
                R3Printf("thread %d line %d\n", t, i);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(2000U, daemon.texts().size());
}

}  // namespace
