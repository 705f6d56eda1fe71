// The program of docs/first-day.md, step by step: it is built as it is printed (see Samples.cmake).
#include <csignal>
#include <list>
#include <string>

#include <gtest/gtest.h>

#include "support/Eventually.h"
#include "support/program/ChildProcess.h"
#include "support/program/TcpClient.h"

using namespace Orvex::Testing;

namespace {

class FirstDay : public testing::Test {
protected:
    /// Starts a step of the page. Once.
    void begin(const std::string& step) {
        m_program = std::make_unique<ChildProcess>(
            std::vector<std::string>{RETICOR_BUILD_DIR "/samples/first_day_program", step});
        const std::string line = m_program->readLine();
        ASSERT_EQ(0U, line.rfind("listening on 127.0.0.1:", 0)) << line;
        m_port = std::stoi(line.substr(line.rfind(':') + 1));
    }
    void TearDown() override {
        m_program->signal(SIGINT);
        EXPECT_EQ(0, m_program->wait());
    }

    std::unique_ptr<ChildProcess> m_program;
    int m_port = 0;
};

}  // namespace

TEST_F(FirstDay, EchoGivesBack) {
    begin("echo");
    EXPECT_TRUE(TcpClient(m_port).echoes("good morning"));
}

TEST_F(FirstDay, LinesAreCountedAndALongOneIsTheLast) {
    begin("lines");
    {
        TcpClient client(m_port);
        ASSERT_TRUE(client.send("four\n\nfi"));
        EXPECT_EQ("4 letters", client.receiveLine());
        EXPECT_EQ("0 letters", client.receiveLine());
        ASSERT_TRUE(client.send("ve5\n" + std::string(1001, 'x')));
        EXPECT_EQ("5 letters", client.receiveLine());
        EXPECT_EQ("", client.receiveAll());
        EXPECT_TRUE(client.wasClosed());
    }
    const std::string line = m_program->readLine();
    EXPECT_NE(std::string::npos, line.find(": CLOSED")) << line;
}

TEST_F(FirstDay, EverybodyInTheChatHearsTheOthersAlsoBesideOneThatDoesNotRead) {
    constexpr int GUESTS = 200;
    constexpr int LINES = 100;
    begin("chat");
    std::list<TcpClient> guests;
    guests.emplace_back(m_port);  // speaks
    TcpClient deaf(m_port, "127.0.0.1", 4096);
    for (int i = 2; i < GUESTS; ++i) {
        guests.emplace_back(m_port);
    }
    const std::string all_are_here = "guests: " + std::to_string(GUESTS) + ", turned away: 0";
    for (std::string line; line != all_are_here && !m_program->hasEnded();) {
        line = m_program->readLine();
    }
    const std::string text(900, '.');
    for (int i = 0; i < LINES; ++i) {
        ASSERT_TRUE(guests.front().send(std::to_string(i) + text + "\n"));
        for (auto guest = std::next(guests.begin()); guest != guests.end(); ++guest) {
            const std::string line = guest->receiveLine();
            ASSERT_EQ(": " + std::to_string(i) + text, line.substr(std::min(line.find(':'), line.size())));
            if (i > 0 && guest != std::next(guests.begin())) {
                break;  // the first line goes to all of them, and then two of them will do
            }
        }
    }
    EXPECT_TRUE(guests.front().isSilentFor(0)) << "nobody hears what he has said himself";
    EXPECT_FALSE(deaf.isClosed());
}
