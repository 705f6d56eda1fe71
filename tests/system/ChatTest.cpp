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
        EXPECT_EQ("your name?", receiveLine());
        EXPECT_TRUE(send(name + "\n"));
        EXPECT_EQ(receiveLine(), "* welcome, " + name);
    }
};

}  // namespace

TEST(Chat, TellsEverybodyElseWhatOneSays) {
    ServerProgram chat("chat");
    Guest ann(chat, "ann");
    Guest bob(chat, "bob");
    EXPECT_EQ("* bob joined", ann.receiveLine());
    Guest cy(chat, "cy");
    EXPECT_EQ("* cy joined", ann.receiveLine());
    EXPECT_EQ("* cy joined", bob.receiveLine());

    ann.send("hello\r\n");
    EXPECT_EQ("ann: hello", bob.receiveLine());
    EXPECT_EQ("ann: hello", cy.receiveLine());
    bob.send("hi ann\n");
    EXPECT_EQ("bob: hi ann", ann.receiveLine());  // and not her own line before it
    EXPECT_EQ("bob: hi ann", cy.receiveLine());

    bob.send("/quit\n");
    EXPECT_EQ("", bob.receiveAll());
    EXPECT_TRUE(bob.wasClosed());
    EXPECT_EQ("* bob left", ann.receiveLine());
    EXPECT_EQ(0, chat.end());
}

TEST(Chat, ServesNcatFromBeginToEnd) {
    ServerProgram chat("chat");
    Guest ann(chat, "ann");
    ChildProcess ncat({"ncat", chat.host(), std::to_string(chat.port())});
    EXPECT_EQ("your name?", ncat.readLine());
    EXPECT_EQ("* welcome, bob\n* here: ann bob\n", ncat.exchange("bob\ngood day\n/who\n/quit\n"));
    EXPECT_EQ("* bob joined", ann.receiveLine());
    EXPECT_EQ("bob: good day", ann.receiveLine());
    EXPECT_EQ("* bob left", ann.receiveLine());
    EXPECT_EQ(0, chat.end(SIGINT));
}

TEST(Chat, AsksForAnotherNameUntilItIsGoodAndFree) {
    ServerProgram chat("chat");
    Guest ann(chat, "ann");
    TcpClient other(chat.port());
    EXPECT_EQ("your name?", other.receiveLine());
    other.send("ann\n");
    EXPECT_EQ("* that name is taken", other.receiveLine());
    for (const char* name : {"two words", "", "nobody_needs_21_bytes", "tab\tbed name"}) {
        other.send(std::string(name) + "\n");
        EXPECT_EQ("* a name has 1 to 20 letters, digits, - or _", other.receiveLine()) << name;
    }
    other.send("an_other-1\n");
    EXPECT_EQ("* welcome, an_other-1", other.receiveLine());
    EXPECT_EQ(0, chat.end());
}

TEST(Chat, PutsLinesTogetherFromPieces) {
    ServerProgram chat("chat");
    Guest ann(chat, "ann");
    Guest bob(chat, "bob");
    EXPECT_EQ("* bob joined", ann.receiveLine());
    for (const char* piece : {"one li", "ne\ntwo lines\nthr", "e", "e\n"}) {
        bob.send(piece);
    }
    EXPECT_EQ("bob: one line", ann.receiveLine());
    EXPECT_EQ("bob: two lines", ann.receiveLine());
    EXPECT_EQ("bob: three", ann.receiveLine());
    EXPECT_EQ(0, chat.end());
}

TEST(Chat, TakesOutWhatSteersATerminal) {
    ServerProgram chat("chat");
    Guest ann(chat, "ann");
    Guest bob(chat, "bob");
    EXPECT_EQ("* bob joined", ann.receiveLine());
    bob.send(
        "\x1b[2Jred \x07"
        "alert\x7f, gr\xc3\xbc"
        "n\n");
    EXPECT_EQ(
        "bob: [2Jred alert, gr\xc3\xbc"
        "n",
        ann.receiveLine());
    EXPECT_EQ(0, chat.end());
}

TEST(Chat, PutsOutWhoSendsALineWithoutEnd) {
    ServerProgram chat("chat");
    Guest ann(chat, "ann");
    Guest bob(chat, "bob");
    EXPECT_EQ("* bob joined", ann.receiveLine());
    bob.send(std::string(513, 'x'));
    bob.receiveAll();
    EXPECT_TRUE(bob.wasClosed());
    EXPECT_EQ("* bob left", ann.receiveLine());
    EXPECT_EQ(0, chat.end());
}

TEST(Chat, TellsThatSomebodyHasGoneWithoutAWord) {
    ServerProgram chat("chat");
    Guest ann(chat, "ann");
    {
        Guest bob(chat, "bob");
        EXPECT_EQ("* bob joined", ann.receiveLine());
        bob.reset();
    }
    EXPECT_EQ("* bob left", ann.receiveLine());
    EXPECT_EQ(0, chat.end());
}

// Messages to one handler overlap and overtake each other. The order of the lines is the room's, the same for
// all.
TEST(Chat, ShowsEverybodyAllLinesInOneOrder) {
    constexpr int kGuests = 8;
    constexpr int kLines = 100;  // of each; together fewer than the room keeps
    ServerProgram chat("chat");
    std::list<Guest> guests;
    Guest first(chat, "first");
    Guest second(chat, "second");
    EXPECT_EQ("* second joined", first.receiveLine());
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
        ASSERT_EQ("guest", line.substr(0, 5));
        const int guest = std::stoi(line.substr(5));
        ASSERT_EQ(line, "guest" + std::to_string(guest) + ": " +
                            std::to_string(next[static_cast<size_t>(guest)]++));
    }
    EXPECT_EQ(0, chat.end());
}

// The room and the others do not wait for somebody who does not read: later that one is told how much was
// missed.
TEST(Chat, LetsASlowReaderMissLines) {
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

TEST(Chat, EndsWithGuestsInTheRoom) {
    ServerProgram chat("chat");
    Guest ann(chat, "ann");
    Guest bob(chat, "bob");
    TcpClient stranger(chat.port());
    EXPECT_EQ("your name?", stranger.receiveLine());
    EXPECT_EQ(0, chat.end());
    EXPECT_EQ("", bob.receiveAll());
    EXPECT_TRUE(bob.wasClosed());
}
