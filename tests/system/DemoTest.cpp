// script/demo and its clients: the verdict is what the demo is for, so it must be right both ways.
#include <sys/socket.h>

#include <netinet/in.h>
#include <unistd.h>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "../tools/kit/Multipart.h"
#include "support/Eventually.h"
#include "support/program/ServerProgram.h"

using namespace Orvex::Testing;
using LoadKit::MultipartReader;

namespace {

std::vector<std::string> demo(const std::vector<std::string>& options) {
    std::vector<std::string> words{RETICOR_SOURCE_DIR "/script/demo"};
    words.insert(words.end(), options.begin(), options.end());
    words.insert(words.end(), {"--built", RETICOR_BUILD_DIR});
    return words;
}

std::string lastLine(const std::string& text) {
    const size_t end = text.find_last_not_of('\n');
    const size_t begin = text.rfind('\n', end);
    return text.substr(begin + 1, end - begin);
}

/// What the relay may grow by, in MiB: sanitizers keep what was released.
const char* const kMemory = timeFactor() > 1 ? "1000" : "16";

/// Sends back what it gets from its first client, but for what `change` does with it. False from `change`
/// closes.
template <typename Change>
class CrookedServer {
public:
    explicit CrookedServer(Change change) : m_listener(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        bind(m_listener, reinterpret_cast<sockaddr*>(&address), length);
        listen(m_listener, 16);
        getsockname(m_listener, reinterpret_cast<sockaddr*>(&address), &length);
        m_port = ntohs(address.sin_port);
        m_thread = std::thread([this, change] { serve(change); });
    }
    ~CrookedServer() {
        m_thread.join();
        close(m_listener);
    }
    std::string port() const { return std::to_string(m_port); }

private:
    void serve(Change change) {
        const int client = accept(m_listener, nullptr, nullptr);
        std::string bytes(4096, '\0');
        for (;;) {
            const ssize_t got = recv(client, bytes.data(), bytes.size(), 0);
            if (got <= 0) {
                break;
            }
            std::string answer = bytes.substr(0, static_cast<size_t>(got));
            if (!change(answer)) {
                break;
            }
            send(client, answer.data(), answer.size(), MSG_NOSIGNAL);
        }
        close(client);
    }

    int m_listener;
    int m_port = 0;
    std::thread m_thread;
};

std::string drive(const std::string& port, int& result) {
    ChildProcess load(
        {RETICOR_BUILD_DIR "/tools/demo_load", "--port", port, "--connections", "1", "--seconds", "20"});
    const std::string text = load.exchange("");
    result = load.wait();
    return lastLine(text);
}

}  // namespace

TEST(Demo, RunsTheRelayAndVerifiesWhatEachClientGets) {
    ChildProcess program(demo({"--seconds", "2", "--memory", kMemory}));
    const std::string text = program.exchange("");
    EXPECT_EQ(0, program.wait()) << text;
    EXPECT_NE(std::string::npos, text.find("http://127.0.0.1:")) << text;
    EXPECT_NE(std::string::npos, text.find("frames/s")) << text;
    const std::string verdict = lastLine(text);
    EXPECT_EQ(0U, verdict.rfind("verdict: PASS: ", 0)) << verdict;
    EXPECT_NE(std::string::npos, verdict.find("4 fast clients missed no frame")) << verdict;
}

TEST(Demo, ShowsWhenTheRelayHangsUpOnTheStalledClient) {
    ChildProcess program(demo({"--seconds", "600", "--memory", kMemory}));
    while (program.readLine().find("0 on, 1 dropped") == std::string::npos && !program.hasEnded()) {
    }
    program.signal(SIGINT);
    const std::string text = program.exchange("");
    const std::string verdict = lastLine(text);
    EXPECT_EQ(0U, verdict.rfind("verdict: PASS (stopped early): ", 0)) << verdict;
    EXPECT_NE(std::string::npos, verdict.find("stalled ones: 0 on, 1 dropped")) << verdict;
    EXPECT_NE(std::string::npos, text.find("the relay says of a stalled client: stalled for ")) << text;
    EXPECT_EQ(0, program.wait());
}

TEST(Demo, GivesTheRelaysVerdictWhenItIsInterrupted) {
    ChildProcess program(demo({"relay", "--seconds=600", "--fast", "2", "--slow", "0", "--stalled", "0"}));
    while (program.readLine().find("frames/s") == std::string::npos && !program.hasEnded()) {
    }
    const std::string row = program.readLine();
    EXPECT_NE(std::string::npos, row.find("s | ")) << row;
    program.signal(SIGINT);
    const std::string verdict = lastLine(program.exchange(""));
    EXPECT_EQ(0U, verdict.rfind("verdict: PASS (stopped early): ", 0)) << verdict;
    EXPECT_EQ(0, program.wait());
}

TEST(Demo, FindsAPictureThatDiffers) {
    MultipartReader good;
    const std::string head =
        "HTTP/1.1 200 OK\r\n\r\n--b\r\nContent-Length: 3\r\nX-Frame: 4\r\nX-Sum: e71fa2190541574b\r\n\r\n";
    EXPECT_TRUE(good.put((head + "abc\r\n--b\r\n").data(), head.size() + 10));
    EXPECT_EQ(1U, good.frames());
    MultipartReader bad;
    EXPECT_FALSE(bad.put((head + "abd").data(), head.size() + 3));
    MultipartReader refused;
    EXPECT_FALSE(refused.put("HTTP/1.1 503 x\r\n", 16));
}

TEST(Demo, EndsWithTheVerdictThatEveryByteWasVerified) {
    ChildProcess program(demo({"echo", "--seconds", "2"}));
    const std::string text = program.exchange("");
    EXPECT_EQ(0, program.wait()) << text;
    EXPECT_NE(text.find("requests/s"), std::string::npos) << text;
    const std::string verdict = lastLine(text);
    EXPECT_EQ(0U, verdict.rfind("verdict: PASS: 1000 connections, ", 0)) << verdict;
    EXPECT_NE(verdict.find("every byte came back and was verified"), std::string::npos) << verdict;
}

TEST(Demo, GivesItsVerdictWhenItIsInterrupted) {
    ChildProcess program(demo({"echo", "--seconds", "600", "--connections", "50"}));
    while (program.readLine().find("requests/s") == std::string::npos && !program.hasEnded()) {
    }
    const std::string row = program.readLine();
    ASSERT_NE(row.find("s           50 "), std::string::npos) << row;
    program.signal(SIGINT);
    const std::string verdict = lastLine(program.exchange(""));
    EXPECT_EQ(0U, verdict.rfind("verdict: PASS (stopped early): 50 connections, ", 0)) << verdict;
    EXPECT_EQ(0, program.wait());
}

TEST(Demo, FindsAByteThatDiffers) {
    size_t seen = 0;
    CrookedServer server([&](std::string& answer) {
        seen += answer.size();
        if (seen > 100000) {
            answer.back() = static_cast<char>(answer.back() ^ 1);
        }
        return true;
    });
    int result = 0;
    const std::string verdict = drive(server.port(), result);
    EXPECT_EQ(1, result);
    EXPECT_NE(verdict.find("verdict: FAIL: 1 of 1 connections lost, 1 wrong answers"), std::string::npos)
        << verdict;
}

TEST(Demo, FindsAByteTooMany) {
    size_t seen = 0;
    CrookedServer server([&](std::string& answer) {
        seen += answer.size();
        if (seen > 100000) {
            answer += 'x';
        }
        return true;
    });
    int result = 0;
    const std::string verdict = drive(server.port(), result);
    EXPECT_EQ(1, result);
    EXPECT_NE(verdict.find("1 wrong answers"), std::string::npos) << verdict;
}

TEST(Demo, FindsAConnectionThatIsLost) {
    size_t seen = 0;
    CrookedServer server([&](std::string& answer) { return (seen += answer.size()) < 100000; });
    int result = 0;
    const std::string verdict = drive(server.port(), result);
    EXPECT_EQ(1, result);
    EXPECT_NE(verdict.find("verdict: FAIL: 1 of 1 connections lost, 0 wrong answers, 64 of"),
              std::string::npos)
        << verdict;
}

TEST(Demo, SaysThatNobodyListens) {
    const int idle = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    ASSERT_EQ(0, bind(idle, reinterpret_cast<sockaddr*>(&address), length));
    ASSERT_EQ(0, getsockname(idle, reinterpret_cast<sockaddr*>(&address), &length));
    int result = 0;
    const std::string verdict = drive(std::to_string(ntohs(address.sin_port)), result);
    EXPECT_EQ(1, result);
    EXPECT_NE(verdict.find("Connection refused"), std::string::npos) << verdict;
    close(idle);
}
