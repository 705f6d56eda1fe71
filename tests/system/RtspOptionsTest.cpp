// The example rtsp_options as a whole program, with clients that were written elsewhere and with bad ones.
#include <csignal>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/Eventually.h"
#include "support/SeededRandom.h"
#include "support/program/ServerProgram.h"
#include "support/program/TcpClient.h"

using namespace Orvex::Testing;

namespace {

std::string url(const ServerProgram& server) {
    return "rtsp://" + server.host() + ":" + std::to_string(server.port()) + "/door";
}

std::string run(const std::string& command, int& result) {
    ChildProcess shell({"sh", "-c", command + " 2>&1"});
    std::string output = shell.exchange("");
    result = shell.wait();
    return output;
}

// What a client wrote for itself to see: head and body of one answer.
struct Answer {
    explicit Answer(TcpClient& client) {
        for (std::string line = client.receiveLine(); line != "\r" && !client.wasClosed();
             line = client.receiveLine()) {
            head += line + "\n";
            if (line.rfind("Content-Length: ", 0) == 0) {
                body.resize(std::stoul(line.substr(16)));
            }
        }
        body = client.receive(body.size());
    }
    std::string head;
    std::string body;
};

std::string request(const std::string& method, int cseq, const std::string& headers = "") {
    return method + " rtsp://h/door RTSP/1.0\r\nCSeq: " + std::to_string(cseq) + "\r\n" + headers + "\r\n";
}

class RtspOptions : public testing::Test {
protected:
    void TearDown() override { EXPECT_EQ(0, server.end()); }

    std::string ask(const std::string& text) {
        TcpClient client(server.port());
        EXPECT_TRUE(client.send(text));
        return Answer(client).head;
    }

    // The answer to a request that is the last one of its connection.
    std::string askInVain(const std::string& text) {
        TcpClient client(server.port());
        EXPECT_TRUE(client.send(text));
        std::string answer = client.receiveAll();
        EXPECT_TRUE(client.wasClosed());
        return answer;
    }

    ServerProgram server{"rtsp_options"};
};

const std::string OPTIONS_ANSWER = "RTSP/1.0 200 OK\r\nCSeq: 1\r\nPublic: OPTIONS, DESCRIBE\r\n";

}  // namespace

TEST_F(RtspOptions, TellsCurlWhatItKnows) {
    for (const char* options : {"", "-X OPTIONS "}) {
        int result = -1;
        const std::string command =
            std::string("curl --silent --show-error --include --max-time 20 ") + options;
        EXPECT_EQ(OPTIONS_ANSWER + "\r\n", run(command + url(server), result));
        EXPECT_EQ(0, result);
    }
}

// It reads the description, and asks for the stream in it, which is not to be had.
TEST(RtspOptionsFfprobe, IsDescribedToFfprobe) {
    ServerProgram server("rtsp_options", {"--verbose"});
    int result = -1;
    const std::string output = run("ffprobe -v debug -rtsp_transport tcp " + url(server), result);
    EXPECT_NE(0, result);
    EXPECT_NE(output.find("video codec set to: h264"), std::string::npos) << output;
    EXPECT_NE(output.find("method SETUP failed: 405 Method Not Allowed"), std::string::npos) << output;
    EXPECT_EQ(server.readLine(), "200 OPTIONS " + url(server));
    EXPECT_EQ(server.readLine(), "200 DESCRIBE " + url(server));
    EXPECT_EQ(server.readLine(), "405 SETUP " + url(server) + "/trackID=0");
    EXPECT_EQ(0, server.end(SIGINT));
}

TEST_F(RtspOptions, DescribesItselfAsItsAddress) {
    TcpClient client(server.port());
    ASSERT_TRUE(client.send(request("DESCRIBE", 7, "Accept: application/sdp\r\n")));
    const Answer answer(client);
    EXPECT_EQ(0U, answer.head.rfind("RTSP/1.0 200 OK\r\nCSeq: 7\r\nContent-Base: rtsp://h/door/\r\n"
                                    "Content-Type: application/sdp\r\nContent-Length: ",
                                    0))
        << answer.head;
    EXPECT_EQ(0U, answer.body.rfind("v=0\r\no=- ", 0)) << answer.body;
    EXPECT_NE(answer.body.find(" 1 IN IP4 127.0.0.1\r\ns="), std::string::npos) << answer.body;
    EXPECT_NE(answer.body.find("\r\nc=IN IP4 127.0.0.1\r\nt=0 0\r\n"), std::string::npos) << answer.body;
    EXPECT_NE(answer.body.find("\r\nm=video 0 RTP/AVP 96\r\n"), std::string::npos) << answer.body;
    EXPECT_EQ("\r\n", answer.body.substr(answer.body.size() - 2));
    EXPECT_EQ(answer.body.find("0.0.0.0"), std::string::npos);
}

TEST(RtspOptionsAddress, DescribesItselfAsItsAddressOfEitherFamily) {
    ServerProgram server("rtsp_options", {"--host", "::"});
    for (const bool six : {false, true}) {
        TcpClient client(server.port(), six ? "::1" : "127.0.0.1");
        ASSERT_TRUE(client.send(request("DESCRIBE", 1)));
        const std::string body = Answer(client).body;
        const std::string address = six ? "IN IP6 ::1\r\n" : "IN IP4 127.0.0.1\r\n";
        EXPECT_NE(body.find(" 1 " + address + "s="), std::string::npos) << body;
        EXPECT_NE(body.find("\r\nc=" + address + "t="), std::string::npos) << body;
    }
    EXPECT_EQ(0, server.end());
}

TEST_F(RtspOptions, ServesManyRequestsOfOneConnectionInOrder) {
    TcpClient client(server.port());
    std::string all;
    for (int i = 0; i < 300; ++i) {
        all += request(i % 3 == 0 ? "DESCRIBE" : "OPTIONS", i) + (i % 5 == 0 ? "\r\n" : "");
    }
    ASSERT_TRUE(client.send(all));
    for (int i = 0; i < 300; ++i) {
        const Answer answer(client);
        ASSERT_EQ(0U, answer.head.rfind("RTSP/1.0 200 OK\r\nCSeq: " + std::to_string(i) + "\r\n", 0))
            << answer.head;
        ASSERT_EQ(answer.body.empty(), i % 3 != 0);
    }
}

// More answers than the kernel takes: then nothing is read until the client has taken some.
TEST_F(RtspOptions, DoesNotReadFromAClientThatTakesNoAnswers) {
    TcpClient client(server.port(), "127.0.0.1", 4096);
    const std::string one = request("DESCRIBE", 5);
    std::string all;
    while (all.size() < (32U << 20)) {
        all += one;
    }
    const size_t sent = client.sendUntilStuck(all, scaledMs(300));
    ASSERT_LT(sent, all.size());
    ASSERT_GE(sent, 2000 * one.size());
    for (int i = 0; i < 2000; ++i) {
        const Answer answer(client);
        ASSERT_EQ(0U, answer.head.rfind("RTSP/1.0 200 OK\r\nCSeq: 5\r\n", 0)) << answer.head;
        ASSERT_FALSE(answer.body.empty());
    }
}

TEST_F(RtspOptions, TakesRequestsInPiecesAndInEveryNotation) {
    const std::string odd = "OPTIONS * RTSP/1.0\ncseqx: 9\nAccept\ncSEQ :\t1  \nEmpty:\n\n";
    TcpClient client(server.port());
    for (const char byte : odd) {
        ASSERT_TRUE(client.send(std::string(1, byte)));
    }
    EXPECT_EQ(OPTIONS_ANSWER, Answer(client).head);
}

TEST_F(RtspOptions, PassesTheBodyOfARequest) {
    TcpClient client(server.port());
    ASSERT_TRUE(client.send(request("SET_PARAMETER", 4, "Content-Length: 28\r\n") +
                            "OPTIONS * RTSP/1.0\r\nno\r\n\r\n\r\n" + request("OPTIONS", 1)));
    EXPECT_EQ("RTSP/1.0 405 Method Not Allowed\r\nCSeq: 4\r\nAllow: OPTIONS, DESCRIBE\r\n",
              Answer(client).head);
    EXPECT_EQ(OPTIONS_ANSWER, Answer(client).head);
}

TEST_F(RtspOptions, RefusesWhatItDoesNotDoAndGoesOn) {
    TcpClient client(server.port());
    for (const char* method : {"SETUP", "PLAY", "PAUSE", "TEARDOWN", "ANNOUNCE", "RECORD", "GET_PARAMETER"}) {
        ASSERT_TRUE(client.send(request(method, 11)));
        EXPECT_EQ("RTSP/1.0 405 Method Not Allowed\r\nCSeq: 11\r\nAllow: OPTIONS, DESCRIBE\r\n",
                  Answer(client).head)
            << method;
    }
    for (const char* method : {"options", "BREW", "GET"}) {
        ASSERT_TRUE(client.send(request(method, 12)));
        EXPECT_EQ("RTSP/1.0 501 Not Implemented\r\nCSeq: 12\r\nPublic: OPTIONS, DESCRIBE\r\n",
                  Answer(client).head)
            << method;
    }
    ASSERT_TRUE(client.send(request("DESCRIBE", 13, "Accept: text/plain\r\n")));
    EXPECT_EQ("RTSP/1.0 406 Not Acceptable\r\nCSeq: 13\r\n", Answer(client).head);
    ASSERT_TRUE(client.send(request("OPTIONS", 14, "Require: funky-feature\r\n")));
    EXPECT_EQ("RTSP/1.0 551 Option not supported\r\nCSeq: 14\r\nUnsupported: funky-feature\r\n",
              Answer(client).head);
    ASSERT_TRUE(client.send(request("OPTIONS", 1)));
    EXPECT_EQ(OPTIONS_ANSWER, Answer(client).head);
}

TEST_F(RtspOptions, ABadRequestIsTheLastOne) {
    const std::string close = "Connection: close\r\n\r\n";
    const std::string bad = "RTSP/1.0 400 Bad Request\r\n";
    for (const char* text :
         {"GET / HTTP/1.1\r\nHost: h\r\n\r\n", "OPTIONS\r\n\r\n", "OPTIONS * RTSP/1.0\r\n\r\n",
          "OPTIONS  * RTSP/1.0\r\nCSeq: 1x\r\n\r\n", "OPTIONS * RTSP/1.0\r\nCSeq: -1\r\n\r\n",
          "OPTIONS * RTSP/1.0\r\nCSeq: 1.5\r\n\r\n", "OPTIONS * RTSP/1.0\r\nCSeq:\r\n\r\n",
          "OPTIONS * RTSP/1.0\r\nCSeq: 12345678901234567890\r\n\r\n", "$\n\n", "\x16\x03\x01\n\n"}) {
        EXPECT_EQ(askInVain(text), bad + close) << text;
    }
    for (const char* text :
         {"OPTIONS http://h/ RTSP/1.0\r\nCSeq: 3\r\n\r\n", "OPTIONS * RTSP/1.0 x\r\nCSeq: 3\r\n\r\n",
          "OPTIONS * RTSP/1.0\r\nCSeq: 3\r\nContent-Length: many\r\n\r\n",
          "DESCRIBE * RTSP/1.0\r\nCSeq: 3\r\n\r\n", "OPTIONS\t* RTSP/1.0\r\nCSeq: 3\r\n\r\n"}) {
        EXPECT_EQ(bad + "CSeq: 3\r\n" + close, askInVain(text)) << text;
    }
    EXPECT_EQ(bad + "CSeq: 3\r\n" + close,
              askInVain(std::string("OPTIONS *\0 RTSP/1.0\r\nCSeq: 3\r\n\r\n", 32)));
    EXPECT_EQ("RTSP/1.0 505 RTSP Version Not Supported\r\nCSeq: 3\r\n" + close,
              askInVain("OPTIONS * RTSP/2.0\r\nCSeq: 3\r\n\r\n" + request("OPTIONS", 1)));
    EXPECT_EQ(OPTIONS_ANSWER, ask(request("OPTIONS", 1)));
}

TEST_F(RtspOptions, ARequestHasALimit) {
    const std::string refused = "RTSP/1.0 413 Request Entity Too Large\r\nConnection: close\r\n\r\n";
    EXPECT_EQ(askInVain("OPTIONS * RTSP/1.0\r\nX: " + std::string(8192, 'x')), refused);
    EXPECT_EQ(askInVain(std::string(100000, 'x')), refused);
    EXPECT_EQ(askInVain(request("ANNOUNCE", 3, "Content-Length: 999999999\r\n")), refused);
    const std::string longest = request("OPTIONS", 1, "X: " + std::string(8000, 'x') + "\r\n");
    ASSERT_LT(longest.size(), 8192U);
    EXPECT_EQ(OPTIONS_ANSWER, ask(longest));
    EXPECT_EQ(askInVain("OPTIONS rtsp://" + std::string(2000, 'x') + " RTSP/1.0\r\nCSeq: 3\r\n\r\n"),
              "RTSP/1.0 400 Bad Request\r\nCSeq: 3\r\nConnection: close\r\n\r\n");
}

TEST_F(RtspOptions, WhoStaysAfterTheLastAnswerIsPutOut) {
    const size_t before = server.descriptors();
    TcpClient client(server.port());
    ASSERT_TRUE(client.send("nonsense\n\n"));
    EXPECT_NE(client.receiveAll().find("400 Bad Request"), std::string::npos);
    EXPECT_EVENTUALLY(server.descriptors() == before);
}

TEST(RtspOptionsTimeout, ASilentClientIsPutOut) {
    ServerProgram server("rtsp_options", {"--idle-timeout", "200"});
    TcpClient silent(server.port());
    ASSERT_TRUE(silent.send("OPTIONS * RT"));
    EXPECT_EQ("", silent.receiveAll());
    EXPECT_TRUE(silent.wasClosed());
    EXPECT_EQ(0, server.end());
}

TEST_F(RtspOptions, SurvivesRandomBytes) {
    SeededRandom random;
    const std::string pieces[] = {
        "OPTIONS ",         "DESCRIBE ", "rtsp://h/", " RTSP/1.0", "\r\n", "\n", "CSeq: ", "17",
        "Content-Length: ", "Accept: ",  "Require: ", ":",         " ",    "\t", "-",      "\x80\xff"};
    for (int round = 0; round < 100; ++round) {
        std::string bytes;
        for (int i = random.between(1, 60); i > 0; --i) {
            bytes += random.oneIn(4) ? std::string(1, static_cast<char>(random.between(0, 255)))
                                     : pieces[random.between<size_t>(0, std::size(pieces) - 1)];
        }
        TcpClient client(server.port());
        client.send(bytes);
        client.finish();
        client.receiveAll();
        ASSERT_TRUE(client.wasClosed()) << bytes;
    }
    EXPECT_EQ(OPTIONS_ANSWER, ask(request("OPTIONS", 1)));
}
