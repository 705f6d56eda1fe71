// The debug console as a whole program: what its operator types, and what an echo server then tells.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/program/ChildProcess.h"
#include "support/program/TcpClient.h"

using namespace Orvex::Testing;

namespace {

const std::string kFrame(79, '-');
const std::string kTips = "-                             Reticor tips                               -";
const std::string kDelivered = "CNetSock::handle_netevent";

/// The program, after the lines of its start.
class DebugConsole : public testing::Test {
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

    /// Types a line and waits until it has had its effect; the last message in a frame that it brought.
    /// Traces that come in between are left out: they are of what began before.
    std::string ask(const std::string& line) {
        m_console.write(line + "\n?\n");
        std::string message;
        const std::vector<std::string> lines = linesTo("quit");  // what the console says to "?"
        for (size_t i = 4; i < lines.size(); ++i) {
            const bool framed = lines[i] == kFrame && lines[i - 2] == kFrame && lines[i - 4] == kFrame;
            if (framed && lines[i - 3] == kTips) {
                message = lines[i - 1];
            }
        }
        return message;
    }

    /// The next lines, up to one that holds `last`. Traces do not break frames: those are of one call each,
    /// but can stand between two lines of one, so they are taken out.
    std::vector<std::string> linesTo(const std::string& last) {
        std::vector<std::string> lines;
        do {
            const std::string line = m_console.readLine();
            if (line.rfind("<Reticor Debug>", 0) != 0) {
                lines.push_back(line);
            }
        } while ((lines.empty() || lines.back().find(last) == std::string::npos) && !m_console.hasEnded());
        return lines;
    }

    /// The next trace that holds `text`.
    std::string trace(const std::string& text) {
        std::string line;
        do {
            line = m_console.readLine();
        } while (line.find(text) == std::string::npos && !m_console.hasEnded());
        return line;
    }

    /// A client whose connection is there for good: its first echo has come back.
    TcpClient client() {
        TcpClient connected(m_port);
        EXPECT_TRUE(connected.echoes("before\n"));
        return connected;
    }

    /// The number after `name` in a trace.
    static std::string numberIn(const std::string& line, const std::string& name) {
        const size_t at = line.find(name);
        return at == std::string::npos ? "none"
                                       : line.substr(at + name.size(), line.find(',', at) - at - name.size());
    }

    int end() {
        m_console.write("quit\n");
        return m_console.wait();
    }

    ChildProcess m_console{{RETICOR_EXAMPLES_DIR "/debug_console", "--port", "0"}};
    std::vector<std::string> m_start;
    int m_port = 0;
};

TEST_F(DebugConsole, LibraryEntersItsCommand) {
    EXPECT_THAT(m_start, testing::Contains(testing::EndsWith(
                             "InitConsoleDebug Failed! Will not to able use console commands.")));
    m_console.write("what\n");
    EXPECT_EQ((std::vector<std::string>{"ntf: ntf [-h]", "quit"}), linesTo("quit"));
    EXPECT_THAT(ask("ntf -S"), testing::StartsWith("The command you entered is incorrect"));
    EXPECT_EQ(0, end());
}

TEST_F(DebugConsole, TracesTheDeliveriesOfAnEcho) {
    TcpClient echo = client();
    EXPECT_EQ("Display socket event all processes.", ask("ntf -S -a"));
    EXPECT_TRUE(echo.echoes("traced\n"));
    EXPECT_THAT(trace(kDelivered),
                testing::MatchesRegex(
                    "<Reticor Debug> Enter CNetSock::handle_netevent event->m_obj_id:-[0-9]+ socket:[0-9]+, "
                    "m_revents:1, m_event_mask:1 ret:0, m_set_time:0\\."));
    EXPECT_EQ("Turn off debugging.", ask("ntf -S -off"));
    EXPECT_EQ(0, end());
}

TEST_F(DebugConsole, IsQuietAfterOff) {
    TcpClient echo = client();
    ask("ntf -S -a");
    ask("ntf -S -off");
    EXPECT_TRUE(echo.echoes("any delivery that began before is over now\n"));
    ask("ntf -S -off");
    EXPECT_TRUE(echo.echoes("not traced\n"));
    EXPECT_TRUE(echo.echoes("nor this, and the one before is over\n"));
    m_console.write("?\n");
    int traces = 0;
    for (std::string line; line != "quit" && !m_console.hasEnded();) {
        line = m_console.readLine();
        traces += line.find("<Reticor Debug>") != std::string::npos ? 1 : 0;
    }
    EXPECT_EQ(0, traces);
    EXPECT_EQ(0, end());
}

TEST_F(DebugConsole, TracesEveryStepWithHighDensity) {
    TcpClient echo = client();
    ask("ntf -S --more");
    ask("ntf -S -r");
    EXPECT_TRUE(echo.echoes("traced\n"));
    const std::string begin = trace("::ConnectionBody handle sock event begin at ");
    EXPECT_THAT(begin,
                testing::MatchesRegex("<Reticor Debug> Enter CNetSock::handle_net  object:0x[0-9a-f]+, "
                                      "class:.*ConnectionBody handle sock event begin at [0-9]+ us, "
                                      "fd:[0-9]+,revents:1\\."));
    const std::string fd = numberIn(begin, "fd:");
    EXPECT_THAT(trace("fd:" + fd + ","), testing::HasSubstr("handle sock event end at"));
    EXPECT_THAT(trace("socket:" + fd), testing::HasSubstr(kDelivered));
    EXPECT_THAT(trace("socket:" + fd), testing::HasSubstr("CNetSock::reset_timer timt_out:0"));
    EXPECT_EQ(0, end());
}

TEST_F(DebugConsole, FollowsOneSocketAmongOthers) {
    TcpClient followed = client();
    TcpClient other = client();
    ask("ntf -S --more");
    ask("ntf -S -r");
    EXPECT_TRUE(followed.echoes("which one is it?\n"));
    const std::string fd = numberIn(trace("::ConnectionBody handle sock event begin at "), "fd:");
    EXPECT_EQ("Display the event flow sent by this socket:" + fd + ".", ask("ntf -S -fd " + fd));
    EXPECT_TRUE(other.echoes("not traced\n"));
    EXPECT_TRUE(followed.echoes("traced\n"));
    EXPECT_EQ(fd, numberIn(trace("handle sock event begin at "), "fd:"));
    EXPECT_EQ("Turn off debugging.", ask("ntf -S -off"));
    EXPECT_EQ(0, end());
}

TEST_F(DebugConsole, EndsWithItsInput) {
    TcpClient echo = client();
    EXPECT_EQ("", m_console.exchange(""));
    EXPECT_EQ(0, m_console.wait());
    EXPECT_EQ("", echo.receiveAll());
    EXPECT_TRUE(echo.wasClosed());
}

}  // namespace
