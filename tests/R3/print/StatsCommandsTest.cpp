// The commands that print what a statistics client gets, in pieces that no print drops.
#include <unistd.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include <Reticor/Recorder.h>
#include <Reticor/Stats.h>

#include "R3/print/FuncBox.h"
#include "support/PoolFixture.h"
#include "support/debug/DaemonStandIn.h"

namespace Orvex::Testing {
namespace {

using namespace Reticor;

class StatsCommands : public PoolFixture {
protected:
    std::string printed(const char* command, int argument = 0) {
        DaemonStandIn daemon;
        const TFuncEntry* const entry = g_r3_funcbox->Find(command);
        EXPECT_NE(nullptr, entry) << command;
        entry->func(argument, 0, 0, 0, 0, 0, 0, 0, 0, 0);
        std::string whole;
        for (const std::string& piece : daemon.texts()) {
            EXPECT_LT(piece.size(), 4096u);
            whole += piece;
        }
        pieces = daemon.texts().size();
        return whole;
    }
    size_t pieces = 0;
};

TEST_F(StatsCommands, PrintTheWholeTextInPieces) {
    std::vector<TestHandler*> handlers;
    for (int i = 0; i < 100; ++i) {
        handlers.push_back(new TestHandler);
    }
    const std::string list = printed("handlers");
    EXPECT_GT(pieces, 1u);
    for (TestHandler* handler : handlers) {
        EXPECT_NE(std::string::npos, list.find(" " + std::to_string(handler->GetID()) + " ")) << list;
        handler->Close();
    }
    EXPECT_NE(std::string::npos, printed("stat").find("pool 0: "));
    const std::string json = printed("statjson");
    EXPECT_EQ('{', json.front());
    EXPECT_EQ("}\n", json.substr(json.size() - 2));
}

TEST_F(StatsCommands, TimingIsSwitchedByItsArgument) {
    printed("timing", 1);
    EXPECT_NE(std::string::npos, printed("statjson").find("\"timing\":true"));
    printed("timing", 0);
    EXPECT_NE(std::string::npos, printed("statjson").find("\"timing\":false"));
}

TEST_F(StatsCommands, NotesOfHoldersAreSwitchedByTheirArgument) {
    constexpr char OWN[] = "            held by the library for itself: 1\n";
    printed("holders", 1);
    auto* noted = new TestHandler;
    printed("holders", 0);
    auto* plain = new TestHandler;
    const std::string list = printed("handlers");
    const size_t first = list.find(OWN);
    EXPECT_NE(std::string::npos, first) << list;
    EXPECT_EQ(std::string::npos, list.find(OWN, first + 1)) << "one of the two: " << list;
    noted->Close();
    plain->Close();
}

TEST_F(StatsCommands, TheRecorderIsSwitchedByItsArgument) {
    EXPECT_EQ("recorder on\n", printed("recorder", 1));
    EXPECT_TRUE(CRecorder::IsOn());
    EXPECT_EQ("recorder off\n", printed("recorder", 0));
    EXPECT_FALSE(CRecorder::IsOn());
    const std::string name = "reticor-" + std::to_string(::getpid()) + ".dump";
    EXPECT_EQ("written to " + name + "\n", printed("recorder", 2));
    EXPECT_EQ(0, ::unlink(name.c_str()));
}

}  // namespace
}  // namespace Orvex::Testing
