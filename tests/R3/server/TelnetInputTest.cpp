// The stages from a telnet client's bytes to lines: filter, escapes, editor.
#include "R3/server/TelnetInput.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

namespace {

using namespace Orvex::Reticor;
using Lines = std::vector<std::string>;

// Keeps what is echoed, and the lines.
class Recorder : public CTelnetEcho_IF {
public:
    void Send(const char* data, unsigned int len) override { echoed.append(data, len); }
    bool Line(char* line) override {
        lines.emplace_back(line);
        return lines.back() != "bye";
    }

    std::string echoed;
    Lines lines;
};

// A client whose bytes arrive in pieces of `piece`.
class Client {
public:
    explicit Client(unsigned int piece = 1024) : m_piece(piece) {}

    // False if the connection is over.
    bool type(const std::string& bytes) {
        for (size_t at = 0; at < bytes.size(); at += m_piece) {
            const std::string piece = bytes.substr(at, m_piece);
            EXPECT_LE(piece.size(), m_input.RoomLen());
            std::memcpy(m_input.Room(), piece.data(), piece.size());
            if (!m_input.Process(static_cast<unsigned int>(piece.size()), recorder)) {
                return false;
            }
            EXPECT_EQ(1024u, m_input.RoomLen()) << "all was consumed";
        }
        return true;
    }

    Recorder recorder;

private:
    CTelnetInput m_input;
    const unsigned int m_piece;
};

std::string bytes(std::initializer_list<int> values) {
    std::string text;
    for (const int value : values) {
        text.push_back(static_cast<char>(value));
    }
    return text;
}

// What passes the telnet filter of these bytes.
std::string filtered(const std::string& text) {
    std::string passed;
    for (const char letter : text) {
        if (telnet_passes(static_cast<unsigned char>(letter))) {
            passed.push_back(letter);
        }
    }
    return passed;
}

// What reaches the line of these bytes, all stages passed.
std::string typed(const std::string& text) {
    Client client;
    client.type(text + "\r");
    EXPECT_EQ(1u, client.recorder.lines.size());
    return client.recorder.lines.empty() ? "" : client.recorder.lines[0];
}

// ---- the telnet filter -----------------------------------------------------------------------------------

TEST(TelnetFilter, EveryByteBut0AndIacPassesWhileNothingIsOpen) {
    for (int byte = 1; byte < 255; ++byte) {
        EXPECT_TRUE(telnet_passes(static_cast<unsigned char>(byte))) << byte;
    }
    EXPECT_FALSE(telnet_passes(0));
    EXPECT_FALSE(g_iac_seen);
    EXPECT_EQ(TELNET_NORMAL, g_telnet_state);
}

TEST(TelnetFilter, OptionCommandsTakeOneByteMore) {
    for (const int command : {0xFB, 0xFC, 0xFD, 0xFE}) {
        EXPECT_EQ("ab", filtered("a" + bytes({0xFF, command, 'x'}) + "b")) << command;
        EXPECT_EQ("ab", filtered("a" + bytes({0xFF, command, 0}) + "b")) << command;
    }
}

TEST(TelnetFilter, AnyOtherCommandIsOneByte) {
    for (int command = 0; command < 256; ++command) {
        if (command < 0xFA || command == 0xFF) {
            EXPECT_EQ("ab", filtered("a" + bytes({0xFF, command}) + "b")) << command;
        }
    }
}

TEST(TelnetFilter, EscapedIacYieldsNothing) {
    EXPECT_EQ("ab", filtered("a" + bytes({0xFF, 0xFF}) + "b"));
    EXPECT_EQ("ab", filtered("a" + bytes({0xFF, 0xFF, 0xFF, 0xFF}) + "b"));
}

TEST(TelnetFilter, SubnegotiationIsSwallowedToItsEnd) {
    EXPECT_EQ("ab", filtered("a" + bytes({0xFF, 0xFA, 34, 1, 'x', 0, 0xFF, 0xF0}) + "b"));
}

TEST(TelnetFilter, SubnegotiationEndsAfterAHundredBytes) {
    EXPECT_EQ("b", filtered(bytes({0xFF, 0xFA}) + std::string(100, 'x') + "b"));
    EXPECT_EQ(TELNET_NORMAL, g_telnet_state);
    EXPECT_EQ("", filtered(bytes({0xFF, 0xFA}) + std::string(99, 'x')));
    EXPECT_EQ(TELNET_SUBNEGOTIATION, g_telnet_state);
    EXPECT_EQ("b", filtered("xb"));
}

TEST(TelnetFilter, ANewSubnegotiationCountsAnew) {
    EXPECT_EQ("b", filtered(bytes({0xFF, 0xFA}) + std::string(99, 'x') + bytes({0xFF, 0xFA}) +
                            std::string(100, 'y') + "b"));
}

TEST(TelnetFilter, CommandInsideASubnegotiationEndsIt) {
    EXPECT_EQ("b", filtered(bytes({0xFF, 0xFA, 'x', 0xFF, 0xF1}) + "b"));
    EXPECT_EQ("b", filtered(bytes({0xFF, 0xFA, 'x', 0xFF, 0xFB, 'y'}) + "b"));
    EXPECT_EQ("b", filtered(bytes({0xFF, 0xFB, 0xFF, 0xFB, 'y'}) + "b")) << "an option may be cut short too";
}

TEST(TelnetFilter, RestOfACommandIsLeftToTheNextClient) {
    Client first;
    first.type(bytes({'x', 0xFF}));
    Client second;
    second.type(bytes({0xFD, 1}) + "y\r");
    EXPECT_EQ((Lines{"y"}), second.recorder.lines);
}

// ---- the escape filter -----------------------------------------------------------------------------------

TEST(EscapeFilter, ArrowKeysVanishWhole) {
    EXPECT_EQ("ab", typed("a\x1b[Ab"));
    EXPECT_EQ("ab", typed("a\x1bOPb"));
}

TEST(EscapeFilter, DigitsStayInTheSequence) {
    EXPECT_EQ("ab", typed("a\x1b[15~b"));
    EXPECT_EQ("ab", typed("a\x1b[0123456789Hb"));
}

TEST(EscapeFilter, SemicolonEndsTheSequence) {
    EXPECT_EQ("5Cb", typed("\x1b[1;5Cb")) << "the bytes after it are text";
}

TEST(EscapeFilter, FirstByteBehindEscIsTakenWhateverItIs) {
    EXPECT_EQ("b", typed("\x1b\rAb"));
    EXPECT_EQ("b", typed("\x1b"
                         "7xb"));
}

TEST(EscapeFilter, EscInsideASequenceChangesNothing) {
    EXPECT_EQ("b", typed("\x1b\x1b\x1b[Ab"));
    EXPECT_EQ("b", typed("\x1b[\x1b"
                         "1Ab"));
}

TEST(EscapeFilter, SequenceOfManyDigitsStillEnds) {
    EXPECT_EQ("b", typed("\x1b[" + std::string(100000, '1') + "Ab"));
}

TEST(EscapeFilter, OnlyEditingKeysAndPrintableBytesPass) {
    std::string all;
    for (int byte = 1; byte < 255; ++byte) {
        if (byte != 0x08 && byte != 0x0D && byte != 0x1B && byte != 0x7F) {
            all.push_back(static_cast<char>(byte));
        }
    }
    std::string printable;
    for (int byte = 0x20; byte < 0x7F; ++byte) {
        printable.push_back(static_cast<char>(byte));
    }
    EXPECT_EQ(printable, typed(all));
}

TEST(EscapeFilter, LineEndsOfAllKindsAreOneCr) {
    Client client;
    client.type("a\r\nb\r");
    client.type(std::string("\0c\r\n", 4));
    EXPECT_EQ((Lines{"a", "b", "c"}), client.recorder.lines);
    client.type("d\n\r");
    EXPECT_EQ("d", client.recorder.lines.back()) << "a lone LF is nothing";
}

// ---- the line editor -------------------------------------------------------------------------------------

TEST(LineEditor, EchoesWhatItKeeps) {
    Client client;
    EXPECT_TRUE(client.type("abc"));
    EXPECT_EQ("abc", client.recorder.echoed);
    EXPECT_TRUE(client.type("\r"));
    EXPECT_EQ("abc\r\n", client.recorder.echoed);
    EXPECT_EQ((Lines{"abc"}), client.recorder.lines);
    client.type("d\r");
    EXPECT_EQ((Lines{"abc", "d"}), client.recorder.lines) << "each line begins empty";
}

TEST(LineEditor, BackspaceAndDeleteTakeTheLastCharacterAway) {
    for (const char* key : {"\x08", "\x7f"}) {
        Client client;
        client.type(std::string("ab") + key + "c\r");
        EXPECT_EQ(
            "ab\x08 \x08"
            "c\r\n",
            client.recorder.echoed);
        EXPECT_EQ((Lines{"ac"}), client.recorder.lines);
    }
}

TEST(LineEditor, NothingIsTakenFromAnEmptyLine) {
    Client client;
    client.type(
        "\x08\x7f"
        "a\x08\x08\x08\r");
    EXPECT_EQ("a\x08 \x08\r\n", client.recorder.echoed);
    EXPECT_EQ((Lines{""}), client.recorder.lines);
}

TEST(LineEditor, KeepsTwoHundredAndFiftyFiveCharacters) {
    const std::string longest(255, 'x');
    Client client;
    client.type(longest + "yz");
    EXPECT_EQ(longest, client.recorder.echoed) << "what is dropped is not echoed";
    client.type("\x08z!\r");
    EXPECT_EQ((Lines{std::string(254, 'x') + "z"}), client.recorder.lines);
}

TEST(LineEditor, StopsWhenTheSessionSaysSo) {
    Client client;
    EXPECT_FALSE(client.type("one\rbye\rtwo\r"));
    EXPECT_EQ((Lines{"one", "bye"}), client.recorder.lines);
    EXPECT_EQ("one\r\nbye\r\n", client.recorder.echoed);
}

TEST(LineEditor, PiecesMakeNoDifference) {
    const std::string input = "thread\x1b[Apool 1\r" + bytes({0xFF, 0xFB, 34, 0xFF, 0xFA}) +
                              std::string(150, 'q') + "\x08\x7f!\r" + std::string("\0\n", 2) + "last\r";
    Client whole(1024);
    whole.type(input);
    for (unsigned int piece = 1; piece < 20; ++piece) {
        Client pieces(piece);
        pieces.type(input);
        EXPECT_EQ(whole.recorder.echoed, pieces.recorder.echoed) << piece;
        EXPECT_EQ(whole.recorder.lines, pieces.recorder.lines) << piece;
    }
}

}  // namespace
