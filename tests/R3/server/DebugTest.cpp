// The console command `ntf`: every row of its words, every reply to the letter, and its way to the console.
#include "R3/server/Debug.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include <Reticor/NetThread.h>
#include <component/Component.h>
#include <component/Console.h>

#include "R3/print/DebugSocket.h"
#include "support/LogCapture.h"

namespace {

using namespace Orvex;
using Component::CComponentHelper;
using Component::ClassID;
using Component::TComPtr;
using Reticor::CDebugSocket;
using Testing::CapturedLine;
using Testing::LogCapture;
using Words = std::vector<std::string>;
using Lines = std::vector<std::string>;

const std::string FRAME = std::string(79, '-') + "\n";
const std::string INCORRECT =
    "The command you entered is incorrect,Please refer to the help manual to re-enter it!  ( ntf -h )\n";

Lines frame(const std::string& message) {
    return {FRAME, "-                             Reticor tips                               -\n", FRAME,
            message, FRAME};
}

Lines frames(const Words& messages) {
    Lines lines;
    for (const std::string& message : messages) {
        for (const std::string& line : frame(message)) {
            lines.push_back(line);
        }
    }
    return lines;
}

// The lines of the log, all of which are of level 4 and have no start.
Lines texts(const LogCapture& log) {
    Lines lines;
    for (const CapturedLine& line : log.lines()) {
        EXPECT_EQ(4, line.level) << line.full;
        EXPECT_EQ("", line.start) << line.full;
        lines.push_back(line.full);
    }
    return lines;
}

// What is logged for these words. Memory after the last word is none of the command's, so there is none.
Lines ntf(const Words& words) {
    std::vector<std::string> copies = words;
    std::vector<char*> argv;
    argv.reserve(words.size());
    for (std::string& word : copies) {
        argv.push_back(word.data());
    }
    argv.shrink_to_fit();
    const LogCapture log;
    EXPECT_EQ(0, Reticor::OnConsole(static_cast<int>(words.size()), argv.data()));
    return texts(log);
}

// All flags and numbers, in the order of the list.
std::vector<long long> flags() {
    return {CDebugSocket::socket_all,        CDebugSocket::socket_read,
            CDebugSocket::socket_write,      CDebugSocket::socket_exception,
            CDebugSocket::socket_fd,         CDebugSocket::socket_fd_num,
            CDebugSocket::socket_nethandler, CDebugSocket::socket_nethandler_num,
            CDebugSocket::socket_off,        CDebugSocket::socket_dendity};
}

using Values = std::vector<long long>;
const Values AT_FIRST = {0, 0, 0, 0, 0, -1, 0, 0, 1, 0};

// ---- CDebugSocket::DebugControl --------------------------------------------------------------------------

TEST(DebugControl, EachTypeSetsItsOwnFlag) {
    const std::vector<std::pair<int, size_t>> places = {{0, 0}, {1, 1}, {2, 2}, {3, 3}, {6, 8}, {8, 9}};
    for (const auto& [type, place] : places) {
        for (const bool on : {true, false}) {
            Values expected = flags();
            expected[place] = on;
            EXPECT_TRUE(CDebugSocket::DebugControl(type, on, 77));
            EXPECT_EQ(expected, flags()) << type;
        }
    }
}

TEST(DebugControl, FiltersTakeTheirNumber) {
    EXPECT_TRUE(CDebugSocket::DebugControl(4, true, 5000000000));
    EXPECT_EQ((Values{0, 0, 0, 0, 1, 5000000000, 0, 0, 1, 0}), flags());
    EXPECT_TRUE(CDebugSocket::DebugControl(5, true, -5000000000));
    EXPECT_EQ((Values{0, 0, 0, 0, 1, 5000000000, 1, -5000000000, 1, 0}), flags());
    EXPECT_TRUE(CDebugSocket::DebugControl(4, false, 3));
    EXPECT_TRUE(CDebugSocket::DebugControl(5, false, 4));
    EXPECT_EQ((Values{0, 0, 0, 0, 0, 3, 0, 4, 1, 0}), flags());
}

TEST(DebugControl, Type7SetsAllButTheMasterEnable) {
    CDebugSocket::DebugControl(4, true, 3);
    CDebugSocket::DebugControl(5, true, 4);
    EXPECT_TRUE(CDebugSocket::DebugControl(7, true, 99));
    EXPECT_EQ((Values{1, 1, 1, 1, 1, -1, 1, 0, 1, 1}), flags());
    CDebugSocket::DebugControl(6, false, -1);
    EXPECT_TRUE(CDebugSocket::DebugControl(7, true, 99));
    EXPECT_EQ((Values{1, 1, 1, 1, 1, -1, 1, 0, 0, 1}), flags());
    CDebugSocket::DebugControl(6, true, -1);
    EXPECT_TRUE(CDebugSocket::DebugControl(7, false, 99));
    EXPECT_EQ(AT_FIRST, flags());
}

TEST(DebugControl, AnyOtherTypeIsLoggedAndRefused) {
    for (const int type : {9, 10, -1}) {
        const LogCapture log;
        EXPECT_FALSE(CDebugSocket::DebugControl(type, true, 1));
        ASSERT_EQ(1u, log.lines().size());
        EXPECT_EQ(2, log.lines()[0].level);
        EXPECT_EQ("Set DebugControl Failed.\n", log.lines()[0].full);
        EXPECT_EQ(AT_FIRST, flags());
    }
}

// ---- the words -------------------------------------------------------------------------------------------

TEST(Ntf, VersionIsAFrameOfThreeLines) {
    const Lines expected = {
        FRAME, "-                 Reticor Version:Unknown, Compiled Date:.                  -\n", FRAME};
    EXPECT_EQ(expected, ntf({"-v"}));
    EXPECT_EQ(expected, ntf({"-version"})) << "short words match by their beginning";
}

TEST(Ntf, HelpListsAllWords) {
    const Lines expected = {
        FRAME,
        "-                           Reticor Debug help                           -\n",
        FRAME,
        "- ntf   -v                          Display version iformation.               -\n",
        "- ntf   -h                          Display help iformation.                  -\n",
        "- ntf   -S  -a                      Display socket event all processes.       -\n",
        "- ntf   -S  -r                      Display socket read event flow.           -\n",
        "- ntf   -S  -w                      Display socket write event flow.          -\n",
        "- ntf   -S  -e                      Display socket exception event flow.      -\n",
        "- ntf   -S  -fd+socket_id           Display the event flow sent by this socket.\n",
        "- ntf   -S  -c+CNetHandler_id       Display the event flow on this object.    -\n",
        "- ntf   -S  -off                    Turn off debugging.                       -\n",
        "- ntf   -S  --more                  Display socket event flow high density.   -\n",
        "- ntf   -S  --less                  Display socket event flow low density.    -\n",
        FRAME,
    };
    EXPECT_EQ(expected, ntf({"-h"}));
    EXPECT_EQ(expected, ntf({"-help"}));
}

TEST(Ntf, ListShowsEveryFieldInItsFormat) {
    CDebugSocket::DebugControl(1, true, -1);
    CDebugSocket::DebugControl(4, true, 5000000000);
    CDebugSocket::DebugControl(5, true, -6553600);
    const Lines expected = {
        "----------------------------------Debug List------------------------------\n",
        " socket_all \t= 0 .\n",
        " socket_read \t= 1 .\n",
        " socket_write \t= 0 .\n",
        " socket_exception = 0 .\n",
        " socket_fd = 1 .\n",
        " socket_fd_num = 5000000000 .\n",
        " socket_nethandler = 1 .\n",
        " socket_nethandler_num = -6553600 .\n",
        " socket_off = 1 .\n",
        " socket_dendity = 0 .\n",
        "--------------------------------------------------------------------------\n",
    };
    EXPECT_EQ(expected, ntf({"--list"}));
    EXPECT_EQ(expected, ntf({"--listing"}));
}

struct Switch {
    const char* word;
    const char* reply;
    size_t place;
    bool on;
};

constexpr Switch SWITCHES[] = {
    {"-a", "Display socket event all processes.\n", 0, true},
    {"-r", "Display socket read event flow.\n", 1, true},
    {"-w", "Display socket write event flow.\n", 2, true},
    {"-e", "Display socket exception event flow.\n", 3, true},
    {"--more", "Display socket event flow high density.\n", 9, true},
    {"--less", "Display socket event flow low density.\n", 9, false},
};

TEST(Ntf, SwitchesReplyAndSetTheirFlag) {
    for (const Switch& each : SWITCHES) {
        CDebugSocket::DebugControl(7, false, -1);
        CDebugSocket::DebugControl(8, !each.on, -1);
        Values expected = flags();
        expected[each.place] = each.on;
        EXPECT_EQ(frame(each.reply), ntf({"-S", each.word}));
        EXPECT_EQ(expected, flags()) << each.word;
    }
}

TEST(Ntf, WhatTracesAClassTurnsTheMasterEnableOnAndTheDensityDoesNot) {
    for (const Switch& each : SWITCHES) {
        CDebugSocket::DebugControl(6, false, -1);
        ntf({"-S", each.word});
        EXPECT_EQ(each.place < 4, CDebugSocket::socket_off) << each.word;
    }
}

TEST(Ntf, SwitchesAddUpUntilTheyAreTurnedOff) {
    for (const char* word : {"-r", "-w", "--more"}) {
        ntf({"-S", word});
    }
    ntf({"-S", "-fd", "7"});
    ntf({"-S", "-c", "-6553600"});
    ntf({"-S", "-e"});
    EXPECT_EQ((Values{0, 1, 1, 1, 1, 7, 1, -6553600, 1, 1}), flags());
    ntf({"-S", "-a"});
    EXPECT_EQ((Values{1, 1, 1, 1, 1, 7, 1, -6553600, 1, 1}), flags());
    EXPECT_EQ(frame("Turn off debugging.\n"), ntf({"-S", "-off"}));
    EXPECT_EQ(AT_FIRST, flags()) << "the density too; the master enable stays on";
    const Lines list = ntf({"--list"});
    EXPECT_EQ(" socket_fd_num = -1 .\n", list[6]);
    EXPECT_EQ(" socket_nethandler_num = 0 .\n", list[8]);
    EXPECT_EQ(" socket_off = 1 .\n", list[9]);
}

TEST(Ntf, AllLeavesTheDensityAlone) {
    ntf({"-S", "-a"});
    EXPECT_TRUE(CDebugSocket::socket_all);
    EXPECT_FALSE(CDebugSocket::socket_dendity) << "the dense sites stay quiet until --more";
}

TEST(Ntf, FollowsASocket) {
    CDebugSocket::DebugControl(6, false, -1);
    EXPECT_EQ(frames({"Socket is 17.\n", "Display the event flow sent by this socket:17.\n"}),
              ntf({"-S", "-fd", "17"}));
    EXPECT_EQ((Values{0, 0, 0, 0, 1, 17, 0, 0, 1, 0}), flags());
    EXPECT_EQ(frames({"Socket is 0.\n", "Display the event flow sent by this socket:0.\n"}),
              ntf({"-S", "-fdx", "0"}));
    EXPECT_EQ(0, CDebugSocket::socket_fd_num);
}

TEST(Ntf, WordThatIsNoNumberIsSocket0) {
    EXPECT_EQ(frames({"Socket is 0.\n", "Display the event flow sent by this socket:0.\n"}),
              ntf({"-S", "-fd", "twelve"}));
    EXPECT_EQ((Values{0, 0, 0, 0, 1, 0, 0, 0, 1, 0}), flags());
    EXPECT_EQ(frames({"Socket is 12.\n", "Display the event flow sent by this socket:12.\n"}),
              ntf({"-S", "-fd", "12th"}));
}

TEST(Ntf, NegativeSocketIsRefused) {
    CDebugSocket::DebugControl(6, false, -1);
    const Values before = flags();
    EXPECT_EQ(frames({"Socket is -1.\n", "Plase enter the correct fd.\n"}), ntf({"-S", "-fd", "-1"}));
    EXPECT_EQ(before, flags());
}

TEST(Ntf, FollowsAHandlerOfAnIdAtOrBelowTheBound) {
    CDebugSocket::DebugControl(6, false, -1);
    EXPECT_EQ(frames({"CNetHandler id is -25344", "Display the event flow on this object:-25344.\n"}),
              ntf({"-S", "-c", "-25344"}));
    EXPECT_EQ((Values{0, 0, 0, 0, 0, -1, 1, -25344, 1, 0}), flags());
    EXPECT_EQ(frames({"CNetHandler id is -6553600", "Display the event flow on this object:-6553600.\n"}),
              ntf({"-S", "-c", "-6553600"}));
    EXPECT_EQ(-6553600, CDebugSocket::socket_nethandler_num);
}

TEST(Ntf, OtherNumbersAreNoIds) {
    CDebugSocket::DebugControl(6, false, -1);
    const Values before = flags();
    const std::vector<std::pair<std::string, std::string>> numbers = {
        {"5", "5"}, {"-25343", "-25343"}, {"0", "0"}, {"none", "0"}};
    for (const auto& [word, shown] : numbers) {
        EXPECT_EQ(frames({"CNetHandler id is " + shown, "Plase enter the correct CNetHandler id.\n"}),
                  ntf({"-S", "-c", word}));
        EXPECT_EQ(before, flags()) << word;
    }
}

TEST(Ntf, NumbersBeyondIntHaveADefinedValue) {
    EXPECT_EQ(frames({"Socket is -1.\n", "Plase enter the correct fd.\n"}),
              ntf({"-S", "-fd", "99999999999999999999999"}));
    EXPECT_EQ(frames({"Socket is 1.\n", "Display the event flow sent by this socket:1.\n"}),
              ntf({"-S", "-fd", "4294967297"}));
}

TEST(Ntf, EverythingElseIsIncorrect) {
    const std::vector<Words> lines = {
        {},
        {""},
        {"x"},
        {"-S"},
        {"-"},
        {"--lis"},
        {"v"},
        {"-V"},
        {"-s", "-a"},
        {"-S", "a"},
        {"-S", "-x"},
        {"-S", ""},
        {"-S", "--mor"},
        {"-S", "-of"},
        // The number is missing, or not the last word.
        {"-S", "-fd"},
        {"-S", "-c"},
        {"-S", "-f", "1"},
        {"-S", "-cx", "-25344"},
        {"-S", "-fd", "1", "2"},
        // Words too many.
        {"-v", "x"},
        {"-h", "-h"},
        {"--list", "x"},
        {"-S", "-a", "x"},
        {"-S", "-off", "x"},
    };
    for (const Words& words : lines) {
        EXPECT_EQ(frame(INCORRECT), ntf(words)) << testing::PrintToString(words);
        EXPECT_EQ(AT_FIRST, flags()) << testing::PrintToString(words);
    }
    const LogCapture log;
    EXPECT_EQ(0, Reticor::OnConsole(0, nullptr));
    EXPECT_EQ(frame(INCORRECT), texts(log));
}

// ---- the way to the console ------------------------------------------------------------------------------

class Console : public Component::TCounted<Manager::IConsole> {
public:
    struct Command {
        Manager::ConsoleCommand function;
        std::string name;
        std::string help;
    };

    bool registerCommand(const Manager::ConsoleCommand& command, const char* name,
                         const char* help) override {
        commands.push_back({command, name, help});
        return accepts;
    }

    std::vector<Command> commands;
    bool accepts = true;
};

// The process's console, until the end of a scope.
class OfferedConsole {
public:
    OfferedConsole() : m_console(TComPtr<Manager::IConsole>::adopt(new Console)) {
        EXPECT_TRUE(CComponentHelper::offer(ClassID("Local"), "Console", m_console));
    }
    ~OfferedConsole() { EXPECT_TRUE(CComponentHelper::withdraw(ClassID("Local"), "Console")); }
    Console* operator->() const { return static_cast<Console*>(m_console.get()); }

private:
    const TComPtr<Manager::IConsole> m_console;
};

const std::string SUCCESS_LINE = "InitConsoleDebug Failed! Will not to able use console commands.\n";

TEST(InitConsoleDebug, RegistersNtf) {
    const OfferedConsole console;
    const LogCapture log;
    EXPECT_TRUE(Reticor::InitConsoleDebug());
    EXPECT_TRUE(log.lines().empty()) << log.dump();
    ASSERT_EQ(1u, console->commands.size());
    EXPECT_EQ("ntf", console->commands[0].name);
    EXPECT_EQ("ntf [-h]", console->commands[0].help);
    char word[] = "-v";
    char* argv[] = {word};
    EXPECT_EQ(0, console->commands[0].function(1, argv));
    EXPECT_EQ(3u, log.lines().size()) << "the version's frame";
}

TEST(InitConsoleDebug, WithoutAConsoleTellsSoInAFrame) {
    const LogCapture log;
    EXPECT_FALSE(Reticor::InitConsoleDebug());
    EXPECT_EQ(frame("Get IConsole component failed.\n"), texts(log));
}

TEST(InitConsoleDebug, ConsoleThatRefusesIsToldInAFrame) {
    const OfferedConsole console;
    console->accepts = false;
    const LogCapture log;
    EXPECT_FALSE(Reticor::InitConsoleDebug());
    EXPECT_EQ(frame("Register Reticor command failed.\n"), texts(log));
}

TEST(InitConsoleDebug, LibraryAsksTheConsoleForEveryPool) {
    const OfferedConsole console;
    const LogCapture log;
    ASSERT_EQ(0, Reticor::CNetThread::CreateThreadPool(1, false));
    EXPECT_EQ(1u, console->commands.size());
    ASSERT_EQ(1u, log.countLevel(2)) << log.dump();
    const CapturedLine last = log.lines().back();
    EXPECT_EQ(SUCCESS_LINE, last.text) << "after everything else was set up";
    EXPECT_NE(std::string::npos, last.start.find("Src/Core/NetThread.cpp:"));
    EXPECT_EQ(std::string::npos, last.start.find("this:"));
    ASSERT_EQ(0, Reticor::CNetThread::CreateThreadPool(1, false));
    console->accepts = false;
    const int index = Reticor::CNetThread::CreatePrivatePool(1, false);
    EXPECT_EQ(3u, console->commands.size());
    EXPECT_EQ(2u, log.count(2, SUCCESS_LINE)) << "the line stands for success";
    EXPECT_EQ(1u, log.count(4, "Register Reticor command failed.\n"));
    EXPECT_EQ(0, Reticor::CNetThread::DestroyPrivatePool(index));
    EXPECT_EQ(0, Reticor::CNetThread::DestroyThreadPool());
    EXPECT_EQ(0, Reticor::CNetThread::DestroyThreadPool());
}

TEST(InitConsoleDebug, LibraryWorksWithoutAConsole) {
    const LogCapture log;
    ASSERT_EQ(0, Reticor::CNetThread::CreateThreadPool(1, false));
    EXPECT_EQ(1u, log.count(4, "Get IConsole component failed.\n"));
    EXPECT_EQ(0u, log.countLevel(2)) << log.dump();
    EXPECT_EQ(0, Reticor::CNetThread::DestroyThreadPool());
}

}  // namespace
