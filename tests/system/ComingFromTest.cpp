// The program of docs/coming-from.md: it is built as it is printed (see Samples.cmake), and does what the
// page says.
#include <csignal>
#include <string>

#include <gtest/gtest.h>

#include "support/program/ChildProcess.h"
#include "support/program/TcpClient.h"

using Orvex::Testing::ChildProcess;
using Orvex::Testing::TcpClient;

namespace {

class ComingFrom : public testing::Test {
protected:
    void SetUp() override {
        const std::string line = m_server.readLine();
        ASSERT_EQ(0u, line.find("listening on 127.0.0.1:")) << line;
        m_port = std::stoi(line.substr(line.rfind(':') + 1));
    }

    ChildProcess m_server{{RETICOR_BUILD_DIR "/samples/coming_from_program"}};
    int m_port = 0;
};

}  // namespace

TEST_F(ComingFrom, ServerEchoesAndItsTimerCountsTheClients) {
    {
        TcpClient client(m_port);
        EXPECT_TRUE(client.echoes("back to whoever sent it\n"));
        EXPECT_EQ("clients: 1", m_server.readLine());
    }
    EXPECT_EQ("clients: 0", m_server.readLine());
    m_server.signal(SIGTERM);
    EXPECT_EQ(0, m_server.wait());
}

TEST_F(ComingFrom, ServerKeepsWhatASlowClientDoesNotTake) {
    TcpClient client(m_port, "127.0.0.1", 4096);
    std::string bytes;
    while (bytes.size() < 16000000) {
        bytes += std::to_string(bytes.size()) + " ";
    }
    const size_t sent = client.sendUntilStuck(bytes, 200);
    EXPECT_LT(sent, bytes.size()) << "it reads without an end";
    EXPECT_TRUE(client.receive(sent) == bytes.substr(0, sent));
    m_server.signal(SIGTERM);
    EXPECT_EQ(0, m_server.wait());
}

TEST_F(ComingFrom, ServerClosesWhoeverIsThereAtItsEnd) {
    TcpClient first(m_port);
    TcpClient second(m_port);
    EXPECT_TRUE(first.echoes("1"));
    EXPECT_TRUE(second.echoes("2"));
    m_server.signal(SIGINT);
    EXPECT_EQ("", first.receiveAll());
    EXPECT_EQ("", second.receiveAll());
    EXPECT_TRUE(first.wasClosed());
    EXPECT_EQ(0, m_server.wait());
}
