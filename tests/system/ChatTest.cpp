// The chat as a whole program: its line protocol, and messages between its handlers under load.
#include <algorithm>
#include <list>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/Eventually.h"
#include "support/program/ServerProgram.h"
#include "support/program/TcpClient.h"

using namespace Orvex::Testing;

namespace {

/// Somebody who has said a name.
class Guest : public TcpClient {
public:
    Guest(const ServerProgram& chat, const std::string& name) : TcpClient(chat.port()) {
        EXPECT_EQ(receiveLine(), "your name?");
        EXPECT_TRUE(send(name + "\n"));
        EXPECT_EQ(receiveLine(), "* welcome, " + name);
    }
};

}  // namespace

TEST(ChatTest, TellsEverybodyElseWhatOneSays) {
    ServerProgram chat("chat");
    Guest ann(chat, "ann");
    Guest bob(chat, "bob");
    EXPECT_EQ(ann.receiveLine(), "* bob joined");
    Guest cy(chat, "cy");
    EXPECT_EQ(ann.receiveLine(), "* cy joined");
    EXPECT_EQ(bob.receiveLine(), "* cy joined");

    ann.send("hello\r\n");
    EXPECT_EQ(bob.receiveLine(), "ann: hello");
    EXPECT_EQ(cy.receiveLine(), "ann: hello");
    bob.send("hi ann\n");
    EXPECT_EQ(ann.receiveLine(), "bob: hi ann");  // and not her own line before it
    EXPECT_EQ(cy.receiveLine(), "bob: hi ann");

    bob.send("/quit\n");
    EXPECT_EQ(bob.receiveAll(), "");
    EXPECT_TRUE(bob.wasClosed());
    EXPECT_EQ(ann.receiveLine(), "* bob left");
    EXPECT_EQ(chat.end(), 0);
}

TEST(ChatTest, ServesNcatFromBeginToEnd) {
    ServerProgram chat("chat");
    Guest ann(chat, "ann");
    ChildProcess ncat({"ncat", chat.host(), std::to_string(chat.port())});
    EXPECT_EQ(ncat.readLine(), "your name?");
    EXPECT_EQ(ncat.exchange("bob\ngood day\n/who\n/quit\n"), "* welcome, bob\n* here: bob ann\n");
    EXPECT_EQ(ann.receiveLine(), "* bob joined");
    EXPECT_EQ(ann.receiveLine(), "bob: good day");
    EXPECT_EQ(ann.receiveLine(), "* bob left");
    EXPECT_EQ(chat.end(SIGINT), 0);
}

TEST(ChatTest, AsksForAnotherNameUntilItIsGoodAndFree) {
    ServerProgram chat("chat");
    Guest ann(chat, "ann");
    TcpClient other(chat.port());
    EXPECT_EQ(other.receiveLine(), "your name?");
    other.send("ann\n");
    EXPECT_EQ(other.receiveLine(), "* that name is taken");
    for (const char* name : {"two words", "", "nobody_needs_21_bytes", "tab\tbed name"}) {
        other.send(std::string(name) + "\n");
        EXPECT_EQ(other.receiveLine(), "* a name has 1 to 20 letters, digits, - or _") << name;
    }
    other.send("an_other-1\n");
    EXPECT_EQ(other.receiveLine(), "* welcome, an_other-1");
    EXPECT_EQ(chat.end(), 0);
}

TEST(ChatTest, PutsLinesTogetherFromPieces) {
    ServerProgram chat("chat");
    Guest ann(chat, "ann");
    Guest bob(chat, "bob");
    EXPECT_EQ(ann.receiveLine(), "* bob joined");
    for (const char* piece : {"one li", "ne\ntwo lines\nthr", "e", "e\n"}) {
        bob.send(piece);
    }
    EXPECT_EQ(ann.receiveLine(), "bob: one line");
    EXPECT_EQ(ann.receiveLine(), "bob: two lines");
    EXPECT_EQ(ann.receiveLine(), "bob: three");
    EXPECT_EQ(chat.end(), 0);
}

TEST(ChatTest, TakesOutWhatSteersATerminal) {
    ServerProgram chat("chat");
    Guest ann(chat, "ann");
    Guest bob(chat, "bob");
    EXPECT_EQ(ann.receiveLine(), "* bob joined");
    bob.send(
        "\x1b[2Jred \x07"
        "alert\x7f, gr\xc3\xbc"
        "n\n");
    EXPECT_EQ(ann.receiveLine(),
              "bob: [2Jred alert, gr\xc3\xbc"
              "n");
    EXPECT_EQ(chat.end(), 0);
}

TEST(ChatTest, PutsOutWhoSendsALineWithoutEnd) {
    ServerProgram chat("chat");
    Guest ann(chat, "ann");
    Guest bob(chat, "bob");
    EXPECT_EQ(ann.receiveLine(), "* bob joined");
    bob.send(std::string(513, 'x'));
    bob.receiveAll();
    EXPECT_TRUE(bob.wasClosed());
    EXPECT_EQ(ann.receiveLine(), "* bob left");
    EXPECT_EQ(chat.end(), 0);
}

TEST(ChatTest, TellsThatSomebodyHasGoneWithoutAWord) {
    ServerProgram chat("chat");
    Guest ann(chat, "ann");
    {
        Guest bob(chat, "bob");
        EXPECT_EQ(ann.receiveLine(), "* bob joined");
        bob.reset();
    }
    EXPECT_EQ(ann.receiveLine(), "* bob left");
    EXPECT_EQ(chat.end(), 0);
}

// Messages to one handler overlap and overtake each other. The order of the lines is the room's, the same for
// all.
TEST(ChatTest, ShowsEverybodyAllLinesInOneOrder) {
    constexpr int kGuests = 8;
    constexpr int kLines = 100;  // of each; together fewer than the room keeps
    ServerProgram chat("chat");
    std::list<Guest> guests;
    Guest first(chat, "first");
    Guest second(chat, "second");
    EXPECT_EQ(first.receiveLine(), "* second joined");
    for (int i = 0; i < kGuests; ++i) {
        guests.emplace_back(chat, "guest" + std::to_string(i));
        EXPECT_EQ(first.receiveLine(), "* guest" + std::to_string(i) + " joined");
        EXPECT_EQ(second.receiveLine(), "* guest" + std::to_string(i) + " joined");
    }
    for (int line = 0; line < kLines; ++line) {
        for (Guest& guest : guests) {
            ASSERT_TRUE(guest.send(std::to_string(line) + "\n"));
        }
    }
    std::vector<int> next(kGuests, 0);
    for (int i = 0; i < kGuests * kLines; ++i) {
        const std::string line = first.receiveLine();
        ASSERT_EQ(line, second.receiveLine());
        ASSERT_EQ(line.substr(0, 5), "guest");
        const int guest = std::stoi(line.substr(5));
        ASSERT_EQ(line, "guest" + std::to_string(guest) + ": " +
                            std::to_string(next[static_cast<size_t>(guest)]++));
    }
    EXPECT_EQ(chat.end(), 0);
}

// The room and the others do not wait for somebody who does not read: later that one is told how much was
// missed.
TEST(ChatTest, LetsASlowReaderMissLines) {
    constexpr int kRounds = 200;
    constexpr int kLinesARound = 100;  // fewer than the room keeps, so the listener misses none
    ServerProgram chat("chat");
    TcpClient slow(chat.port(), "127.0.0.1", 4096);
    EXPECT_EQ("your name?", slow.receiveLine());
    slow.send("slow\n");
    EXPECT_EQ("* welcome, slow", slow.receiveLine());
    Guest talker(chat, "talker");
    Guest listener(chat, "listener");
    EXPECT_EQ("* listener joined", talker.receiveLine());

    const std::string padding(450, '.');
    for (int round = 0; round < kRounds; ++round) {
        std::string said;
        std::string heard;
        for (int i = 0; i < kLinesARound; ++i) {
            const std::string line = std::to_string(round * kLinesARound + i) + padding + "\n";
            said += line;
            heard += "talker: " + line;
        }
        ASSERT_TRUE(talker.send(said));
        ASSERT_TRUE(listener.receive(heard.size()) == heard) << "in round " << round;
    }
    talker.send("the end\n");
    int seen = 0;
    int missed = 0;
    for (std::string line; line != "talker: the end"; line = slow.receiveLine()) {
        if (line.rfind("* you missed ", 0) == 0) {
            missed += std::stoi(line.substr(13));
        }
        if (line.rfind("talker: ", 0) == 0) {
            ++seen;
        }
        ASSERT_FALSE(slow.wasClosed());
    }
    EXPECT_GT(missed, 0);
    EXPECT_EQ(kRounds * kLinesARound, seen + missed);
    EXPECT_EQ(0, chat.end());
}

TEST(ChatTest, EndsWithGuestsInTheRoom) {
    ServerProgram chat("chat");
    Guest ann(chat, "ann");
    Guest bob(chat, "bob");
    TcpClient stranger(chat.port());
    EXPECT_EQ(stranger.receiveLine(), "your name?");
    EXPECT_EQ(chat.end(), 0);
    EXPECT_EQ(bob.receiveAll(), "");
    EXPECT_TRUE(bob.wasClosed());
}
