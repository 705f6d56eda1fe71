// The telnet session with a client at the other end: every byte that goes out.
#include "R3/server/R3TelnetSession.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include <Infra/Semaphore.h>
#include <Reticor/R3.h>
#include <Reticor/SockStream.h>

#include "R3/print/FuncBox.h"
#include "R3/server/TelnetInput.h"
#include "support/core/SocketPair.h"
#include "support/debug/DebugServerFixture.h"

namespace Orvex::Testing {
namespace {

using namespace Reticor;

constexpr unsigned WAIT_MS = 60000;

class R3TelnetSession : public DebugServerFixture {
protected:
    static void enter(R3Function function, const char* name) {
        EXPECT_EQ(0, R3Register(reinterpret_cast<void*>(function), name, nullptr));
    }
};

// ---- what the client sees --------------------------------------------------------------------------------

TEST_F(R3TelnetSession, GreetsWithNegotiationBannerAndPrompt) {
    start();
    EXPECT_EQ(15u, NEGOTIATION.size());
    EXPECT_EQ(3u * 66, BANNER.size());
    TcpClient client = greeted();
    EXPECT_TRUE(client.isSilentFor(20)) << "the server offers nothing further";
}

TEST_F(R3TelnetSession, PromptIsTheNameThatTheServerWasGiven) {
    start("camera-7");
    TcpClient client = greeted(NEGOTIATION + BANNER + "camera-7>");
    converse(client, "\r", "\r\ncamera-7>");
}

TEST_F(R3TelnetSession, NameIsCutTo64Bytes) {
    const std::string name(100, 'n');
    start(name.c_str());
    TcpClient client = greeted(NEGOTIATION + BANNER + name.substr(0, 64) + ">");
    converse(client, "\r", "\r\n" + name.substr(0, 64) + ">");
}

TEST_F(R3TelnetSession, EmptyNameLeavesTheBracket) {
    start("");
    TcpClient client = greeted(NEGOTIATION + BANNER + ">");
    converse(client, "\r", "\r\n>");
}

TEST_F(R3TelnetSession, EchoesAndEdits) {
    start();
    TcpClient client = greeted();
    converse(client, "n", "n");
    converse(client, "p\x08o", "p\x08 \x08o");
    converse(client, "\x7f\x7f\x7f\x7f", "\x08 \x08\x08 \x08");
    expectPrompt(client);
}

TEST_F(R3TelnetSession, UnknownCommandIsToldSo) {
    start();
    TcpClient client = greeted();
    converse(client, "help me\r", "help me\r\n:: command not found\r\nR3>");
    converse(client, "Threadpool 1\r", "Threadpool 1\r\n:: command not found\r\nR3>");
}

TEST_F(R3TelnetSession, LineOfBlanksHasNoReply) {
    start();
    TcpClient client = greeted();
    converse(client, "   \r", "   \r\nR3>");
    converse(client, "\r\r", "\r\nR3>\r\nR3>");
    expectPrompt(client);
}

TEST_F(R3TelnetSession, WhatALineCannotHoldIsNotEchoed) {
    start();
    TcpClient client = greeted();
    const std::string kept(255, 'x');
    converse(client, kept + std::string(45, 'y') + "\r\n", kept + "\r\n:: command not found\r\nR3>");
    EXPECT_TRUE(client.send("\n"));  // a bare LF is nothing
    expectPrompt(client);
}

TEST_F(R3TelnetSession, AnswersOfATelnetClientAreSwallowed) {
    start();
    TcpClient client = greeted();
    converse(client,
             "\xFF\xFC\x01\xFF\xFB\x22\xFF\xFC\x21\xFF\xFD\x01\xFF\xFD\x03"
             "a\xFF\xFA\x22\x03\x01\x02\xFF\xF0"
             "b\xFF\xFF"
             "c\x1b[A\x1b[5~d",
             "abcd");
    converse(client, "\r", "\r\n:: command not found\r\nR3>");
}

TEST_F(R3TelnetSession, ByeEndsTheConnectionAndNothingFollows) {
    start();
    TcpClient client = greeted();
    EXPECT_TRUE(client.send("bye\rthreadpool 1\r"));
    EXPECT_EQ("bye\r\n", client.receiveAll());
    EXPECT_TRUE(client.wasClosed());
    TcpClient next = greeted();
    expectPrompt(next);
}

// More than the session takes in one read: a socket that closes with unread bytes is reset, and a reset takes
// from the client what it has not read yet.
TEST_F(R3TelnetSession, ByeEndsInOrderEvenIfMoreWasTyped) {
    start();
    TcpClient client = greeted();
    EXPECT_TRUE(client.send("bye\r" + std::string(5000, 'x')));
    EXPECT_EQ("bye\r\n", client.receiveAll());
    EXPECT_TRUE(client.wasClosed());
    EXPECT_FALSE(client.wasReset());
}

TEST_F(R3TelnetSession, OnlyTheExactWordSaysBye) {
    start();
    TcpClient client = greeted();
    for (const char* line : {"bye ", " bye", "Bye", "BYE", "byebye"}) {
        converse(client, std::string(line) + "\r", std::string(line) + "\r\n:: command not found\r\nR3>");
    }
}

// ---- commands --------------------------------------------------------------------------------------------

std::vector<std::vector<int>> s_calls;

int keepCall(int a, int b, int c, int d, int e, int f, int g, int h, int i, int j) {
    s_calls.push_back({a, b, c, d, e, f, g, h, i, j});
    R3Printf("called\n");
    return 1;
}

TEST_F(R3TelnetSession, CommandGetsItsTenNumbers) {
    enter(&keepCall, "keep");
    start();
    TcpClient client = greeted();
    converse(client, "keep\r", "keep\r\ncalled\r\nR3>");
    converse(client, "keep 1 x -3\r", "keep 1 x -3\r\ncalled\r\nR3>");
    ASSERT_EQ(2u, s_calls.size());
    EXPECT_EQ(std::vector<int>(10, 0), s_calls[0]);
    EXPECT_EQ((std::vector<int>{1, -1128481604, -3, 0, 0, 0, 0, 0, 0, 0}), s_calls[1]);
}

TEST_F(R3TelnetSession, LongestLineIsRun) {
    enter(&keepCall, "keep");
    start();
    TcpClient client = greeted();
    const std::string line = "keep 7" + std::string(249, ' ');
    converse(client, line + "!!\r", line + "\r\ncalled\r\nR3>");
    EXPECT_EQ(7, s_calls.at(0)[0]);
}

TEST_F(R3TelnetSession, LibrarysOwnCommandsAreThere) {
    start();
    TcpClient client = greeted();
    EXPECT_TRUE(client.send("reticorversion\r"));
    EXPECT_EQ("reticorversion\r", client.receiveLine());
    EXPECT_EQ(0u, client.receiveLine().find("Orvex<Reticor> 1.0.0 | "));
    EXPECT_EQ("R3>", client.receive(3));
}

TEST_F(R3TelnetSession, CommandThatIsRegisteredLaterIsFound) {
    start();
    TcpClient client = greeted();
    converse(client, "keep\r", "keep\r\n:: command not found\r\nR3>");
    enter(&keepCall, "keep");
    converse(client, "keep\r", "keep\r\ncalled\r\nR3>");
}

// ---- texts -----------------------------------------------------------------------------------------------

TEST_F(R3TelnetSession, EachCrAndEachLfOfATextBecomesALineEnd) {
    start();
    TcpClient client = greeted();
    R3Printf("one\ntwo\rthree\r\nend");
    converse(client, "", "one\r\ntwo\r\nthree\r\n\r\nend");
    expectPrompt(client);
}

TEST_F(R3TelnetSession, TextsAroundTheSizeOfAPieceArriveWhole) {
    start();
    TcpClient client = greeted();
    for (const size_t length : {4093U, 4094U, 4095U}) {
        const std::string plain(length, 'p');
        R3Printf("%s", plain.c_str());
        EXPECT_EQ(plain, client.receive(length));
        // The last byte but one of a piece, and a line end that makes it one byte longer.
        R3Printf("\n%s\n", plain.substr(2).c_str());
        EXPECT_EQ("\r\n" + plain.substr(2) + "\r\n", client.receive(length + 2)) << length;
    }
    const std::string ends(4095, '\n');
    std::string pairs;
    for (size_t i = 0; i < ends.size(); ++i) {
        pairs += "\r\n";
    }
    R3Printf("%s", ends.c_str());
    EXPECT_EQ(pairs, client.receive(pairs.size()));
    expectPrompt(client);
}

TEST_F(R3TelnetSession, WithoutAClientTextsAreLost) {
    start();
    R3Printf("nobody hears this\n");
    TcpClient client = greeted();
    expectPrompt(client);
}

TEST_F(R3TelnetSession, SenderThatTracesItselfDoesNotTalkWithoutEnd) {
    start();
    TcpClient client = greeted();
    const std::string command = "streamsender 1\r";
    EXPECT_TRUE(client.send(command));
    EXPECT_EQ("streamsender 1\r", client.receiveLine());
    // Every piece that is sent from here on is told of before it goes, and the telling is not.
    const std::string line = client.receiveLine();
    EXPECT_EQ(0u, line.find("Orvex::Reticor::CStreamSender::Put, object:0x")) << line;
    EXPECT_EQ("R3>", client.receive(3));
    EXPECT_TRUE(client.send("streamsender 0\r"));
    std::string all;
    while (all.size() < 4 || all.substr(all.size() - 3) != "R3>") {
        const std::string more = client.receive(1);
        ASSERT_FALSE(more.empty());
        all += more;
    }
    expectPrompt(client);
}

// A client that does not read: what it is told waits, up to 256 KiB, and then is dropped; nobody waits for
// it.
TEST_F(R3TelnetSession, SlowClientBlocksNobody) {
    start("");
    TcpClient client(port, "127.0.0.1", 4096);
    const std::string greeting = NEGOTIATION + BANNER + ">";
    EXPECT_EQ(greeting, client.receive(greeting.size()));
    const std::string line = std::string(4000, 's') + "\n";
    for (int i = 0; i < 2000; ++i) {
        R3Printf("%s", line.c_str());
    }
    EXPECT_TRUE(client.send("\r"));  // An answer with an empty name, while much is waiting.
    const std::string expected = std::string(4000, 's') + "\r\n";
    for (int i = 0; i < 60; ++i) {
        ASSERT_EQ(expected, client.receive(expected.size())) << "what was taken is whole and in order";
    }
    client.finish();
    const std::string rest = client.receiveAll();
    EXPECT_LT(rest.size(), 1900u * expected.size()) << "most of it was dropped";
    TcpClient next = greeted(greeting);
    converse(next, "\r", "\r\n>");
}

// ---- clients come and go ---------------------------------------------------------------------------------

TEST_F(R3TelnetSession, ClientThatHangsUpMakesRoom) {
    start();
    for (int i = 0; i < 5; ++i) {
        TcpClient client = greeted();
        EXPECT_TRUE(client.send("half a li"));
        if (i % 2 == 0) {
            client.reset();
        }
    }
    TcpClient client = greeted();
    expectPrompt(client);
}

TEST_F(R3TelnetSession, TelnetCommandThatWasCutIsFinishedByTheNextClient) {
    start();
    {
        TcpClient client = greeted();
        converse(client, "x\xFF", "x");
        client.finish();
        EXPECT_EQ("", client.receiveAll());
    }
    TcpClient client = greeted();
    converse(client, "\xFB?abc", "abc");
}

TEST_F(R3TelnetSession, OutputThatFailsEndsTheClientAlone) {
    start();
    {
        TcpClient client(port, "127.0.0.1", 4096);
        EXPECT_EQ(GREETING, client.receive(GREETING.size()));
        for (int i = 0; i < 100; ++i) {
            R3Printf("%s\n", std::string(4000, 'x').c_str());
        }
        client.reset();
    }
    for (int i = 0; i < 10; ++i) {
        R3Printf("to nobody\n");
    }
    EXPECT_EVENTUALLY(openHandlers() == 2) << "daemon and session; the sender has gone";
    TcpClient client = greeted();
    expectPrompt(client);
}

// ---- a command that is still running ---------------------------------------------------------------------

struct Gate {
    Infra::CSemaphore entered{0};
    Infra::CSemaphore opened{0};
};
Gate* s_gate = nullptr;

int waitAtGate(int, int, int, int, int, int, int, int, int, int) {
    s_gate->entered.post();
    s_gate->opened.pend(WAIT_MS);
    return 0;
}

class RunningCommand : public R3TelnetSession {
protected:
    void SetUp() override {
        R3TelnetSession::SetUp();
        s_gate = &gate;
        enter(&waitAtGate, "wait");
    }
    // A client whose command waits at the gate, with another one after it.
    TcpClient waiting() {
        TcpClient client = greeted();
        EXPECT_TRUE(client.send("wait\rnext\r"));
        EXPECT_EQ(0, gate.entered.pend(WAIT_MS));
        EXPECT_EQ("wait\r\n", client.receive(6));
        return client;
    }
    Gate gate;
};

TEST_F(RunningCommand, DoesNotHoldUpPrints) {
    start();
    TcpClient client = waiting();
    R3Printf("meanwhile\n");
    EXPECT_EQ("meanwhile\r\n", client.receive(11));
    gate.opened.post();
    converse(client, "", "R3>next\r\n:: command not found\r\nR3>");
}

TEST_F(RunningCommand, DoesNotHoldUpTheNextClientAndReachesItWithNothing) {
    start();
    TcpClient client = waiting();
    TcpClient second(port);
    EXPECT_EQ("", client.receiveAll());
    EXPECT_TRUE(client.wasClosed()) << "displaced at once";
    gate.opened.post();
    EXPECT_EQ(GREETING, second.receive(GREETING.size()));
    expectPrompt(second);
}

TEST_F(RunningCommand, OutlivesTheServer) {
    start();
    TcpClient client = waiting();
    EXPECT_EQ(0, R3ServerExit());
    EXPECT_EQ("", client.receiveAll());
    EXPECT_TRUE(client.wasClosed());
    gate.opened.post();
    EXPECT_EVENTUALLY(openHandlers() == 0);
}

int endServer(int, int, int, int, int, int, int, int, int, int) {
    R3Printf("last words\n");
    return R3ServerExit();
}

TEST_F(RunningCommand, MayEndTheServerItself) {
    enter(&endServer, "end");
    start();
    TcpClient client = greeted();
    EXPECT_TRUE(client.send("end\rend\r"));
    EXPECT_EQ("end\r\nlast words\r\n", client.receiveAll());
    EXPECT_EVENTUALLY(openHandlers() == 0);
    const Infra::CGuard guard(g_r3_funcbox_mutex);
    EXPECT_EQ(nullptr, g_r3_funcbox);
}

// ---- calls that come late --------------------------------------------------------------------------------

class Owner : public CR3Owner_IF {
public:
    const char* PromptName() const override { return "own"; }
    TFuncBox* FuncBox() const override { return nullptr; }
};

// A session of the test's own, with connections that it was handed.
class LateCall : public R3TelnetSession {
protected:
    void SetUp() override {
        R3TelnetSession::SetUp();
        session = CR3TelnetSession::Create();
        session->AddRef();
    }
    void TearDown() override {
        session->End();
        session->Close();
        session->DecRef();
        R3TelnetSession::TearDown();
    }
    // Begins with a client; the test keeps the other end. Returns the sender's id.
    long begin(std::unique_ptr<SocketPair>& pair) {
        pair = SocketPair::overTcp();
        auto* sock = new CSockStream;
        sock->Attach(pair->near.Detach());
        handle = sock->GetHandle();
        const long before = lowestId();
        session->Start(sock, &owner);
        const long id = lowestId();
        EXPECT_NE(before, id);
        return id;
    }
    // The id of the handler that was opened last.
    static long lowestId() {
        long lowest = 0;
        for (long counter = -100; counter > -200; --counter) {
            if (PoolTable::FindHandler(counter * 256 * 256)) {
                lowest = counter * 256 * 256;
            }
        }
        return lowest;
    }
    Owner owner;
    CR3TelnetSession* session = nullptr;
    int handle = -1;
};

TEST_F(LateCall, FailureOfAnEarlierClientsSenderIsIgnored) {
    std::unique_ptr<SocketPair> first;
    std::unique_ptr<SocketPair> second;
    const long first_sender = begin(first);
    const long second_sender = begin(second);
    EXPECT_EQ(0, session->handle_message(first_sender, 2, 0));
    session->SendText("still here\n");
    EXPECT_EQ(0, session->handle_message(second_sender, 3, 0)) << "another number";
    EXPECT_EQ(0, session->handle_message(0, 2, 0)) << "another sender";
    EXPECT_EQ(0, session->SendRaw("!", 1));
    const std::string expected = NEGOTIATION + BANNER + "own>still here\r\n!";
    std::string got(expected.size(), '\0');
    ASSERT_EVENTUALLY(::recv(second->far.GetHandle(), got.data(), got.size(), MSG_PEEK | MSG_DONTWAIT) ==
                      static_cast<ssize_t>(got.size()));
    EXPECT_EQ(expected, got);
    EXPECT_EQ(0, session->handle_message(second_sender, 2, 0));
    SocketPair::drain(second->far.GetHandle());
    EXPECT_EVENTUALLY(SocketPair::drain(second->far.GetHandle()) == -1) << "its own failure ends it";
    EXPECT_EQ(0, session->handle_message(second_sender, 2, 0)) << "idle";
}

TEST_F(LateCall, EventsOfAnotherSocketAreIgnored) {
    std::unique_ptr<SocketPair> pair;
    begin(pair);
    const std::unique_ptr<SocketPair> other = SocketPair::overTcp();
    EXPECT_EQ(0, session->handle_input(other->fd()));
    EXPECT_EQ(0, session->handle_output(other->fd()));
    EXPECT_EQ(0, session->handle_input(handle)) << "its own, with nothing to read";
    EXPECT_EQ(0, session->handle_output(handle));
    session->End();
    EXPECT_EQ(0, session->handle_input(handle));
    EXPECT_EQ(0, session->handle_output(handle));
    EXPECT_EQ(0, session->SendRaw("nobody", 6));
    session->SendText("nobody");
    session->End();
}

TEST_F(LateCall, PieceOfNoBytesIsNotSentWhileOthersWait) {
    std::unique_ptr<SocketPair> pair;
    begin(pair);
    const std::string block(32768, 'x');
    while (session->SendRaw(block.data(), static_cast<unsigned int>(block.size())) == 0) {
    }
    EXPECT_EQ(0, session->SendRaw("", 0));
    session->SendText("");
    EXPECT_EQ(-1, session->SendRaw(block.data(), static_cast<unsigned int>(block.size())));
}

TEST_F(LateCall, WithoutATableNoCommandIsKnown) {
    std::unique_ptr<SocketPair> pair;
    begin(pair);
    pair->far.Send("threadpool 1\r", 13);
    const std::string expected = NEGOTIATION + BANNER + "own>threadpool 1\r\n:: command not found\r\nown>";
    std::string got(expected.size(), '\0');
    ASSERT_EVENTUALLY(::recv(pair->far.GetHandle(), got.data(), got.size(), MSG_PEEK | MSG_DONTWAIT) ==
                      static_cast<ssize_t>(got.size()));
    EXPECT_EQ(expected, got);
}

}  // namespace
}  // namespace Orvex::Testing
