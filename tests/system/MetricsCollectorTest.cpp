// The example metrics_collector as a whole program: figures come in datagrams, and the table goes out by TCP.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>
#include <string>

#include <gtest/gtest.h>

#include "support/Eventually.h"
#include "support/program/ServerProgram.h"
#include "support/program/TcpClient.h"

using namespace Orvex::Testing;

namespace {

class MetricsCollector : public testing::Test {
protected:
    void SetUp() override {
        const std::string line = m_collector.readLine();
        ASSERT_EQ(0U, line.rfind("figures to 127.0.0.1:", 0)) << line;
        m_to.sin_family = AF_INET;
        m_to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        m_to.sin_port = htons(static_cast<uint16_t>(std::stoi(line.substr(line.rfind(':') + 1))));
    }
    void TearDown() override {
        EXPECT_EQ(0, m_collector.end());
        close(m_sock);
    }

    void send(const std::string& datagram) const {
        EXPECT_EQ(static_cast<ssize_t>(datagram.size()),
                  sendto(m_sock, datagram.data(), datagram.size(), 0,
                         reinterpret_cast<const sockaddr*>(&m_to), sizeof m_to));
    }

    /// Whether the table comes to be this one.
    bool tells(const std::string& rows, int refused) const {
        const std::string table =
            "# name count sum\n" + rows + "# lines refused: " + std::to_string(refused) + "\n";
        return eventually([&] {
            TcpClient reader(m_collector.port());
            return reader.receiveAll() == table && reader.wasClosed();
        });
    }

    ServerProgram m_collector{"metrics_collector", {"--udp-port", "0", "--names", "3"}};
    const int m_sock = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in m_to{};
};

}  // namespace

TEST_F(MetricsCollector, AddsUpWhatComes) {
    EXPECT_TRUE(tells("", 0));
    send("requests 1\nlatency_ms 12.5\n");
    for (int i = 0; i < 99; ++i) {
        send("requests 1");
    }
    send("latency_ms -2.25\nrequests 1e3\n\n");
    EXPECT_TRUE(tells("latency_ms 2 10.25\nrequests 101 1100\n", 0));
}

TEST_F(MetricsCollector, CountsWhatItCannotTake) {
    const std::string longest(64, 'n');
    send("no_number\n twice 1\nwords 1 2\nnothing \nnan nan\nendless inf\n" + longest + "n 1\n");
    EXPECT_TRUE(tells("", 7));
    send("a 1\nb 2\n" + longest + " 3\none_too_many 4\na 5\n");
    EXPECT_TRUE(tells("a 2 6\nb 1 2\n" + longest + " 1 3\n", 8));
}
