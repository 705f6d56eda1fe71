// The debug console as a whole program: what its operator types, and what an echo server then tells.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "system/ChildProcess.h"
#include "system/TcpClient.h"

using namespace Orvex::Testing;

namespace {

const std::string kFrame(79, '-');

/// The program, behind the lines of its start.
class DebugConsoleTest : public testing::Test {
protected:
    void SetUp() override {
        std::string line;
        do {
            line = m_console.readLine();
            m_start.push_back(line);
        } while (line.rfind("listening on 127.0.0.1:", 0) != 0 && !m_console.hasEnded());
        ASSERT_FALSE(m_console.hasEnded());
        m_port = std::stoi(line.substr(line.rfind(':') + 1));
    }

    /// Types a line; the reply is a frame around a message.
    std::string ask(const std::string& line) {
        m_console.write(line + "\n");
        EXPECT_EQ(kFrame, m_console.readLine());
        EXPECT_EQ("-                             Reticor tips                               -",
                  m_console.readLine());
        EXPECT_EQ(kFrame, m_console.readLine());
        std::string message = m_console.readLine();
        EXPECT_EQ(kFrame, m_console.readLine());
        return message;
    }

    /// The next lines, up to one that holds `last`.
    std::vector<std::string> linesTo(const std::string& last) {
        std::vector<std::string> lines;
        do {
            lines.push_back(m_console.readLine());
        } while (lines.back().find(last) == std::string::npos && !m_console.hasEnded());
        return lines;
    }

    int end() {
        m_console.write("quit\n");
        return m_console.wait();
    }

    ChildProcess m_console{{RETICOR_EXAMPLES_DIR "/debug_console", "--port", "0"}};
    std::vector<std::string> m_start;
    int m_port = 0;
};

TEST_F(DebugConsoleTest, LibraryEntersItsCommand) {
    EXPECT_THAT(m_start, testing::Contains(testing::EndsWith(
                             "InitConsoleDebug Failed! Will not to able use console commands.")));
    m_console.write("what\n");
    EXPECT_EQ("ntf: ntf [-h]", m_console.readLine());
    EXPECT_EQ("quit", m_console.readLine());
    EXPECT_THAT(ask("ntf -S"), testing::StartsWith("The command you entered is incorrect"));
    EXPECT_EQ(end(), 0);
}

TEST_F(DebugConsoleTest, TracesTheDeliveriesOfAnEcho) {
    TcpClient client(m_port);
    EXPECT_TRUE(client.echoes("before\n"));
    EXPECT_EQ("Display socket event all processes.", ask("ntf -S -a"));
    EXPECT_TRUE(client.echoes("traced\n"));
    EXPECT_THAT(m_console.readLine(),
                testing::MatchesRegex(
                    "<Reticor Debug> Enter CNetSock::handle_netevent event->m_obj_id:-[0-9]+ socket:[0-9]+, "
                    "m_revents:1, m_event_mask:1 ret:0, m_set_time:0\\."));
    EXPECT_EQ("Turn off debugging.", ask("ntf -S -off"));
    EXPECT_TRUE(client.echoes("after\n"));
    EXPECT_EQ("Display socket event flow low density.", ask("ntf -S --less")) << "nothing came between";
    EXPECT_EQ(end(), 0);
}

TEST_F(DebugConsoleTest, TracesEveryStepWithHighDensity) {
    TcpClient client(m_port);
    EXPECT_TRUE(client.echoes("before\n"));
    ask("ntf -S --more");
    ask("ntf -S -r");
    EXPECT_TRUE(client.echoes("traced\n"));
    const std::vector<std::string> lines = linesTo("reset_timer");
    ASSERT_EQ(4u, lines.size());
    EXPECT_THAT(lines[0],
                testing::MatchesRegex("<Reticor Debug> Enter CNetSock::handle_net  object:0x[0-9a-f]+, "
                                      "class:.*Connection handle sock event begin at [0-9]+ us, "
                                      "fd:[0-9]+,revents:1\\."));
    EXPECT_THAT(lines[1], testing::HasSubstr("handle sock event end at"));
    EXPECT_THAT(lines[2], testing::HasSubstr("CNetSock::handle_netevent"));
    EXPECT_EQ(end(), 0);
}

TEST_F(DebugConsoleTest, FollowsOneSocketAmongOthers) {
    TcpClient client(m_port);
    TcpClient other(m_port);
    EXPECT_TRUE(client.echoes("one\n"));
    EXPECT_TRUE(other.echoes("two\n"));
    ask("ntf -S -r");
    EXPECT_TRUE(client.echoes("one\n"));
    const std::string line = m_console.readLine();
    const size_t at = line.find("socket:");
    ASSERT_NE(at, std::string::npos) << line;
    const std::string fd = line.substr(at + 7, line.find(',', at) - at - 7);
    m_console.write("ntf -S -fd " + fd + "\n");
    linesTo("Display the event flow sent by this socket:" + fd + ".");
    EXPECT_EQ(kFrame, m_console.readLine());
    EXPECT_TRUE(other.echoes("not traced\n"));
    EXPECT_TRUE(client.echoes("traced\n"));
    EXPECT_THAT(m_console.readLine(), testing::HasSubstr("socket:" + fd + ","));
    EXPECT_EQ("Turn off debugging.", ask("ntf -S -off"));
    EXPECT_EQ(end(), 0);
}

TEST_F(DebugConsoleTest, EndsWithItsInput) {
    TcpClient client(m_port);
    EXPECT_TRUE(client.echoes("there\n"));
    EXPECT_EQ("", m_console.exchange(""));
    EXPECT_EQ(m_console.wait(), 0);
    EXPECT_EQ("", client.receiveAll());
    EXPECT_TRUE(client.wasClosed());
}

}  // namespace
